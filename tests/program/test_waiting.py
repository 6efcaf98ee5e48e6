"""What the tests wait with: each kind of source wakes, and what does not happen does not."""

import pathlib
import socket
import subprocess
import tempfile
import time
import types
import unittest

import own_environment  # noqa: F401 (it is entered by the import)
import waiting

PATIENCE = 60


class Waiting(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.file = self.folder / "a" / "b" / "file"

    def assert_wakes(self, change, source):
        with waiting.Watch(source) as watch:
            self.assertFalse(watch.wait(0))
            change()
            self.assertTrue(watch.wait(PATIENCE))

    def make(self):
        self.file.parent.mkdir(parents=True, exist_ok=True)
        self.file.write_text("content")

    def replace(self):
        new = self.folder / "new"
        new.write_text("other content")
        new.rename(self.file)

    def program(self, *words):
        """Ends with the test, and so do its pipes; `errors` is the file that it complains to."""
        errors = self.enterContext(tempfile.TemporaryFile())
        return types.SimpleNamespace(
            errors=errors, process=self.enterContext(subprocess.Popen(words, stdin=subprocess.PIPE, stderr=errors)))

    def test_a_path_that_is_not_there_yet(self):
        self.assertFalse(waiting.comes_true(self.file.exists, 0, self.file))
        made = []

        def is_there():
            if not made:
                made.append(self.make())
                return False
            return self.file.exists()
        begin = time.monotonic()
        self.assertTrue(waiting.comes_true(is_there, PATIENCE, self.file))
        self.assertLess(time.monotonic() - begin, PATIENCE, "it was looked at only when the time was up")

    def test_a_file_that_is_written_replaced_or_removed_and_a_folder_in_which_that_happens(self):
        self.make()
        for change in (lambda: self.file.write_text("more"), self.replace, self.file.unlink, self.make):
            self.assert_wakes(change, self.file)
        for change in (self.replace, self.file.unlink, self.make):
            self.assert_wakes(change, self.file.parent)

    def test_a_file_that_is_another_one_now(self):
        self.make()
        with waiting.Watch(self.file) as watch:
            self.replace()
            self.assertTrue(watch.wait(PATIENCE))
            self.assertFalse(watch.wait(0))
            self.file.write_text("the new one is watched as well")
            self.assertTrue(watch.wait(PATIENCE))

    def test_a_program_that_ends_or_complains(self):
        program = self.program("sh", "-c", "read line; echo oh >&2; read line")
        self.assertFalse(waiting.ends_within(0, program.process))

        def type_line():
            program.process.stdin.write(b"\n")
            program.process.stdin.flush()
        self.assert_wakes(type_line, program)
        self.assert_wakes(program.process.stdin.close, program.process)
        self.assertTrue(waiting.ends_within(PATIENCE, program.process))

    def test_a_socket_and_a_flag(self):
        near, far = socket.socketpair()
        with near, far:
            self.assert_wakes(lambda: far.send(b"x"), near)
            near.recv(1)
            self.assert_wakes(far.close, near)
        flag = waiting.Flag()
        self.assert_wakes(flag.set, flag)
        self.assertTrue(flag.is_set())

    def test_what_stays_ready_is_one_change(self):
        near, far = socket.socketpair()
        with near, far, waiting.Watch(near) as watch:
            far.send(b"x")
            self.assertTrue(watch.wait(PATIENCE))
            self.assertFalse(watch.wait(0))
            far.send(b"y")
            self.assertTrue(watch.wait(PATIENCE))

    def test_nothing_happens(self):
        self.make()
        self.assertFalse(waiting.happens_within(0.01, self.file))
        self.assertFalse(waiting.comes_true(lambda: False, 0.01, self.file))
        with self.assertRaises(ValueError):
            waiting.comes_true(lambda: True, PATIENCE)


if __name__ == "__main__":
    unittest.main()
