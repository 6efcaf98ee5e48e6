"""The service starts when it is needed: by the session's bus, or by the user's service manager, for which a stand-in is
here. It starts anew when its program was replaced."""

import json
import os
import select
import shutil
import signal
import socket
import subprocess
import threading

import private_bus
import side_by_side
from harness import BUILD, ORLINTH, PATIENCE, Identity, unused_port
from outbox_world import OutboxTest

SHARE = os.environ["ORLINTH_SHARE"]
USER_MANAGER = BUILD / "tests" / "interop" / "user_manager"
NAME = "com.tarvinex.orlinth1"
ROOT = "/com/tarvinex/orlinth1"
BY_HAND = "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`\n"
SENDS = "The service sends it now, or as soon as the phone can be reached.\n"
STARTED = ("The Orlinth service is running now, and starts whenever you log in. To switch it off: "
           "`systemctl --user disable --now orlinth`\n")
RUN_IT = ("The Orlinth service is not running. To receive files, and to send what you share, run "
          "`orlinth serve`.\n")
RESTART = 75


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

    def sheet(self, *files):
        return subprocess.run([SHARE, *map(str, files)], env=self.mac.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)

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
        """What the running service answers on its socket."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(PATIENCE)
            connection.connect(str(self.mac.data / "Orlinth" / "service.sock"))
            connection.sendall(json.dumps(request).encode() + b"\n")
            return json.loads(connection.makefile().readline())


class Sharing(ActivationTest):
    def share(self, *files, **options):
        done = self.mac.run("share", *map(str, files), **options)
        self.assertEqual(0, done.returncode, done.stderr)
        return done.stderr

    def test_what_is_shared_from_the_terminal_starts_the_service_by_the_bus(self):
        phone = self.phone_listens()
        self.bus(self.service_program())
        done = self.mac.run("share", "--json", str(self.file("a.txt", b"some text")))
        self.assertEqual((0, SENDS), (done.returncode, done.stderr))
        self.assertTrue(json.loads(done.stdout)["service_running"])
        self.wait_for(phone, "received")
        self.assertEqual(b"some text", (self.phone.downloads / "a.txt").read_bytes())
        self.assertTrue(self.has_name())

    def test_what_is_shared_from_the_file_manager_starts_the_service_by_the_bus(self):
        phone = self.phone_listens()
        self.bus(self.service_program())
        for count, name in enumerate(("a.txt", "b.txt"), 1):  # the second finds it running
            done = self.sheet(self.file(name, b"some text"))
            self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
            self.wait_for(phone, "received", count)
        self.assertEqual(b"some text", (self.phone.downloads / "a.txt").read_bytes())

    def test_what_is_shared_starts_the_service_by_its_unit(self):
        phone = self.phone_listens()
        self.bus()
        manager = self.manager()
        self.assertEqual(SENDS, self.share(self.file("a.txt", b"a")))
        self.wait_for(phone, "received")
        self.assertEqual(["ready", "StartUnit orlinth.service", "started"], manager.all)
        self.assertEqual(SENDS, self.share(self.file("b.txt", b"b")))
        self.wait_for(phone, "received", 2)
        self.assertEqual(["ready", "StartUnit orlinth.service", "started"], manager.all)

    def test_the_sheet_starts_the_service_by_its_unit(self):
        phone = self.phone_listens()
        self.bus()
        self.manager()
        done = self.sheet(self.file("a.txt", b"a"))
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
        self.wait_for(phone, "received")

    def test_where_nobody_starts_services_the_person_is_told_what_to_do(self):
        self.phone_listens()
        for has_bus in (False, True):
            if has_bus:
                self.bus()
            self.assertEqual(BY_HAND, self.share(self.file("a.txt", b"a")))
            done = self.sheet(self.file("b.txt", b"b"))
            self.assertEqual((0, "", "orlinth-share: " + BY_HAND), (done.returncode, done.stdout, done.stderr))
        self.assertEqual(4, len(self.batches()))
        service = self.serve(self.mac)
        self.wait_for(service, "outbox_done", 4)
        self.end(service)

    def test_a_service_that_does_not_start_is_said_to_have_failed(self):
        self.phone_listens()
        self.bus("/bin/false")
        said = self.share(self.file("a.txt", b"a"))
        self.assertRegex(said, r"\AThe Orlinth service cannot be started: .+\. Files will be sent once it runs\. "
                               r"To see what is wrong: `orlinth serve`\n\Z")
        self.assertEqual("orlinth-share: " + said, self.sheet(self.file("b.txt", b"b")).stderr)
        manager = self.manager("--port", "nonsense")
        self.assertIn("cannot be started: systemd reports: failed.", self.share(self.file("c.txt", b"c")))
        self.assertIn("exited 2", manager.all)

    def test_nothing_is_started_for_whoever_has_no_phone(self):
        self.bus(self.service_program())
        self.assertEqual(0, self.mac.run("peers", "remove", "phone").returncode)
        self.assertEqual(1, self.mac.run("share", str(self.file("a.txt", b"a"))).returncode)
        self.assertFalse(self.pid.exists())

    def test_nothing_is_started_for_another_data_folder(self):
        other = Identity(self.folder, "other")
        other.record(self.phone)
        other.environment["DBUS_SESSION_BUS_ADDRESS"] = self.mac.environment["DBUS_SESSION_BUS_ADDRESS"]
        self.bus(self.service_program())
        done = other.run("share", str(self.file("a.txt", b"a")))
        self.assertEqual((0, BY_HAND), (done.returncode, done.stderr))
        self.assertFalse(self.pid.exists())

    def test_the_service_has_its_name_before_it_says_that_it_is_ready(self):
        self.bus()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notices:
            notices.settimeout(PATIENCE)
            notices.bind(str(self.folder / "notify"))
            self.mac.environment["NOTIFY_SOCKET"] = str(self.folder / "notify")
            service = self.running(self.mac, "serve", "--json")
            while b"READY=1" not in notices.recv(4096):
                pass
            self.assertTrue(self.has_name())
            self.end(service)


class Consent(ActivationTest):
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

    def test_a_pairing_enables_and_starts_the_service_and_says_so(self):
        self.bus()
        manager = self.manager()
        here, there = self.pair()
        self.assertTrue(here.endswith(STARTED), here)
        self.assertTrue(there.endswith(RUN_IT), there)
        self.assertEqual(["ready", "EnableUnitFiles orlinth.service", "Reload", "StartUnit orlinth.service", "started"],
                         manager.all)
        self.assertEqual(0, self.mac.run("status").returncode)
        here, _ = self.pair(name="phone 2")  # beside the service
        self.assertNotIn("The Orlinth service", here)
        self.assertEqual(5, len(manager.all))

    def test_a_pairing_leaves_the_service_alone_if_it_is_asked_to(self):
        self.bus()
        manager = self.manager()
        here, there = self.pair("--no-enable")
        self.assertEqual(["ready"], manager.all)
        self.assertNotIn("The Orlinth service", here + there)
        self.assertEqual(1, self.mac.run("status").returncode)

    def test_a_pairing_without_a_service_manager_says_what_to_do(self):
        here, there = self.pair()
        self.assertTrue(here.endswith(RUN_IT), here)
        self.assertTrue(there.endswith(RUN_IT), there)


class StartingAnew(ActivationTest):
    def serve_under_manager(self, **options):
        self.mac.environment["ORLINTH_RESTART_STATUS"] = str(RESTART)
        return self.serve(self.mac, **options)

    def test_whoever_asks_by_the_socket_is_answered_and_the_service_ends_for_its_manager(self):
        self.bus()
        service = self.serve_under_manager()
        self.assertEqual({"found": True}, self.ask({"request": "restart"}))
        self.assertEqual(RESTART, service.wait(), service.stderr)
        service = self.serve(self.mac)
        self.assertEqual(0, self.mac.run("status").returncode)
        self.end(service)

    def test_whoever_asks_by_the_bus_is_answered_and_the_service_ends_for_its_manager(self):
        self.bus()
        service = self.serve_under_manager()
        self.busctl("call", NAME, ROOT, f"{NAME}.Service", "Restart")
        self.assertEqual(RESTART, service.wait(), service.stderr)

    def test_a_service_that_nobody_would_start_again_stays_and_says_so(self):
        self.bus()
        for promised in (None, "0", "7", "75 ", "seventy-five", ""):
            self.mac.environment.pop("ORLINTH_RESTART_STATUS", None)
            if promised is not None:
                self.mac.environment["ORLINTH_RESTART_STATUS"] = promised
            service = self.serve(self.mac)
            self.assertEqual({"error": "no service manager would start the service again"},
                             self.ask({"request": "restart"}))
            self.assertIn("no service manager would start the service again",
                          self.busctl("call", NAME, ROOT, f"{NAME}.Service", "Restart", status=1))
            self.end(service)

    def test_a_replaced_program_is_started_anew_once_there_is_nothing_to_do(self):
        self.bus()
        program = self.folder / "bin" / "orlinth"
        program.parent.mkdir()
        shutil.copy(ORLINTH, program)
        manager = self.manager(program=program)
        self.assertEqual(SENDS, self.mac.run("share", str(self.file("a.txt", b"a"))).stderr)
        first = self.ask({"request": "port"})["since_epoch_ms"]
        shutil.copy(ORLINTH, self.folder / "bin" / ".orlinth.new")
        (self.folder / "bin" / ".orlinth.new").rename(program)
        self.assertEqual(first, self.ask({"request": "port", "version": "0.0.1"})["since_epoch_ms"])
        manager.wait_for(f"exited {RESTART}")  # after a minute
        manager.wait_for("started", 2)
        self.assertGreaterEqual(self.ask({"request": "port"})["since_epoch_ms"], first + 60_000)


if __name__ == "__main__":
    side_by_side.main()
