"""A file beyond what 32 bits count.

Nearly all of it is a hole. What lies between its ends and the two boundaries, signed and unsigned, needs not go over the
wire: after each interruption the part that the receiver has is extended, by a hole too, to shortly before the next one.
"""

import os
import pathlib
import unittest

from harness import MIB, ProgramTest, seeded

BOUNDARIES = (2**31, 2**32)
SIZE = BOUNDARIES[-1] + 9 * MIB + 12_345
AROUND = 4 * MIB


class LargeFile(ProgramTest):
    def interrupted(self, file, start):
        """An attempt that ends when what lies around the boundary has been written; the part that has arrived."""
        partial = self.phone.downloads / (file.name + ".partial")
        receiver = self.receiver()

        def is_written():
            return receiver.process.poll() is not None or partial.stat().st_size >= start + 2 * AROUND
        relay = self.relay(receiver.port, after_bytes=2 * AROUND + 2 * MIB, buffer=65536, when=is_written,
                           changed_by=[partial, receiver])
        sender = self.sender(file, relay.port)
        self.assertEqual(1, sender.wait(), sender.stderr)
        self.assertEqual(1, receiver.wait(), receiver.stderr)
        return partial

    def test_a_file_of_more_than_four_gibibytes_arrives(self):
        random = seeded(self)
        file = self.file("disk image.raw", b"")
        # around the boundaries, and beside them, so that whatever is written in another place is missing
        spots = {offset: random.randbytes(length) for offset, length in (
            (0, 2 * MIB), *((boundary - AROUND, 2 * AROUND) for boundary in BOUNDARIES), (SIZE - 70_000, 70_000))}
        with open(file, "wb") as image:
            image.truncate(SIZE)
            for offset, data in spots.items():
                os.pwrite(image.fileno(), data, offset)
        start = 0
        for boundary in BOUNDARIES:
            partial = self.interrupted(file, start)
            self.assertGreaterEqual(partial.stat().st_size, start + 2 * AROUND)
            start = boundary - AROUND
            self.assertLess(partial.stat().st_size, start)
            os.truncate(partial, start)
        sender, receiver = self.transfer(file)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        complete = receiver.events.find("complete")
        self.assertEqual(BOUNDARIES[-1] - AROUND, complete["resumed_from_offset"])
        self.assertEqual(SIZE, complete["bytes_written"])
        saved = pathlib.Path(complete["saved_at"])
        self.assertEqual(SIZE, saved.stat().st_size)
        with open(saved, "rb") as received:
            for offset, data in spots.items():
                before = min(offset, 1000)
                expected = (bytes(before) + data + bytes(1000))[:SIZE - offset + before]
                self.assertTrue(expected == os.pread(received.fileno(), before + len(data) + 1000, offset - before),
                                f"another content around {offset}")


if __name__ == "__main__":
    unittest.main()
