"""One file, from one process to another: whole, resumed, changed, and whatever it is called."""

import json
import os
import pathlib
import unittest

from harness import FRAMES_BEFORE_DATA, MIB, ProgramTest, seeded, sha256


# More than the kernel takes off the sender's hands: a cut in its first mebibytes is noticed.
BIG = 16 * MIB


class WholeFiles(ProgramTest):
    def test_a_file_arrives_byte_for_byte_and_both_sides_tell_it(self):
        file = self.file("photo.jpg", seeded(self).randbytes(3 * MIB + 12345))
        sender, receiver = self.transfer(file)
        saved = self.assert_delivered(file, sender, receiver)
        self.assertEqual(self.phone.downloads / "photo.jpg", saved)

        self.assertEqual(["file", "connected", "handshake", "progress", "complete"], sender.events.names())
        self.assertEqual(
            {"event": "file", "file": str(file), "name": "photo.jpg", "size": 3 * MIB + 12345, "mime": "image/jpeg",
             "to": "phone"},
            sender.events.find("file"),
        )
        complete = sender.events.find("complete")
        self.assertEqual(3 * MIB + 12345, complete["bytes_sent"])
        self.assertEqual(3 * MIB + 12345, complete["advertised_size"])
        self.assertEqual(0, complete["resumed_from_offset"])
        self.assertGreater(complete["duration_seconds"], 0)
        progress = [event["bytes_sent"] for event in sender.events.all if event["event"] == "progress"]
        self.assertEqual(sorted(set(progress)), progress)
        self.assertEqual((0, 3 * MIB + 12345), (progress[0], progress[-1]))

        complete = receiver.events.find("complete")
        self.assertEqual(
            {"event": "complete", "saved_at": str(saved), "bytes_written": 3 * MIB + 12345,
             "advertised_size": 3 * MIB + 12345, "mime": "image/jpeg", "resumed_from_offset": 0,
             "bytes_received_this_session": 3 * MIB + 12345},
            {key: complete[key] for key in complete if key not in ("duration_seconds", "remote_endpoint")},
        )
        self.assertRegex(complete["remote_endpoint"], r"127\.0\.0\.1\]?:\d+$")
        self.assertEqual({}, self.mac.journal())
        self.assertEqual([], sender.events.not_json + receiver.events.not_json)

    def test_an_empty_file_arrives(self):
        file = self.file("empty.txt", b"")
        saved = self.assert_delivered(file, *self.transfer(file))
        self.assertEqual(0, saved.stat().st_size)

    def test_people_read_the_path_on_standard_output_and_sizes_on_standard_error(self):
        file = self.file("notes.txt", b"x" * 1500)
        receiver = self.running(self.phone, "receive", "--from", "mac", "--port", "0",
                                "--dir", str(self.phone.downloads))
        port = None
        while port is None:  # the line comes when the port is open
            for line in receiver.stderr.splitlines():
                if line.startswith("listening on port "):
                    port = line.rsplit(" ", 1)[1]
            self.assertIsNone(receiver.process.poll(), receiver.stderr)
        self.mac.record(self.phone, port)
        sent = self.mac.run("send", str(file))
        self.assertEqual(0, sent.returncode, sent.stderr)
        self.assertRegex(sent.stdout, r"^sent notes\.txt to phone: 1\.5 kB in \d+\.\d s(, .+/s)?\n$")
        self.assertEqual(0, receiver.wait())
        self.assertEqual([str(self.phone.downloads / "notes.txt")],
                         [line.decode().rstrip("\n") for line in receiver.events.not_json])
        self.assertIn("received 1.5 kB", receiver.stderr)
        self.assertNotIn("\r", receiver.stderr)

    def test_the_downloads_folder_is_made_if_it_is_missing(self):
        file = self.file("a.bin", b"abc")
        receiver = self.receiver("--dir", str(self.phone.root / "new" / "folder"))
        self.assert_delivered(file, self.sender(file, receiver.port), receiver)

    def test_without_a_selector_the_phone_paired_last_gets_the_file(self):
        file = self.file("a.bin", b"abc")
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port)
        self.assertEqual(0, self.mac.run("send", str(file)).returncode)
        self.assertEqual(0, receiver.wait())

    def test_a_failed_file_does_not_stop_the_others(self):
        good = self.file("good.bin", b"good")
        missing = self.folder / "missing.bin"
        folder = self.folder / "outgoing"
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port)
        sent = self.mac.run("send", "--json", str(missing), str(folder), str(good))
        self.assertEqual(1, sent.returncode)
        self.assertEqual(0, receiver.wait())
        events = [json.loads(line) for line in sent.stdout.splitlines()]
        outcomes = [(event["event"], event["file"]) for event in events if event["event"] in ("error", "complete")]
        self.assertEqual([("error", str(missing)), ("error", str(folder)), ("complete", str(good))], outcomes)
        self.assertIn(f"orlinth: file missing: {missing}\n", sent.stderr)
        self.assertIn("orlinth: file read: ", sent.stderr)
        self.assertIn("2 of 3 transfers failed.", sent.stderr)


