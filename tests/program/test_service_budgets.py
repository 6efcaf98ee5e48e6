"""What the receive service lets strangers take, and single phones: little, and nothing of what others need."""

import concurrent.futures
import contextlib
import os
import pathlib
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

import own_root  # noqa: F401 (it is entered by the import)
from harness import BUILD, MIB, SANITIZED, ProgramTest
from test_serve import ServeTest, told, wait_for_count

RUDE_PHONE = str(BUILD / "tests" / "interop" / "rude_phone")
HANDSHAKE_SECONDS = 10
MOST_OF_ONE_SOURCE = 16
MOST_OF_ONE_PHONE = 16
FRAME_ROOM = 64 * MIB


def resident(program):
    """In bytes."""
    for line in pathlib.Path(f"/proc/{program.process.pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) * 1024
    raise AssertionError("no VmRSS")


def is_open(connection):
    """Whether the other side has neither closed nor reset it. Nothing was sent that could be read."""
    try:
        return bool(connection.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT))
    except BlockingIOError:
        return True
    except ConnectionError:
        return False


class BudgetTest(ServeTest):
    def stranger(self, service, source="127.0.0.66"):
        stranger = socket.create_connection(("127.0.0.1", service.port), source_address=(source, 0))
        self.addCleanup(stranger.close)
        return stranger

    def rude(self, service, *what, phone=None):
        """A rude phone that has done its worst; `.ready` is what it says then."""
        program = self.running_program([RUDE_PHONE, str(service.port), self.desk.key, *map(str, what)],
                                       phone or self.phone, stdin=subprocess.PIPE)
        self.addCleanup(program.process.stdin.close)
        program.ready = program.events.wait_for("ready")
        return program

    def leaves(self, program):
        program.process.stdin.close()
        self.assertEqual(0, program.wait(), program.stderr)


class Strangers(BudgetTest):
    def test_a_stranger_has_ten_seconds_for_the_whole_handshake_however_it_is_drawn_out(self):
        service = self.serve()
        begin = time.monotonic()
        silent, drawn_out = self.stranger(service), self.stranger(service)
        greeting = struct.pack(">I", 32) + b"\x09" * 32
        sent = 0
        while time.monotonic() - begin < 3 * HANDSHAKE_SECONDS and (is_open(silent) or is_open(drawn_out)):
            if sent < len(greeting) - 1 and is_open(drawn_out):
                with contextlib.suppress(ConnectionError):
                    drawn_out.send(greeting[sent:sent + 1])
                sent += 1
            time.sleep(0.3)
        seconds = time.monotonic() - begin
        print(f"\n  both were closed after {seconds:.1f} s", flush=True)
        self.assertGreater(seconds, HANDSHAKE_SECONDS - 1)
        self.assertLess(seconds, HANDSHAKE_SECONDS + 3)
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)

    def test_one_source_keeps_sixteen_places(self):
        service = self.serve()
        crowd = [self.stranger(service) for _ in range(200)]
        other = self.stranger(service, "127.0.0.67")
        self.wait_until(lambda: sum(map(is_open, crowd)) <= MOST_OF_ONE_SOURCE)
        self.assertEqual(MOST_OF_ONE_SOURCE, sum(map(is_open, crowd)))
        self.assertTrue(is_open(other))
        self.assertTrue(is_open(crowd[-1]))
        self.assert_ends(service)

    def test_a_flood_from_one_source_costs_a_phone_of_another_nothing_but_time(self):
        count = 16 if SANITIZED else 64
        service = self.serve("--no-clipboard")
        files = [self.file(f"{number}.bin", os.urandom(64 * 1024)) for number in range(count)]
        self.phone.record(self.desk, service.port)
        self.assertEqual(0, self.phone.run("send", "--to", "mac", str(files[0])).returncode)
        stop = threading.Event()
        made = [0]

        def flood():
            held = []
            while not stop.is_set():
                stranger = socket.socket()
                try:
                    stranger.bind(("127.0.0.66", 0))
                    stranger.connect(("127.0.0.1", service.port))
                    held.append(stranger)
                    made[0] += 1
                except OSError:
                    stranger.close()
                while len(held) > 400:
                    held.pop(0).close()
            for stranger in held:
                stranger.close()
        floods = [threading.Thread(target=flood) for _ in range(2)]
        for thread in floods:
            thread.start()
        begin = time.monotonic()
        try:
            with concurrent.futures.ThreadPoolExecutor(4) as pool:
                results = list(pool.map(lambda file: self.phone.run("send", "--to", "mac", str(file)), files[1:]))
        finally:
            stop.set()
            for thread in floods:
                thread.join()
        seconds = time.monotonic() - begin
        failed = [result.stderr for result in results if result.returncode != 0]
        print(f"\n  {len(results)} deliveries in {seconds:.1f} s beside {made[0]} connections of a stranger; "
              f"{len(failed)} failed", flush=True)
        self.assertGreater(made[0], 10 * count, "this was no flood")
        self.assertEqual([], failed)
        wait_for_count(service.events, "received", count)
        self.assert_ends(service)


class OnePhone(BudgetTest):
    def test_a_phone_keeps_sixteen_connections_and_another_is_served(self):
        other = self.another_phone("tablet")
        service = self.serve()
        rude = self.rude(service, "hold", 300)
        self.assertEqual(MOST_OF_ONE_PHONE, rude.ready["open"])
        self.assert_sent(other, self.file("a.bin", os.urandom(MIB)), service)
        self.leaves(rude)
        self.assert_ends(service)

    def test_half_sent_frames_take_bounded_memory_and_others_deliver_meanwhile(self):
        others = [self.another_phone(f"tablet {number}") for number in range(3)]
        service = self.serve()
        self.assert_sent(self.phone, self.file("first.bin", os.urandom(MIB)), service)
        before = resident(service)
        rude = [self.rude(service, "halves", 14, 15 * MIB, phone=phone) for phone in (self.phone, *others[:2])]
        grown = resident(service) - before
        print(f"\n  {3 * 14} frames of which 15 MiB were sent: {grown / MIB:.0f} MiB", flush=True)
        self.assert_sent(others[2], self.file("second.bin", os.urandom(8 * MIB)), service)
        if not SANITIZED:
            self.assertLess(grown, FRAME_ROOM + 32 * MIB)
            self.assertGreater(grown, 15 * MIB, "nothing was half-sent, so nothing was tested")
        for program in rude:
            self.leaves(program)
        self.assert_ends(service)

    def test_texts_of_sixteen_megabytes_pass_all_the_same(self):
        service = self.serve("--no-clipboard")
        size = 15 * MIB
        self.leaves(self.rude(service, "texts", 3, size))
        texts = wait_for_count(service.events, "clipboard", 3)
        self.assertEqual([size + 2] * 3, [len(event["text"]) for event in texts])
        self.assert_ends(service)


if __name__ == "__main__":
    unittest.main()
