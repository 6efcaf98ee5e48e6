"""`orlinth clip`: where the text comes from, how the phone takes it or does not, and that nobody else sees it."""

import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import threading
import unittest

import side_by_side
from harness import MIB, PATIENCE, Identity, ProgramTest, SleepingPort, UnansweredPort, random_key

STATUS = {signal.SIGINT: 130, signal.SIGTERM: 143}
SECRET = "a text that is nobody else's business: Grüße, 東京, 𝄞"
FRAME_LIMIT = 16 * MIB


class ClipTest(ProgramTest):
    def clip(self, *arguments, leave="close", **options):
        """The whole command against a phone; (its result, the phone, ended)."""
        phone = self.clip_phone(leave)
        self.mac.record(self.phone, phone.port)
        return self.mac.run("clip", *arguments, **options), phone

    def assert_delivered(self, result, phone, text, mime="text/plain"):
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(0, phone.wait(), phone.stderr)
        self.assertEqual({"event": "message", "type": "Clipboard", "text": text, "mime": mime},
                         phone.events.find("message"))

    def running_clip(self, port, *arguments, text=SECRET, **options):
        self.mac.record(self.phone, port)
        return self.running(self.mac, "clip", "--json", "--text", text, *arguments, **options)

    def events(self, result):
        return [json.loads(line) for line in result.stdout.splitlines()]


class WhereTheTextComesFrom(ClipTest):
    def test_the_command_line(self):
        for text in (SECRET, "-", "--json", "-1", "[a,b]", " blanks and\nlines\t ", "a\\n'\"b", "\u202ename.exe"):
            with self.subTest(text):
                self.assert_delivered(*self.clip("--text", text), text)

    def test_standard_input_as_it_is(self):
        for text in (SECRET, " \n", "a\r\nb\n\n", "a\0b", "x" * 1_000_000):
            with self.subTest(text[:20]):
                self.assert_delivered(*self.clip("-", input=text), text)

    def test_standard_input_that_does_not_wait(self):
        reader, writer = os.pipe()
        os.set_blocking(reader, False)
        phone = self.clip_phone("close")
        self.mac.record(self.phone, phone.port)
        with os.fdopen(writer, "w") as source, open(reader, "rb") as sink:
            program = self.running(self.mac, "clip", "--json", "-", stdin=sink)
            source.write("late" * MIB)  # the pipe holds a fraction of it, so that the reader runs ahead at times
        self.assertEqual(0, program.wait(), program.stderr)
        self.assertEqual("late" * MIB, phone.events.wait_for("message")["text"])

    def test_the_mime_type_is_what_was_said(self):
        self.assert_delivered(*self.clip("--text", "<b>", "--mime", "text/html"), "<b>", "text/html")
        self.assert_delivered(*self.clip("--text", "b"), "b", "text/plain")

    def test_without_a_desktop_the_clipboard_is_a_clear_error_that_names_the_other_ways(self):
        result = self.mac.run("clip")
        self.assertEqual(1, result.returncode)
        first, second = result.stderr.splitlines()
        self.assertTrue(first.startswith("orlinth: "), first)
        self.assertIn("--text", second)
        self.assertIn("`-`", second)

    def test_what_is_no_text_is_refused_before_anything_is_sent(self):
        with SleepingPort() as port:
            self.mac.record(self.phone, port.port)
            for source, text in ((b"", "there is no text to send"), (b"a\xffb", "the text is not UTF-8")):
                with self.subTest(text):
                    result = subprocess.run([os.environ["ORLINTH"], "clip", "-"], input=source, capture_output=True,
                                            env=self.mac.environment, timeout=PATIENCE)
                    self.assertEqual(1, result.returncode)
                    self.assert_one_line_error(result.stderr.decode(), text)

    def test_a_text_over_the_limit_of_a_frame_is_refused_before_anything_is_sent(self):
        around = len(json.dumps({"mime": "text/plain", "text": "", "type": "Clipboard"}, separators=(",", ":"))) + 1
        with SleepingPort() as port:
            self.mac.record(self.phone, port.port)
            result = self.mac.run("clip", "-", input="x" * (FRAME_LIMIT - around + 1))
            self.assertEqual(1, result.returncode)
            self.assert_one_line_error(result.stderr, f"plaintext frame too large: {FRAME_LIMIT + 1} bytes")
            # and one that cannot be read to its end
            with open("/dev/zero", "rb") as endless:
                result = self.mac.run("clip", "-", stdin=endless)
            self.assertEqual(1, result.returncode)
            self.assertRegex(result.stderr, r"^orlinth: plaintext frame too large: \d+ bytes\n")

    def test_the_largest_text_goes_through(self):
        around = len(json.dumps({"mime": "text/plain", "text": "", "type": "Clipboard"}, separators=(",", ":"))) + 1
        text = "x" * (FRAME_LIMIT - around)
        self.assert_delivered(*self.clip("-", input=text), text)

    def test_wrong_command_lines(self):
        for arguments in (["--text"], ["--text", ""], ["hunter2"], ["-", "-"], ["--text", "a", "-"],
                          ["--mime", "", "-"],
                          ["--mime", "text", "-"], ["--mime", "text/pl ain", "-"], ["--to", "", "-"],
                          *([flag, value, "-"] for flag in ("--warm-timeout", "--wake-timeout", "--timeout")
                            for value in ("-1", "nan", "soon"))):
            with self.subTest(arguments):
                result = self.mac.run("clip", *arguments)
                self.assertEqual((2, ""), (result.returncode, result.stdout), result.stderr)
                self.assertEqual(2, len(result.stderr.splitlines()), result.stderr)
                self.assertNotIn("hunter2", result.stderr)


