"""Two data folders are paired through the real programs, in every way there is, and what can go wrong on the way."""

import base64
import contextlib
import hashlib
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import time

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric.x25519 import X25519PrivateKey
from cryptography.hazmat.primitives.ciphers.aead import ChaCha20Poly1305
from cryptography.hazmat.primitives.kdf.hkdf import HKDF
from cryptography.hazmat.primitives.serialization import Encoding, PublicFormat

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from avahi_world import AvahiWorld
from harness import MIB, ORLINTH, PATIENCE, Identity, ProgramTest, seeded, unused_port
from terminal import Terminal

PAYLOAD_KEYS = ["pairing_secret", "peer_hostname", "peer_ip", "peer_mac", "peer_port", "peer_pubkey", "peer_subnet",
                "version"]
RECORD_KEYS = ["paired_at_epoch_ms", "peer_android", "peer_fcm_token", "peer_hostname", "peer_ip", "peer_mac",
               "peer_port", "peer_pubkey", "peer_subnet", "self_pubkey"]
# Only QR codes: in their modules it now and then sees a bar code, too.
ZBARIMG = ["zbarimg", "-q", "--raw", "-Sdisable", "-Sqrcode.enable"]


def fresh_key():
    key = X25519PrivateKey.generate().public_key()
    return base64.b64encode(key.public_bytes(Encoding.Raw, PublicFormat.Raw)).decode()


def hkdf(secret, salt, info, length):
    return HKDF(hashes.SHA256(), length, salt, info).derive(secret)


class ScriptedPhone:
    """A phone that says what a test wants it to say; the cryptography is not ours."""

    def __init__(self, payload):
        self.payload = payload
        self.secret = base64.b64decode(payload["pairing_secret"])
        self.key = fresh_key()
        self.introduction = {"peer_pubkey": self.key, "peer_ip": "127.0.0.1", "peer_port": 7000,
                             "peer_hostname": "Pixel"}

    def connect(self):
        return socket.create_connection((self.payload["peer_ip"], self.payload["peer_port"]), PATIENCE)

    def sealed(self, plaintext, secret=None):
        nonce = os.urandom(12)
        key = hkdf(secret or self.secret, b"", b"orlinth.pair.aead.v1", 32)
        return nonce + ChaCha20Poly1305(key).encrypt(nonce, plaintext, b"")

    def plaintext(self, **changes):
        fields = {**self.introduction, **changes}
        return json.dumps({key: value for key, value in fields.items() if value is not None}).encode()

    def say(self, plaintext, secret=None):
        """Sends an introduction; returns what the computer says to it, which must be nothing."""
        blob = self.sealed(plaintext, secret)
        with self.connect() as connection:
            connection.sendall(struct.pack(">I", len(blob)) + blob)
            return connection.recv(1)

    def code(self, plaintext):
        salt = base64.b64decode(self.payload["peer_pubkey"]) + base64.b64decode(self.key) + plaintext
        number = struct.unpack(">I", hkdf(self.secret, salt, b"orlinth.pair.confirm.v1", 4))[0]
        return f"{number % 10000:04d}"


