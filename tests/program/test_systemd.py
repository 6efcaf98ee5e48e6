"""The installed unit under a real service manager of the user: systemd --user, with units, a bus and a cgroup of its own.

Whoever runs this must be allowed to make cgroups (root, outside of most containers); otherwise the tests are skipped.
test_activation.py has the same with a stand-in.
"""

import os
import pathlib
import select
import socket
import subprocess
import unittest

import own_root  # noqa: F401 (it is entered by the import)
import private_bus
import side_by_side
from activation_world import NAME, ROOT, RUN_IT, SENDS, STARTED, ActivationTest
from harness import ORLINTH, PATIENCE

SYSTEMD = "/usr/lib/systemd/systemd"
SOURCE = pathlib.Path(os.environ["ORLINTH_SOURCE"]) / "packaging"

# It wants to find a system that systemd has booted, and to be at the root of a hierarchy of cgroups.
SANDBOX = """
echo $$ > "$1/cgroup.procs"
shift
exec unshare --mount --cgroup --propagation private sh -ec '
    mount --bind "$1" /dev/console  # where it writes its log
    shift
    mount -t tmpfs tmpfs /run
    mkdir -p /run/systemd/system
    mount -t cgroup2 none /sys/fs/cgroup
    exec "$@"' sh "$@"
"""

UNITS = {
    "basic.target": "[Unit]\n",
    "default.target": "[Unit]\nRequires=basic.target dbus.socket\nAfter=basic.target dbus.socket\n",
    "shutdown.target": "[Unit]\nDefaultDependencies=no\n",
    "dbus.socket": "[Socket]\nListenStream=%t/bus\n",
    "dbus.service": "[Unit]\nRequires=dbus.socket\n[Service]\nType=notify\nNotifyAccess=main\n"
                    "ExecStart={bus} --address=systemd: --systemd-activation\n",
}


def hierarchy():
    """Where cgroups of version 2 are."""
    for place in ("/sys/fs/cgroup", "/sys/fs/cgroup/unified"):
        if os.path.exists(f"{place}/cgroup.procs"):
            return pathlib.Path(place)
    raise unittest.SkipTest("there are no cgroups of version 2")


