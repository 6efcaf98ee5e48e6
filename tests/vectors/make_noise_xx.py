#!/usr/bin/python3
"""Computes noise_xx.json with dissononce, an independent implementation of Noise (Debian: python3-dissononce).

    /usr/bin/python3 make_noise_xx.py > noise_xx.json

Keys and payloads follow from fixed labels, so every run prints the same file.
"""

import hashlib
import json
import sys

from dissononce.cipher.chachapoly import ChaChaPolyCipher
from dissononce.dh.x25519.private import PrivateKey
from dissononce.dh.x25519.x25519 import X25519DH
from dissononce.extras.dh.dangerous.dh_nogen import NoGenDH
from dissononce.hash.sha256 import SHA256Hash
from dissononce.processing.handshakepatterns.interactive.XX import XXHandshakePattern
from dissononce.processing.impl.cipherstate import CipherState
from dissononce.processing.impl.handshakestate import HandshakeState
from dissononce.processing.impl.symmetricstate import SymmetricState

# Name, prologue, lengths of the three handshake payloads, lengths of the transport messages (initiator's first, then
# by turns).
CASES = [
    ("as the program speaks", b"Orlinth_v1", (0, 0, 0), (0, 1, 17, 256, 0, 63, 64, 65)),
    ("without a prologue", b"", (0, 0, 0), (32, 32)),
    ("with payloads in the handshake", b"Orlinth_v1", (5, 16, 33), (15, 16, 17)),
    ("with a prologue longer than a hash block", bytes(range(200)), (0, 1, 0), (1, 700)),
    ("with long payloads", b"\x00", (64, 127, 1000), (0, 0, 0, 0)),
]


def octets(label, count):
    """`count` bytes that follow from a label."""
    out = b""
    while len(out) < count:
        out += hashlib.sha256(f"{label}/{len(out)}".encode()).digest()
    return out[:count]


def party(initiator, prologue, static, ephemeral):
    dh = NoGenDH(X25519DH(), PrivateKey(ephemeral))
    state = HandshakeState(SymmetricState(CipherState(ChaChaPolyCipher()), SHA256Hash()), dh)
    state.initialize(XXHandshakePattern(), initiator, prologue, s=X25519DH().generate_keypair(PrivateKey(static)))
    return state


def compute(name, prologue, payload_lengths, transport_lengths):
    keys = {kind: octets(f"{name}/{kind}", 32)
            for kind in ("initiator_static", "initiator_ephemeral", "responder_static", "responder_ephemeral")}
    initiator = party(True, prologue, keys["initiator_static"], keys["initiator_ephemeral"])
    responder = party(False, prologue, keys["responder_static"], keys["responder_ephemeral"])

    handshake = []
    writer, reader = initiator, responder
    for number, length in enumerate(payload_lengths, 1):
        payload = octets(f"{name}/payload {number}", length)
        message, received = bytearray(), bytearray()
        ciphers = writer.write_message(payload, message)
        reader.read_message(bytes(message), received)
        assert bytes(received) == payload
        handshake.append({"payload": payload.hex(), "message": bytes(message).hex()})
        writer, reader = reader, writer
    # Message 3 is the initiator's, so these are its pair: from initiator to responder, and back.
    from_initiator, from_responder = ciphers
    handshake_hash = initiator.symmetricstate.get_handshake_hash()
    assert handshake_hash == responder.symmetricstate.get_handshake_hash()

    transport = []
    for number, length in enumerate(transport_lengths):
        sender = "initiator" if number % 2 == 0 else "responder"
        cipher = from_initiator if sender == "initiator" else from_responder
        plaintext = octets(f"{name}/transport {number}", length)
        transport.append({"from": sender, "plaintext": plaintext.hex(),
                          "ciphertext": cipher.encrypt_with_ad(b"", plaintext).hex()})
    return {"name": name, "prologue": prologue.hex(), **{kind: key.hex() for kind, key in keys.items()},
            "handshake": handshake, "handshake_hash": handshake_hash.hex(), "transport": transport}


json.dump({"protocol": "Noise_XX_25519_ChaChaPoly_SHA256", "cases": [compute(*case) for case in CASES]},
          sys.stdout, indent=1)
print()
