"""Pictures of a payload, and the terminal's text, read by a QR reader that is not ours: zbarimg."""

import json
import os
import pathlib
import struct
import subprocess
import tempfile
import unittest
import zlib

import own_environment  # noqa: F401 (it is entered by the import)

TOOL = pathlib.Path(os.environ.get("ORLINTH_BUILD", ".")) / "tests" / "interop" / "qr_tool"
PATIENCE = 60
# At one pixel a module zbarimg misses most symbols, so that nobody should be given such a picture.
SCALES = ("1.5", "2", "2.5", "3", "5", "8")
LARGEST = 2331  # bytes that a symbol of level M holds
UNICODE_NAMES = ("Küche", "Straße №5 – Ölmühle", "台所のコンピュータ", "🍳 ноутбук 👩‍👩‍👧‍👦", "ÄÖÜ", "é", "ｶﾀｶﾅ", "שלום")


def payload(hostname, size=None):
    """The JSON that our side writes as well, so that what is read can be compared byte for byte."""
    members = {"version": 1, "peer_pubkey": "/" * 42 + "8=", "peer_ip": "192.168.1.7", "peer_port": 40112,
               "peer_subnet": "192.168.1.0/24", "peer_hostname": hostname, "peer_mac": "3c:22:fb:01:02:0a",
               "pairing_secret": "/+" * 21 + "8="}

    def encode():
        return json.dumps(members, sort_keys=True, separators=(",", ":"), ensure_ascii=False).encode()

    if size is not None:
        members["peer_hostname"] += "x" * (size - len(encode()))
    return encode()


def write_png(path, rows):
    """A picture of bytes, one a pixel: 0 is black. (RFC 2083: greyscale, 8 bits.)"""
    def chunk(kind, content):
        return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))

    path.write_bytes(b"\x89PNG\r\n\x1a\n" +
                     chunk(b"IHDR", struct.pack(">IIBBBBB", len(rows[0]), len(rows), 8, 0, 0, 0, 0)) +
                     chunk(b"IDAT", zlib.compress(b"".join(b"\0" + row for row in rows))) + chunk(b"IEND", b""))


def draw_text(text, cell_width, cell_height, ink=0, paper=255):
    """What a terminal shows: each character fills its cell, "▀" the upper half of it."""
    halves = {" ": (paper, paper), "▀": (ink, paper), "▄": (paper, ink), "█": (ink, ink)}
    rows = []
    for line in text.splitlines():
        for half in (0, 1):
            row = b"".join(bytes([halves[character][half]]) * cell_width for character in line)
            rows.extend([row] * (cell_height // 2))
    return rows


class Pictures(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orlinth-qr-")
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name) / "code.png"

    def tool(self, *arguments, content=b""):
        done = subprocess.run([TOOL, *map(str, arguments)], input=content, capture_output=True, timeout=PATIENCE,
                              check=False)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done.stdout

    def zbar(self):
        """The bytes of the one QR code, as they are: without "binary", zbarimg guesses a character set."""
        done = subprocess.run(["zbarimg", "--quiet", "--raw", "--oneshot", "--nodbus", "-Sdisable", "-Sqrcode.enable",
                               "-Sqrcode.binary", self.file], capture_output=True, timeout=PATIENCE, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, b""), "zbarimg finds no symbol")
        return done.stdout

    def read_at_every_scale(self, content):
        for scale in SCALES:
            with self.subTest(size=len(content), scale=scale):
                self.tool("png", self.file, scale, content=content)
                self.assertEqual(self.zbar(), content)

    def test_another_reader_reads_the_picture(self):
        self.read_at_every_scale(payload("desk"))

    def test_another_reader_reads_host_names_in_any_script(self):
        for name in UNICODE_NAMES:
            self.read_at_every_scale(payload(name))

    def test_another_reader_reads_the_longest_payload(self):
        self.read_at_every_scale(payload("", LARGEST))
        self.read_at_every_scale(payload("Küche 台所 🍳", LARGEST))

    def test_another_reader_reads_symbols_of_many_sizes(self):
        for size in range(260, LARGEST, 230):
            content = payload("", size)
            with self.subTest(size=size):
                self.tool("png", self.file, 4, content=content)
                self.assertEqual(self.zbar(), content)

    def test_a_longer_payload_has_no_picture(self):
        done = subprocess.run([TOOL, "png", self.file, "4"], input=payload("", LARGEST + 1), capture_output=True,
                              timeout=PATIENCE, check=False)
        self.assertEqual((done.returncode, done.stderr),
                         (1, b"qr_tool: CIFilter.qrCodeGenerator produced no output\n"))
        self.assertFalse(self.file.exists())

    def test_the_picture_is_for_its_owner_alone(self):
        self.tool("png", self.file, 4, content=payload("desk"))
        self.assertEqual(self.file.stat().st_mode & 0o777, 0o600)

    def test_another_reader_reads_the_terminals_text(self):
        for content in (payload("desk"), payload("Küche 台所 🍳"), payload("", 1000), payload("", LARGEST)):
            text = self.tool("ascii", content=content).decode()
            for cell in ((4, 8), (8, 16), (7, 16)):
                with self.subTest(size=len(content), cell=cell):
                    write_png(self.file, draw_text(text, *cell))
                    self.assertEqual(self.zbar(), content)

    def test_our_reader_reads_pictures_that_others_wrote(self):
        for content in (payload("Küche 台所 🍳"), payload("", LARGEST)):
            text = self.tool("ascii", content=content).decode()
            for cell in ((1, 2), (2, 4), (8, 16), (7, 16)):
                with self.subTest(size=len(content), cell=cell):
                    write_png(self.file, draw_text(text, *cell, ink=30, paper=220))
                    self.assertEqual(self.tool("read", self.file), content)


if __name__ == "__main__":
    unittest.main()