class PairingTest(ProgramTest):
    def setUp(self):
        super().setUp()
        # this test's own: neither knows the other
        self.mac = Identity(self.folder, "desk")
        self.phone = Identity(self.folder, "handset")

    def pair(self, *arguments, identity=None, **options):
        """`pair`, waiting; `.payload` is what it shows, `.code` its four digits."""
        program = self.running(identity or self.mac, "pair", "--port", "0", "--interface", "lo", "--no-advertise",
                               "--json", *arguments, **options)
        shown = program.events.wait_for("payload")
        program.payload, program.code = shown["payload"], shown["code"]
        return program

    def payload_file(self, program):
        path = self.folder / "payload.json"
        path.write_text(json.dumps(program.payload))
        return str(path)

    def join(self, *arguments, port=None, **options):
        return self.running(self.phone, "join", "--listen-port", str(port or unused_port()), "--json", *arguments,
                            **options)

    def records(self, identity):
        return json.loads(identity.peer_file.read_text())["peers"] if identity.peer_file.exists() else []

    def shared_peers(self, identity):
        path = identity.data / "group.com.tarvinex.orlinth" / "peers.json"
        return json.loads(path.read_text()) if path.exists() else None

    def assert_paired(self, program, joined):
        """Both ended well, showed the same code, and have recorded each other."""
        self.assertEqual(0, joined.wait(), joined.stderr)
        self.assertEqual(0, program.wait(), program.stderr)
        here, there = program.events.find("introduction"), joined.events.find("introduction")
        self.assertRegex(here["confirmation_code"], r"^\d{4}$")
        self.assertEqual(here["confirmation_code"], there["confirmation_code"])
        ours, theirs = program.events.find("paired")["peer"], joined.events.find("paired")["peer"]
        self.assertEqual(RECORD_KEYS, sorted(ours))
        self.assertEqual(RECORD_KEYS, sorted(theirs))
        self.assertEqual([ours], self.records(self.mac))
        self.assertEqual([theirs], self.records(self.phone))
        self.assertEqual(self.phone.key, ours["peer_pubkey"])
        self.assertEqual(self.mac.key, theirs["peer_pubkey"])
        self.assertEqual(self.mac.key, ours["self_pubkey"])
        return ours, theirs

    def exchange(self, sender, receiver, record):
        """A file from one to the other, on the port that pairing has told."""
        file = self.file(f"from {sender.name}.bin", seeded(self).randbytes(MIB))
        receiving = self.running(receiver, "receive", "--from", sender.key, "--port", str(record["peer_port"]),
                                 "--dir", str(receiver.downloads), "--json")
        receiving.events.wait_for("listening")
        sending = self.running(sender, "send", "--to", receiver.key, "--json", str(file))
        self.assertEqual(0, sending.wait(), sending.stderr)
        self.assertEqual(0, receiving.wait(), receiving.stderr)
        saved = pathlib.Path(receiving.events.find("complete")["saved_at"])
        self.assertEqual(file.read_bytes(), saved.read_bytes())

    def assert_nothing_recorded(self, program, text, status=1):
        self.assertEqual(status, program.wait(), program.stderr)
        self.assert_one_line_error(program.stderr, text)
        self.assertEqual(text, program.events.find("error")["message"])
        self.assertIsNone(program.events.find("paired"))
        self.assertEqual([], self.records(self.mac))


class WaysToPair(PairingTest):
    def test_by_a_picture_of_the_code_and_files_go_both_ways(self):
        picture = self.folder / "code.png"
        program = self.pair("--yes", "--png", str(picture))
        self.assertEqual(0o600, picture.stat().st_mode & 0o777)
        read = subprocess.run([*ZBARIMG, str(picture)], capture_output=True, text=True, check=True)
        self.assertEqual(program.payload, json.loads(read.stdout))
        joined = self.join("--qr", str(picture), "--yes")
        ours, theirs = self.assert_paired(program, joined)
        self.exchange(self.mac, self.phone, ours)
        self.exchange(self.phone, self.mac, theirs)

    def test_a_link_in_the_pictures_place_is_replaced_itself(self):
        picture, precious = self.folder / "code.png", self.folder / "precious"
        precious.write_text("precious")
        picture.symlink_to(precious)
        self.pair("--yes", "--png", str(picture))
        self.assertEqual("precious", precious.read_text())
        self.assertFalse(picture.is_symlink())
        self.assertEqual(0o600, picture.stat().st_mode & 0o777)

    def test_by_the_payload_in_a_file_and_files_go_both_ways(self):
        program = self.pair("--yes")
        self.assertEqual(PAYLOAD_KEYS, sorted(program.payload))
        self.assertRegex(program.code, r"^\d{4}$")
        ours, theirs = self.assert_paired(program, self.join("--payload", self.payload_file(program), "--yes"))
        self.assertEqual(program.payload["peer_port"], theirs["peer_port"])
        self.assertEqual("127.0.0.1", ours["peer_ip"])
        self.exchange(self.phone, self.mac, theirs)
        self.exchange(self.mac, self.phone, ours)

    def test_by_the_line_with_the_payload_on_standard_input(self):
        program = self.pair("--yes")
        joined = self.join("--payload", "-", "--yes", stdin=subprocess.PIPE)
        joined.process.stdin.write(json.dumps(program.events.find("payload")).encode())
        joined.process.stdin.close()
        self.assert_paired(program, joined)

    def test_a_scripted_phone_shows_the_same_code_and_may_leave_out_what_is_optional(self):
        program = self.pair("--yes")
        phone = ScriptedPhone(program.payload)
        plaintext = phone.plaintext()
        self.assertEqual(b"", phone.say(plaintext))
        self.assertEqual(0, program.wait(), program.stderr)
        introduction = program.events.find("introduction")
        self.assertEqual(phone.code(plaintext), introduction["confirmation_code"])
        self.assertEqual("Pixel", introduction["peer_hostname"])
        self.assertRegex(introduction["remote_endpoint"], r"^127\.0\.0\.1:\d+$")
        self.assertEqual("", self.records(self.mac)[0]["peer_fcm_token"])

    def test_the_share_sheets_list_of_phones_follows(self):
        program = self.pair("--yes")
        phone = ScriptedPhone(program.payload)
        phone.say(phone.plaintext())
        self.assertEqual(0, program.wait(), program.stderr)
        [peer] = self.shared_peers(self.mac)
        self.assertRegex(peer.pop("subtitle"), r"^127\.0\.0\.1 · paired 20\d\d-\d\d-\d\d$")
        self.assertEqual({"hostname": "Pixel", "pubkey": phone.key}, peer)
        self.mac.record(self.phone, ip="127.0.0.2")
        # first the default phone, which is the one paired last
        self.assertEqual(["handset", "Pixel"], [peer["hostname"] for peer in self.shared_peers(self.mac)])
        self.assertEqual(0, self.mac.run("peers", "remove", "Pixel").returncode)
        self.assertEqual(["handset"], [peer["hostname"] for peer in self.shared_peers(self.mac)])

    def test_each_pairing_has_a_secret_of_its_own_that_goes_nowhere_else(self):
        first, second = self.pair(), self.pair()
        self.assertNotEqual(first.payload["pairing_secret"], second.payload["pairing_secret"])
        for program in (first, second):
            program.signal(signal.SIGTERM)
            self.assertEqual(143, program.wait())
            self.assertNotIn(program.payload["pairing_secret"], program.stderr)
        for path in self.mac.root.rglob("*"):
            if path.is_file():
                self.assertNotIn(first.payload["pairing_secret"].encode(), path.read_bytes(), path)


