"""What is under way can be watched by people, and ended in either direction, by commands. What scripts are told is in
test_both_faces.py."""

import json
import re
import socket
import subprocess

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from harness import MIB, ORLINTH, PATIENCE
from outbox_world import OutboxTest
from terminal import Terminal

SLOWLY = 4 * MIB


class Status(OutboxTest):
    def lines(self, identity, *arguments, status=0):
        result = identity.run(*arguments, "--json")
        self.assertEqual(status, result.returncode, result.stderr)
        return [json.loads(line) for line in result.stdout.splitlines()]

    def watch(self, identity):
        watcher = self.running(identity, "status", "--watch", "--json")
        watcher.events.wait_for("current")
        return watcher

    def slow_phone(self):
        """The phone's service behind a slow way, at which the mac knows it."""
        service = self.serve(self.phone)
        gate = self.gate(service.port, bytes_per_second=SLOWLY)
        self.mac.record(self.phone, gate.port)
        return service

    def seen(self, watcher, **fields):
        """The first line with these fields that the watcher has got."""
        return self.wait_for(watcher, fields.pop("event"), **fields)[0]

    def test_without_a_service_it_says_so(self):
        result = self.mac.run("status")
        self.assertEqual(1, result.returncode)
        self.assertEqual("", result.stdout)
        self.assertEqual("orlinth: the service does not run\nTo start it: `orlinth serve`\n", result.stderr)
        self.assertEqual(1, self.mac.run("status", "--watch", "--json").returncode)
        for odd in ("x", "0", "1.5", "9" * 19, ""):
            result = self.mac.run("cancel", odd)
            self.assertEqual(2, result.returncode)
            self.assertIn(f"'{odd}' is no number of a transfer", result.stderr)
        self.assert_one_line_error(self.mac.run("cancel", "1").stderr,
                                   "the service does not run, so that nothing of it is under way")
        self.mac.environment.pop("XDG_DATA_HOME")  # the usual folder: its service is known to a service manager
        self.assertEqual("To start it: `systemctl --user enable --now orlinth`",
                         self.mac.run("status").stderr.splitlines()[1])

    def test_an_idle_service(self):
        service = self.serve(self.mac)
        lines = self.lines(self.mac, "status")
        self.assertEqual(["service", "phone", "current"], [line["event"] for line in lines])
        self.assertEqual({"event": "service", "state": "listening", "port": service.port,
                          "downloads": str(self.mac.downloads), "name": socket.gethostname()}, lines[0])
        self.assertGreater(lines[1].pop("paired_at_epoch_ms"), 1_700_000_000_000)
        self.assertEqual({"event": "phone", "peer_pubkey": self.phone.key, "name": "phone", "state": "unknown",
                          "seen_epoch_ms": 0, "can_wake": False, "address": "127.0.0.1"}, lines[1])
        result = self.mac.run("status")
        self.assertEqual(f"Receives at port {service.port}, into {self.mac.downloads}.\n"
                         "Phones:\n  phone                 never seen here\n"
                         "Nothing is under way, and nothing waits.\n", result.stdout)
        self.assertEqual("", result.stderr)
        self.end(service)

    def test_people_see_it_in_place(self):
        receiving = self.slow_phone()
        sending = self.serve(self.mac)
        terminal = Terminal(80)
        watcher = subprocess.Popen([ORLINTH, "status", "--watch"], stdout=terminal.end,
                                   env={**self.mac.environment, "TERM": "xterm"})
        self.addCleanup(watcher.kill)
        terminal.wait_for("Nothing is under way")
        self.share(self.file("film.bin", bytes(12 * MIB)))
        terminal.wait_for("film.bin to phone  done, 13 MB")
        written = terminal.written.decode()
        self.assertRegex(written, r"1  film\.bin to phone  \d+%  [0-9.]+ [kM]B/s  [0-9.:]+ ?s? left")
        self.end(sending)
        self.assertEqual(0, watcher.wait(PATIENCE))
        terminal.text()
        self.end(receiving)

    def test_what_the_service_has_said_last_is_shown_though_it_ends_at_once(self):
        folder = self.mac.data / "Orlinth"
        folder.mkdir(mode=0o700, exist_ok=True)
        with socket.socket(socket.AF_UNIX) as listener:  # a service that ends as soon as it has said everything
            listener.bind(str(folder / "service.sock"))
            listener.listen()
            listener.settimeout(PATIENCE)
            terminal = Terminal(80)
            watcher = subprocess.Popen([ORLINTH, "status", "--watch"], stdout=terminal.end,
                                       env={**self.mac.environment, "TERM": "xterm"})
            self.addCleanup(watcher.kill)
            connection, _ = listener.accept()
            with connection:
                connection.makefile().readline()
                connection.sendall(b'{"downloads":"/srv/in","event":"service","port":28471,"state":"listening"}\n'
                                   b'{"event":"current"}\n')
        self.assertEqual(0, watcher.wait(PATIENCE))
        self.assertIn("Receives at port 28471, into /srv/in.", terminal.text())

    def test_into_a_pipe_only_scripts_watch(self):
        result = self.mac.run("status", "--watch")
        self.assertEqual(2, result.returncode)
        self.assert_one_line_error(result.stderr, "`orlinth status --watch` redraws a terminal")

    def test_what_is_sent_is_cancelled_and_what_the_phone_has_stays_there(self):
        receiving = self.slow_phone()
        sending = self.serve(self.mac)
        watcher = self.watch(self.mac)
        batch = self.share(self.file("film.bin", bytes(64 * MIB)))
        transfer = self.seen(watcher, event="transfer", state="active")["transfer"]
        self.assertRegex(self.mac.run("outbox").stdout, r"    film\.bin  \d+%")
        under_way = self.listed()[0]["phones"][0]["under_way"][0]
        self.assertEqual((transfer, "film.bin", 64 * MIB),
                         tuple(under_way[key] for key in ("transfer", "file", "total_bytes")))
        result = self.mac.run("cancel", str(transfer))
        self.assertEqual((0, f"cancelled transfer {transfer}\n"), (result.returncode, result.stdout), result.stderr)
        self.seen(watcher, event="transfer", state="cancelled")
        self.seen(watcher, event="batch_gone", batch=batch)
        self.assert_nothing_left()
        self.wait_for(receiving, "error")
        self.assertEqual(1, len(list(self.phone.downloads.glob("film.bin.partial"))))
        self.assertEqual([], [event for event in sending.events.all if event["event"] == "outbox_failed"])
        result = self.mac.run("cancel", str(transfer))
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, f"there is no transfer {transfer} under way")
        self.end(sending)
        self.end(receiving)

    def test_of_a_batch_only_the_cancelled_file_is_not_sent(self):
        receiving = self.slow_phone()
        sending = self.serve(self.mac)
        watcher = self.watch(self.mac)
        small = self.file("small.txt", b"some text")
        self.share(self.file("film.bin", bytes(64 * MIB)), small)
        transfer = self.seen(watcher, event="transfer", state="active", name="film.bin")["transfer"]
        self.assertEqual(0, self.mac.run("cancel", str(transfer)).returncode)
        self.wait_until(lambda: (self.phone.downloads / "small.txt").exists(), self.phone.downloads)
        self.seen(watcher, event="transfer", state="done", name="small.txt")
        self.seen(watcher, event="batch_gone")
        self.assert_nothing_left()
        self.end(sending)
        self.end(receiving)

    def test_what_comes_in_is_cancelled_and_declined_from_then_on(self):
        receiving = self.slow_phone()
        sending = self.serve(self.mac)
        watcher = self.watch(self.phone)
        batch = self.share(self.file("film.bin", bytes(64 * MIB)))
        transfer = self.seen(watcher, event="transfer", state="active", direction="in")["transfer"]
        self.assertEqual([{"event": "cancelled", "transfer": transfer}],
                         self.lines(self.phone, "cancel", str(transfer)))
        self.seen(watcher, event="transfer", state="cancelled")
        self.wait_for(receiving, "declined", name="film.bin")
        failed = self.wait_for(sending, "outbox_failed", batch=batch)[0]
        self.assertIn("declined", failed["message"])
        self.assertEqual(1, len(list(self.phone.downloads.glob("film.bin.partial"))), "what has come stays")
        self.assertEqual([], [event for event in receiving.events.all if event["event"] == "error"])
        self.end(sending)
        self.end(receiving)

    def test_a_phone_that_is_away_is_waited_for_in_words(self):
        sending = self.serve(self.mac)
        watcher = self.watch(self.mac)
        batch = self.share(self.file("a.txt", b"a"))
        paused = self.seen(watcher, event="batch", state="paused")
        self.assertEqual((batch, "phone", 1, 0), tuple(paused[key] for key in ("batch", "phone", "files",
                                                                               "files_done")))
        self.assertGreater(paused["next_attempt_epoch_ms"], paused["created_at_epoch_ms"])
        self.assertIn("network", paused["message"])
        text = self.mac.run("status").stdout
        self.assertRegex(text, re.compile(rf"^  {batch[:8]}  0 of 1 file sent to phone, next attempt in [0-9.]+ s: ",
                                          re.MULTILINE))
        self.end(sending)

    def test_too_many_watchers_are_turned_away_and_the_service_goes_on(self):
        service = self.serve(self.mac)
        watchers = [self.watch(self.mac) for _ in range(8)]
        result = self.mac.run("status", "--watch", "--json")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "the running service did not do it: too many programs are watching")
        self.assertEqual(0, self.mac.run("status").returncode)
        watchers[0].kill()
        watchers[0].wait(PATIENCE)
        last = self.watch(self.mac)
        self.end(service)
        self.assertEqual(0, last.wait(), "the service has ended, and with it the watch")


if __name__ == "__main__":
    side_by_side.main()
