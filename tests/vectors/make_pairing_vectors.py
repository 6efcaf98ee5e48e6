#!/usr/bin/python3
"""Computes pairing.json with Python's cryptography package (Debian: python3-cryptography).

    /usr/bin/python3 make_pairing_vectors.py > pairing.json

Every HKDF is computed a second time from hmac and hashlib alone. Secrets, keys and texts follow from fixed labels, so
every run prints the same file.
"""

import base64
import hashlib
import hmac
import json
import sys

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.ciphers.aead import ChaCha20Poly1305
from cryptography.hazmat.primitives.kdf.hkdf import HKDF

AEAD_INFO = b"orlinth.pair.aead.v1"
CONFIRM_INFO = b"orlinth.pair.confirm.v1"
MAX_BLOB = 65536


def octets(label, count):
    """`count` bytes that follow from a label."""
    out = b""
    while len(out) < count:
        out += hashlib.sha256(f"{label}/{len(out)}".encode()).digest()
    return out[:count]


def hkdf(secret, salt, info, length):
    key = HKDF(algorithm=hashes.SHA256(), length=length, salt=salt, info=info).derive(secret)
    extracted = hmac.new(salt or bytes(32), secret, hashlib.sha256).digest()
    assert key == hmac.new(extracted, info + b"\x01", hashlib.sha256).digest()[:length]
    return key


def aead_key(secret):
    return hkdf(secret, b"", AEAD_INFO, 32)


def seal(key, nonce, plaintext, associated=None):
    return nonce + ChaCha20Poly1305(key).encrypt(nonce, plaintext, associated)


SECRETS = {
    "counting bytes": bytes(range(32)),
    "zeros": bytes(32),
    "ones": b"\xff" * 32,
    "random bytes": octets("secret", 32),
    "nothing": b"",
    "shorter": octets("shorter", 16),
    "longer than a hash block": octets("longer", 100),
}
INTRODUCTION = json.dumps({
    "peer_hostname": "Füße's phone 📱", "peer_ip": "192.168.1.7", "peer_port": 40112, "peer_pubkey": "A" * 43 + "=",
}, ensure_ascii=False).encode()
# The example of docs/protocol.md: computer and phone have the keys of RFC 7748, section 6.1.
EXAMPLE_MAC = base64.b64decode("3p7bfXt9wbTTW2HC7OQ1Nz+DQ8hbeGdNrfx+FG+IK08=")
EXAMPLE_PHONE = base64.b64decode("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=")
EXAMPLE_NONCE = bytes(range(0x40, 0x4C))
EXAMPLE_INTRODUCTION = json.dumps({
    "peer_hostname": "Pixel-8", "peer_ip": "192.168.1.30", "peer_port": 40112,
    "peer_pubkey": base64.b64encode(EXAMPLE_PHONE).decode(),
}, separators=(",", ":")).encode()


def introductions():
    secret = SECRETS["random bytes"]
    key = aead_key(secret)
    nonce = octets("nonce", 12)
    whole = seal(key, nonce, INTRODUCTION)

    def case(name, blob, verdict, plaintext=None):
        one = {"name": name, "secret": secret.hex(), "blob": blob.hex(), "verdict": verdict}
        if plaintext is not None:
            one["plaintext"] = plaintext.hex()
        return one

    for name, text in (("an introduction", INTRODUCTION), ("an empty plaintext", b""), ("one byte", b"\x00"),
                       ("a cipher block", octets("block", 64)), ("one more than a block", octets("block", 65)),
                       ("several blocks", octets("blocks", 1000))):
        yield case(name, seal(key, octets(f"nonce of {name}", 12), text), "opens", text)
    counting = SECRETS["counting bytes"]
    yield {"name": "the example of docs/protocol.md", "secret": counting.hex(),
           "blob": seal(aead_key(counting), EXAMPLE_NONCE, EXAMPLE_INTRODUCTION).hex(), "verdict": "opens",
           "plaintext": EXAMPLE_INTRODUCTION.hex()}
    yield case("a nonce of zeros", seal(key, bytes(12), INTRODUCTION), "opens", INTRODUCTION)
    yield case("nothing", b"", "ciphertextTooShort")
    yield case("27 bytes", whole[:27], "ciphertextTooShort")
    yield case("28 bytes of something longer", whole[:28], "open")
    yield case("a tag cut off", whole[:-16], "open")
    yield case("a last byte cut off", whole[:-1], "open")
    yield case("a byte appended", whole + b"\x00", "open")
    yield case("the nonce behind", whole[12:] + whole[:12], "open")
    yield case("the tag in front of the ciphertext", whole[:12] + whole[-16:] + whole[12:-16], "open")
    yield case("another nonce", octets("other", 12) + whole[12:], "open")
    yield case("another secret", seal(aead_key(SECRETS["counting bytes"]), nonce, INTRODUCTION), "open")
    yield case("the secret itself as key", seal(secret, nonce, INTRODUCTION), "open")
    yield case("a key for the confirmation", seal(hkdf(secret, b"", CONFIRM_INFO, 32), nonce, INTRODUCTION), "open")
    yield case("a salted key", seal(hkdf(secret, b"orlinth", AEAD_INFO, 32), nonce, INTRODUCTION), "open")
    yield case("the text of the secret", seal(aead_key(secret.hex().encode()), nonce, INTRODUCTION), "open")
    yield case("associated data", seal(key, nonce, INTRODUCTION, AEAD_INFO), "open")
    yield case("a plaintext", INTRODUCTION, "open")


def confirmations():
    def case(name, secret, mac, phone, piece, repeated=1):
        number = int.from_bytes(hkdf(secret, mac + phone + piece * repeated, CONFIRM_INFO, 4), "big")
        return {"name": name, "secret": secret.hex(), "mac": mac.hex(), "phone": phone.hex(), "plaintext": piece.hex(),
                "plaintext_repeated": repeated, "number": number, "code": "%04d" % (number % 10000)}

    mac, phone = octets("mac", 32), octets("phone", 32)
    for name, secret in SECRETS.items():
        yield case(name, secret, mac, phone, INTRODUCTION)
    yield case("the example of docs/protocol.md", SECRETS["counting bytes"], EXAMPLE_MAC, EXAMPLE_PHONE,
               EXAMPLE_INTRODUCTION)
    secret = SECRETS["random bytes"]
    yield case("the keys exchanged", secret, phone, mac, INTRODUCTION)
    yield case("an empty plaintext", secret, mac, phone, b"")
    yield case("a plaintext of the largest frame", secret, mac, phone, b"{", MAX_BLOB - 28)
    # Introductions whose codes begin with zeros.
    for zeros in ("0", "00", "000"):
        yield next(one for one in (case(f"a code that begins with {zeros}", secret, mac, phone, b"%d" % i)
                                   for i in range(100000)) if one["code"].startswith(zeros))


json.dump({
    "derivations": [{"name": name, "secret": secret.hex(), "key": aead_key(secret).hex()}
                    for name, secret in SECRETS.items()],
    "introductions": list(introductions()),
    "confirmations": list(confirmations()),
}, sys.stdout, indent=1)
print()
