"""A sender that did not see the end of its delivery offers the file again: there is still one file, told of once."""

import json
import os
import pathlib
import shutil
import signal
import unittest

from harness import MIB, sha256
from test_serve import ServeTest, wait_for_count

KILL = r"""
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Files get their final names by this call. Kills the process right before or right behind it, as $KILL_AT says. */
int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) {
    const char* at = getenv("KILL_AT");
    if (at && *at == 'b') {
        kill(getpid(), SIGKILL);
    }
    long result = syscall(SYS_renameat2, from_folder, from, to_folder, to, flags);
    if (at && *at == 'a') {
        kill(getpid(), SIGKILL);
    }
    return (int)result;
}
"""


class ExactlyOnce(ServeTest):
    """`phone` sends to the service of `desk`; or `mac` to the one-file receiver of `phone`."""

    def keep_the_id(self, sender, file, *arguments):
        """Makes an attempt that fails, so that the journal has an id for the file, and keeps a copy of that."""
        self.journal = sender.data / "Orlinth" / "inflight.json"
        result = sender.run(*arguments, "--warm-timeout", "1", str(file))
        self.assertEqual(1, result.returncode, result.stderr)
        self.assertTrue(json.loads(self.journal.read_text())["entries"])
        shutil.copytree(self.journal.parent, self.folder / "kept")

    def forget_the_end(self):
        """As if the sender had been killed behind its last word."""
        for name in ("inflight.json", "inflight-sources.json"):
            shutil.copy(self.folder / "kept" / name, self.journal.parent / name)

    def keep_for_the_service(self, file):
        self.phone.record(self.desk, 9)
        self.keep_the_id(self.phone, file, "send", "--to", "mac")

    def send_again(self, file, service):
        self.forget_the_end()
        sender = self.send(self.phone, file, service.port)
        self.assertEqual(0, sender.wait(), sender.stderr)
        return sender.events.find("complete")["resumed_from_offset"]

    def assert_one(self, file, folder):
        self.assertEqual([file.name], sorted(path.name for path in folder.iterdir()))
        self.assertEqual(sha256(file), sha256(folder / file.name))

    def test_the_service_takes_and_tells_of_it_once_across_restarts(self):
        file = self.file("film.mov", os.urandom(3 * MIB))
        self.keep_for_the_service(file)
        service = self.serve()
        self.assertEqual(0, self.send_again(file, service))
        service.events.wait_for("received")
        for _ in range(2):
            self.assertEqual(3 * MIB, self.send_again(file, service))
        self.assert_ends(service)
        self.assertEqual(["listening", "received"], service.events.names())
        self.assertEqual(1, sum(event["event"] == "received" for event in service.events.all))
        service = self.serve()
        self.assertEqual(3 * MIB, self.send_again(file, service))
        self.assert_ends(service)
        self.assertEqual(["listening"], service.events.names())
        self.assert_one(file, self.desk.downloads)
        memory = self.desk.data / "Orlinth" / "delivered.jsonl"
        self.assertEqual(0o600, memory.stat().st_mode & 0o777)

    def test_the_service_is_killed_around_the_move(self):
        shim = str(self.shim("kill", KILL))
        for at, offset in (("before", 3 * MIB), ("after", 3 * MIB)):
            with self.subTest(at):
                file = self.file(f"{at}.mov", os.urandom(3 * MIB))
                shutil.rmtree(self.folder / "kept", ignore_errors=True)
                self.keep_for_the_service(file)
                self.desk.environment.update(LD_PRELOAD=shim, KILL_AT=at)
                service = self.serve()
                self.forget_the_end()
                self.send(self.phone, file, service.port)
                self.assertEqual(-signal.SIGKILL, service.wait())
                del self.desk.environment["LD_PRELOAD"]
                service = self.serve()
                self.assertEqual(offset, self.send_again(file, service))
                event = service.events.wait_for("received")  # which nobody was told before
                self.assertEqual(str(self.desk.downloads / file.name), event["saved_at"])
                self.assertEqual(3 * MIB, self.send_again(file, service))
                self.assert_ends(service)
                self.assertEqual(1, sum(event["event"] == "received" for event in service.events.all))
                self.assert_one(file, self.desk.downloads)
                (self.desk.downloads / file.name).unlink()

    def test_receive_returns_the_file_that_is_there_and_says_so(self):
        file = self.file("film.mov", os.urandom(3 * MIB))
        self.mac.record(self.phone, 9)
        self.keep_the_id(self.mac, file, "send", "--to", "phone")
        for offset in (0, 3 * MIB):
            receiver = self.receiver()
            self.forget_the_end()
            sender = self.sender(file, receiver.port)
            self.assert_delivered(file, sender, receiver)
            complete = receiver.events.find("complete")
            self.assertEqual(offset, complete["resumed_from_offset"])
            self.assertEqual(offset > 0, complete.get("already_here", False))
        self.assert_one(file, self.phone.downloads)
        # and in words
        program = self.running(self.phone, "receive", "--from", "mac", "--port", "0", "--dir", str(self.phone.downloads))
        self.wait_until(lambda: "listening on port " in program.stderr, program)
        port = int(program.stderr.split("listening on port ")[1].split()[0])
        self.forget_the_end()
        self.assertEqual(0, self.sender(file, port).wait())
        self.assertEqual(0, program.wait())
        self.assertIn("already here", program.stderr)
        self.assertIn(str(self.phone.downloads / file.name).encode(), b"".join(program.events.not_json))

    def test_a_burst_of_small_files_is_offered_again(self):
        count = 40
        files = [self.file(f"{number}.txt", os.urandom(100)) for number in range(count)]
        self.phone.record(self.desk, 9)
        self.keep_the_id(self.phone, files[0], "send", "--to", "mac", *map(str, files[1:]))
        service = self.serve()
        for _ in range(2):
            self.forget_the_end()
            self.phone.record(self.desk, service.port)
            result = self.phone.run("send", "--to", "mac", *map(str, files))
            self.assertEqual(0, result.returncode, result.stderr)
        wait_for_count(service.events, "received", count)
        self.assert_ends(service)
        self.assertEqual(count, sum(event["event"] == "received" for event in service.events.all))
        self.assertEqual(sorted(pathlib.Path(file).name for file in files), self.left_over())


if __name__ == "__main__":
    unittest.main()