class Resuming(ProgramTest):
    def cut_after(self, file, frames=None, after_bytes=None):
        """A transfer that is cut; both sides fail."""
        receiver = self.receiver()
        relay = self.relay(receiver.port, after_frames=frames, after_bytes=after_bytes)
        sender = self.sender(file, relay.port)
        self.assertEqual(1, sender.wait())
        self.assertEqual(1, receiver.wait())
        return sender, receiver

    def test_a_cut_transfer_goes_on_where_it_stopped(self):
        file = self.file("film.mkv", seeded(self).randbytes(BIG))
        sender, receiver = self.cut_after(file, frames=FRAMES_BEFORE_DATA + 2)
        self.assertRegex(sender.stderr, r"(?m)^orlinth: wire ")
        self.assertEqual("error", receiver.events.all[-1]["event"])
        self.assertTrue((self.phone.downloads / "film.mkv.partial").exists())
        self.assertTrue((self.phone.downloads / "film.mkv.partial.meta.json").exists())
        self.assertEqual(1, len(self.mac.journal()))

        sender, receiver = self.transfer(file)
        self.assert_delivered(file, sender, receiver)
        complete = receiver.events.find("complete")
        self.assertEqual(2 * MIB, complete["resumed_from_offset"])
        self.assertEqual(BIG - 2 * MIB, complete["bytes_received_this_session"])
        self.assertEqual(2 * MIB, sender.events.find("complete")["resumed_from_offset"])
        self.assertEqual({}, self.mac.journal())

    def test_when_only_the_last_word_was_lost_nothing_is_sent_again(self):
        content = seeded(self).randbytes(BIG)
        file = self.file("a.bin", content)
        self.cut_after(file, frames=FRAMES_BEFORE_DATA + 1)
        # the rest, as if it had arrived with nothing but Done missing
        (self.phone.downloads / "a.bin.partial").write_bytes(content)
        sender, receiver = self.transfer(file)
        self.assert_delivered(file, sender, receiver)
        complete = receiver.events.find("complete")
        self.assertEqual(BIG, complete["resumed_from_offset"])
        self.assertEqual(0, complete["bytes_received_this_session"])
        self.assertEqual(BIG, sender.events.find("complete")["bytes_sent"])

    def assert_sent_afresh(self, file):
        sender, receiver = self.transfer(file)
        self.assert_delivered(file, sender, receiver)
        self.assertEqual(0, receiver.events.find("complete")["resumed_from_offset"])

    def test_a_file_changed_behind_its_front_is_sent_afresh(self):
        file = self.file("a.bin", seeded(self).randbytes(BIG))
        self.cut_after(file, frames=FRAMES_BEFORE_DATA + 2)
        with open(file, "r+b") as changed:
            changed.seek(MIB)
            changed.write(b"changed")
        self.assert_sent_afresh(file)

    def test_a_file_replaced_by_another_with_the_same_front_is_sent_afresh(self):
        content = seeded(self).randbytes(BIG)
        file = self.file("a.bin", content)
        self.cut_after(file, frames=FRAMES_BEFORE_DATA + 2)
        other = self.file("b.bin", content[: 2 * MIB] + bytes(BIG - 2 * MIB))
        times = file.stat()
        os.utime(other, ns=(times.st_atime_ns, times.st_mtime_ns))
        os.replace(other, file)
        self.assert_sent_afresh(file)

    def test_what_is_remembered_of_a_file_is_forgotten_when_it_is_sent(self):
        file = self.file("a.bin", seeded(self).randbytes(BIG))
        self.cut_after(file, frames=FRAMES_BEFORE_DATA + 1)
        memory = self.mac.data / "Orlinth" / "inflight-sources.json"
        sources = json.loads(memory.read_text())["sources"]
        self.assertEqual(list(self.mac.journal()), list(sources))
        self.assertEqual(BIG, next(iter(sources.values()))["size"])
        self.assert_delivered(file, *self.transfer(file))
        self.assertEqual({}, json.loads(memory.read_text())["sources"])

    def test_a_damaged_memory_of_files_costs_only_the_resume(self):
        file = self.file("a.bin", seeded(self).randbytes(BIG))
        self.cut_after(file, frames=FRAMES_BEFORE_DATA + 1)
        (self.mac.data / "Orlinth" / "inflight-sources.json").write_text("{")
        self.assert_sent_afresh(file)


