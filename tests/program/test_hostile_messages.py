"""What a paired phone cannot do to the service with messages that are made to be expensive."""

import concurrent.futures
import itertools
import json
import pathlib
import threading
import time
import unittest

import own_root  # noqa: F401 (it is entered by the import)
from harness import MIB, PATIENCE, SANITIZED
from hostile_phone import HostilePhone
from test_serve import ServeTest, wait_for_count

LARGEST = 16 * MIB - 1


def filled(start, piece, end, size=LARGEST):
    """A text of at most this size, made of pieces."""
    return start + piece * ((size - len(start) - len(end)) // len(piece)) + end


EXPENSIVE = {
    "empty objects": filled(b"[", b"{},", b"{}]"),
    "zeros": filled(b"[", b"0,", b"0]"),
    "members": filled(b'{"type":"Done"', b',"a":{}', b"}"),
    "the same key": filled(b'{"type":"Done"', b',"key":"%s"' % (b"x" * 200), b"}"),
    "arrays in arrays": filled(b"", b"[", b""),
    "one text without an end": filled(b'{"type":"', b"a", b""),
    "digits": filled(b'{"type":', b"1", b"}"),
    "white space": filled(b"", b" ", b"{}"),
}


class Messages(ServeTest):
    def setUp(self):
        super().setUp()
        self.hostile = HostilePhone()
        self.mac.record(self.hostile, key=self.hostile.key)

    def processor_seconds(self, service):
        """What the service has used of the processors."""
        fields = pathlib.Path(f"/proc/{service.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
        ticks_a_second = 100
        return (int(fields[11]) + int(fields[12])) / ticks_a_second

    def peak(self, service):
        """The most memory that the service has ever held, in bytes."""
        for line in pathlib.Path(f"/proc/{service.process.pid}/status").read_text().splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
        raise AssertionError("no VmHWM")

    def test_that_are_expensive_to_read_end_the_connection_at_once(self):
        service = self.serve()
        for what, text in EXPENSIVE.items():
            with self.subTest(what), self.hostile.connect(service.port) as connection:
                before = self.processor_seconds(service)
                connection.send_text(text)
                self.assertIn(connection.end(), ("closed", "reset"))
                # Half a second where it is as large as a frame can be; a hundred times that would be n².
                self.assertLess(self.processor_seconds(service) - before, 30 if SANITIZED else 5)
        if not SANITIZED:
            self.assertLess(self.peak(service), 128 * MIB)

    def test_that_are_expensive_to_read_keep_no_other_phone_waiting(self):
        service = self.serve()
        text = filled(b"[", b"{},", b"{}]", MIB // 2)
        connections = []
        for number in range(4):
            hostile = HostilePhone(f"hostile {number}")
            self.mac.record(hostile, key=hostile.key)
            connections.append([hostile.connect(service.port) for _ in range(10)])
        for connection in itertools.chain(*connections):
            self.addCleanup(connection.close)
        alone = self.seconds_of_a_delivery(service, "alone.jpg")
        begun = threading.Barrier(len(connections) + 1, timeout=PATIENCE)

        def be_hostile(own):
            own[0].send_text(text)
            begun.wait()
            for connection in own[1:]:
                connection.send_text(text)
        with concurrent.futures.ThreadPoolExecutor(len(connections)) as pool:
            hostile = [pool.submit(be_hostile, own) for own in connections]
            begun.wait()
            beside = self.seconds_of_a_delivery(service, "photo.jpg")
            for one in hostile:
                one.result()
        print(f"\n  a delivery took {alone:.1f} s alone, {beside:.1f} s beside the messages", flush=True)
        self.assertLess(beside, 3 * alone + (30 if SANITIZED else 5))

    def seconds_of_a_delivery(self, service, name):
        file = self.file(name, name.encode() * 100)
        begin = time.monotonic()
        self.assert_sent(self.phone, file, service)
        return time.monotonic() - begin

    def test_of_a_megabyte_in_a_sidecar_are_not_read(self):
        service = self.serve()
        name, transfer = "film.mkv", "11111111-2222-3333-4444-555555555555"
        partial = self.mac.downloads / f"{name}.partial"
        partial.write_bytes(b"x" * 100)
        sidecar = {"transfer_id": transfer, "advertised_size": 1000, "started_at_epoch_ms": 1}
        text = json.dumps(sidecar).encode()
        pathlib.Path(f"{partial}.meta.json").write_bytes(filled(text[:-1] + b',"a":[', b"{},", b"{}]}", MIB))
        before = self.processor_seconds(service)
        with self.hostile.connect(service.port) as connection:
            self.assertEqual(0, connection.offer(name, 1000, transfer))
        self.assertLess(self.processor_seconds(service) - before, 5)

    def test_that_are_large_and_honest_are_taken(self):
        service = self.serve("--no-clipboard")
        text = "ä€" * (3 * MIB)
        with self.hostile.connect(service.port) as connection:
            connection.send_text(json.dumps({"type": "Clipboard", "text": text, "mime": "text/plain"},
                                            ensure_ascii=False).encode())
            connection.end()
        wait_for_count(service.events, "clipboard", 1)
        self.assertEqual(text, service.events.find("clipboard")["text"])


if __name__ == "__main__":
    unittest.main()
