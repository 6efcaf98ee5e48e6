"""A pairing that the service itself runs for a program on the session's bus, or at its socket: only that program gets the
code and confirms, and the secret is in no message."""

import base64
import fcntl
import json
import os
import socket
import struct
import subprocess
import time
import zlib

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from bus_client import BUS, BusClient
from harness import PATIENCE, Identity, unused_port
from outbox_world import OutboxTest
from private_bus import BusTestMixin
from service_client import NAME, ROOT, BusError, ServiceClient

PAIRING = f"{ROOT}/pairing"
PROPERTIES = "org.freedesktop.DBus.Properties"
ZBARIMG = ["zbarimg", "-q", "--raw", "-Sdisable", "-Sqrcode.enable"]
ALL_SEALS = 0xF  # seal, shrink, grow, write: linux/fcntl.h
F_GET_SEALS = 1034


def line_from(connection):
    """The next line, and not a byte further: a descriptor may follow."""
    line = b""
    while not line.endswith(b"\n"):
        byte = connection.recv(1)
        if not byte:
            raise AssertionError(f"the connection has ended behind {line}")
        line += byte
    return json.loads(line)


def chunk(kind, content):
    return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))


def enlarged(png, scale):
    """A picture of RGBA pixels with 8 bits each as a grey one, each pixel a square of that many (RFC 2083)."""
    if png[:8] != b"\x89PNG\r\n\x1a\n":
        raise AssertionError("no PNG file")
    at, packed = 8, b""
    while at < len(png):
        length, kind = struct.unpack_from(">I4s", png, at)
        content = png[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colours, _, _, interlaced = struct.unpack(">IIBBBBB", content)
            if (depth, colours, interlaced) != (8, 6, 0):
                raise AssertionError("not a plain RGBA picture")
        if kind == b"IDAT":
            packed += content
        at += 12 + length
    data, stride, above, rows = zlib.decompress(packed), width * 4, bytes(width * 4), []
    for y in range(height):
        kind, row = data[y * (stride + 1)], bytearray(data[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for x in range(stride):
            left, up = row[x - 4] if x >= 4 else 0, above[x]
            corner = above[x - 4] if x >= 4 else 0
            nearest = min((left, up, corner), key=lambda value: abs(left + up - corner - value))
            row[x] = (row[x] + (0, left, up, (left + up) // 2, nearest)[kind]) & 0xFF
        above = bytes(row)
        rows.append(b"".join(above[x:x + 1] * scale for x in range(0, stride, 4)))
    large = b"".join(b"\0" + row for row in rows for _ in range(scale))
    return (png[:8] + chunk(b"IHDR", struct.pack(">IIBBBBB", width * scale, height * scale, 8, 0, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(large)) + chunk(b"IEND", b""))


class PairingService(BusTestMixin, OutboxTest):
    def setUp(self):
        super().setUp()
        # neither knows the other
        self.mac = Identity(self.folder, "desk")
        self.phone = Identity(self.folder, "handset")
        self.on_usual_folder(self.mac)

    def client(self):
        client = ServiceClient(self.address)
        self.addCleanup(client.close)
        return client

    def monitor(self):
        """Hears everything that comes over the bus from now on."""
        monitor = BusClient(self.address)
        self.addCleanup(monitor.close)
        monitor.become_monitor()
        return monitor

    def pair(self, client, **options):
        options = {"interface": ("s", "lo"), **options}
        [path] = client.call(ROOT, f"{NAME}.Service", "Pair", "a{sv}", options)
        self.assertEqual(PAIRING, path)

    def state(self, client):
        [values] = client.call(PAIRING, PROPERTIES, "GetAll", "s", f"{NAME}.Pairing")
        return values

    def await_state(self, client, state):
        client.wait_for_signal("PropertiesChanged", lambda values: values[0] == f"{NAME}.Pairing"
                               and values[1].get("State") == state)
        return self.state(client)

    def port_is_back(self, client):
        """`client` follows."""
        while client.call(ROOT, PROPERTIES, "Get", "ss", f"{NAME}.Service", "State") != ["listening"]:
            client.wait_for_signal("PropertiesChanged", lambda values: values[0] == f"{NAME}.Service")

    def picture(self, client):
        [descriptor] = client.call(PAIRING, f"{NAME}.Pairing", "GetCode")
        try:
            self.assertEqual(ALL_SEALS, fcntl.fcntl(descriptor, F_GET_SEALS) & ALL_SEALS)
            return os.pread(descriptor, 1 << 20, 0)
        finally:
            os.close(descriptor)

    def scanned(self, png):
        """The payload, read by a program that is not ours. It wants more than a pixel a module."""
        large = self.folder / "large.png"
        large.write_bytes(enlarged(png, 8))
        read = subprocess.run([*ZBARIMG, str(large)], capture_output=True, text=True, check=True)
        return json.loads(read.stdout)

    def joined(self, payload):
        program = self.running(self.phone, "join", "--listen-port", str(unused_port()), "--json", "--yes", "--payload",
                               "-", stdin=subprocess.PIPE)
        program.process.stdin.write(json.dumps(payload).encode())
        program.process.stdin.close()
        self.assertEqual(0, program.wait(), program.stderr)
        return program.events.find("introduction")["confirmation_code"]

    def records(self):
        return json.loads(self.mac.peer_file.read_text())["peers"] if self.mac.peer_file.exists() else []

    def failure(self, client, path, interface, member, *arguments):
        with self.assertRaises(BusError) as caught:
            client.call(path, f"{NAME}.{interface}", member, *arguments)
        return caught.exception.name.removeprefix(f"{NAME}.Error."), caught.exception.text

    def test_a_phone_is_paired_and_no_message_has_the_secret(self):
        service = self.serve(self.mac)
        monitor = self.monitor()
        client = self.client()
        client.follow()
        self.pair(client)
        before = self.state(client)
        self.assertEqual(("waiting", "", "", "", ("", "")),
                         tuple(before[name] for name in ("State", "Digits", "ConfirmationCode", "PhoneName", "Problem")))
        self.assertGreater(before["Expires"], 1_700_000_000_000)
        payload = self.scanned(self.picture(client))
        self.assertEqual((self.mac.key, service.port, "127.0.0.1"),
                         tuple(payload[name] for name in ("peer_pubkey", "peer_port", "peer_ip")))
        digits = self.joined(payload)
        confirming = self.await_state(client, "confirming")
        self.assertEqual((digits, socket.gethostname()), (confirming["ConfirmationCode"], confirming["PhoneName"]))
        self.assertEqual([], self.records(), "nobody has confirmed")
        self.assertEqual("NotFound", self.failure(client, PAIRING, "Pairing", "GetCode")[0], "the secret is gone")
        client.call(PAIRING, f"{NAME}.Pairing", "Confirm", "b", True)
        done = self.await_state(client, "done")
        self.assertEqual(0, done["Expires"])
        self.assertEqual([self.phone.key], [record["peer_pubkey"] for record in self.records()])
        # the port is back: the phone delivers to it
        sending = self.running(self.phone, "send", "--json", str(self.file("a.txt", b"a")))
        self.assertEqual(0, sending.wait(), sending.stderr)
        self.assertEqual(b"a", (self.mac.downloads / "a.txt").read_bytes())
        monitor.wait_until(lambda: any(b"done\0" in message.raw for message in monitor.messages), "that it is done")
        everything = b"".join(message.raw for message in monitor.messages)
        self.assertIn(digits.encode() + b"\0", everything, "the monitor has seen the pairing")
        secret = payload["pairing_secret"]
        for what in (secret.encode(), base64.b64decode(secret), b"pairing_secret", b"PNG"):
            self.assertNotIn(what, everything)
        self.end(service)
        self.assertNotIn(payload["pairing_secret"], service.stderr + json.dumps(service.events.all))

    def test_nobody_else_sees_the_code_confirms_or_cancels(self):
        service = self.serve(self.mac)
        owner, other = self.client(), self.client()
        owner.follow()
        self.assertIn("Unknown object", self.failure(other, PAIRING, "Pairing", "GetCode")[1])
        self.pair(owner)
        payload = self.scanned(self.picture(owner))
        for member, *arguments in (("GetCode",), ("Confirm", "b", True), ("Cancel",)):
            self.assertEqual("NotAllowed", self.failure(other, PAIRING, "Pairing", member, *arguments)[0])
        self.assertEqual("Busy", self.failure(other, ROOT, "Service", "Pair", "a{sv}", {})[0])
        self.joined(payload)
        self.await_state(owner, "confirming")
        self.assertEqual("NotAllowed", self.failure(other, PAIRING, "Pairing", "Confirm", "b", True)[0])
        owner.call(PAIRING, f"{NAME}.Pairing", "Confirm", "b", False)
        failed = self.await_state(owner, "failed")
        self.assertEqual("the codes were not confirmed; nothing was recorded", failed["Problem"][0])
        self.assertIn("pair again", failed["Problem"][1])
        self.assertEqual([], self.records())
        self.end(service)

    def test_it_ends_with_the_connection_of_whoever_has_begun_it(self):
        service = self.serve(self.mac)
        other = self.client()
        other.follow()
        for happens_while_confirming in (False, True):
            owner = self.client()
            owner.follow()
            self.pair(owner)
            if happens_while_confirming:
                self.joined(self.scanned(self.picture(owner)))
                self.await_state(owner, "confirming")
            owner.close()
            other.wait_for_signal("InterfacesRemoved", lambda values: values[0] == PAIRING)
            self.assertEqual([], self.records())
        self.assertIn("Unknown object", self.failure(other, PAIRING, "Pairing", "Cancel")[1])
        self.port_is_back(other)  # and the next one can begin
        self.pair(other)
        other.call(PAIRING, f"{NAME}.Pairing", "Cancel")
        self.assertEqual("cancelled", self.await_state(other, "failed")["Problem"][0])
        other.call(PAIRING, f"{NAME}.Pairing", "Cancel")
        other.wait_for_signal("InterfacesRemoved", lambda values: values[0] == PAIRING)
        self.end(service)

    def test_it_does_not_stay_for_somebody_who_has_left_meanwhile(self):
        service = self.serve(self.mac)
        other = self.client()
        for _ in range(5):
            owner = self.client()
            owner.send(ROOT, f"{NAME}.Service", "Pair", "a{sv}", {"interface": ("s", "lo")})
            owner.close()
            ends = time.monotonic() + PATIENCE
            while True:  # each turn waits for an answer
                try:
                    self.pair(other)
                    break
                except BusError as error:
                    self.assertEqual(f"{NAME}.Error.Busy", error.name)
                    self.assertLess(time.monotonic(), ends, "it waits for the phone of nobody")
            other.close()
            other = self.client()
        self.assertEqual([], self.records())
        self.end(service)

    def test_one_at_a_time_with_the_command_line(self):
        service = self.serve(self.mac)
        client = self.client()
        client.follow()
        self.pair(client)
        result = self.mac.run("pair", "--yes", "--no-advertise", "--interface", "lo")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr,
                                   "the running service does not lend its port: the port is lent already")
        client.call(PAIRING, f"{NAME}.Pairing", "Cancel")
        self.await_state(client, "failed")
        self.port_is_back(client)
        terminal = self.running(self.mac, "pair", "--yes", "--no-advertise", "--interface", "lo", "--json")
        terminal.events.wait_for("payload")
        self.assertEqual("Busy", self.failure(client, ROOT, "Service", "Pair", "a{sv}", {})[0])
        self.end(service)

    def test_a_program_at_the_socket_pairs_too(self):
        service = self.serve(self.mac)
        other = self.client()
        other.follow()
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(PATIENCE)
            folder = os.open(self.mac.data / "Orlinth", os.O_PATH)  # the path may be too long for a socket
            try:
                connection.connect(f"/proc/self/fd/{folder}/service.sock")
            finally:
                os.close(folder)
            connection.sendall(b'{"request":"pair","interface":"lo"}\n')
            waiting = line_from(connection)
            other.wait_for_signal("InterfacesAdded", lambda values: values[0] == PAIRING)
            self.assertEqual("NotAllowed", self.failure(other, PAIRING, "Pairing", "GetCode")[0])
            self.assertEqual(["event", "expires_epoch_ms", "state"], sorted(waiting))
            [descriptor] = socket.recv_fds(connection, 1, 1)[1]
            try:
                self.assertEqual(ALL_SEALS, fcntl.fcntl(descriptor, F_GET_SEALS) & ALL_SEALS)
                payload = json.loads(os.pread(descriptor, 1 << 16, 0))
            finally:
                os.close(descriptor)
            digits = self.joined(payload)
            confirming = line_from(connection)
            self.assertEqual(("confirming", digits), (confirming["state"], confirming["confirmation_code"]))
            self.assertEqual([], self.records(), "nobody has confirmed")
            connection.sendall(b'{"confirm":true}\n')
            self.assertEqual("done", line_from(connection)["state"])
            self.assertEqual(b"", connection.recv(1))
        self.assertEqual([self.phone.key], [record["peer_pubkey"] for record in self.records()])
        self.end(service)

    def test_a_forged_word_of_the_bus_ends_no_pairing(self):
        service = self.serve(self.mac)
        client, forger = self.client(), self.client()
        self.pair(client)
        forger.bus.signal(NAME, *BUS[1:], "NameOwnerChanged", "sss", client.bus.name, client.bus.name, "")
        self.assertEqual("waiting", self.state(forger)["State"])
        client.call(PAIRING, f"{NAME}.Pairing", "Cancel")
        self.end(service)

    def test_what_makes_no_sense_is_said(self):
        service = self.serve(self.mac)
        client = self.client()
        for options, text in (({"timeout": ("u", 0)}, "a pairing waits 1 to 3600 seconds for its phone"),
                              ({"timeout": ("s", "1")}, '"timeout" is of another type'),
                              ({"timeout": ("d", 1.0)}, '"timeout" is of another type'),
                              ({"timeout": ("y", 0)}, "a pairing waits 1 to 3600 seconds for its phone"),
                              ({"announce": ("u", 1)}, '"announce" is of another type')):
            self.assertEqual(("InvalidArgument", text),
                             self.failure(client, ROOT, "Service", "Pair", "a{sv}", options))
        kind, text = self.failure(client, ROOT, "Service", "Pair", "a{sv}", {"interface": ("s", "nowhere0")})
        self.assertEqual("Failed", kind)
        self.assertEqual("there is no interface 'nowhere0' that is up and has an IPv4 address\n"
                         "`ip -brief address` lists the interfaces.", text)
        client.follow()
        self.port_is_back(client)
        self.pair(client, timeout=("u", 1), unknown=("a{sv}", {"x": ("u", 1)}))
        failed = self.await_state(client, "failed")
        self.assertEqual("pair-mode timeout", failed["Problem"][0])
        self.assertIn("No phone has answered", failed["Problem"][1])
        self.end(service)


if __name__ == "__main__":
    side_by_side.main()
