"""The wire of scripts/faults: what it passes on, and what its faults do. A wire that is kinder than a real one, or
crueller, would prove nothing."""

import pathlib
import socket
import struct
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "faults"))

from harness import PATIENCE, ProgramTest  # noqa: E402
from relay import BACK, THERE, Alteration, Fault, FaultyRelay  # noqa: E402
from wire import FrameCounter, frames_back, frames_there  # noqa: E402

RESET = "reset"


def read_all(end):
    """Everything until the end, and whether that was an end or a reset."""
    data = b""
    try:
        while piece := end.recv(65536):
            data += piece
    except ConnectionResetError:
        return data, RESET
    return data, "end"


def reset(end):
    end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    end.close()


class RelayTest(unittest.TestCase):
    def connect(self, fault=None):
        """A sender's and a receiver's end, with the relay between them."""
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(self.listener.close)
        self.relay = FaultyRelay(self.listener.getsockname()[1])
        self.addCleanup(self.relay.close)
        self.relay.arm(fault)
        near = socket.create_connection(("127.0.0.1", self.relay.port))
        far, _ = self.listener.accept()
        for end in (near, far):
            end.settimeout(PATIENCE)
            self.addCleanup(end.close)
        return near, far

    def assert_silent(self, end):
        end.settimeout(0.2)
        with self.assertRaises(TimeoutError):
            end.recv(1)
        end.settimeout(PATIENCE)


class Passing(RelayTest):
    def test_bytes_go_through_both_ways_as_they_came(self):
        near, far = self.connect()
        content = bytes(range(256)) * 8192
        threading.Thread(target=near.sendall, args=(content,), daemon=True).start()
        received = b""
        while len(received) < len(content):
            received += far.recv(65536)
        self.assertEqual(content, received)
        far.sendall(b"answer")
        self.assertEqual(b"answer", near.recv(100))

    def test_an_end_is_passed_on_as_an_end_behind_the_bytes(self):
        near, far = self.connect()
        near.sendall(b"all")
        near.shutdown(socket.SHUT_WR)
        self.assertEqual((b"all", "end"), read_all(far))
        far.sendall(b"answer")
        far.close()
        self.assertEqual((b"answer", "end"), read_all(near))
        self.assertIsNone(self.relay.connections[0].was_reset_by)

    def test_a_reset_by_the_receiver_is_passed_on_as_a_reset(self):
        near, far = self.connect()
        near.sendall(b"all")
        near.shutdown(socket.SHUT_WR)
        self.assertEqual((b"all", "end"), read_all(far))
        reset(far)
        self.assertEqual((b"", RESET), read_all(near))
        self.assertEqual("receiver", self.relay.connections[0].was_reset_by)

    def test_a_reset_by_the_sender_is_passed_on_as_a_reset(self):
        near, far = self.connect()
        reset(near)
        self.assertEqual((b"", RESET), read_all(far))
        self.assertEqual("sender", self.relay.connections[0].was_reset_by)

    def test_a_receiver_that_closes_with_unread_bytes_resets_the_sender(self):
        near, far = self.connect()
        near.sendall(b"unread")
        self.assertEqual(b"un", far.recv(2))
        far.close()
        self.assertEqual((b"", RESET), read_all(near))

    def test_the_end_of_a_receiver_is_not_passed_on_while_bytes_for_it_are_under_way(self):
        near, far = self.connect()
        near.sendall(b"a")
        self.assertEqual(b"a", far.recv(1))
        far.close()
        self.assert_silent(near)
        near.sendall(b"too late")
        self.assertEqual((b"", RESET), read_all(near))

    def test_the_end_of_a_receiver_is_passed_on_at_once_to_a_sender_that_waits_for_an_answer(self):
        near, far = self.connect()
        hello = struct.pack(">I", 32) + bytes(32)
        near.sendall(hello)
        self.assertEqual(len(hello), len(far.recv(100)))
        far.close()
        near.settimeout(1)
        self.assertEqual((b"", "end"), read_all(near))

    def test_it_looks_when_the_receiver_ends_and_before_the_sender_knows(self):
        near, far = self.connect()
        seen = []
        self.relay.look = lambda: seen.append("looked") or ["film.bin"]
        near.shutdown(socket.SHUT_WR)
        read_all(far)
        self.assertEqual([], seen)
        far.close()
        read_all(near)
        self.assertEqual(["looked"], seen)
        self.assertEqual(["film.bin"], self.relay.connections[0].seen_at_end)

    def test_only_the_first_connection_has_the_fault(self):
        near, far = self.connect(Fault("flipped", at=0))
        near.sendall(b"@")
        self.assertEqual(b"A", far.recv(1))
        second = socket.create_connection(("127.0.0.1", self.relay.port))
        self.addCleanup(second.close)
        other, _ = self.listener.accept()
        self.addCleanup(other.close)
        second.sendall(b"@")
        self.assertEqual(b"@", other.recv(1))

    def test_a_receiver_that_is_not_there_is_a_reset(self):
        near, far = self.connect()
        self.listener.close()
        second = socket.create_connection(("127.0.0.1", self.relay.port))
        self.addCleanup(second.close)
        second.settimeout(PATIENCE)
        self.assertEqual((b"", RESET), read_all(second))


