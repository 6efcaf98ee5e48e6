"""The clipboard on a real X11 desktop (Xvfb), with xclip and others as the other programs."""

import subprocess
import time
import unittest

from desktops import CONCEALED, GENERATED, HINT, PATIENCE, PLAIN, PNG, ClipboardRules, X11Desktop


class X11Clipboard(ClipboardRules, unittest.TestCase):
    desktop_class = X11Desktop
    package = b"xclip"
    broken = {"DISPLAY": ":9999"}

    def xclip(self, *arguments, **options):
        return subprocess.run(["xclip", "-selection", "clipboard", *arguments], env=self.desktop.environment,
                              timeout=PATIENCE, **options)

    def copy(self, content, target=None):
        """With xclip, which offers one type; waits until the one before has lost the clipboard."""
        before = self.owner({"UTF8_STRING": "what was there before"})
        self.xclip("-i", *(["-t", target] if target else []), input=content, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        before.process.wait(PATIENCE)

    def test_reads_what_xclip_has_copied(self):
        self.copy("Grüße\n".encode())
        self.expect(self.tool("read-for-send"), "text\nGrüße\n".encode())

    def test_an_image_of_xclips_is_empty(self):
        self.copy(PNG, "image/png")
        self.expect(self.tool("read-for-send"), b"empty\n")
        self.expect(self.tool("read"), b"")

    def test_marks_of_xclips_block(self):
        for mark in (CONCEALED, GENERATED):
            self.copy(b"hunter2", mark)
            self.expect(self.tool("read-for-send"), b"blocked\n")
        self.copy(b"secret", HINT)
        self.expect(self.tool("read-for-send"), b"blocked\n")

    def test_a_clipboard_without_an_owner_is_empty(self):
        owner = self.owner({PLAIN: "x"})
        owner.requests()  # it ends, and with it what it owned
        deadline = time.monotonic() + PATIENCE
        while self.xclip("-o", "-t", "TARGETS", capture_output=True).returncode == 0:
            self.assertLess(time.monotonic(), deadline)
        self.expect(self.tool("read-for-send"), b"empty\n")
        self.expect(self.tool("read"), b"")

    def test_blocks_when_the_types_cannot_be_read(self):
        self.assertEqual([], self.blocked_unread({PLAIN: "hunter2", "UTF8_STRING": "hunter2"}, silent=["TARGETS"]))

    def test_reads_nothing_from_an_owner_that_refuses_to_tell_its_types(self):
        owner = self.owner({PLAIN: "hunter2", "UTF8_STRING": "hunter2", "STRING": "hunter2"}, refused=["TARGETS"])
        self.expect(self.tool("read-for-send"), b"empty\n")
        self.assertEqual([], owner.requests())

    def test_reads_an_old_programs_text_in_latin_1(self):
        self.owner({"STRING": "Grüße £".encode("latin-1")})
        self.expect(self.tool("read-for-send"), b"text\n" + "Grüße £".encode())

    def test_other_programs_can_paste_what_was_written(self):
        self.write("Grüße\n".encode())
        self.assertEqual("Grüße\n".encode(), self.xclip("-o", capture_output=True).stdout)
        types = self.xclip("-o", "-t", "TARGETS", capture_output=True).stdout.decode().split()
        self.assertIn("UTF8_STRING", types)
        for mark in (CONCEALED, GENERATED, HINT):
            self.assertNotIn(mark, types)

    def test_an_empty_text_is_there_for_other_programs(self):
        self.write(b"")
        pasted = self.xclip("-o", "-t", "UTF8_STRING", capture_output=True)
        self.assertEqual((0, b""), (pasted.returncode, pasted.stdout))


if __name__ == "__main__":
    unittest.main()
