"""What was shared gets to the phones, by way of the outbox and `orlinth serve`: at once, later, or when they wake."""

import contextlib
import json
import os
import pathlib
import subprocess
import time

import private_bus
import side_by_side
import test_wake
from harness import MIB, PATIENCE, SANITIZED, SleepingPort, sha256
from outbox_world import BIG, OutboxTest

# How soon a batch is to be found, and what a busy machine may add.
SECONDS_TO_NOTICE = 10 if SANITIZED else 1
LEEWAY = 4


NOT_RUNNING = "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`\n"


class Sharing(OutboxTest):
    def test_a_shared_file_gets_to_the_phone(self):
        phone = self.phone_listens()
        service = self.serve(self.mac)
        files = [self.file("a.txt", b"some text"), self.file("manifest.json", b"{}"),
                 self.file("ä ö.bin", bytes(3 * MIB))]
        batch = self.share(*files)
        self.wait_for(service, "outbox_done", batch=batch)
        sent = self.wait_for(service, "outbox_sent", 3)
        self.assertEqual({"a.txt", "manifest 2.json", "ä ö.bin"}, {event["file"] for event in sent})
        self.assertEqual({"event", "batch", "file", "to", "bytes_sent", "resumed_from_offset", "duration_seconds"},
                         set(sent[0]))
        self.assertEqual({"phone"}, {event["to"] for event in sent})
        self.wait_for(phone, "received", 3)
        arrived = {path.name: sha256(path) for path in self.phone.downloads.iterdir()}
        self.assertEqual(dict(zip(("a.txt", "manifest 2.json", "ä ö.bin"), map(sha256, files))), arrived)
        self.assert_nothing_left()
        self.end(service)

    def test_what_was_shared_before_the_service_runs_is_sent_when_it_does(self):
        self.phone_listens()
        file = self.file("a.txt", b"some text")
        result = self.mac.run("share", str(file))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertRegex(result.stdout, r"^shared 1 file with phone, batch [0-9A-F]{8}\n$")
        self.assertEqual(NOT_RUNNING, result.stderr)
        file.unlink()  # a copy was made
        service = self.serve(self.mac)
        self.wait_for(service, "outbox_done")
        self.assertEqual(b"some text", (self.phone.downloads / "a.txt").read_bytes())
        self.assertIn("The service sends it now", self.mac.run("share", str(self.file("b.txt", b"b"))).stderr)

    def test_people_read_a_line_for_each_file(self):
        self.phone_listens()
        self.share(self.file("a.txt", b"some text"))
        service = self.running(self.mac, "serve", "--port", "0", "--dir", str(self.mac.downloads))
        service.events.wait_until(lambda: service.events.not_json, "line")
        self.assertRegex(service.events.not_json[0].decode(), r"^sent a\.txt to phone \(9 bytes in [^)]*\)\n$")

    def test_what_cannot_be_shared_is_named_and_the_rest_is_shared(self):
        good = self.file("a.txt", b"a")
        os.mkfifo(self.folder / "pipe")
        missing = self.folder / "missing"
        result = self.mac.run("share", "--json", str(missing), str(good), str(self.folder), str(self.folder / "pipe"))
        self.assertEqual(1, result.returncode)
        events = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual([str(missing), str(self.folder), str(self.folder / "pipe")],
                         [event["file"] for event in events if event["event"] == "error"])
        self.assertEqual(["a.txt"], events[-1]["files"])
        self.assertEqual("shared", events[-1]["event"])
        nothing = self.mac.run("share", str(missing))
        self.assertEqual(1, nothing.returncode)
        self.assertIn("orlinth: Could not read the shared file(s)\n", nothing.stderr)
        self.assertEqual(1, len(self.batches()))

    def test_a_file_whose_name_is_in_brackets(self):
        self.phone_listens()
        service = self.serve(self.mac)
        file = self.file("[a, b]", b"a")
        result = self.mac.run("share", "[a, b]", cwd=file.parent)
        self.assertEqual(0, result.returncode, result.stderr)
        self.wait_for(service, "outbox_done")
        self.assert_arrived([file])


BLIND = r"""
#define _GNU_SOURCE
#include <stdint.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Whatever is to be watched, it is $BLIND_FOLDER, where nothing happens. */
int inotify_add_watch(int queue, const char* path, uint32_t mask) {
    (void)path;
    return (int)syscall(SYS_inotify_add_watch, queue, getenv("BLIND_FOLDER"), mask);
}
"""


