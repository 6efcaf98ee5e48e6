"""The service starts when it is needed: by the session's bus, or by the user's service manager, for which a stand-in is
here. It starts anew when its program was replaced."""

import json
import os
import shutil
import socket
import subprocess

import side_by_side
from activation_world import BY_HAND, NAME, ROOT, RUN_IT, SENDS, STARTED, ActivationTest
from harness import ORLINTH, PATIENCE, Identity

SHARE = os.environ["ORLINTH_SHARE"]
RESTART = 75


class Sharing(ActivationTest):
    def sheet(self, *files):
        return subprocess.run([SHARE, *map(str, files)], env=self.mac.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)

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
        manager.wait_for("started")
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
        manager.wait_for("exited 2")

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
    def test_a_pairing_enables_and_starts_the_service_and_says_so(self):
        self.bus()
        manager = self.manager()
        here, there = self.pair()
        self.assertTrue(here.endswith(STARTED), here)
        self.assertTrue(there.endswith(RUN_IT), there)
        manager.wait_for("started")
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
        for name, has_bus in (("tablet", False), ("laptop", True)):
            if has_bus:
                self.bus()
            here, there = self.pair(name=name)
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
