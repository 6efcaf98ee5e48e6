"""The progress bar, on a pseudo-terminal."""

import re
import subprocess

import side_by_side
from harness import MIB, ORLINTH, PATIENCE, ProgramTest, seeded
from terminal import Terminal

DRAWING = re.compile(r"\r([^\r\n]*)\x1b\[K")


class ProgressBar(ProgramTest):
    def send(self, columns, *arguments, name="holiday film.mkv", **environment):
        """A send that takes about a second, with standard error on a terminal; what was written there."""
        file = self.file(name, seeded(self).randbytes(10 * MIB))
        receiver = self.receiver()
        relay = self.relay(receiver.port, bytes_per_second=12 * MIB)
        self.mac.record(self.phone, relay.port)
        terminal = Terminal(columns)
        sender = subprocess.Popen([ORLINTH, "send", *arguments, str(file)], stderr=terminal.end,
                                  stdout=subprocess.DEVNULL,
                                  env={**self.mac.environment, "TERM": "xterm", **environment})
        self.assertEqual(0, sender.wait(PATIENCE))
        text = terminal.text()
        self.assert_delivered(file, _Ended(), receiver)
        return text

    def drawings(self, text):
        return [re.sub(r"\x1b\[\d*m", "", drawing) for drawing in DRAWING.findall(text)]

    def test_it_shows_name_percent_rate_and_time_left_and_goes_away(self):
        text = self.send(80)
        drawings = self.drawings(text)
        self.assertGreater(len(drawings), 2)
        self.assertLess(len(drawings), 400)
        self.assertTrue(all(len(drawing) < 80 for drawing in drawings), drawings)
        self.assertRegex(drawings[0], r"^holiday film\.mkv  \[-+\]    0%")
        self.assertTrue(any(re.search(r"\d+%  [\d.]+ [kM]B/s  [\d.:]+( s)? left", one) for one in drawings), drawings)
        self.assertEqual("", drawings[-1], "it is taken away at the end")
        self.assertIn("\x1b[32m", text)

    def test_no_color_takes_the_colour_away(self):
        text = self.send(80, NO_COLOR="1")
        self.assertTrue(self.drawings(text))
        self.assertNotRegex(text, r"\x1b\[\d*m")

    def test_it_keeps_within_a_narrow_terminal(self):
        for columns in (20, 45):
            for name in ("a name that is much longer than this terminal is wide.mkv", "ファイルの長い名前です.mkv"):
                with self.subTest(columns=columns, name=name):
                    drawings = self.drawings(self.send(columns, name=name))
                    self.assertGreater(len(drawings), 2)
                    for drawing in drawings:
                        width = sum(2 if ord(character) > 0x3000 else 1 for character in drawing)
                        self.assertLess(width, columns, drawing)

    def test_there_is_none_where_it_is_not_wanted(self):
        for arguments, environment in ((["--quiet"], {}), ([], {"TERM": "dumb"}), (["--json"], {})):
            with self.subTest(arguments=arguments, environment=environment):
                text = self.send(80, *arguments, **environment)
                self.assertNotIn("\x1b", text)
                self.assertNotIn("%", text)


class _Ended:
    """Stands for a sender whose end was looked at already."""

    stderr = ""

    @staticmethod
    def wait():
        return 0


if __name__ == "__main__":
    side_by_side.main()