class Growing(ProgramTest):
    def test_a_file_that_grows_while_it_is_sent_is_sent_whole_and_told(self):
        file = self.file("log.txt", seeded(self).randbytes(2 * MIB))
        receiver = self.receiver()

        def grow():
            with open(file, "ab") as more:
                more.write(b"more" * 1000)

        # the handshake's answer passes, then the file grows, then the rest is let through a second relay
        gate = GrowingGate(self, receiver.port, grow)
        sender = self.sender(file, gate.port)
        self.assert_delivered(file, sender, receiver)
        self.assertIn("grew while it was sent", sender.stderr)
        self.assertIn("instead of the", receiver.stderr)
        self.assertEqual(2 * MIB, sender.events.find("complete")["advertised_size"])
        self.assertEqual(2 * MIB + 4000, sender.events.find("complete")["bytes_sent"])


class GrowingGate:
    """A relay that calls `action` when the sender has offered its file, before the receiver's answer passes."""

    def __init__(self, test, port, action):
        self.action = action
        relay = test.relay(port, answers=True, after_bytes=100, then="cut")
        forward = relay._forward_bytes

        def gated(source, sink, ruled):
            forward_limit = relay.limit
            if not ruled:
                forward(source, sink, False)
                return
            sink.sendall(relay._exactly(source, forward_limit))
            first = relay._exactly(source, 1)  # of the Resume, so the offer has been made
            action()
            sink.sendall(first)
            forward(source, sink, False)

        relay._forward_bytes = gated
        self.port = relay.port


class Names(ProgramTest):
    def assert_saved_as(self, name, saved_name):
        file = self.file(name, b"content of " + os.fsencode(name))
        saved = self.assert_delivered(file, *self.transfer(file))
        self.assertEqual(self.phone.downloads / saved_name, saved)
        file.unlink()

    def test_a_taken_name_gets_a_number(self):
        (self.phone.downloads / "report.pdf").write_text("mine")
        self.assert_saved_as("report.pdf", "report 2.pdf")
        self.assert_saved_as("report.pdf", "report 3.pdf")
        self.assertEqual("mine", (self.phone.downloads / "report.pdf").read_text())

    def test_names_cannot_leave_the_folder(self):
        self.assert_saved_as("..\\..\\evil.txt", ".._.._evil.txt")
        self.assert_saved_as("   ", "received")
        self.assert_saved_as(" .. ", "received 2")
        self.assert_saved_as(".bashrc", ".bashrc")
        self.assertEqual({"data", "config", "downloads"} & set(os.listdir(self.phone.root)),
                         set(os.listdir(self.phone.root)))

    def test_a_name_that_is_not_utf8_arrives_readable(self):
        self.assert_saved_as(b"caf\xe9.txt", "caf\ufffd.txt")

    def test_names_in_brackets_and_with_commas_are_names(self):
        self.assert_saved_as("[a,b]", "[a,b]")
        os.chdir(self.folder / "outgoing")
        self.addCleanup(os.chdir, "/")
        pathlib.Path("[c]").write_text("c")
        receiver = self.receiver()
        self.assert_delivered("[c]", self.sender("[c]", receiver.port), receiver)

    def test_a_name_with_a_dash_in_front_can_follow_two_dashes(self):
        self.file("-x", b"dash")
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port)
        sent = self.mac.run("send", "--", "-x", cwd=self.folder / "outgoing")
        self.assertEqual(0, sent.returncode, sent.stderr)
        self.assertEqual(0, receiver.wait())

    def test_control_characters_of_a_name_do_not_reach_the_terminal(self):
        name = "a\x1b[2Jb\u202egnp.exe"
        file = self.file(name, b"x")
        receiver = self.running(self.phone, "receive", "--from", "mac", "--port", "0", "--json",
                                "--dir", str(self.phone.downloads))
        port = receiver.events.wait_for("listening")["port"]
        self.mac.record(self.phone, port)
        sent = self.mac.run("send", str(file))
        self.assertEqual(0, sent.returncode, sent.stderr)
        self.assertEqual(0, receiver.wait())
        for text in (sent.stdout, sent.stderr, receiver.stderr):
            self.assertNotIn("\x1b", text)
            self.assertNotIn("\u202e", text)
        self.assertIn("\\u{001B}[2Jb\\u{202E}gnp.exe", sent.stdout)
        self.assertEqual(sha256(file), sha256(self.phone.downloads / name))


if __name__ == "__main__":
    unittest.main()
