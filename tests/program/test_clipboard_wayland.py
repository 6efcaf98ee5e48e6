"""The clipboard on a real Wayland desktop (sway), with wl-clipboard's programs and others as the other programs."""

import subprocess
import unittest

from desktops import CONCEALED, GENERATED, HINT, PATIENCE, PLAIN, PNG, ClipboardRules, WaylandDesktop


class WaylandClipboard(ClipboardRules, unittest.TestCase):
    desktop_class = WaylandDesktop
    package = b"wl-clipboard"
    broken = {"WAYLAND_DISPLAY": "wayland-9999"}

    def wl(self, program, *arguments, **options):
        return subprocess.run([program, *arguments], env=self.desktop.environment, timeout=PATIENCE, **options)

    def copy(self, content, kind=None):
        """With wl-copy, which offers one type, or all that are usual for text."""
        before = self.owner({PLAIN: "what was there before"})
        self.wl("wl-copy", *(["--type", kind] if kind else []), input=content, check=True,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        before.process.wait(PATIENCE)

    def types(self):
        return self.wl("wl-paste", "--list-types", capture_output=True).stdout.decode().splitlines()

    def test_reads_what_wl_copy_has_copied(self):
        self.copy("Grüße\n".encode(), "text/plain")
        self.expect(self.tool("read-for-send"), "text\nGrüße\n".encode())

    def test_an_image_of_wl_copys_is_empty(self):
        self.copy(PNG, "image/png")
        self.expect(self.tool("read-for-send"), b"empty\n")
        self.expect(self.tool("read"), b"")

    def test_marks_of_wl_copys_block(self):
        for mark in (CONCEALED, GENERATED):
            self.copy(b"hunter2", mark)
            self.expect(self.tool("read-for-send"), b"blocked\n")
        self.copy(b"secret", HINT)
        self.expect(self.tool("read-for-send"), b"blocked\n")

    def test_a_cleared_clipboard_is_empty(self):
        owner = self.owner({PLAIN: "x"})
        self.wl("wl-copy", "--clear", check=True)
        owner.process.wait(PATIENCE)
        self.expect(self.tool("read-for-send"), b"empty\n")
        self.expect(self.tool("read"), b"")

    def test_wayland_is_asked_where_there_is_also_an_x11(self):
        self.owner({PLAIN: "from wayland"})
        environment = self.desktop.environment | {"DISPLAY": ":9999"}
        self.expect(self.tool("read", environment=environment), b"from wayland")

    def test_other_programs_can_paste_what_was_written(self):
        self.write("Grüße\n".encode())
        types = self.types()
        for kind in (PLAIN, "text/plain", "UTF8_STRING", "STRING"):
            self.assertIn(kind, types)
            pasted = self.wl("wl-paste", "--no-newline", "--type", kind, capture_output=True)
            self.assertEqual("Grüße\n".encode(), pasted.stdout)
        for mark in (CONCEALED, GENERATED, HINT):
            self.assertNotIn(mark, types)

    def test_an_empty_text_is_there_for_other_programs(self):
        self.write(b"")
        self.assertIn(PLAIN, self.types())
        pasted = self.wl("wl-paste", "--no-newline", "--type", PLAIN, capture_output=True)
        self.assertEqual((0, b""), (pasted.returncode, pasted.stdout))


if __name__ == "__main__":
    unittest.main()
