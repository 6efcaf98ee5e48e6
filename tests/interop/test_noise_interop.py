"""Our Noise against dissononce's (Debian: python3-dissononce), an implementation that is not ours, in both roles."""

import os
import pathlib
import struct
import subprocess
import sys
import unittest

from dissononce.cipher.chachapoly import ChaChaPolyCipher
from dissononce.dh.x25519.x25519 import X25519DH
from dissononce.exceptions.decrypt import DecryptFailedException
from dissononce.hash.sha256 import SHA256Hash
from dissononce.processing.handshakepatterns.interactive.XX import XXHandshakePattern
from dissononce.processing.impl.cipherstate import CipherState
from dissononce.processing.impl.handshakestate import HandshakeState
from dissononce.processing.impl.symmetricstate import SymmetricState

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "program"))
import own_environment  # noqa: E402, F401 (it lies with those tests; it is entered by the import)

PEER = pathlib.Path(os.environ["ORLINTH_BUILD"]) / "tests" / "interop" / "noise_peer"
PROLOGUE = b"Orlinth_v1"
SIZES = [0, 1, 15, 16, 17, 65519, 1024 * 1024, 0, 3]


class Ours:
    """Our party: the helper program, spoken to in frames."""

    def __init__(self, role, prologue):
        self.process = subprocess.Popen([PEER, role, prologue.hex()], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            try:
                stream.close()
            except BrokenPipeError:
                pass  # what was still buffered for a party that has ended
        self.process.wait()

    def send(self, body):
        self.process.stdin.write(struct.pack(">I", len(body)) + body)
        self.process.stdin.flush()

    def receive(self):
        prefix = self.process.stdout.read(4)
        if len(prefix) < 4:
            raise EOFError(self.process.stderr.read().decode())
        length, = struct.unpack(">I", prefix)
        return self.process.stdout.read(length)

    def end(self):
        """Ends the input; returns the exit status and what the party said."""
        self.process.stdin.close()
        said = self.process.stderr.read().decode()
        return self.process.wait(timeout=60), said


class Theirs:
    """The other implementation's party."""

    def __init__(self, initiator, prologue):
        self.initiator = initiator
        self.dh = X25519DH()
        self.key = self.dh.generate_keypair()
        self.state = HandshakeState(SymmetricState(CipherState(ChaChaPolyCipher()), SHA256Hash()), self.dh)
        self.state.initialize(XXHandshakePattern(), initiator, prologue, s=self.key)

    def handshake(self, ours):
        """Runs the three messages; sets the ciphers of both directions."""
        ciphers = None
        for number in range(3):
            if (number % 2 == 0) == self.initiator:
                message = bytearray()
                ciphers = self.state.write_message(b"", message)
                ours.send(bytes(message))
            else:
                payload = bytearray()
                ciphers = self.state.read_message(ours.receive(), payload)
                assert payload == b"", "our payloads are empty"
        from_initiator, from_responder = ciphers
        self.sending = from_initiator if self.initiator else from_responder
        self.receiving = from_responder if self.initiator else from_initiator


class NoiseInterop(unittest.TestCase):
    def converse(self, our_role):
        ours = self.enterContext(Ours(our_role, PROLOGUE))
        theirs = Theirs(our_role == "responder", PROLOGUE)
        theirs.handshake(ours)
        figures = ours.receive()
        self.assertEqual(len(figures), 96)
        self.assertEqual(figures[:32], theirs.state.symmetricstate.get_handshake_hash())
        self.assertEqual(figures[32:64], theirs.key.public.data)
        self.assertEqual(figures[64:], theirs.state.rs.data)
        return ours, theirs

    def exchange_messages(self, our_role):
        ours, theirs = self.converse(our_role)
        for size in SIZES:
            plaintext = os.urandom(size)
            ours.send(theirs.sending.encrypt_with_ad(b"", plaintext))
            answer = ours.receive()
            self.assertEqual(len(answer), size + 16)
            self.assertEqual(theirs.receiving.decrypt_with_ad(b"", answer), plaintext)
        self.assertEqual(ours.end(), (0, ""))

    def test_our_initiator_and_their_responder_understand_each_other(self):
        self.exchange_messages("initiator")

    def test_our_responder_and_their_initiator_understand_each_other(self):
        self.exchange_messages("responder")

    def test_we_refuse_a_tampered_message_of_theirs(self):
        for our_role in ("initiator", "responder"):
            with self.subTest(our_role):
                ours, theirs = self.converse(our_role)
                message = bytearray(theirs.sending.encrypt_with_ad(b"", b"text"))
                message[2] ^= 1
                ours.send(bytes(message))
                status, said = ours.end()
                self.assertEqual(status, 1)
                self.assertIn("noise decrypt failed", said)

    def test_our_initiator_refuses_another_prologue(self):
        ours = self.enterContext(Ours("initiator", PROLOGUE))
        theirs = Theirs(False, b"Orlinth_v2")
        with self.assertRaises(EOFError) as raised:
            theirs.handshake(ours)
        self.assertIn("noise decrypt failed", str(raised.exception))

    def test_their_initiator_refuses_another_prologue(self):
        ours = self.enterContext(Ours("responder", b"Orlinth_v2"))
        theirs = Theirs(True, PROLOGUE)
        with self.assertRaises(DecryptFailedException):
            theirs.handshake(ours)


if __name__ == "__main__":
    unittest.main()