class ByTheFourDigits(PairingTest):
    """With a network and an Avahi daemon of its own."""

    def setUp(self):
        super().setUp()
        self.world = self.enterContext(AvahiWorld())
        self.bus = {"DBUS_SYSTEM_BUS_ADDRESS": self.world.environment["DBUS_SYSTEM_BUS_ADDRESS"]}
        for identity in (self.mac, self.phone):
            identity.environment.update(self.bus)

    def inside(self, identity, *arguments):
        return self.running_program(self.world.inside([ORLINTH, *arguments]), identity)

    def announced(self):
        found = self.world.run(["avahi-browse", "-rpt", "_orlinth-pair._tcp"]).stdout
        return [line for line in found.splitlines() if line.startswith("=")]

    def shown(self, identity, *arguments):
        program = self.inside(identity, "pair", "--port", "0", "--json", *arguments)
        shown = program.events.wait_for("payload")
        program.payload, program.code = shown["payload"], shown["code"]
        return program

    def wait_until_announced(self, count):
        """So many services, by name. A goodbye takes a second to go round (RFC 6762 section 10.1)."""
        deadline = time.monotonic() + PATIENCE
        while len({line.split(";")[3] for line in self.announced()}) != count:
            self.assertLess(time.monotonic(), deadline, self.announced())

    def test_a_computer_is_found_and_files_go_both_ways(self):
        self.world.start_daemon()
        program = self.shown(self.mac, "--yes")
        self.assertIn(program.payload["peer_ip"], ("192.168.77.1", "192.168.78.1"))  # not the loopback one
        joined = self.inside(self.phone, "join", "--code", program.code, "--listen-port", str(unused_port()), "--yes",
                             "--json")
        ours, theirs = self.assert_paired(program, joined)
        self.assertEqual(program.payload["peer_port"], theirs["peer_port"])
        self.wait_until_announced(0)
        self.running = self.inside
        self.exchange(self.mac, self.phone, ours)
        self.exchange(self.phone, self.mac, theirs)

    def test_other_digits_find_nobody(self):
        self.world.start_daemon()
        program = self.shown(self.mac, "--yes")
        self.wait_until_announced(1)
        other = f"{(int(program.code) + 1) % 10000:04d}"
        joined = self.inside(self.phone, "join", "--code", other, "--timeout", "0.1", "--yes", "--json")
        self.assertEqual(1, joined.wait())
        self.assert_one_line_error(joined.stderr, "no computer with this code is in pair mode on this network")
        program.signal(signal.SIGINT)
        self.assertEqual(130, program.wait())

    def test_two_computers_that_match_are_both_refused(self):
        self.world.start_daemon()
        program = self.shown(self.mac, "--yes")
        self.wait_until_announced(1)
        # somebody who has seen the announcement guesses the digits, which takes no time, and announces another key
        impostor = fresh_key()
        digest = hashlib.sha256(f"orlinth-pair:{program.code}:{impostor}".encode()).hexdigest()[:16]
        copied = {"v": "1", "c": digest, "pk": impostor, "ip": self.world.ADDRESS, "sn": "", "hn": "desk", "mac": "",
                  "sec": program.payload["pairing_secret"], "t": "mac"}
        self.running_program(self.world.inside(
            ["avahi-publish", "-s", "Orlinth-pair-" + digest[:6], "_orlinth-pair._tcp", "9",
             *[f"{key}={value}" for key, value in copied.items()]]), self.mac)
        self.wait_until_announced(2)
        joined = self.inside(self.phone, "join", "--code", program.code, "--yes", "--json")
        self.assertEqual(1, joined.wait())
        self.assert_one_line_error(joined.stderr, "several computers on this network answer to this code")
        self.assertEqual([], self.records(self.phone))

    def test_without_the_daemon_pairing_goes_on_and_says_so(self):
        program = self.shown(self.mac, "--yes")
        joined = self.inside(self.phone, "join", "--code", program.code, "--yes", "--json")
        self.assertEqual(1, joined.wait())
        self.assertTrue(joined.events.find("error")["message"].startswith(
            "cannot look for computers on the network: "))
        joined = self.inside(self.phone, "join", "--payload", self.payload_file(program), "--yes", "--json")
        self.assert_paired(program, joined)
        self.assertIn("Announcing this computer on the network failed (", program.stderr)

    def test_nothing_is_announced_where_that_is_not_wanted(self):
        self.world.start_daemon()
        program = self.shown(self.mac, "--no-advertise")
        self.assertEqual([], self.announced())
        program.signal(signal.SIGINT)
        self.assertEqual(130, program.wait())


