"""A file is called sent once it lies under its final name, and not before."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "faults"))

from harness import ProgramTest  # noqa: E402
from relay import BACK, Fault, FaultyRelay  # noqa: E402

AT_THE_VERY_END = {"action": "reset", "way": BACK, "anchor": "end"}


class SaidIsDone(ProgramTest):
    def setUp(self):
        super().setUp()
        self.service = self.running(self.phone, "serve", "--port", "0", "--json", "--dir", str(self.phone.downloads))
        self.relay = FaultyRelay(self.service.events.wait_for("listening")["port"])
        self.addCleanup(self.relay.close)
        self.mac.record(self.phone, self.relay.port)
        self.source = self.file("film.mov", b"content" * 1000)

    def send(self, *options):
        return self.mac.run("send", *options, str(self.source))

    def names(self):
        return sorted(path.name for path in self.phone.downloads.iterdir())

    def test_what_breaks_at_the_very_end_is_offered_again_and_delivered_once(self):
        self.relay.arm(Fault(**AT_THE_VERY_END))
        sender = self.send()
        self.assertEqual(0, sender.returncode, sender.stderr)
        self.assertIn("phone broke the connection at the end of film.mov; sending the file again", sender.stderr)
        self.assertEqual(["film.mov"], self.names())
        self.assertEqual(self.source.read_bytes(), (self.phone.downloads / "film.mov").read_bytes())
        self.assertEqual({}, self.mac.journal())

    def test_what_breaks_at_the_very_end_each_time_is_reported_as_that(self):
        again = []

        def break_once_more():
            if not again:
                again.append(True)
                self.relay.armed = Fault(**AT_THE_VERY_END)
        self.relay.look = break_once_more  # called when the service ends a connection
        self.relay.arm(Fault(**AT_THE_VERY_END))
        sender = self.send()
        self.assertEqual(1, sender.returncode, sender.stderr)
        self.assertEqual([
            "orlinth: the connection broke at the very end; the file may or may not have arrived",
            "film.mov may or may not be on phone. Look for it on phone (127.0.0.1), or send it again.",
        ], [line.replace(f":{self.relay.port}", "") for line in sender.stderr.splitlines()[-2:]])
        self.assertEqual(1, len(self.mac.journal()), "the id that the phone knows it by")
        self.assertEqual(["film.mov"], self.names())

        sender = self.send()
        self.assertEqual(0, sender.returncode, sender.stderr)
        self.assertEqual(["film.mov"], self.names())
        self.assertEqual({}, self.mac.journal())


if __name__ == "__main__":
    unittest.main()