class WhichPhone(ClipTest):
    def test_the_one_that_is_named_or_else_the_one_paired_last(self):
        other = Identity(self.folder, "tablet")
        for arguments in ([], ["--to", "PHO"], ["--to", self.phone.key[:8]]):
            with self.subTest(arguments):
                self.mac.record(other)
                self.assert_delivered(*self.clip("--text", "a", *arguments), "a")

    def test_nobody_is_told(self):
        result = self.mac.run("clip", "--to", "nobody", "--text", "a")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "no paired phone matches 'nobody'")
        self.mac.run("peers", "remove", "phone")
        result = self.mac.run("clip", "--text", "a")
        self.assert_one_line_error(result.stderr, "no phone is paired yet")

    def test_a_phone_with_another_key_than_recorded_gets_nothing(self):
        phone = self.clip_phone("close")
        self.mac.run("peers", "remove", "phone")
        self.mac.record(self.phone, phone.port, key=random_key())
        result = self.mac.run("clip", "--text", SECRET)
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "remote pubkey ≠ paired peer")
        phone.wait()
        self.assertIsNone(phone.events.find("message"))


class HowThePhoneTakesIt(ClipTest):
    def test_it_closes_or_answers_with_something_else_and_that_is_a_success(self):
        for leave in ("close", "answer"):
            with self.subTest(leave):
                result, phone = self.clip("--text", SECRET, "--json", leave=leave)
                self.assert_delivered(result, phone, SECRET)
                self.assertEqual([{"event": "complete", "to": "phone"}], self.events(result))
                self.assertEqual("", result.stderr)

    def test_people_read_that_it_is_sent(self):
        result, phone = self.clip("--text", "Grüße")
        self.assert_delivered(result, phone, "Grüße")
        self.assertEqual(("sent 7 bytes of text to phone\n", ""), (result.stdout, result.stderr))

    def test_it_has_removed_this_computer(self):
        for leave in ("unpair", "unpair-first"):
            with self.subTest(leave):
                result, phone = self.clip("--text", SECRET, "--json", leave=leave)
                self.assertEqual(1, result.returncode)
                self.assertEqual([{"event": "error", "to": "phone",
                                   "message": "the phone removed this Mac. Pair again to send to it."}],
                                 self.events(result))
                self.assert_one_line_error(result.stderr, "the phone removed this Mac. Pair again to send to it.")

    def test_it_closes_before_it_reads_and_only_a_removal_would_be_an_error(self):
        result, phone = self.clip("--text", SECRET, "--json", leave="break")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual([{"event": "complete", "to": "phone"}], self.events(result))
        self.assertEqual(0, phone.wait())

    def test_it_breaks_a_large_text_off_and_people_are_told(self):
        result, _ = self.clip("-", "--json", leave="break", input="x" * (6 * MIB))  # more than the systems between the two take
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual("phone broke the connection off before it had the whole text; it may not have arrived.\n",
                         result.stderr)

    def test_it_takes_the_text_and_then_keeps_silent(self):
        result, phone = self.clip("--text", SECRET, "--json", "--timeout", "0.3", leave="silent")
        self.assert_delivered(result, phone, SECRET)
        self.assertEqual([{"event": "complete", "to": "phone"}], self.events(result))
        self.assertEqual("phone has neither answered nor closed the connection.\n", result.stderr)
        self.assertIsNotNone(phone.events.find("closed"))


