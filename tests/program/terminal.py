"""A pseudo-terminal for a program that draws on one."""

import fcntl
import os
import pty
import struct
import termios
import threading

from harness import PATIENCE


class Terminal:
    """A pseudo-terminal of a size, and everything that was written to it."""

    def __init__(self, columns, rows=24):
        self.screen, self.end = pty.openpty()
        self.resize(columns, rows)
        self.written = b""
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def resize(self, columns, rows=24):
        fcntl.ioctl(self.end, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def _read(self):
        try:
            while piece := os.read(self.screen, 65536):
                with self.changed:
                    self.written += piece
                    self.changed.notify_all()
        except OSError:
            pass  # the last writer has gone

    def type(self, text):
        os.write(self.screen, text.encode())

    def wait_for(self, text):
        """Until this was written."""
        with self.changed:
            if not self.changed.wait_for(lambda: text in self.written.decode(errors="replace"), PATIENCE):
                raise AssertionError(f"no {text!r} in {self.written.decode(errors='replace')!r}")

    def text(self):
        os.close(self.end)
        self.reader.join(PATIENCE)
        os.close(self.screen)
        return self.written.decode()
