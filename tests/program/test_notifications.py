"""What the service shows on a desktop, and what a click does: a test for each kind of notification."""

import os
import shutil
import subprocess
import urllib.parse

import own_root  # noqa: F401 (it is entered by the import)
import private_bus
import side_by_side
from harness import MIB, Identity
from notification_daemon import APPLICATION, FILE_MANAGER, JOBS, NAME, NotificationDaemon
from outbox_world import OutboxTest

SLOWLY = 4 * MIB
LONG = 40 * MIB  # ten seconds of that


def uri(path):
    return "file://" + urllib.parse.quote(str(path))


class NotificationTest(OutboxTest):
    server = "a daemon"
    names = (NAME, FILE_MANAGER, APPLICATION)

    def setUp(self):
        super().setUp()
        self.address = self.bus()
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = self.address
        self.programs = self.folder / "programs"
        self.programs.mkdir()
        self.mac.environment["PATH"] = f"{self.programs}:{os.environ['PATH']}"
        self.mac.record(self.phone)
        self.phone.record(self.mac)
        self.daemon = NotificationDaemon(self.address, self.server, self.names)
        self.addCleanup(self.daemon.close)

    def bus(self):
        folder = self.folder / "bus"
        folder.mkdir()
        daemon = subprocess.Popen(private_bus.command(folder), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.stdout.close)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        return daemon.stdout.readline().decode().strip()

    def program(self, name, script):
        """A program of the desktop that the service finds."""
        path = self.programs / name
        path.write_text("#!/bin/sh\n" + script)
        path.chmod(0o755)

    def tearDown(self):
        for shown in self.daemon.all:
            self.assertEqual(("Orlinth", "", "com.tarvinex.orlinth"),
                             (shown["application"], shown["icon"], shown["hints"]["desktop-entry"]))
            self.assertNotIn("image-path", shown["hints"])
            self.assertNotIn("image-data", shown["hints"])

    def receiving(self, *arguments, **options):
        """The mac's service, at whose port the phone knows it."""
        service = self.serve(self.mac, *arguments, **options)
        self.phone.record(self.mac, service.port)
        return service

    def send(self, *files):
        result = self.phone.run("send", *map(str, files))
        self.assertEqual(0, result.returncode, result.stderr)

    def slow_phone(self):
        service = self.serve(self.phone)
        self.mac.record(self.phone, self.gate(service.port, bytes_per_second=SLOWLY).port)

    def slow_mac(self):
        service = self.serve(self.mac)
        self.phone.record(self.mac, self.gate(service.port, bytes_per_second=SLOWLY).port)
        return service

    def clipboard_service(self, **environment):
        self.mac.environment.update(environment)
        service = self.running(self.mac, "serve", "--port", "0", "--dir", str(self.mac.downloads), "--json")
        service.port = service.events.wait_for("listening")["port"]
        self.phone.record(self.mac, service.port)
        return service

    def clip(self, text):
        result = self.phone.run("clip", "--text", text)
        self.assertEqual(0, result.returncode, result.stderr)