class Question(PairingTest):
    def test_the_port_is_free_again_while_the_question_stands(self):
        program = self.pair(stdin=subprocess.PIPE)
        phone = ScriptedPhone(program.payload)
        phone.say(phone.plaintext())
        program.events.wait_for("introduction")
        with self.assertRaises(ConnectionRefusedError):
            phone.connect()
        self.wait_until(lambda: "[y/N]" in program.stderr, program)
        program.signal(signal.SIGINT)
        self.assertEqual(130, program.wait())
        self.assertEqual("interrupted by SIGINT", program.events.find("error")["message"])
        self.assertIn("[y/N] \norlinth: interrupted by SIGINT\nNothing was recorded.\n", program.stderr)
        self.assertEqual([], self.records(self.mac))

    def test_without_a_terminal_nobody_can_be_asked_behind_a_payload_on_standard_input(self):
        program = self.pair("--yes")
        joined = self.join("--payload", "-", stdin=subprocess.PIPE, start_new_session=True)
        with contextlib.suppress(BrokenPipeError):  # it may have ended before it has read anything
            joined.process.stdin.write(json.dumps(program.payload).encode())
            joined.process.stdin.close()
        self.assertEqual(1, joined.wait())
        self.assert_one_line_error(joined.stderr, "there is no terminal to ask whether the codes are the same")
        self.assertEqual([], self.records(self.phone))
        program.signal(signal.SIGINT)  # nobody has come to it meanwhile
        self.assertEqual(130, program.wait())
        self.assertIsNone(program.events.find("introduction"))


class WhatAPhoneMayNotSay(PairingTest):
    def refused(self, plaintext):
        program = self.pair("--yes")
        phone = ScriptedPhone(program.payload)
        phone.say(plaintext(phone) if callable(plaintext) else plaintext)
        self.assertEqual(1, program.wait(), program.stderr)
        message = program.events.find("error")["message"]
        self.assertTrue(message.startswith("not a valid introduction: "), message)
        self.assertEqual([], self.records(self.mac))
        self.assertIsNone(self.shared_peers(self.mac))
        self.assertNotIn(program.payload["pairing_secret"], program.stderr)

    def test_our_own_key(self):
        self.refused(lambda phone: phone.plaintext(peer_pubkey=phone.payload["peer_pubkey"]))


