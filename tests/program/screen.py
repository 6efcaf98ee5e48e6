"""A screen of X11 in memory (Xvfb) with a person at it: windows are found, clicked and typed into (xdotool), and what
is on the screen can be read and kept as a picture."""

import mmap
import os
import pathlib
import select
import struct
import subprocess
import time
import zlib

from desktops import X11Connection, X11Desktop

PATIENCE = 60


class Screen(X11Desktop):
    size = (640, 480)

    def __init__(self):
        super().__init__(screen="%dx%dx24" % self.size, options=lambda folder: ["-fbdir", str(folder)])
        self.environment["QT_QPA_PLATFORM"] = "xcb"
        self.drawing = Drawing(self.environment["DISPLAY"])

    def close(self):
        self.drawing.close()
        super().close()

    def wait_for(self, condition, what, process=None):
        """What `condition` returns, once that is true of what is on the screen. A process that ends before ends the
        waiting."""
        deadline = time.monotonic() + PATIENCE
        ends = {self.drawing.fileno()}
        if process is not None:
            ends.add(os.pidfd_open(process.pid))
        try:
            while True:
                self.drawing.forget()
                found = condition()
                if found:
                    return found
                if process is not None and process.poll() is not None:
                    raise AssertionError(f"{what}: the program has ended with {process.returncode}")
                if not select.select(ends, [], [], max(0, deadline - time.monotonic()))[0]:
                    raise AssertionError(f"{what} did not come")
        finally:
            for end in ends - {self.drawing.fileno()}:
                os.close(end)

    def tool(self, *arguments):
        done = subprocess.run(["xdotool", *map(str, arguments)], env=self.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)
        if done.returncode != 0:
            raise AssertionError(f"xdotool {arguments}: {done.stdout}{done.stderr}")
        return done.stdout.split()

    def window(self, process, title="Share with Orlinth"):
        """The window of that title, once it is on the screen and has the keyboard."""
        def visible():
            found = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", f"^{title}$"],
                                   env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                   check=False)
            return found.stdout.split()
        found = self.wait_for(visible, f"a window '{title}'", process)
        window = Window(self, found[0])
        # there is no window manager to do that
        self.tool("windowfocus", "--sync", window.number)
        return window

    def pixels(self):
        """Width, height, and the rows of RGB bytes."""
        path = self.folder / "Xvfb_screen0"
        with open(path, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as dump:
            # X11/XWDFile.h: header size, version, format, depth, width, height, ...
            header = struct.unpack(">25I", dump[:100])
            start = header[0] + header[19] * 12
            width, height, line = header[4], header[5], header[12]
            assert header[11] == 32 and header[7] == 0, "32 bits a pixel, low byte first"
            rows = [dump[start + y * line:start + y * line + width * 4] for y in range(height)]
        return width, height, [bytes(byte for x in range(0, len(row), 4) for byte in (row[x + 2], row[x + 1], row[x]))
                               for row in rows]


class Drawing:
    """Can be read when something has been drawn on the screen, for the first time since forget(). (DAMAGE, version 1.1)
    """

    NON_EMPTY = 3

    def __init__(self, display):
        self.server = X11Connection(display)
        name = b"DAMAGE"
        self._request(98, 0, struct.pack("<Hxx", len(name)) + name + bytes(-len(name) % 4))  # QueryExtension
        is_there, self.code = struct.unpack_from("<8xBB", self.server.reply())
        if not is_there:
            raise RuntimeError("the X server has no DAMAGE extension")
        self._request(self.code, 0, struct.pack("<II", 1, 1))  # QueryVersion
        self.server.reply()
        # Create
        self._request(self.code, 1, struct.pack("<IIBxxx", self.server.base, self.server.root, self.NON_EMPTY))

    def _request(self, code, minor, body):
        self.server.send(struct.pack("<BBH", code, minor, 1 + len(body) // 4) + body)

    def fileno(self):
        return self.server.socket.fileno()

    def forget(self):
        while select.select([self], [], [], 0)[0]:
            if not self.server.socket.recv(4096):
                raise EOFError
        self._request(self.code, 3, struct.pack("<III", self.server.base, 0, 0))  # Subtract: all of it

    def close(self):
        self.server.socket.close()


class Window:
    def __init__(self, screen, number):
        self.screen, self.number = screen, number

    def geometry(self):
        values = dict(line.split("=") for line in self.screen.tool("getwindowgeometry", "--shell", self.number))
        return tuple(int(values[key]) for key in ("X", "Y", "WIDTH", "HEIGHT"))

    def has_size(self, width, height):
        self.screen.wait_for(lambda: self.geometry()[2:] == (width, height), f"a window of {width} x {height}")

    def click(self, x, y):
        left, top = self.geometry()[:2]
        self.screen.tool("mousemove", "--sync", left + x, top + y, "click", 1)

    def key(self, *names):
        self.screen.tool("key", "--clearmodifiers", *names)

    def picture(self):
        """The window's own part of the screen: width, height, rows of RGB bytes."""
        left, top, width, height = self.geometry()
        rows = self.screen.pixels()[2]
        return width, height, [row[left * 3:(left + width) * 3] for row in rows[top:top + height]]

    def color(self, x, y):
        return tuple(self.picture()[2][y][x * 3:x * 3 + 3])


def png(picture):
    """The picture as a PNG file (RFC 2083): 8 bits a channel, every row filtered by the difference to the one above."""
    width, height, rows = picture

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    above = bytes(width * 3)
    filtered = bytearray()
    for row in rows:
        filtered.append(2)
        filtered += bytes((a - b) & 255 for a, b in zip(row, above))
        above = row
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">2I5B", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(bytes(filtered), 9)) + chunk(b"IEND", b""))


def keep(picture, path):
    pathlib.Path(path).parent.mkdir(parents=True, exist_ok=True)
    pathlib.Path(path).write_bytes(png(picture))