class Noticing(OutboxTest):
    def assert_noticed(self, service, share):
        begin = time.monotonic()
        batch = share()
        self.wait_for(service, "outbox_sent", batch=batch)
        self.assertLess(time.monotonic() - begin, SECONDS_TO_NOTICE + LEEWAY)

    @staticmethod
    def watched(service):
        """The inode numbers of what the service watches (proc(5), /proc/pid/fdinfo)."""
        lines = []
        for path in pathlib.Path(f"/proc/{service.process.pid}/fdinfo").iterdir():
            with contextlib.suppress(FileNotFoundError):  # one that the service has closed meanwhile
                lines += [line.split() for line in path.read_text().splitlines() if line.startswith("inotify ")]
        return {int(word.removeprefix("ino:"), 16) for line in lines for word in line if word.startswith("ino:")}

    def bus(self):
        process = subprocess.Popen(private_bus.command(self.folder), stdout=subprocess.PIPE)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        address = process.stdout.readline().decode().strip()
        self.assertTrue(address, "dbus-daemon does not start")
        return address

    def test_without_a_bus(self):
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.folder}/nobody"
        self.phone_listens()
        service = self.serve(self.mac)
        for name in ("a.txt", "b.txt"):
            self.assert_noticed(service, lambda name=name: self.share(self.file(name, b"abc")))
        # one file at a time, as a slow copy would come
        self.assert_noticed(service, lambda: self.put_batch({"files": ["c.txt"]}, ["c.txt"]))

    def test_by_the_bus_alone(self):
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = self.bus()
        self.phone_listens()
        blind = self.folder / "blind"
        blind.mkdir()
        self.mac.environment.update(LD_PRELOAD=str(self.shim("blind", BLIND)), BLIND_FOLDER=str(blind))
        service = self.serve(self.mac)
        del self.mac.environment["LD_PRELOAD"]
        for name in ("a.txt", "b.txt"):
            self.assert_noticed(service, lambda name=name: self.share(self.file(name, b"abc")))
        self.assertEqual({blind.stat().st_ino}, self.watched(service), "it has other means than the bus")
        quiet = self.put_batch({"files": ["c.txt"]}, ["c.txt"])
        self.assert_noticed(service, lambda: self.share(self.file("d.txt", b"abc")))
        self.wait_for(service, "outbox_done", batch=quiet)

    def test_an_outbox_that_was_removed(self):
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.folder}/nobody"
        self.phone_listens()
        service = self.serve(self.mac)
        self.wait_until(self.outbox.exists, self.outbox)
        self.outbox.rmdir()
        self.wait_until(self.outbox.exists, self.outbox)  # the service makes it again
        self.assert_noticed(service, lambda: self.share(self.file("a.txt", b"abc")))


class Waiting(OutboxTest):
    def test_a_phone_that_is_away_gets_the_file_when_it_comes(self):
        with SleepingPort() as port:
            self.mac.record(self.phone, port.port)
            service = self.serve(self.mac)
            batch = self.share(self.file("a.txt", b"abc"))
            [waiting] = self.wait_for(service, "outbox_waiting", batch=batch)
            self.assertEqual({"event": "outbox_waiting", "batch": batch, "to": "phone", "retry_in_seconds": 5,
                              "message": "network: Connection refused"}, waiting)
            self.phone_listens(port=str(port.port))
            self.wait_for(service, "outbox_done", batch=batch)
        self.assertEqual(1, service.stderr.count("waiting for phone: network: Connection refused"))

    def test_sigterm_in_the_middle_leaves_what_a_resume_needs(self):
        phone = self.phone_listens()
        gate = self.gate(phone.port, bytes_per_second=8 * MIB)
        self.mac.record(self.phone, gate.port)
        file = self.file("big.bin", os.urandom(BIG))
        service = self.serve(self.mac)
        batch = self.share(file)
        service.events.wait_until(lambda: any(event["event"] == "outbox_progress" and event["bytes_sent"] >= MIB
                                              for event in service.events.all), "progress")
        begin = time.monotonic()
        self.end(service)
        self.assertLess(time.monotonic() - begin, 2 + LEEWAY)
        self.assertIsNone(service.events.find("outbox_sent"))
        self.wait_for(phone, "error")  # it has noticed
        gate.bytes_per_second = None
        again = self.serve(self.mac)
        [sent] = self.wait_for(again, "outbox_sent", batch=batch)
        self.assertGreater(sent["resumed_from_offset"], 0)
        self.wait_for(again, "outbox_done", batch=batch)
        self.assert_arrived([file])
        self.assert_nothing_left()


class Waking(test_wake.WakeTest, OutboxTest):
    def test_a_phone_that_sleeps_is_woken(self):
        self.phone_wakes(lambda: self.serve(self.phone, port=str(self.port.port)))
        service = self.serve(self.mac)
        file = self.file("a.bin", os.urandom(100_000))
        batch = self.share(file)
        self.wait_for(service, "outbox_done", batch=batch)
        self.assertIsNone(service.events.find("outbox_waiting"))
        self.assert_arrived([file])
        self.assert_pushed()
        self.assert_no_secret(json.dumps(service.events.all), service.stderr)


