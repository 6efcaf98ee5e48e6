"""A phone that has a new address: where it is looked for, how it is found, and that nothing is sent while it is at home.

Three computers on one switch, in network namespaces:

    this program and the mac        the switch, and the router       the phone
    near 192.168.7.10/24  ══ veth ══  192.168.7.1/24  ══ veth ══  wlan 192.168.7.30/24, later .57
"""

import own_root  # noqa: F401 (it is entered by the import)

import ctypes
import json
import os
import select
import socket
import struct
import subprocess
import sys
import unittest

from harness import ORLINTH, PATIENCE, ProgramTest, sha256

CLONE_NEWNET = 0x40000000
ETH_P_ALL = 0x0003
ETH_P_IP, ETH_P_ARP = 0x0800, 0x0806
ARP_REQUEST = 1
TCP, SYN, ACK = 6, 0x02, 0x10


def run(script):
    subprocess.run(["sh", "-ec", script], check=True)


class Namespace:
    """A network of its own, for as long as this is open."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo there; exec cat"],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.holder.stdout.readline()
        self.pid = self.holder.pid

    def command(self, *arguments):
        return ["nsenter", f"--net=/proc/{self.pid}/ns/net", "--", *arguments]

    def run(self, script):
        subprocess.run(self.command("sh", "-ec", script), check=True)

    def close(self):
        self.holder.stdin.close()
        self.holder.stdout.close()
        self.holder.wait(PATIENCE)


def setUpModule():
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNET) != 0:
        raise unittest.SkipTest(f"NOT TESTED: this needs a network of its own: {os.strerror(ctypes.get_errno())}")


class Wire:
    """What leaves this computer by `near`, from the moment this is made."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.socket.bind(("near", ETH_P_ALL))

    def read(self):
        """The addresses that were asked for by ARP, and the ends of connections that were begun, so far."""
        asked, connected = [], []
        while select.select([self.socket], [], [], 0)[0]:
            frame, (_, protocol, kind, *_) = self.socket.recvfrom(2048)
            if kind != socket.PACKET_OUTGOING:
                continue
            if protocol == ETH_P_ARP and struct.unpack(">H", frame[20:22])[0] == ARP_REQUEST:
                asked.append(socket.inet_ntoa(frame[38:42]))
            if protocol == ETH_P_IP and frame[23] == TCP:
                segment = frame[14 + (frame[14] & 0x0F) * 4:]
                if segment[13] & (SYN | ACK) == SYN:
                    connected.append((socket.inet_ntoa(frame[30:34]), struct.unpack(">H", segment[2:4])[0]))
        self.socket.close()
        return asked, connected


class MovedPhoneTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.switch, self.there = Namespace(), Namespace()
        self.addCleanup(self.switch.close)
        self.addCleanup(self.there.close)
        run(f"""
            ip link set lo up
            ip link add near type veth peer name port1 netns {self.switch.pid}
            ip address add 192.168.7.10/24 dev near
            ip link set near up""")
        self.addCleanup(run, "ip link delete near")
        self.switch.run(f"""
            ip link add wire type bridge
            ip link add port2 type veth peer name wlan netns {self.there.pid}
            ip link set port1 master wire up
            ip link set port2 master wire up
            ip address add 192.168.7.1/24 dev wire
            ip link set wire up""")
        self.there.run("ip link set lo up; ip link set wlan up")
        run("ip route add default via 192.168.7.1")
        self.address = None
        self.move("192.168.7.30")
        self.meet_router()

    @staticmethod
    def meet_router():
        """Afterwards the system knows the router's hardware address."""
        with socket.socket() as to_router, unittest.TestCase().assertRaises(ConnectionRefusedError):
            to_router.connect(("192.168.7.1", 9))

    def move(self, address):
        """The phone has this address now, and no other."""
        if self.address:
            self.there.run(f"ip address delete {self.address}/24 dev wlan")
        self.there.run(f"ip address add {address}/24 dev wlan")
        self.address = address

    def receiver(self, *arguments, port="0", **options):
        program = self.running_program(
            self.there.command(ORLINTH, "receive", "--from", "mac", "--port", str(port), "--dir",
                               str(self.phone.downloads), "--json", *arguments), self.phone, **options)
        program.port = program.events.wait_for("listening")["port"]
        return program

    def send(self, content, *arguments):
        """Sends a file to whatever is recorded; what left this computer meanwhile, as Wire.read() has it, and how it
        ended."""
        file = self.file("a.txt", content)
        wire = Wire()
        result = self.mac.run("send", "--to", "phone", *arguments, str(file))
        return (*wire.read(), result)

    def assert_arrives(self, content, port, *arguments):
        """A phone that listens gets the file; what left this computer meanwhile."""
        receiver = self.receiver(port=port)
        asked, connected, result = self.send(content, *arguments)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        saved = receiver.events.find("complete")["saved_at"]
        self.assertEqual(sha256(self.folder / "outgoing" / "a.txt"), sha256(saved))
        return asked, connected

    def make_known(self, *addresses):
        """The phone has been sent a file at each of these addresses, the last of which is recorded; its port."""
        port = None
        for number, address in enumerate(addresses):
            self.move(address)
            receiver = self.receiver(port=port or 0)
            port = receiver.port
            self.mac.record(self.phone, port, ip=address)
            result = self.mac.run("send", "--to", "phone", str(self.file(f"{number}.txt", b"known")))
            self.assertEqual(0, result.returncode, result.stderr)
            receiver.wait()
        return port

    def recorded(self):
        return json.loads(self.mac.peer_file.read_text())["peers"][0]["peer_ip"]

    def remembered(self):
        file = json.loads((self.mac.data / "Orlinth" / "addresses.json").read_text())
        return {entry["address"]: entry for entry in file["phones"][self.phone.key]}

    def test_at_home_nothing_is_sent_but_the_transfer(self):
        port = self.make_known("192.168.7.57", "192.168.7.30")
        asked, connected = self.assert_arrives(b"at home", port)
        self.assertEqual([("192.168.7.30", port)], connected)
        self.assertLessEqual(set(asked), {"192.168.7.30"})

    def test_it_is_found_where_it_was_before(self):
        port = self.make_known("192.168.7.57", "192.168.7.30")
        self.move("192.168.7.57")
        asked, connected = self.assert_arrives(b"by memory", port)
        self.assertEqual({("192.168.7.30", port), ("192.168.7.57", port)}, set(connected))
        self.assertLessEqual(set(asked), {"192.168.7.30", "192.168.7.57"})
        self.assertEqual("192.168.7.57", self.recorded())

    def test_it_is_found_by_its_hardware_address(self):
        port = self.make_known("192.168.7.30")
        self.move("192.168.7.57")
        call = "import socket; socket.socket().connect_ex(('192.168.7.10', 9))"  # so that this computer has met it
        subprocess.run(self.there.command(sys.executable, "-c", call), check=True)
        self.assertNotIn("192.168.7.57", self.remembered())
        asked, connected = self.assert_arrives(b"by hardware address", port)
        self.assertEqual({("192.168.7.30", port), ("192.168.7.57", port)}, set(connected))
        self.assertLessEqual(set(asked), {"192.168.7.30", "192.168.7.57"})
        self.assertEqual("192.168.7.57", self.recorded())

    def test_it_is_found_by_a_sweep_of_a_network_in_which_it_was_met(self):
        port = self.make_known("192.168.7.30")
        self.move("192.168.7.57")
        asked, connected = self.assert_arrives(b"by a sweep", port)
        self.assertIn(("192.168.7.57", port), connected)
        self.assertGreater(len(set(asked)), 20)
        self.assertLessEqual({address.rsplit(".", 1)[0] for address in asked}, {"192.168.7"})
        self.assertEqual("192.168.7.57", self.recorded())
        self.assertGreater(self.remembered()["192.168.7.57"]["reached_epoch_ms"], 0)

    def test_what_was_shared_finds_it_too(self):
        port = self.make_known("192.168.7.30")
        self.move("192.168.7.57")
        phone = self.running_program(
            self.there.command(ORLINTH, "serve", "--port", str(port), "--dir", str(self.phone.downloads), "--json",
                               "--no-clipboard"), self.phone)
        phone.events.wait_for("listening")
        service = self.running(self.mac, "serve", "--port", "0", "--dir", str(self.mac.downloads), "--json",
                               "--no-clipboard")
        service.events.wait_for("listening")
        result = self.mac.run("share", "--to", "phone", str(self.file("a.txt", b"shared")),
                              str(self.file("b.txt", b"too")))
        self.assertEqual(0, result.returncode, result.stderr)
        service.events.wait_for("outbox_done")
        self.assertEqual([], [event for event in service.events.all if event["event"] == "outbox_waiting"])
        self.assertEqual(b"shared", (self.phone.downloads / "a.txt").read_bytes())
        self.assertEqual("192.168.7.57", self.recorded())

    def test_a_sweep_costs_three_questions_for_each_address(self):
        self.make_known("192.168.7.30")
        self.there.run("ip link set wlan down")
        asked, _, result = self.send(b"nobody there", "--warm-timeout", "5")
        self.assertEqual(1, result.returncode)
        absent = 254 - len({"192.168.7.1", "192.168.7.10", "192.168.7.30"})
        self.assertEqual(absent, len(set(asked) - {"192.168.7.1", "192.168.7.30"}))
        self.assertLessEqual(len(asked), 800)

    def test_it_is_not_looked_for_where_it_was_never_met(self):
        self.mac.record(self.phone, 7000, ip="192.168.7.30")
        self.move("192.168.7.57")
        asked, connected, result = self.send(b"a stranger's network", "--warm-timeout", "2.5")
        self.assertEqual(1, result.returncode)
        self.assertLessEqual(set(asked), {"192.168.7.30", "192.168.7.1"})
        self.assertLessEqual(set(connected), {("192.168.7.30", 7000), ("192.168.7.1", 7000)})

    def test_nobody_is_asked_if_the_person_says_so(self):
        port = self.make_known("192.168.7.57", "192.168.7.30")
        self.move("192.168.7.57")
        settings = self.mac.config / "orlinth" / "config.toml"
        settings.parent.mkdir(parents=True)
        for setting, arguments in (("", ["--find", "never"]), ('[send]\nfind = "never"\n', [])):
            with self.subTest(arguments):
                settings.write_text(setting)
                asked, connected, result = self.send(b"never", "--warm-timeout", "1.5", *arguments)
                self.assertEqual(1, result.returncode)
                self.assertLessEqual(set(asked), {"192.168.7.30"})
                self.assertEqual({("192.168.7.30", port)}, set(connected))
                self.assertEqual("192.168.7.30", self.recorded())


if __name__ == "__main__":
    unittest.main()
