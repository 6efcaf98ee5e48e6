"""Ctrl-C and SIGTERM at every wait: the status says so, and what a resume needs is left in order."""

import os
import signal
import unittest

from harness import FRAMES_BEFORE_DATA, HANDSHAKE_ANSWER_BYTES, MIB, SANITIZED, ProgramTest, UnansweredPort, seeded

STATUS = {signal.SIGINT: 130, signal.SIGTERM: 143}

# A resolver that says that it was asked, and never answers.
RESOLVER = r"""
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

struct addrinfo;

int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** result) {
    int asked = open(getenv("ORLINTH_TEST_ASKED"), O_WRONLY);
    (void)node, (void)service, (void)hints, (void)result;
    if (asked < 0 || write(asked, "asked", 5) != 5) {
        abort();
    }
    close(asked);
    for (;;) {
        pause();
    }
}
"""


class Interrupts(ProgramTest):
    def assert_interrupted(self, program, number):
        self.assertEqual(STATUS[number], program.wait(), program.stderr)
        self.assert_one_line_error(program.stderr, "interrupted by " + number.name)
        self.assertEqual("error", program.events.all[-1]["event"])
        self.assertEqual([], program.events.not_json)

    def test_while_connecting(self):
        for number in STATUS:
            with self.subTest(number), UnansweredPort() as port:
                sender = self.sender(self.file("a.bin", b"a"), port.port, "--warm-timeout", "0")
                sender.events.wait_for("file")
                sender.signal(number)
                self.assert_interrupted(sender, number)

    def test_while_a_person_is_asked_whether_to_accept(self):
        for number in STATUS:
            with self.subTest(number):
                receiver = self.receiver()
                relay = self.relay(receiver.port, answers=True, after_bytes=HANDSHAKE_ANSWER_BYTES, then="hold")
                sender = self.sender(self.file("a.bin", b"a"), relay.port)
                sender.events.wait_for("handshake")
                self.assertTrue(relay.reached.wait(30))
                sender.signal(number)
                self.assert_interrupted(sender, number)
                self.assertEqual(1, len(self.mac.journal()))
                relay.close()
                self.assertEqual(1, receiver.wait())
                for name in os.listdir(self.phone.downloads):
                    (self.phone.downloads / name).unlink()

    def test_while_streaming_on_either_side_and_then_it_resumes(self):
        random = seeded(self)
        for number in STATUS:
            for stop_sender in (True, False):
                with self.subTest(number, stop_sender=stop_sender):
                    file = self.file(f"{number.name} {stop_sender}.bin", random.randbytes(16 * MIB))
                    receiver = self.receiver()
                    relay = self.relay(receiver.port, after_frames=FRAMES_BEFORE_DATA + 3, then="hold")
                    sender = self.sender(file, relay.port)
                    self.assertTrue(relay.reached.wait(30))
                    stopped, other = (sender, receiver) if stop_sender else (receiver, sender)
                    stopped.signal(number)
                    self.assert_interrupted(stopped, number)
                    if stop_sender:
                        self.assertRegex(sender.stderr, rf"(?m)^\d+ % of {file.name} was sent to phone; "
                                                        "send it again and it goes on there\\.$")
                    relay.close()
                    self.assertEqual(1, other.wait())
                    self.assertTrue((self.phone.downloads / (file.name + ".partial.meta.json")).exists())
                    self.assertEqual(1, len(self.mac.journal()))
                    sender, receiver = self.transfer(file)
                    self.assert_delivered(file, sender, receiver)
                    if stop_sender:
                        self.assertEqual(3 * MIB, receiver.events.find("complete")["resumed_from_offset"])

    def test_while_waiting_for_a_connection(self):
        for number in STATUS:
            with self.subTest(number):
                receiver = self.receiver()
                receiver.signal(number)
                self.assert_interrupted(receiver, number)

    def test_the_files_that_are_left_are_not_begun(self):
        with UnansweredPort() as port:
            self.mac.record(self.phone, port.port)
            files = [str(self.file(name, b"x")) for name in ("a", "b", "c")]
            sender = self.running(self.mac, "send", "--json", "--warm-timeout", "0", *files)
            sender.events.wait_for("file")
            sender.signal(signal.SIGINT)
            self.assertEqual(130, sender.wait())
            self.assertEqual(["file", "error"], sender.events.names())

    @unittest.skipIf(SANITIZED, "a sanitizer wants to be the first library")
    def test_while_a_name_is_resolved(self):
        asked = self.folder / "asked"
        os.mkfifo(asked)
        self.mac.environment.update(ORLINTH_TEST_ASKED=str(asked), LD_PRELOAD=str(self.shim("resolver", RESOLVER)))
        self.mac.record(self.phone, 9, ip="a-name-that-nobody-has.invalid")
        sender = self.running(self.mac, "send", "--json", "--warm-timeout", "0", str(self.file("a", b"x")))
        self.assertEqual(b"asked", asked.read_bytes())
        sender.signal(signal.SIGINT)
        self.assertEqual(130, sender.wait(), sender.stderr)
        self.assertEqual(1, sender.stderr.count("orlinth: "), sender.stderr)



if __name__ == "__main__":
    unittest.main()