class WhenItCannotBeReached(ClipTest):
    def test_a_phone_that_refuses_and_has_no_push_token(self):
        with SleepingPort() as port:
            self.mac.record(self.phone, port.port)
            result = self.mac.run("clip", "--text", SECRET, "--json")
        self.assertEqual(1, result.returncode)
        self.assertEqual([{"event": "error", "to": "phone", "message": "network: Connection refused"}],
                         self.events(result))
        self.assert_one_line_error(result.stderr, "network: Connection refused")

    def test_one_that_does_not_answer(self):
        with UnansweredPort() as port:
            self.mac.record(self.phone, port.port)
            result = self.mac.run("clip", "--text", SECRET, "--warm-timeout", "0.3")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "network: connect timed out")


class Interrupts(ClipTest):
    def assert_interrupted(self, program, number):
        self.assertEqual(STATUS[number], program.wait(), program.stderr)
        self.assert_one_line_error(program.stderr, "interrupted by " + number.name)
        self.assertEqual(["error"], program.events.names())

    def test_while_the_phone_is_silent(self):
        for number in STATUS:
            with self.subTest(number):
                phone = self.clip_phone("silent")
                program = self.running_clip(phone.port, "--timeout", "0")
                phone.events.wait_for("message")
                program.signal(number)
                self.assert_interrupted(program, number)
                self.assertEqual("The text had been sent by then.", program.stderr.splitlines()[-1])
                phone.events.wait_for("closed")

    def test_while_the_phone_takes_nothing(self):
        phone = self.clip_phone("stuck")
        self.mac.record(self.phone, phone.port)
        (self.folder / "large").write_text("x" * (15 * MIB))
        with open(self.folder / "large", "rb") as large:
            program = self.running(self.mac, "clip", "--json", "-", stdin=large)
        phone.events.wait_for("handshake")
        program.signal(signal.SIGINT)
        self.assert_interrupted(program, signal.SIGINT)

    def test_while_the_phone_proves_nothing(self):
        with ListeningOnce() as phone:
            program = self.running_clip(phone.port)
            phone.accepted.wait(PATIENCE)
            program.signal(signal.SIGTERM)
            self.assert_interrupted(program, signal.SIGTERM)

    def test_while_standard_input_is_awaited(self):
        for number in STATUS:
            reader, writer = os.pipe()
            with os.fdopen(writer, "wb", buffering=0) as sink, os.fdopen(reader, "rb") as source:
                program = self.running(self.mac, "clip", "--json", "-", stdin=source)
                sink.write(b"x" * MIB)  # more than a pipe holds: now it reads
                program.signal(number)
                self.assertEqual(STATUS[number], program.wait())


class Privacy(ClipTest):
    def test_the_text_is_in_no_output_whatever_happens(self):
        everything = ""
        for leave in ("close", "answer", "unpair", "break"):
            for form in ([], ["--json"]):
                result, phone = self.clip("-", *form, leave=leave, input=SECRET)
                phone.wait()
                everything += result.stdout + result.stderr
        with SleepingPort() as port:
            self.mac.record(self.phone, port.port)
            result = self.mac.run("clip", "-", "--json", input=SECRET)
            everything += result.stdout + result.stderr
        self.assertIn("complete", everything)
        self.assertNotIn("nobody else", everything)

    def test_a_text_from_standard_input_is_in_no_file_of_ours(self):
        result, phone = self.clip("-", input=SECRET)
        self.assert_delivered(result, phone, SECRET)
        for path in pathlib.Path(self.mac.root).rglob("*"):
            if path.is_file():
                self.assertNotIn(b"nobody else", path.read_bytes(), path)

    @unittest.skipUnless(shutil.which("strace"), "needs strace")
    def test_no_other_process_and_no_log_sees_the_text(self):
        phone = self.clip_phone("close")
        self.mac.record(self.phone, phone.port)
        trace = self.folder / "trace"
        traced = subprocess.run(["strace", "-f", "-s", "9999", "-e", "trace=execve,sendto,sendmsg,write,writev",
                                 "-o", str(trace), os.environ["ORLINTH"], "clip", "-"], input=SECRET.encode(),
                                env=self.mac.environment, timeout=PATIENCE, capture_output=True)
        if b"ptrace" in traced.stderr:
            self.skipTest("this machine forbids tracing")
        self.assertEqual(0, traced.returncode, traced.stderr)
        self.assertIn("execve", trace.read_text())
        self.assertNotIn("nobody else", trace.read_text())


class ListeningOnce:
    """A port that says when somebody has connected, and nothing else."""

    def __enter__(self):
        self.accepted = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self._accept, daemon=True)
        self.thread.start()
        return self

    def _accept(self):
        self.connection, _ = self.listener.accept()
        self.accepted.set()

    def __exit__(self, *_):
        self.thread.join(PATIENCE)
        self.connection.close()
        self.listener.close()


if __name__ == "__main__":
    side_by_side.main()
