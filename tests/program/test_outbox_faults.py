"""The outbox when programs are killed, and when it holds what nobody should have put there."""

import fcntl
import json
import os
import pathlib
import signal
import socket
import time
import uuid

import side_by_side
from harness import MIB, Victim, seeded, sha256
from outbox_world import OutboxTest
from waiting import ends_within

ROUNDS = 8


class Killing(OutboxTest):
    def test_the_service_is_killed_in_the_middle_of_files_and_between_them(self):
        random = seeded(self)
        phone = self.phone_listens()
        gate = self.gate(phone.port, bytes_per_second=24 * MIB)
        self.mac.record(self.phone, gate.port)
        files = [self.file(f"{number:02}.bin", random.randbytes(8 * MIB)) for number in range(ROUNDS)]
        self.share(*files)
        kills = 0
        sent = []
        for number in range(ROUNDS):
            victim = Victim()
            gate.action = victim.kill
            if number % 2 == 0:  # in the middle: the file under way is resumed by the next, or just begun
                gate.spared, gate.limit = 0, random.randrange(1, MIB)
            else:  # between: it has noted that one was sent, and has just begun the next
                gate.spared, gate.limit = 1, 1
            service = self.serve(self.mac)
            victim.is_(service)
            service.wait()
            kills += service.process.returncode == -signal.SIGKILL
            sent += [event["file"] for event in service.events.all if event["event"] == "outbox_sent"]
        self.assertEqual(ROUNDS, kills)
        self.assertTrue(sent)
        gate.spared = 0
        gate.bytes_per_second = None
        service = self.serve(self.mac)
        self.wait_for(service, "outbox_done")
        sent += [event["file"] for event in service.events.all if event["event"] == "outbox_sent"]
        self.assertEqual(len(sent), len(set(sent)), "a file was sent twice")
        self.assert_arrived(files)
        self.assert_nothing_left()

    def test_the_one_who_shares_is_killed_anywhere(self):
        random = seeded(self)
        self.phone_listens()
        file = self.file("big.bin", random.randbytes(8 * MIB))
        whole = 0
        for number in range(ROUNDS):
            program = self.running(self.mac, "share", "--json", *[str(file)] * 3)
            if number < ROUNDS - 1:
                self.wait_until(lambda: len(self.batches()) > number or program.process.poll() is not None,
                                self.outbox, program)
                ends_within(random.random() * 0.05, program.process)  # where that gets to is what varies
                program.kill()
            program.wait()
            whole += program.process.returncode == 0
        complete = [name for name in self.batches() if (self.outbox / name / "manifest.json").exists()]
        self.assertGreaterEqual(len(complete), max(1, whole))
        left = [name for name in self.batches() if name not in complete]
        for name in left:
            old = time.time() - 120
            os.utime(self.outbox / name, (old, old))
        service = self.serve(self.mac)
        self.wait_for(service, "outbox_done", len(complete))
        self.wait_until(lambda: self.batches() == [], self.outbox)
        self.assertEqual({sha256(file)}, {sha256(path) for path in self.phone.downloads.iterdir()})
        self.assertEqual(3 * len(complete), len(list(self.phone.downloads.iterdir())))
        self.assertEqual([], [event for event in service.events.all if event["event"] == "outbox_failed"])

    def test_what_is_being_staged_is_left_alone(self):
        name = self.put_batch(None, ["a.txt"])
        held = os.open(self.outbox / name, os.O_RDONLY)
        fcntl.flock(held, fcntl.LOCK_EX)
        old = time.time() - 120
        os.utime(self.outbox / name, (old, old))
        service = self.serve(self.mac)
        batch = self.share(self.file("b.txt", b"b"))
        self.wait_for(service, "outbox_waiting", batch=batch)  # so it has looked through the outbox
        self.assertEqual(sorted([name, batch]), self.batches())
        os.close(held)
        self.share(self.file("c.txt", b"c"))
        self.wait_until(lambda: name not in self.batches(), self.outbox)


BUSY = r"""
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

/* As if somebody else had the service's lock, once for each file in the folder $BUSY_FOLDER. */
int flock(int file, int operation) {
    char way[64], path[4096], token[4096];
    snprintf(way, sizeof way, "/proc/self/fd/%d", file);
    ssize_t length = readlink(way, path, sizeof path - 1);
    path[length < 0 ? 0 : length] = 0;
    for (int number = 0; strstr(path, "service.lock") && number < 10; ++number) {
        snprintf(token, sizeof token, "%s/%d", getenv("BUSY_FOLDER"), number);
        if (unlink(token) == 0) {
            errno = EWOULDBLOCK;
            return -1;
        }
    }
    return (int)syscall(SYS_flock, file, operation);
}
"""


