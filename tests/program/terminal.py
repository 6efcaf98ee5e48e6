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

    def __init__(self, columns):
        self.screen, self.end = pty.openpty()
        self.resize(columns)
        self.written = b""
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def resize(self, columns):
        fcntl.ioctl(self.end, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))

    def _read(self):
        try:
            while piece := os.read(self.screen, 65536):
                self.written += piece
        except OSError:
            pass  # the last writer has gone

    def text(self):
        os.close(self.end)
        self.reader.join(PATIENCE)
        os.close(self.screen)
        return self.written.decode()