class Notifications(NotificationTest):
    # ---- what comes in

    def test_a_file_is_shown_in_its_folder_by_a_click(self):
        service = self.receiving()
        self.send(self.file("a & <b>.txt", b"x" * 4100))
        shown = self.daemon.wait_for("a & <b>.txt from phone")
        self.assertEqual("4.1 kB in downloads", shown["body"])
        self.assertEqual({"default": "Show in folder", "open": "Open", "show": "Show in folder"}, shown["actions"])
        self.assertEqual(("transfer.complete", 1), (shown["hints"]["category"], shown["hints"]["urgency"]))
        self.daemon.press(shown, "default", "token-1")
        self.assertEqual([("ShowItems", [uri(self.mac.downloads / "a & <b>.txt")], "token-1")],
                         self.daemon.wait_opened())
        self.daemon.press(shown, "default", "token-2")  # once more, as GNOME does for what was replaced
        self.send(self.file("run.sh", b"#!/bin/sh\n"))
        self.daemon.wait_until(lambda: self.daemon.screen, "another")
        self.end(service)
        self.assertEqual(1, len(self.daemon.opened))

    def test_a_file_that_could_run_is_not_offered_to_be_opened(self):
        service = self.receiving()
        self.send(self.file("game.desktop", b"[Desktop Entry]\n"))
        shown = self.daemon.wait_for("game.desktop from phone")
        self.assertEqual({"default", "show"}, set(shown["actions"]))
        self.end(service)
        service = self.receiving()
        self.send(self.file("picture.jpg", b"#!/bin/sh\n"))
        shown = self.daemon.wait_for("picture.jpg from phone")
        self.assertEqual({"default", "show"}, set(shown["actions"]), "its name says nothing")
        self.end(service)

    def test_a_file_is_opened_by_its_button(self):
        opened = self.folder / "opened"
        os.mkfifo(opened)
        self.program("xdg-open", f"printf '%s|%s' \"$1\" \"$XDG_ACTIVATION_TOKEN\" >{opened}\n")
        service = self.receiving()
        self.send(self.file("a.txt", b"a"))
        shown = self.daemon.wait_for("a.txt from phone")
        self.daemon.press(shown, "open", "token-1")
        self.assertEqual(f"{self.mac.downloads / 'a.txt'}|token-1", opened.read_text())
        self.end(service)

    def test_several_files_are_one_notification(self):
        service = self.receiving()
        files = [self.file(f"{i}.jpg", b"x" * 1000) for i in range(12)]
        self.send(*files)
        self.daemon.wait_for("12 files from phone")
        [shown] = self.daemon.screen.values()
        self.assertEqual("downloads, 12 kB", shown["body"])
        self.daemon.press(shown, "default")
        [(_, uris, _)] = self.daemon.wait_opened()
        self.assertEqual(sorted(uri(self.mac.downloads / file.name) for file in files), sorted(uris))
        self.assertLessEqual({quiet["hints"]["urgency"] for quiet in self.daemon.all[1:]}, {0})
        self.end(service)

    def test_a_file_that_takes_long_says_how_far_it_is_and_then_that_it_is_there(self):
        service = self.slow_mac()
        sending = self.running(self.phone, "send", str(self.file("film.mov", os.urandom(LONG))))
        first = self.daemon.wait_for("Receiving film.mov from phone")
        self.assertRegex(first["body"], r"^\d+ % · \d+ s left$")
        self.assertEqual(("transfer", True, 1), tuple(first["hints"][hint]
                                                      for hint in ("category", "resident", "urgency")))
        self.assertEqual({"default", "cancel"}, set(first["actions"]))
        self.assertEqual(0, sending.wait(), sending.stderr)
        shown = self.daemon.wait_for("film.mov from phone")
        self.assertEqual((first["id"], "42 MB in downloads"), (shown["id"], shown["body"]))
        updates = [one for one in self.daemon.all if one["title"].startswith("Receiving")][1:]
        self.assertTrue(updates)
        self.assertLessEqual(len(updates), 8, "one a second")
        self.assertEqual({0}, {one["hints"]["urgency"] for one in updates})
        percents = [one["hints"]["value"] for one in updates]
        self.assertEqual(sorted(percents), percents)
        self.end(service)

    def test_a_file_that_takes_long_is_cancelled(self):
        service = self.slow_mac()
        sending = self.running(self.phone, "send", str(self.file("film.mov", os.urandom(LONG))))
        self.daemon.press(self.daemon.wait_for("Receiving film.mov from phone"), "cancel")
        self.daemon.wait_until(lambda: not self.daemon.screen, "end of it")
        self.assertNotEqual(0, sending.wait())
        self.end(service)
        self.assertFalse((self.mac.downloads / "film.mov").exists())

    # ---- what is sent

    def test_a_batch_that_takes_long_says_how_far_it_is_and_then_that_it_is_sent(self):
        self.slow_phone()
        service = self.serve(self.mac)
        self.share(self.file("film.mov", os.urandom(LONG)))
        first = self.daemon.wait_for("Sending film.mov to phone")
        self.assertEqual(("transfer", True), (first["hints"]["category"], first["hints"]["resident"]))
        self.assertEqual({"default", "cancel"}, set(first["actions"]))
        self.daemon.press(first, "default", "token-1")
        [(_, platform_data)] = self.daemon.wait_opened()
        self.assertEqual("token-1", platform_data["activation-token"])
        shown = self.daemon.wait_for("Sent film.mov to phone")
        self.assertEqual((first["id"], "transfer.complete", True),
                         (shown["id"], shown["hints"]["category"], shown["hints"]["transient"]))
        self.end(service)

    def test_a_batch_that_takes_long_is_cancelled(self):
        self.slow_phone()
        service = self.serve(self.mac)
        self.share(self.file("film.mov", os.urandom(LONG)), self.file("b.txt", b"b"))
        self.daemon.press(self.daemon.wait_for("Sending"), "cancel")
        self.daemon.wait_until(lambda: not self.daemon.screen, "end of it")
        self.wait_until(lambda: not self.batches(), self.outbox)
        self.end(service)

    def test_a_phone_that_is_away_for_a_minute(self):
        service = self.serve(self.mac)
        self.share(self.file("a.txt", b"a"), self.file("b.txt", b"b"))
        waiting = self.daemon.wait_for("Waiting for phone")
        self.assertEqual("It gets 2 files as soon as it is here.", waiting["body"])
        self.assertEqual({"default", "retry", "drop"}, set(waiting["actions"]))
        self.assertEqual(0, waiting["hints"]["urgency"])
        self.phone_listens()
        sent = self.daemon.wait_for("Sent 2 files to phone")
        self.assertEqual(waiting["id"], sent["id"])
        self.end(service)

    def test_what_the_phone_declines_can_be_tried_again(self):
        receiving = self.serve(self.phone, "--accept", "never")
        self.mac.record(self.phone, receiving.port)
        service = self.serve(self.mac)
        self.share(self.file("a.txt", b"a"))
        shown = self.daemon.wait_for("Could not send a.txt to phone")
        self.assertEqual("The phone declined it. Try again, and accept it on the phone.", shown["body"])
        self.assertEqual("transfer.error", shown["hints"]["category"])
        self.end(receiving)
        self.phone_listens()
        self.daemon.press(shown, "retry")
        self.daemon.wait_for("Sent a.txt to phone")
        self.end(service)
        self.assert_nothing_left()

    def test_what_the_phone_declines_can_be_dropped(self):
        receiving = self.serve(self.phone, "--accept", "never")
        self.mac.record(self.phone, receiving.port)
        service = self.serve(self.mac)
        self.share(self.file("a.txt", b"a"))
        shown = self.daemon.wait_for("Could not send a.txt to phone")
        self.wait_until(lambda: self.set_aside.exists() and list(self.set_aside.iterdir()), self.set_aside)
        self.daemon.press(shown, "drop")
        self.wait_until(lambda: not list(self.set_aside.iterdir()), self.set_aside)
        self.end(service)

    # ---- questions, texts, phones, trouble

    def test_an_offer_is_accepted_by_a_button(self):
        service = self.receiving("--accept", "ask")
        sending = self.running(self.phone, "send", str(self.file("a.txt", b"a")))
        self.daemon.wait_until(lambda: any("accept" in one["actions"] for one in self.daemon.all), "question")
        [question] = [one for one in self.daemon.all if "accept" in one["actions"]]
        self.assertEqual(("phone wants to send a.txt", "1 byte"), (question["title"], question["body"]))
        self.assertNotIn("default", question["actions"], "a click must not be an answer")
        self.assertEqual(2, question["hints"]["urgency"])
        self.daemon.press(question, "accept")
        self.assertEqual(0, sending.wait(), sending.stderr)
        self.daemon.wait_for("a.txt from phone")
        self.end(service)

    def test_a_text_on_the_clipboard(self):
        self.program("xclip", "cat >/dev/null\n")
        service = self.clipboard_service(DISPLAY=":9")
        self.clip("correct horse")
        shown = self.daemon.wait_for("Text from phone")
        self.assertEqual("13 characters, on the clipboard", shown["body"])
        self.assertEqual(("im.received", True), (shown["hints"]["category"], shown["hints"]["transient"]))
        self.assertEqual({"default"}, set(shown["actions"]))
        self.end(service)
        self.assertNotIn("horse", str(self.daemon.all))

    def test_a_text_that_is_not_on_the_clipboard_is_copied_by_a_button(self):
        broken = self.folder / "broken"
        broken.touch()
        self.program("xclip", f"cat >/dev/null\ntest ! -e {broken}\n")
        service = self.clipboard_service(DISPLAY=":9")
        self.clip("correct horse")
        shown = self.daemon.wait_for("Text from phone")
        self.assertEqual("13 characters, not on the clipboard", shown["body"])
        broken.unlink()
        self.daemon.press(shown, "copy")
        self.daemon.wait_until(lambda: self.daemon.all[-1]["body"] == "13 characters, on the clipboard", "copy")
        self.end(service)

    def test_a_link_is_opened_by_a_button_that_shows_its_host_alone(self):
        opened = self.folder / "opened"
        os.mkfifo(opened)
        self.program("xdg-open", f"printf '%s' \"$1\" >{opened}\n")
        service = self.clipboard_service()
        self.clip("https://example.org/path?token=secret\n")
        shown = self.daemon.wait_for("Text from phone")
        self.assertEqual("Open example.org", shown["actions"]["open-link"])
        self.assertNotIn("secret", str(self.daemon.all))
        self.daemon.press(shown, "open-link")
        self.assertEqual("https://example.org/path?token=secret", opened.read_text())
        self.end(service)

    def test_phones_that_come_and_go(self):
        service = self.receiving()
        tablet = Identity(self.folder, "tablet")
        self.mac.record(tablet)
        self.assertEqual("device.added", self.daemon.wait_for("tablet is paired")["hints"]["category"])
        self.assertEqual(0, self.phone.run("peers", "remove", self.mac.name).returncode)
        self.assertEqual("device.removed",
                         self.daemon.wait_for("phone has removed this computer")["hints"]["category"])
        self.assertEqual(2, len(self.daemon.all))
        self.end(service)

    def test_a_folder_that_cannot_be_written_to(self):
        service = self.receiving()
        shutil.rmtree(self.mac.downloads)
        self.mac.downloads.write_text("no folder")
        self.assertNotEqual(0, self.phone.run("send", str(self.file("a.txt", b"a"))).returncode)
        shown = self.daemon.wait_for("Orlinth cannot receive")
        self.assertIn("cannot be saved in", shown["body"])
        self.assertEqual(("device.error", 2), (shown["hints"]["category"], shown["hints"]["urgency"]))
        self.mac.downloads.unlink()
        self.mac.downloads.mkdir()
        self.send(self.file("b.txt", b"b"))
        self.daemon.wait_for("b.txt from phone")
        self.daemon.wait_until(lambda: len(self.daemon.screen) == 1, "end of the trouble")
        self.end(service)