class Outbox(OutboxTest):
    def test_lists_what_waits_with_the_reason(self):
        tablet = self.another_phone("tablet")
        self.phone_listens()
        batch = self.share(self.file("a.txt", b"some text"), to=["phone", "tablet"])
        [before] = self.listed()
        self.assertEqual([[], []], [phone["done"] for phone in before["phones"]])
        service = self.serve(self.mac)
        self.wait_for(service, "outbox_sent", batch=batch, to="phone")
        self.wait_for(service, "outbox_waiting", batch=batch, to="tablet")
        [listed] = self.listed()
        self.assertLess(listed.pop("age_seconds"), PATIENCE)
        self.assertGreater(listed.pop("created_at_epoch_ms"), 1_700_000_000_000)
        self.assertEqual({"event": "batch", "batch": batch, "set_aside": False,
                          "files": [{"name": "a.txt", "size": 9}],
                          "phones": [{"to": "phone", "peer_pubkey": self.phone.key, "done": ["a.txt"], "failed": []},
                                     {"to": "tablet", "peer_pubkey": tablet.key, "done": [], "failed": [],
                                      "message": "network: Connection refused"}]}, listed)
        lines = self.mac.run("outbox").stdout.splitlines()
        self.assertRegex(lines[0], f"^{batch[:8]}  20[0-9-]* [0-9:]*  1 file, 9 bytes$")
        self.assertEqual(["  to phone: 1 sent, 0 waiting",
                          "  to tablet: 0 sent, 1 waiting (network: Connection refused)"], lines[1:])

    def test_lists_what_was_set_aside(self):
        service = self.serve(self.mac)
        self.wait_until(self.outbox.exists, self.outbox)
        name = self.put_batch(b"{")
        self.wait_for(service, "outbox_failed", batch=name)
        [listed] = self.listed()
        self.assertEqual((name, True), (listed["batch"], listed["set_aside"]))
        self.assertIn("makes no sense", listed["message"])
        dropped = self.mac.run("outbox", "drop", name)
        self.assertEqual((0, f"dropped batch {name[:8]}\n"), (dropped.returncode, dropped.stdout))
        self.assertEqual([], self.listed())

    def test_drops_what_is_under_way(self):
        phone = self.phone_listens()
        gate = self.gate(phone.port, bytes_per_second=2 * MIB)
        self.mac.record(self.phone, gate.port)
        service = self.serve(self.mac)
        batch = self.share(self.file("big.bin", os.urandom(BIG)))
        other = self.share(self.file("b.txt", b"b"))
        self.wait_for(service, "outbox_progress", batch=batch)
        result = self.mac.run("outbox", "drop", batch, "--json")
        self.assertEqual((0, {"event": "dropped", "batch": batch}), (result.returncode, json.loads(result.stdout)))
        self.assertNotIn(batch, self.batches())
        self.wait_for(service, "outbox_done", batch=other)
        self.assert_nothing_left()
        self.assertEqual([], [event for event in service.events.all if event["event"] == "outbox_failed"])
        self.assertIsNone(next((event for event in service.events.all if event["event"] == "outbox_sent"
                                and event["batch"] == batch), None))

    def test_retries_what_waits(self):
        with SleepingPort() as port:
            self.mac.record(self.phone, port.port)
            service = self.serve(self.mac)
            batch = self.share(self.file("a.txt", b"abc"))
            self.wait_for(service, "outbox_waiting", 2, batch=batch)
            self.serve(self.phone, port=str(port.port))
            begin = time.monotonic()
            self.assertEqual(0, self.mac.run("outbox", "retry").returncode)
            self.wait_for(service, "outbox_done", batch=batch)
            self.assertLess(time.monotonic() - begin, 10)

    def test_peers_that_are_changed_by_others_reach_the_share_sheet(self):
        service = self.serve(self.mac)
        shared = self.container / "peers.json"

        def names():
            try:
                return [peer["hostname"] for peer in json.loads(shared.read_text())]
            except (OSError, ValueError):
                return None
        self.wait_until(lambda: names() == ["phone"], shared)
        book = json.loads(self.mac.peer_file.read_text())
        book["peers"][0]["peer_hostname"] = "renamed"
        new = self.mac.peer_file.with_suffix(".new")
        new.write_text(json.dumps(book))
        new.rename(self.mac.peer_file)
        self.wait_until(lambda: names() == ["renamed"], shared)
        self.end(service)


if __name__ == "__main__":
    side_by_side.main()