class WhatGoesWrong(PairingTest):
    def test_another_secret(self):
        program = self.pair("--yes")
        phone = ScriptedPhone(program.payload)
        phone.say(phone.plaintext(), secret=os.urandom(32))
        self.assertEqual(1, program.wait())
        message = program.events.find("error")["message"]
        self.assertTrue(message.startswith("decrypt failed: ChaChaPoly.open failed: "), message)
        self.assertEqual([], self.records(self.mac))

    def test_a_phone_that_stays_silent_is_let_go_in_time(self):
        program = self.pair("--yes", "--timeout", "1")
        with ScriptedPhone(program.payload).connect() as connection:
            self.assert_nothing_recorded(program, "pair-mode timeout")
            connection.settimeout(PATIENCE)
            self.assertEqual(b"", connection.recv(1))

    def test_a_second_phone_is_refused(self):
        program = self.pair("--yes")
        phone = ScriptedPhone(program.payload)
        blob = phone.sealed(phone.plaintext())
        with phone.connect() as first:
            first.sendall(struct.pack(">I", len(blob))[:2])
            refused = None
            deadline = time.monotonic() + PATIENCE
            while refused is None:  # the port closes as soon as the computer has seen the first
                self.assertLess(time.monotonic(), deadline)
                try:
                    with phone.connect() as second:
                        second.settimeout(1)  # caught by the closing port, it may hear nothing at all
                        second.recv(1)
                except ConnectionError as error:
                    refused = error
                except TimeoutError:
                    pass
            first.sendall(struct.pack(">I", len(blob))[2:] + blob)
            self.assertEqual(0, program.wait(), program.stderr)

    def test_two_at_once_on_one_port(self):
        first = self.pair("--yes")
        second = self.running(self.phone, "pair", "--port", str(first.payload["peer_port"]), "--interface", "lo",
                              "--no-advertise", "--yes", "--json")
        self.assertEqual(1, second.wait())
        self.assert_one_line_error(second.stderr, "NWListener failed to start: Address already in use")
        phone = ScriptedPhone(first.payload)
        phone.say(phone.plaintext())
        self.assertEqual(0, first.wait(), first.stderr)

    def test_interrupted_while_it_waits_and_while_a_phone_is_read(self):
        for number, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
            for connected in (False, True):
                with self.subTest(signal=number, connected=connected):
                    program = self.pair("--yes")
                    phone = ScriptedPhone(program.payload)
                    connection = phone.connect() if connected else None
                    program.signal(number)
                    self.assertEqual(status, program.wait())
                    self.assertEqual([], self.records(self.mac))
                    if connection:
                        with connection, contextlib.suppress(ConnectionResetError):
                            self.assertEqual(b"", connection.recv(1))


class WhatJoinRefuses(PairingTest):
    def failure(self, *arguments, **options):
        """The message of a join that must fail and record nothing."""
        joined = self.join("--yes", *arguments, **options)
        self.assertEqual(1, joined.wait(), joined.stderr)
        self.assertEqual([], self.records(self.phone))
        message = joined.events.find("error")["message"]
        self.assert_one_line_error(joined.stderr, message)
        return message

    def payload(self, **changes):
        good = {"pairing_secret": base64.b64encode(os.urandom(32)).decode(), "peer_hostname": "desk",
                "peer_ip": "127.0.0.1", "peer_mac": "", "peer_port": unused_port(), "peer_pubkey": fresh_key(),
                "peer_subnet": "", "version": 1}
        path = self.folder / "made.json"
        path.write_text(json.dumps({**good, **changes}))
        return str(path)

    def test_files_that_cannot_be_read(self):
        missing = str(self.folder / "none.json")
        self.assertEqual(f"{missing}: No such file or directory", self.failure("--payload", missing))
        self.assertEqual(f"{missing}: No such file or directory", self.failure("--qr", missing))
        self.assertEqual("/dev/zero is too large for a pairing payload", self.failure("--payload", "/dev/zero"))

    def test_a_computer_that_is_not_there(self):
        self.assertEqual("cannot connect to the computer: Connection refused",
                         self.failure("--payload", self.payload()))