class Systemd(ActivationTest):
    condition = ""  # of the unit: root is an account of the system, for which it is not

    def setUp(self):
        super().setUp()
        self.runtime = self.folder / "run"
        self.runtime.mkdir(mode=0o700)
        self.mac.environment["XDG_RUNTIME_DIR"] = str(self.runtime)
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.runtime}/bus"
        self.start_systemd(self.units(), self.cgroup())

    def units(self):
        folder = self.folder / "units"
        folder.mkdir()
        bus = [word for word in private_bus.command(self.folder, services=self.services)
               if not word.startswith("--print-address")]
        for name, text in UNITS.items():
            (folder / name).write_text(text.format(bus=" ".join(bus)))
        for name in ("dbus/com.tarvinex.orlinth1.service", "systemd/orlinth.service"):
            text = (SOURCE / f"{name}.in").read_text(encoding="utf-8")
            text = text.replace("@ORLINTH_PROGRAM@", ORLINTH).replace("@ORLINTH_README@", "/README.md")
            self.assertNotIn("@O", text)
            if name.startswith("systemd"):
                self.assertIn("\nConditionUser=!@system\n", text)
                text = text.replace("\nConditionUser=!@system\n", f"\n{self.condition}\n")
            ((folder if name.startswith("systemd") else self.services) / pathlib.Path(name).name).write_text(text)
        # the bus asks it to start services, and wants to know how it would start it itself
        (self.services / "org.freedesktop.systemd1.service").write_text(
            "[D-BUS Service]\nName=org.freedesktop.systemd1\nExec=/bin/false\n")
        return folder

    def cgroup(self):
        group = hierarchy() / f"{self.folder.name}"
        try:
            group.mkdir()
        except OSError as error:
            raise unittest.SkipTest(f"no cgroup can be made: {error}") from error

        def remove():
            for folder, _, _ in os.walk(group, topdown=False):
                os.rmdir(folder)
        self.addCleanup(remove)
        return group

    def start_systemd(self, units, group):
        log = self.folder / "systemd.log"
        log.touch()
        nothing = str(self.folder / "nothing")
        environment = {**self.mac.environment, "SYSTEMD_UNIT_PATH": f"{self.mac.config}/systemd/user:{units}",
                       "SYSTEMD_GENERATOR_PATH": nothing, "SYSTEMD_ENVIRONMENT_GENERATOR_PATH": nothing,
                       "NOTIFY_SOCKET": str(self.folder / "ready")}
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notices:
            notices.bind(environment["NOTIFY_SOCKET"])
            process = subprocess.Popen(["sh", "-ec", SANDBOX, "sh", str(group), str(log), SYSTEMD, "--user"],
                                       env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
            self.addCleanup(self.end_systemd, process, group)
            end = os.pidfd_open(process.pid)
            self.addCleanup(os.close, end)
            said = b""
            while b"READY=1" not in said:
                ready = select.select([notices, end], [], [], PATIENCE)[0]
                self.assertIn(notices, ready, self.log())
                said = notices.recv(4096)

    def end_systemd(self, process, group):
        """With whatever it has started: all of it is in this cgroup, and nothing else."""
        (group / "cgroup.kill").write_text("1")
        process.wait(PATIENCE)
        events = group / "cgroup.events"
        with open(events, encoding="ascii") as file:
            self.wait_until(lambda: "populated 0" in self.reread(file), events)

    @staticmethod
    def reread(file):
        file.seek(0)
        return file.read()

    def systemctl(self, *arguments):
        done = subprocess.run(["systemctl", "--user", *arguments], env=self.mac.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)
        return done.stdout.strip() or done.stderr.strip()

    def state_of_file(self):
        """Whether the unit is enabled; systemctl itself would look at the units of this machine."""
        [state] = self.busctl("call", "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                              "org.freedesktop.systemd1.Manager", "GetUnitFileState", "s", "orlinth.service")
        return state

    def log(self):
        return (self.folder / "systemd.log").read_text(errors="replace")


class AsInstalled(Systemd):
    def test_what_is_shared_starts_the_unit_by_the_bus(self):
        phone = self.phone_listens()
        self.assertEqual("inactive", self.systemctl("is-active", "orlinth"))
        done = self.mac.run("share", str(self.file("a.txt", b"some text")))
        self.assertEqual((0, SENDS), (done.returncode, done.stderr), self.log())
        self.wait_for(phone, "received")
        self.assertEqual("active", self.systemctl("is-active", "orlinth"))
        self.assertEqual("disabled", self.state_of_file())

    def test_the_unit_has_its_name_on_the_bus_once_it_is_started(self):
        self.assertEqual("", self.systemctl("start", "orlinth"), self.log())
        self.assertTrue(self.has_name())
        self.assertEqual("", self.systemctl("stop", "orlinth"))
        self.assertFalse(self.has_name())

    def test_the_unit_is_started_anew_when_the_service_asks_for_it(self):
        self.assertEqual("", self.systemctl("start", "orlinth"), self.log())
        first = self.systemctl("show", "-P", "MainPID", "orlinth")
        door = self.mac.data / "Orlinth" / "service.sock"
        before = door.stat().st_ino
        self.busctl("call", NAME, ROOT, f"{NAME}.Service", "Restart")
        self.wait_until(lambda: door.exists() and door.stat().st_ino != before, door)  # after five seconds
        self.assertEqual("1", self.systemctl("show", "-P", "NRestarts", "orlinth"))
        self.assertNotEqual(first, self.systemctl("show", "-P", "MainPID", "orlinth"))
        self.assertEqual(0, self.mac.run("status").returncode)

    def test_a_pairing_enables_and_starts_the_unit(self):
        here, _ = self.pair()
        self.assertTrue(here.endswith(STARTED), here + self.log())
        self.assertEqual("enabled", self.state_of_file())
        self.assertEqual("active", self.systemctl("is-active", "orlinth"))


class ForRoot(Systemd):
    condition = "ConditionUser=!@system"

    def test_the_unit_does_not_run_for_an_account_of_the_system_and_pair_says_what_to_do(self):
        here, _ = self.pair()
        self.assertTrue(here.endswith(RUN_IT), here + self.log())
        self.assertEqual("inactive", self.systemctl("is-active", "orlinth"))


if __name__ == "__main__":
    side_by_side.main()
