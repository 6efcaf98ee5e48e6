"""A file beyond what 32 bits count."""

import os
import pathlib
import shutil
import tempfile
import unittest

from harness import MIB, SANITIZED, ProgramTest, seeded

SIZE = 200 * MIB if SANITIZED else 5 * 1024 * MIB


def roomy_folder():
    """A folder with room for the received file; memory if there is plenty, because that is quicker."""
    if os.path.isdir("/dev/shm") and shutil.disk_usage("/dev/shm").free > 3 * SIZE:
        return "/dev/shm"
    return tempfile.gettempdir()


class LargeFile(ProgramTest):
    base = roomy_folder()

    def test_a_sparse_file_of_five_gibibytes_arrives(self):
        random = seeded(self)
        file = pathlib.Path(self.folder) / "disk image.raw"
        spots = {0: 1, SIZE - 70_000: 70_000}
        for boundary in (2**31, 2**32):
            spots[min(boundary, SIZE // 2) - 50_000] = 100_000
        with open(file, "wb") as image:
            image.truncate(SIZE)
            for offset, length in spots.items():
                image.seek(offset)
                image.write(random.randbytes(length))
        sender, receiver = self.transfer(file, patience=500)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        self.assertEqual(SIZE, receiver.events.find("complete")["bytes_written"])
        saved = self.phone.downloads / "disk image.raw"
        self.assertEqual(SIZE, saved.stat().st_size)
        with open(file, "rb") as sent, open(saved, "rb") as received:
            for offset in [*spots, SIZE // 3, SIZE // 7 * 5]:
                sent.seek(max(0, offset - 1000))
                received.seek(max(0, offset - 1000))
                self.assertEqual(sent.read(200_000), received.read(200_000), f"around {offset}")


if __name__ == "__main__":
    unittest.main()
