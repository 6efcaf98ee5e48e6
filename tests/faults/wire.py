"""How many bytes a transfer takes on the wire, as docs/protocol.md has it, and where its frames begin."""

import json

CHUNK = 1 << 20
PREFIX, TYPE, TAG = 4, 1, 16
# 32 bytes of message 1, 96 of message 2, 64 of message 3.
HELLO, ANSWER, PROOF = PREFIX + 32, PREFIX + 96, PREFIX + 64
SOME_ID = "00000000-0000-0000-0000-000000000000"


def sealed(content):
    """The bytes on the wire of one frame with so many bytes of content."""
    return PREFIX + TYPE + content + TAG


def message(**fields):
    return sealed(len(json.dumps(fields, separators=(",", ":"), sort_keys=True, ensure_ascii=False).encode()))


def frames_there(name, size, mime="application/octet-stream"):
    """The sizes of the frames from the sender to the receiver, of a file that is sent from its beginning."""
    chunks = [CHUNK] * (size // CHUNK) + ([size % CHUNK] if size % CHUNK else [])
    return [HELLO, PROOF,
            message(type="FileOffer", name=name, size=size, mime=mime, transfer_id=SOME_ID),
            *map(sealed, chunks), message(type="Done")]


def frames_back():
    """The same in the other direction."""
    return [ANSWER, message(type="Resume", accepted_offset=0, transfer_id=SOME_ID)]


class FrameCounter:
    """Counts the frames that have passed whole."""

    def __init__(self):
        self.whole = 0
        self.prefix = b""
        self.left = 0  # of a body

    def feed(self, data):
        data = memoryview(data)
        while data:
            if self.left:
                step = min(self.left, len(data))
                self.left -= step
                data = data[step:]
                if not self.left:
                    self.whole += 1
                continue
            take = PREFIX - len(self.prefix)
            self.prefix += bytes(data[:take])
            data = data[take:]
            if len(self.prefix) == PREFIX:
                self.left = int.from_bytes(self.prefix, "big")
                self.prefix = b""
                self.whole += self.left == 0

    @property
    def is_between_frames(self):
        return not self.prefix and not self.left
