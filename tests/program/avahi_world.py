"""A small network of its own with a system bus and an Avahi daemon: what DNS-SD is tested with.

    with AvahiWorld() as world:
        world.start_daemon()
        world.run(["avahi-browse", "-rpt", "_http._tcp"])

Everything is in a network and a mount namespace of its own: nothing of it is seen outside, and nothing from outside in
it. Needs root (own_root). Files elsewhere than in /run are those of the machine.
"""

import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile
import threading

import private_bus
from harness import PATIENCE

DAEMON = """[server]
host-name=testhost
use-ipv4=yes
use-ipv6=yes
enable-dbus=yes
ratelimit-interval-usec=0
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
[reflector]
[rlimits]
"""

# Two interfaces that are the two ends of one cable, and the loopback one. The addresses need no look for others like
# them, so that they can be used at once.
#
# The daemon gives its folder to its user, and root of a user namespace can give nothing but to root: so that user is root.
SETUP = """
mount -t tmpfs tmpfs /run
{ echo avahi:x:0:0::/:/bin/false; cat /etc/passwd; } > /run/passwd
{ echo avahi:x:0:; cat /etc/group; } > /run/group
mount --bind /run/passwd /etc/passwd
mount --bind /run/group /etc/group
echo 0 > /proc/sys/net/ipv6/conf/default/accept_dad 2> /dev/null || true
ip link set lo up
ip link add near type veth peer name far
ip address add 192.168.77.1/24 dev near
ip address add 192.168.78.1/24 dev far
ip link set near up
ip link set far up
echo ready
exec cat
"""


class Lines(threading.Thread):
    """Reads the lines of a running program, so that it never has to wait for that."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream = stream
        self.all = []
        self.ended = False
        self.changed = threading.Condition()
        self.start()

    def run(self):
        for line in self.stream:
            with self.changed:
                self.all.append(line.decode(errors="replace").rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()
        self.stream.close()

    def wait_for(self, condition, what):
        """The first line that meets the condition."""
        def first():
            return next((line for line in self.all if condition(line)), None)

        with self.changed:
            self.changed.wait_for(lambda: self.ended or first() is not None, PATIENCE)
            found = first()
            if found is None:
                raise AssertionError(f"no {what}, only {self.all}")
            return found


class MuteBus:
    """A system bus that accepts connections and then says nothing."""

    def __init__(self, path):
        self.path = path
        self.ends = []
        self.silent = 0
        self.changed = threading.Condition()
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(str(path))
        self.listener.listen()
        self.threads = [threading.Thread(target=self._accept, daemon=True)]
        self.threads[0].start()

    def _accept(self):
        while True:
            try:
                end = self.listener.accept()[0]
            except OSError:
                return
            self.ends.append(end)
            with self.changed:
                self.silent += 1
                self.changed.notify_all()

    def wait_for_silence(self, count=1):
        """Until so many connections have been left without an answer."""
        with self.changed:
            if not self.changed.wait_for(lambda: self.silent >= count, PATIENCE):
                raise AssertionError(f"only {self.silent} connections were left without an answer")

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.threads[0].join(PATIENCE)
        for end in self.ends:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # its other side has gone
        for thread in self.threads:
            thread.join(PATIENCE)
        for end in self.ends:
            end.close()
        self.path.unlink()


class AvahiWorld:
    ADDRESS = "192.168.77.1"
    INTERFACE = "near"

    def __enter__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="orlinth-avahi-"))
        self.holder = self.bus = self.daemon = None
        try:
            self._enter()
        except BaseException:
            self.__exit__()
            raise
        return self

    def _enter(self):
        self.holder = subprocess.Popen(
            ["unshare", "--net", "--mount", "--propagation", "private", "sh", "-ec", SETUP],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        said = []
        while not said or said[-1] != "ready":
            line = self.holder.stdout.readline().decode()
            if not line:
                raise AssertionError(f"no namespace: {said}")
            said.append(line.strip())
        self.reached_at = self.folder / "bus"
        (self.folder / "avahi.conf").write_text(DAEMON)
        self.start_bus()

    def __exit__(self, *_):
        self.stop_daemon()
        self.stop_bus()
        if self.holder is not None:
            self.holder.stdin.close()  # it ends by itself, and with it the namespaces
            self.holder.wait(PATIENCE)
            self.holder.stdout.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    @property
    def environment(self):
        """For programs that are to find the bus; to be run with `inside`."""
        return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.reached_at}"}

    def inside(self, arguments):
        """The command line that runs these arguments in the namespaces, as a process that may be signalled."""
        return ["nsenter", f"--target={self.holder.pid}", "--net", "--mount", "--", *map(str, arguments)]

    def run(self, arguments, **options):
        """Runs a program to its end; text streams."""
        options.setdefault("stdin", subprocess.DEVNULL)
        return subprocess.run(self.inside(arguments), env=self.environment, capture_output=True, text=True,
                              timeout=PATIENCE, check=False, **options)

    def start_bus(self):
        self.bus, lines = self._spawn(private_bus.command(self.folder, kind="system"))
        lines.wait_for(lambda line: line.startswith("unix:path="), "bus")

    def stop_bus(self):
        self._end("bus")
        if self.folder:
            (self.folder / "bus").unlink(missing_ok=True)

    def signal_bus(self, number):
        self.bus.send_signal(number)

    def mute_bus(self):
        """Programs from now on find a bus that answers that many connections, and no further ones."""
        self.reached_at = self.folder / "mute"
        return MuteBus(self.reached_at)

    def start_daemon(self):
        """Returns when it announces, and answers on the bus."""
        self.daemon, lines = self._spawn(["avahi-daemon", f"--file={self.folder}/avahi.conf", "--no-drop-root",
                                          "--no-chroot", "--no-rlimits"])
        lines.wait_for(lambda line: "Server startup complete" in line, "Avahi daemon")

    def stop_daemon(self):
        self._end("daemon")

    def signal_daemon(self, number):
        self.daemon.send_signal(number)

    def _spawn(self, arguments):
        # should the test be killed, nothing of it stays
        process = subprocess.Popen(["setpriv", "--pdeathsig=KILL", *self.inside(arguments)],
                                   env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        return process, Lines(process.stdout)

    def _end(self, which):
        process = getattr(self, which)
        setattr(self, which, None)
        if process is None:
            return
        process.terminate()
        process.send_signal(signal.SIGCONT)  # it may have been stopped
        try:
            process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait(PATIENCE)