class Locks(OutboxTest):
    def test_a_service_starts_also_while_somebody_looks_whether_one_runs(self):
        busy = self.folder / "busy"
        busy.mkdir()
        for number in range(2):
            (busy / str(number)).touch()
        self.mac.environment.update(LD_PRELOAD=str(self.shim("busy", BUSY)), BUSY_FOLDER=str(busy))
        service = self.serve(self.mac)
        self.assertEqual([], list(busy.iterdir()))
        second = self.mac.run("serve", "--port", "0", "--dir", str(self.mac.downloads))
        self.assertEqual(1, second.returncode)
        self.assert_one_line_error(second.stderr, "the receive service is already running")
        self.end(service)

    def test_what_is_shared_is_shared_also_if_nobody_can_tell_whether_a_service_runs(self):
        with socket.socket(socket.AF_UNIX) as odd:
            odd.bind(str(self.mac.data / "Orlinth" / "service.lock"))  # which cannot be opened as a file is
            result = self.mac.run("share", "--json", str(self.file("a.txt", b"a")))
        self.assertEqual(0, result.returncode, result.stderr)
        [shared] = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual(("shared", False), (shared["event"], shared["service_running"]))
        self.assertEqual([shared["batch"]], self.batches())


class SettingAside(OutboxTest):
    def assert_set_aside(self, service, name, text):
        [failed] = self.wait_for(service, "outbox_failed", batch=name)
        self.assertIn(text, failed["message"])
        self.assertNotIn(name, self.batches())
        self.assertTrue((self.set_aside / name).is_dir())
        self.assertIn(f"batch {name[:8]} was set aside: ", service.stderr)

    def test_broken_manifests_and_names_that_leave_the_folder(self):
        phone = self.phone_listens()
        secret = self.container / "secret"
        secret.parent.mkdir(parents=True, exist_ok=True)
        secret.write_text("nobody's business")
        (self.container / "Outbox").mkdir()
        (self.outbox / "secret").write_text("nobody's business")
        (self.outbox / "a folder").mkdir()
        service = self.serve(self.mac)
        good = {"files": ["a.txt"]}
        cases = [
            (b"", "makes no sense"),
            (b"{", "makes no sense"),
            (b"\xff\xfe", "makes no sense"),
            (b"[" * 100_000, "makes no sense"),
            (b" " * (4 * MIB + 1), "larger than"),
            ({"files": "a.txt"}, "makes no sense"),
            ({"files": [1]}, "makes no sense"),
            ({**good, "createdAtMs": "now"}, "makes no sense"),
            ({**good, "createdAtMs": -2**63}, "older than any computer"),
            ({**good, "targetPubkeys": "x"}, "makes no sense"),
            ({**good, "targetPubkeys": []}, "chooses no phone"),
            ({**good, "id": str(uuid.uuid4()).upper()}, "another batch"),
            ({**good, "id": "../a.txt"}, "another batch"),
            ({"files": []}, "names no file"),
            ({"files": ["a.txt", "a.txt"]}, "twice"),
            ({"files": ["manifest.json"]}, "names itself"),
            ({"files": ["missing"]}, "is not there"),
            *[({"files": ["a.txt", name]}, "not in the folder")
              for name in ("", ".", "..", "../secret", "../../secret", "/etc/hostname", "./a.txt", "b/../a.txt",
                           "a\0b")],
        ]
        for manifest, text in cases:
            with self.subTest(manifest=str(manifest)[:60]):
                self.assert_set_aside(service, self.put_batch(manifest, ["a.txt"]), text)
        batch = self.share(self.file("b.txt", b"b"))
        self.wait_for(service, "outbox_done", batch=batch)
        self.assert_arrived([self.folder / "outgoing" / "b.txt"])
        self.assertEqual("nobody's business", secret.read_text())
        self.assertEqual(["a folder", "secret"], self.batches())
        self.assertEqual(1, len([event for event in phone.events.all if event["event"] == "received"]))
        self.assertEqual(len(cases), len(list(self.set_aside.iterdir())))

    def test_links_and_pipes(self):
        self.phone_listens()
        service = self.serve(self.mac)
        secret = self.folder / "secret"
        secret.write_text("nobody's business")
        self.wait_until(self.outbox.exists, self.outbox)

        def batch_with(make, name="a.txt"):
            batch = self.put_batch(None)
            make(self.outbox / batch / name)
            manifest = {"id": batch, "createdAtMs": 1, "files": ["a.txt"]}
            if name == "a.txt":
                (self.outbox / batch / "manifest.json").write_text(json.dumps(manifest))
            return batch

        self.assert_set_aside(service, batch_with(lambda path: path.symlink_to(secret)), "is a link")
        self.assert_set_aside(service, batch_with(os.mkfifo), "is not a file")
        self.assert_set_aside(service, batch_with(pathlib.Path.mkdir), "is not a file")
        self.assert_set_aside(service, batch_with(os.mkfifo, "manifest.json"), "is not a file")
        self.assert_set_aside(service, batch_with(lambda path: path.symlink_to(secret), "manifest.json"), "is a link")
        # a link in place of the batch's folder is nobody's batch
        elsewhere = self.folder / str(uuid.uuid4()).upper()
        elsewhere.mkdir()
        (elsewhere / "a.txt").write_text("abc")
        (elsewhere / "manifest.json").write_text(json.dumps({"id": elsewhere.name, "createdAtMs": 1,
                                                             "files": ["a.txt"]}))
        (self.outbox / elsewhere.name).symlink_to(elsewhere)
        batch = self.share(self.file("b.txt", b"b"))
        self.wait_for(service, "outbox_done", batch=batch)
        self.assertEqual([elsewhere.name], self.batches())
        self.assertEqual(["a.txt", "manifest.json"], sorted(path.name for path in elsewhere.iterdir()))
        self.assert_arrived([self.folder / "outgoing" / "b.txt"])
        self.assertEqual("nobody's business", secret.read_text())

    def test_a_phone_that_was_removed_and_one_that_was_not(self):
        tablet = self.another_phone("tablet")
        self.phone_listens()
        batch = self.share(self.file("a.txt", b"a"), to=["tablet", "phone"])
        self.mac.run("peers", "remove", "tablet")
        service = self.serve(self.mac)
        self.wait_for(service, "outbox_sent", batch=batch, to="phone")
        failed = self.wait_for(service, "outbox_failed", 2, batch=batch)
        self.assertIn("is not paired any more", failed[0]["message"])
        self.assertEqual({"event", "batch", "message"}, set(failed[1]))
        self.assertTrue((self.set_aside / batch / "a.txt").exists())
        self.assertEqual([], self.batches())
        self.assert_arrived([self.folder / "outgoing" / "a.txt"])
        self.assertEqual([], list(tablet.downloads.iterdir()))

    def test_a_phone_that_was_exchanged_before_the_service_ran(self):
        batch = self.share(self.file("a.txt", b"a"))
        self.mac.run("peers", "remove", "phone")
        tablet = self.another_phone("tablet")
        self.phone_listens(tablet)
        [listed] = self.listed()
        self.assertIn("is not paired any more", listed["message"])
        service = self.serve(self.mac)
        self.assert_set_aside(service, batch, "the only phone that was paired when it was shared is not paired")
        self.assertEqual([], list(tablet.downloads.iterdir()))
        self.assertEqual(0, self.mac.run("outbox", "retry", batch).returncode)
        self.wait_for(service, "outbox_done", batch=batch)
        self.assert_arrived([self.folder / "outgoing" / "a.txt"], tablet)

    def test_a_phone_that_is_removed_while_its_batch_waits(self):
        service = self.serve(self.mac)
        batch = self.share(self.file("a.txt", b"a"))
        self.wait_for(service, "outbox_waiting", batch=batch)
        self.mac.run("peers", "remove", "phone")
        failed = self.wait_for(service, "outbox_failed", 2, batch=batch)
        self.assertEqual("phone is not paired any more", failed[0]["message"])
        self.assertEqual([batch], [path.name for path in self.set_aside.iterdir()])
        # and it goes to whoever is there when it is tried again, since nobody had chosen that phone
        tablet = self.another_phone("tablet")
        self.phone_listens(tablet)
        result = self.mac.run("outbox", "retry", batch[:6].lower())
        self.assertEqual((0, "The service is trying again now.\n"), (result.returncode, result.stderr))
        self.wait_for(service, "outbox_done", batch=batch)
        self.assert_arrived([self.folder / "outgoing" / "a.txt"], tablet)

    def test_a_phone_that_declines_or_has_forgotten_this_computer(self):
        phone = self.serve(self.phone, "--accept", "never")
        self.mac.record(self.phone, phone.port)
        service = self.serve(self.mac)
        batch = self.share(self.file("a.txt", b"a"), self.file("b.txt", b"b"))
        failed = self.wait_for(service, "outbox_failed", 3, batch=batch)
        self.assertEqual([("a.txt", "the phone declined the file."), ("b.txt", "the phone declined the file.")],
                         sorted((event["file"], event["message"]) for event in failed[:2]))
        self.assertIn("2 files not sent to phone (the phone declined the file.)", failed[2]["message"])
        self.end(phone)
        again = self.phone_listens()
        self.assertEqual(0, self.mac.run("outbox", "retry", batch).returncode)
        self.wait_for(service, "outbox_done", batch=batch)
        self.end(again)
        # the phone cannot tell us so now, and tells us when we call
        self.phone.run("peers", "remove", "mac")
        third = self.serve(self.phone)
        self.mac.record(self.phone, third.port)
        batch = self.share(self.file("c.txt", b"c"), self.file("d.txt", b"d"))
        failed = self.wait_for(service, "outbox_failed", 2, batch=batch)
        self.assertEqual("the phone removed this Mac. Pair again to send to it.", failed[0]["message"])
        self.assertNotIn("file", failed[0])


if __name__ == "__main__":
    side_by_side.main()