class OnGnome(NotificationTest):
    """GNOME brings the application to the front itself if a notification has no action for a click."""
    server = "gnome-shell"

    def test_a_click_that_is_for_the_window_is_left_to_the_desktop(self):
        service = self.clipboard_service()
        self.clip("correct horse")
        self.assertNotIn("default", self.daemon.wait_for("Text from phone")["actions"])
        self.send(self.file("a.txt", b"a"))
        self.assertIn("default", self.daemon.wait_for("a.txt from phone")["actions"])
        self.end(service)


class OnKde(NotificationTest):
    """Plasma shows the progress of jobs; then there is no notification of it."""
    names = (NAME, FILE_MANAGER, APPLICATION, JOBS)

    def test_a_file_that_takes_long_is_a_job(self):
        service = self.slow_mac()
        sending = self.running(self.phone, "send", str(self.file("film.mov", os.urandom(LONG))))
        self.assertEqual(0, sending.wait(), sending.stderr)
        self.daemon.wait_for("film.mov from phone")
        said = self.daemon.wait_for_job("terminate")
        self.assertEqual(("requestView", "com.tarvinex.orlinth", 1, {"immediate": True}), said[0])
        self.assertEqual(("terminate", 0, "", {}), said[-1])
        updates = [values for member, values in said[1:-1]]
        self.assertEqual({"Receiving film.mov from phone"}, {values["title"] for values in updates})
        self.assertEqual({LONG}, {values["totalBytes"] for values in updates})
        steps = [values["processedBytes"] for values in updates]
        self.assertEqual(sorted(steps), steps)
        self.assertLessEqual(len(updates), 10, "one a second")
        self.assertEqual(["film.mov from phone"], [one["title"] for one in self.daemon.all])
        self.end(service)

    def test_a_job_is_cancelled(self):
        self.slow_phone()
        service = self.serve(self.mac)
        self.share(self.file("film.mov", os.urandom(LONG)))
        said = self.daemon.wait_for_job("update")
        self.assertEqual("Sending film.mov to phone", said[1][1]["title"])
        self.daemon.cancel_job("/JobViewServer/JobView_1")
        self.daemon.wait_for_job("terminate")
        self.wait_until(lambda: not self.batches(), self.outbox)
        self.end(service)
        self.assertEqual([], self.daemon.all)


if __name__ == "__main__":
    side_by_side.main()