class OnATerminal(PairingTest):
    def drawn(self, columns=120, rows=60, arguments=("--no-advertise",), **environment):
        """What `pair` draws on a terminal before nobody comes."""
        terminal = Terminal(columns, rows)
        program = subprocess.Popen([ORLINTH, "pair", "--port", "0", "--interface", "lo", *arguments, "--timeout", "1.2"], stdout=terminal.end, stderr=terminal.end,
                                   stdin=subprocess.DEVNULL,
                                   env={**self.mac.environment, "TERM": "xterm", **environment})
        self.assertEqual(1, program.wait(PATIENCE))
        return terminal.text().replace("\r\n", "\n")

    def read_back(self, lines, dark):
        """The payload in lines of half blocks; `dark` tells whether ink means a dark module."""
        rows = []
        for line in lines:
            top = [c in "█▀" for c in line]
            bottom = [c in "█▄" for c in line]
            rows += [top, bottom]
        scale = 4
        pixels = b"".join(
            b"".join((b"\0" if module == dark else b"\xff") * scale for module in row) * scale for row in rows)
        picture = self.folder / "screen.pgm"
        header = f"P5 {len(rows[0]) * scale} {len(rows) * scale} 255\n".encode()
        picture.write_bytes(header + pixels)
        read = subprocess.run([*ZBARIMG, str(picture)], capture_output=True, text=True, check=True)
        return json.loads(read.stdout)

    def test_the_code_is_black_on_white_whatever_the_terminals_colours_are(self):
        text = self.drawn()
        lines = re.findall("\x1b\\[38;5;16;48;5;231m([█▀▄ ]+)\x1b\\[0m\n", text)
        self.assertEqual(self.mac.key, self.read_back(lines, True)["peer_pubkey"])

    def test_without_colour_light_modules_are_ink(self):
        text = self.drawn(NO_COLOR="1")
        self.assertNotIn("\x1b[38", text)
        lines = [line for line in text.split("\n") if line and set(line) <= set("█▀▄ ")]
        self.assertEqual(self.mac.key, self.read_back(lines, False)["peer_pubkey"])

    def test_the_seconds_are_counted_down(self):
        text = self.drawn()
        self.assertIn("waiting for a phone, 2 s left", text)
        self.assertIn("waiting for a phone, 1 s left", text)

    def test_a_window_that_is_too_small_is_told_of(self):
        self.assertIn("The window is too small for the code", self.drawn(columns=40))
        self.assertIn("The window is too small for the code", self.drawn(rows=24))
        self.assertNotIn("too small", self.drawn())

    def asked(self, before):
        """A pairing on a terminal, up to the question; `before` is typed while it waits for a phone."""
        terminal = Terminal(120, 60)
        picture = self.folder / "code.png"
        program = subprocess.Popen([ORLINTH, "pair", "--port", "0", "--interface", "lo", "--no-advertise", "--png",
                                    str(picture)], stdout=terminal.end, stderr=terminal.end, stdin=terminal.end,
                                   env={**self.mac.environment, "TERM": "xterm"})
        self.addCleanup(program.wait, PATIENCE)
        terminal.wait_for("Scan the code")
        terminal.type(before)
        read = subprocess.run([*ZBARIMG, str(picture)], capture_output=True, text=True, check=True)
        phone = ScriptedPhone(json.loads(read.stdout))
        phone.say(phone.plaintext())
        terminal.wait_for("[y/N] ")
        return program, terminal

    def test_what_was_typed_before_the_question_is_no_answer(self):
        program, terminal = self.asked("y\n")
        with self.assertRaises(subprocess.TimeoutExpired):
            program.wait(1)
        terminal.type("n\n")
        self.assertEqual(1, program.wait(PATIENCE))
        self.assertEqual([], self.records(self.mac))
        self.assertIn("the codes were not confirmed", terminal.text())

    def test_a_yes_behind_the_question_counts(self):
        program, terminal = self.asked("")
        terminal.type("y\n")
        self.assertEqual(0, program.wait(PATIENCE))
        self.assertIn("paired with Pixel at 127.0.0.1:7000", terminal.text())

    def test_elsewhere_the_text_is_as_it_is(self):
        result = self.mac.run("pair", "--port", "0", "--interface", "lo", "--no-advertise", "--timeout", "0.2")
        lines = [line for line in result.stdout.split("\n") if line and set(line) <= set("█▀▄ ")]
        self.assertEqual(self.mac.key, self.read_back(lines, True)["peer_pubkey"])
        self.assertNotIn("\x1b", result.stdout)
        self.assertTrue(result.stdout.endswith("Scan the code with the phone.\n"))


if __name__ == "__main__":
    side_by_side.main()