class Faults(RelayTest):
    def through(self, fault, sent):
        near, far = self.connect(fault)
        near.sendall(sent)
        near.shutdown(socket.SHUT_WR)
        received, _ = read_all(far)
        self.assertTrue(fault.struck.is_set())
        return received

    def test_flips_exactly_that_bit(self):
        self.assertEqual(b"0123\x3456789", self.through(Fault("flipped", at=4, bit=0), b"0123\x3556789"))
        self.assertEqual(b"0\xb1", self.through(Fault("flipped", at=1, bit=7), b"01"))

    def test_drops_exactly_those_bytes(self):
        self.assertEqual(b"0156789", self.through(Fault("dropped", at=2, count=3), b"0123456789"))

    def test_doubles_exactly_those_bytes(self):
        self.assertEqual(b"012343456789", self.through(Fault("doubled", at=3, count=2), b"0123456789"))

    def test_swaps_exactly_two_neighbours(self):
        self.assertEqual(b"0132456789", self.through(Fault("swapped", at=2), b"0123456789"))

    def test_swaps_the_next_two_that_differ(self):
        self.assertEqual(b"00010", self.through(Fault("swapped", at=0), b"00001"))

    def test_alters_the_same_however_the_bytes_come(self):
        content = b"0011223344556677"
        for action in ("flipped", "dropped", "doubled", "swapped"):
            for at in range(len(content) - 2):  # the last two are equal, and behind them is nothing to swap with
                whole = Alteration(Fault(action, at=at)).apply(content)
                self.assertNotEqual(content, whole, (action, at))
                one_by_one = Alteration(Fault(action, at=at))
                pieces = [one_by_one.apply(bytes([byte])) for byte in content]
                self.assertEqual(whole, b"".join(pieces) + one_by_one.kept, (action, at))

    def test_alters_the_way_back(self):
        near, far = self.connect(Fault("flipped", way=BACK, at=1))
        near.sendall(b"@@")
        self.assertEqual(b"@@", far.recv(2))
        far.sendall(b"@@")
        self.assertEqual(b"@A", near.recv(2))

    def test_resets_both_sides_when_so_many_bytes_have_passed(self):
        near, far = self.connect(Fault("reset", at=4))
        near.sendall(b"0123456789")
        data, end = read_all(far)
        self.assertIn(data, (b"0123", b""))  # a reset may overtake what has not been read
        self.assertEqual(RESET, end)
        self.assertEqual((b"", RESET), read_all(near))
        self.assertEqual(4, self.relay.connections[0].there.passed)

    def test_cuts_without_a_word(self):
        near, far = self.connect(Fault("cut", at=4))
        near.sendall(b"0123456789")
        self.assertEqual(b"0123", far.recv(100))
        far.sendall(b"answer")
        self.assert_silent(near)
        self.assert_silent(far)
        self.relay.abort_sender_sides()
        self.assertEqual((b"", RESET), read_all(near))
        self.assert_silent(far)

    def test_closes_one_direction_and_leaves_the_other(self):
        near, far = self.connect(Fault("half-close", at=4))
        near.sendall(b"0123456789")
        self.assertEqual((b"0123", "end"), read_all(far))
        far.sendall(b"answer")
        self.assertEqual(b"answer", near.recv(100))

    def test_an_end_behind_a_half_close_is_passed_on_and_a_reset_too(self):
        near, far = self.connect(Fault("half-close", at=4))
        near.sendall(b"0123456789")
        read_all(far)
        far.close()
        self.assertEqual("end", read_all(near)[1])
        near, far = self.connect(Fault("half-close", at=4))
        near.sendall(b"0123456789")
        read_all(far)
        reset(far)
        self.assertEqual(RESET, read_all(near)[1])

    def test_stalls_and_goes_on(self):
        near, far = self.connect(Fault("stall", at=4, seconds=0.5))
        near.sendall(b"0123456789")
        near.shutdown(socket.SHUT_WR)
        self.assertEqual(b"0123", far.recv(100))
        self.assert_silent(far)
        self.assertEqual((b"456789", "end"), read_all(far))

    def test_calls_when_so_many_bytes_have_passed_and_no_more(self):
        passed = []
        fault = Fault("call", at=4, call=lambda: passed.append(self.relay.connections[0].there.passed))
        near, far = self.connect(fault)
        near.sendall(b"012")
        self.assertEqual(b"012", far.recv(100))
        self.assertEqual([], passed)
        near.sendall(b"3456")
        near.shutdown(socket.SHUT_WR)
        self.assertEqual((b"3456", "end"), read_all(far))
        self.assertEqual([4], passed)

    def test_strikes_before_and_behind_the_end_of_a_direction(self):
        near, far = self.connect(Fault("cut", way=BACK, anchor="end"))
        near.shutdown(socket.SHUT_WR)
        far.sendall(b"answer")
        far.close()
        self.assertEqual(b"answer", near.recv(100))
        self.assert_silent(near)
        called = threading.Event()
        near, far = self.connect(Fault("call", way=THERE, anchor="after", call=called.set))
        near.sendall(b"all")
        self.assertEqual(b"all", far.recv(100))
        self.assertFalse(called.is_set())
        near.shutdown(socket.SHUT_WR)
        self.assertEqual((b"", "end"), read_all(far))
        self.assertTrue(called.wait(PATIENCE))


class Wire(ProgramTest):
    def test_a_transfer_takes_as_many_bytes_and_frames_as_foreseen(self):
        for size in (0, 1, 1 << 20, (1 << 20) + 1):
            with self.subTest(size=size):
                receiver = self.receiver()
                relay = FaultyRelay(receiver.port)
                self.addCleanup(relay.close)
                file = self.file("film.bin", bytes(size))
                self.assert_delivered(file, self.sender(file, relay.port), receiver)
                [connection] = relay.connections
                for flow, frames in ((connection.there, frames_there("film.bin", size)),
                                     (connection.back, frames_back())):
                    self.assertEqual((sum(frames), len(frames)), (flow.passed, flow.frames.whole))
                (self.phone.downloads / "film.bin").unlink()

    def test_frames_are_counted_however_the_bytes_come(self):
        counter = FrameCounter()
        for byte in struct.pack(">I", 2) + b"ab" + struct.pack(">I", 0):
            counter.feed(bytes([byte]))
        self.assertEqual((2, True), (counter.whole, counter.is_between_frames))
        counter.feed(struct.pack(">I", 300) + b"c")
        self.assertEqual((2, False), (counter.whole, counter.is_between_frames))


if __name__ == "__main__":
    unittest.main()
