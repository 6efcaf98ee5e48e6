"""From the file manager to a phone that sleeps, over the real programs: the share sheet puts files into the outbox, the
service sends them, the phone is woken and takes them."""

import json
import os
import pathlib
import subprocess
import unittest

import test_wake
from harness import PATIENCE
from outbox_world import OutboxTest

SHARE = os.environ["ORLINTH_SHARE"]


class FromTheSheetToThePhone(test_wake.WakeTest, OutboxTest):
    def share_by_sheet(self, *items, notice=""):
        """As a file manager does, on a desktop without a screen; with one phone paired nobody is asked. `notice` is what
        the sheet says though it has done it."""
        suppressions = pathlib.Path(os.environ["ORLINTH_SOURCE"]) / "tests" / "OrlinthShare" / "lsan.supp"
        environment = {**self.mac.environment, "QT_QPA_PLATFORM": "offscreen",
                       "LSAN_OPTIONS": f"suppressions={suppressions}:print_suppressions=0"}
        done = subprocess.run([SHARE, "--", *items], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=PATIENCE, check=False, encoding="utf-8")
        self.assertEqual((0, notice), (done.returncode, done.stderr))

    def files(self):
        """Their names are what people call their files."""
        return [self.file(name, os.urandom(size)) for name, size in
                (("Grüße aus 東京.jpg", 300_000), ("100 % sure?.txt", 10), ("empty", 0))]

    def test_a_sleeping_phone_is_woken_and_gets_everything_once(self):
        self.phone_wakes(lambda: self.serve(self.phone, port=str(self.port.port)))
        service = self.serve(self.mac)
        files = self.files()
        self.share_by_sheet(*(pathlib.Path(file).as_uri() for file in files))
        self.wait_for(service, "outbox_done")
        self.assertEqual(len(files), len([event for event in service.events.all if event["event"] == "outbox_sent"]))
        self.assert_arrived(files)
        self.assert_pushed()
        self.assert_nothing_left()
        self.assert_no_secret(json.dumps(service.events.all), service.stderr)

    def test_what_is_shared_while_nothing_runs_goes_after_a_restart(self):
        files = self.files()
        self.share_by_sheet(*map(str, files), notice="orlinth-share: The Orlinth service is not running. Files will be "
                                                     "sent once it starts: `orlinth serve`\n")
        self.assertEqual(1, len(self.batches()))
        self.phone_wakes(lambda: self.serve(self.phone, port=str(self.port.port)))
        self.wait_for(self.serve(self.mac), "outbox_done")
        self.assert_arrived(files)
        self.assert_nothing_left()


if __name__ == "__main__":
    unittest.main()
