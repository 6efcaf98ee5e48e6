"""An honest phone, while strangers hold connections and another paired phone takes everything that it may take.

With ORLINTH_LOAD=full, the rate of the honest phone is compared with its rate alone; otherwise a tenth of the strangers
come, and the figures are only printed.
"""

import contextlib
import pathlib
import select
import socket
import statistics
import struct
import time
import unittest

import own_root  # noqa: F401 (it is entered by the import)
from harness import MIB, SANITIZED
from hostile_phone import HostilePhone
from test_service_load import SMALL, Load, is_open
from test_serve import wait_for_count

SOURCES = [f"127.0.2.{number}" for number in range(1, 9)]
STRANGERS = 200 if SMALL else 2000
FILES = 20 if SMALL else 200
FILE_BYTES = 100 * 1024
ROUNDS = 1 if SMALL else 5
# How many connections of one key, and of one source that has proved no key, the service keeps.
MOST_OF_A_KEY = 16
MOST_OF_A_SOURCE = 16
MOST_MEMORY = 256 * MIB
LEAST_RATE = 0.9
FRAME_BYTES = 16 * MIB


class UnderAttack(Load):
    def setUp(self):
        super().setUp()
        self.hostile = HostilePhone()
        self.desk.record(self.hostile, key=self.hostile.key)
        self.batch = 0
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)

    def strangers(self, service):
        """Connections that say nothing, from each source in turn."""
        return [self.stack.enter_context(socket.create_connection(
            ("127.0.0.1", service.port), source_address=(SOURCES[number % len(SOURCES)], 0)))
            for number in range(STRANGERS)]

    def take_everything(self, service):
        """All connections of a key: frames as large as they may be, of which the last bytes never come."""
        connections = []
        for _ in range(MOST_OF_A_KEY + 4):
            connection = self.stack.enter_context(self.hostile.connect(service.port))
            connection.socket.setblocking(False)
            content = struct.pack(">I", FRAME_BYTES) + bytes(FRAME_BYTES - 1)
            connections.append([connection, memoryview(content)])
        end = time.monotonic() + 2
        while time.monotonic() < end:
            for entry in connections:
                with contextlib.suppress(BlockingIOError, ConnectionError):
                    entry[1] = entry[1][entry[0].socket.send(entry[1][:MIB]):]
            ready = select.poll()  # there may be more of them than select() takes
            for entry in connections:
                if entry[1]:
                    ready.register(entry[0].socket, select.POLLOUT)
            ready.poll(100)
        return [connection for connection, _ in connections]

    def seconds_for_files(self, service):
        """From the start of the honest sender until everything has arrived, byte for byte."""
        self.batch += 1
        content = {f"{self.batch:02} {number:03}.bin": bytes([number % 256]) * FILE_BYTES for number in range(FILES)}
        files = [self.file(name, data) for name, data in content.items()]
        self.phone.record(self.desk, service.port)
        begin = time.monotonic()
        sender = self.running(self.phone, "send", "--to", "mac", "--json", *map(str, files))
        sender.process.wait()  # to the millisecond: with a limit it would look every 50 of them
        seconds = time.monotonic() - begin
        self.assertEqual(0, sender.wait(), sender.stderr)
        for event in wait_for_count(service.events, "received", FILES * self.batch)[-FILES:]:
            saved = pathlib.Path(event["saved_at"])
            self.assertEqual(content[saved.name], saved.read_bytes())
        return seconds

    def peak(self, service):
        """The most memory that the service has ever held."""
        for line in pathlib.Path(f"/proc/{service.process.pid}/status").read_text().splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
        raise AssertionError("no VmHWM")

    def test_an_honest_phone_keeps_its_rate_and_the_service_its_memory(self):
        service = self.serve("--no-clipboard")
        alone = [self.seconds_for_files(service) for _ in range(ROUNDS)]
        strangers = self.strangers(service)
        hostile = self.take_everything(service)
        attacked = [self.seconds_for_files(service) for _ in range(ROUNDS)]

        ratio = statistics.median(alone) / statistics.median(attacked)
        strangers_open = sum(map(is_open, strangers))
        hostile_open = sum(connection.is_open() for connection in hostile)
        print(f"\n  {FILES} files take {statistics.median(alone):.2f} s alone and {statistics.median(attacked):.2f} s "
              f"under attack: {ratio:.2f} of the rate; {strangers_open} of {STRANGERS} strangers and {hostile_open} of "
              f"{len(hostile)} connections of the hostile phone are open; the service held at most "
              f"{self.peak(service) / MIB:.1f} MiB", flush=True)
        self.assertLessEqual(strangers_open, MOST_OF_A_SOURCE * len(SOURCES))
        self.assertLessEqual(hostile_open, MOST_OF_A_KEY)
        if not SANITIZED:
            self.assertLess(self.peak(service), MOST_MEMORY)
        if not SMALL:
            self.assertGreaterEqual(ratio, LEAST_RATE)
        self.assert_ends(service)


if __name__ == "__main__":
    unittest.main()
