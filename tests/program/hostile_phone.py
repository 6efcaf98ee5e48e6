"""A phone that does what it likes: Noise by dissononce (Debian: python3-dissononce), and every byte behind it by hand."""

import base64
import contextlib
import json
import socket
import struct

from dissononce.cipher.chachapoly import ChaChaPolyCipher
from dissononce.dh.x25519.x25519 import X25519DH
from dissononce.hash.sha256 import SHA256Hash
from dissononce.processing.handshakepatterns.interactive.XX import XXHandshakePattern
from dissononce.processing.impl.cipherstate import CipherState
from dissononce.processing.impl.handshakestate import HandshakeState
from dissononce.processing.impl.symmetricstate import SymmetricState

PROLOGUE = b"Orlinth_v1"
JSON_FRAME = b"\x01"
BINARY_FRAME = b"\x02"
TAG_BYTES = 16


class HostilePhone:
    """A key that can be recorded as a phone, and opens as many connections as it likes."""

    def __init__(self, name="hostile"):
        self.name = name
        self.dh = X25519DH()
        self.pair = self.dh.generate_keypair()

    @property
    def key(self):
        return base64.b64encode(self.pair.public.data).decode()

    def connect(self, port, source=None, patience=60):
        """A connection that has shaken hands."""
        connection = Connection(port, source, patience)
        connection.shake_hands(self)
        return connection


class Connection:
    """One connection to a service on this machine, from `source` if it is given; a context manager."""

    def __init__(self, port, source=None, patience=60):
        self.socket = socket.create_connection(("127.0.0.1", port), patience,
                                               source_address=(source, 0) if source else None)
        self.sending = self.receiving = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def shake_hands(self, phone):
        state = HandshakeState(SymmetricState(CipherState(ChaChaPolyCipher()), SHA256Hash()), phone.dh)
        state.initialize(XXHandshakePattern(), True, PROLOGUE, s=phone.pair)
        first, last = bytearray(), bytearray()
        state.write_message(b"", first)
        self.send_raw_frame(bytes(first))
        state.read_message(self.receive_raw_frame(), bytearray())
        self.sending, self.receiving = state.write_message(b"", last)
        self.send_raw_frame(bytes(last))

    # --- bytes

    def send_raw(self, content):
        self.socket.sendall(content)

    def send_prefix(self, length):
        """Announces a frame."""
        self.send_raw(struct.pack(">I", length))

    def send_raw_frame(self, body):
        self.send_raw(struct.pack(">I", len(body)) + body)

    def receive_raw_frame(self):
        length, = struct.unpack(">I", self._read(4))
        return self._read(length)

    def _read(self, count):
        content = bytearray()
        while len(content) < count:
            piece = self.socket.recv(count - len(content))
            if not piece:
                raise EOFError("the service has closed the connection")
            content += piece
        return bytes(content)

    # --- messages

    def send_frame(self, plaintext):
        self.send_raw_frame(self.sending.encrypt_with_ad(b"", plaintext))

    def send_text(self, text):
        """A message of these bytes, whether it is JSON or not."""
        self.send_frame(JSON_FRAME + text)

    def send(self, **fields):
        self.send_text(json.dumps(fields).encode())

    def send_data(self, content):
        self.send_frame(BINARY_FRAME + content)

    def receive(self):
        """The next message."""
        return json.loads(self.receiving.decrypt_with_ad(b"", self.receive_raw_frame())[1:])

    def offer(self, name, size, transfer_id, mime="application/octet-stream"):
        """Offers a file; returns how much of it the service has."""
        self.send(type="FileOffer", name=name, size=size, mime=mime, transfer_id=transfer_id)
        return self.receive()["accepted_offset"]

    def deliver(self, name, content, transfer_id):
        """A whole file; returns once the service has closed the connection in good order."""
        offset = self.offer(name, len(content), transfer_id)
        self.send_data(content[offset:])
        self.send(type="Done")
        return self.end()

    def end(self):
        """Waits for the service to end the connection: "closed" or "reset"."""
        try:
            while self.socket.recv(65536):
                pass
            return "closed"
        except ConnectionError:
            return "reset"

    def is_open(self):
        """Whether the service has neither closed nor reset it; what it has sent is not looked at."""
        with contextlib.suppress(BlockingIOError):
            try:
                return bool(self.socket.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT))
            except ConnectionError:
                return False
        return True
