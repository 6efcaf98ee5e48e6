"""What the tests of starting the service share: a computer with a bus of its own, and whoever starts services there."""

import json
import os
import select
import signal
import socket
import subprocess
import threading

import private_bus
from harness import BUILD, ORLINTH, PATIENCE, Identity, unused_port
from outbox_world import OutboxTest

USER_MANAGER = BUILD / "tests" / "interop" / "user_manager"
NAME = "com.tarvinex.orlinth1"
ROOT = "/com/tarvinex/orlinth1"
BY_HAND = "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`\n"
SENDS = "The service sends it now, or as soon as the phone can be reached.\n"
STARTED = ("The Orlinth service is running now, and starts whenever you log in. To switch it off: "
           "`systemctl --user disable --now orlinth`\n")
RUN_IT = ("The Orlinth service is not running. To receive files, and to send what you share, run "
          "`orlinth serve`.\n")


class Lines(threading.Thread):
    """What a program writes, line by line."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream, self.all, self.changed, self.ended = stream, [], threading.Condition(), False
        self.start()

    def run(self):
        for line in self.stream:
            with self.changed:
                self.all.append(line.strip())
                self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def wait_for(self, line, count=1):
        with self.changed:
            self.changed.wait_for(lambda: self.ended or self.all.count(line) >= count, PATIENCE)
            if self.all.count(line) < count:
                raise AssertionError(f"no {line}, only {self.all}")


class ActivationTest(OutboxTest):
    """`mac` has the usual data folder and a bus; `phone` receives."""

    def setUp(self):
        super().setUp()
        self.mac.environment.pop("XDG_DATA_HOME")
        self.mac.data = self.mac.root / ".local" / "share"
        self.mac.environment["XDG_RUNTIME_DIR"] = str(self.folder)
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.folder}/bus"
        self.mac.environment["QT_QPA_PLATFORM"] = "offscreen"
        settings = self.mac.config / "orlinth"
        settings.mkdir(parents=True)
        (settings / "config.toml").write_text(
            f'[serve]\nport = 0\ndir = "{self.mac.downloads}"\nno-clipboard = true\n')
        self.mac.record(self.phone)
        self.phone.record(self.mac)
        self.services = self.folder / "services"
        self.services.mkdir()
        self.pid = self.folder / "pid"

    def started(self, command):
        """A program that is ended with the test, once it has said its first line, and its lines."""
        process = subprocess.Popen(list(map(str, command)), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   stdin=subprocess.DEVNULL, env=self.mac.environment, encoding="utf-8")
        lines = Lines(process.stdout)

        def end():
            process.terminate()
            process.wait(PATIENCE)
            lines.join(PATIENCE)
            process.stdout.close()
        self.addCleanup(end)
        with lines.changed:
            lines.changed.wait_for(lambda: lines.ended or lines.all, PATIENCE)
        self.assertTrue(lines.all, f"{command} has ended")
        return process, lines

    def bus(self, program=None):
        """A bus that starts this program for whoever asks for the service; without one, it starts nothing."""
        # as on most systems, also where there is no systemd
        (self.services / "org.freedesktop.systemd1.service").write_text(
            "[D-BUS Service]\nName=org.freedesktop.systemd1\nExec=/bin/false\n")
        if program is not None:
            (self.services / f"{NAME}.service").write_text(
                f'[D-BUS Service]\nName={NAME}\nExec="{program}" serve\nSystemdService=orlinth.service\n')
        self.started(private_bus.command(self.folder, services=self.services))

    def service_program(self):
        """What the bus runs: the service, which is ended with the test."""
        script = self.folder / "service"
        script.write_text(f'#!/bin/sh\necho $$ > "{self.pid}"\nexec "{ORLINTH}" "$@" > "{self.folder}/log" 2>&1\n')
        script.chmod(0o755)
        self.addCleanup(self.end_service)
        return script

    def end_service(self):
        if not self.pid.exists():
            return
        try:
            process = os.pidfd_open(int(self.pid.read_text()))
        except ProcessLookupError:
            return
        try:
            signal.pidfd_send_signal(process, signal.SIGTERM)
            self.assertTrue(select.select([process], [], [], PATIENCE)[0], "the service does not end")
        except ProcessLookupError:
            pass  # it has ended
        finally:
            os.close(process)

    def manager(self, *arguments, program=ORLINTH):
        """The stand-in for systemd, which has our unit."""
        return self.started([USER_MANAGER, "orlinth.service", program, "serve", *arguments])[1]

    def busctl(self, *arguments, status=0):
        done = subprocess.run(["busctl", f"--address={self.mac.environment['DBUS_SESSION_BUS_ADDRESS']}",
                               "--json=short", *arguments], capture_output=True, text=True, timeout=PATIENCE,
                              check=False)
        self.assertEqual(status, done.returncode, done.stderr)
        return json.loads(done.stdout)["data"] if status == 0 and done.stdout.strip() else done.stderr

    def has_name(self):
        return self.busctl("call", "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", "s", NAME) == [True]

    def ask(self, request):
        """What the service answers on its socket, once it has one."""
        door = self.mac.data / "Orlinth" / "service.sock"
        self.wait_until(door.exists, door)
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(PATIENCE)
            connection.connect(str(door))
            connection.sendall(json.dumps(request).encode() + b"\n")
            return json.loads(connection.makefile().readline())

    def pair(self, *arguments, name="tablet"):
        """What `mac` and somebody of this name say on standard error when they pair, which goes well."""
        tablet = Identity(self.folder, name)
        program = self.running(self.mac, "pair", "--port", "0", "--interface", "lo", "--no-advertise", "--yes", "--json",
                               *arguments)
        payload = program.events.wait_for("payload")["payload"]
        joined = tablet.run("join", "--payload", "-", "--yes", "--listen-port", str(unused_port()), *arguments,
                            input=json.dumps(payload))
        self.assertEqual(0, joined.returncode, joined.stderr)
        self.assertEqual(0, program.wait(), program.stderr)
        return program.stderr, joined.stderr
