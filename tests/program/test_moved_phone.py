"""A phone that has a new address: where it is looked for, how it is found, and that nothing is sent while it is at home.

Three computers on one switch, in network namespaces:

    this program and the mac        the switch, and the router       the phone
    near 192.168.7.10/24  ══ veth ══  192.168.7.1/24  ══ veth ══  wlan 192.168.7.30/24, later .57
"""

import own_root  # noqa: F401 (it is entered by the import)

import ctypes
import fcntl
import ipaddress
import json
import os
import select
import signal
import socket
import struct
import subprocess
import sys
import unittest

import side_by_side
from harness import ORLINTH, PATIENCE, ProgramTest, sha256
from home_network import Namespace

CLONE_NEWNET = 0x40000000
ETH_P_ALL = 0x0003
ETH_P_IP, ETH_P_ARP, ETH_P_IPV6 = 0x0800, 0x0806, 0x86DD
ARP_REQUEST = 1
TCP, FIN, SYN, ACK = 6, 0x01, 0x02, 0x10
NETWORK = ipaddress.ip_network("192.168.7.0/24")

# Kills the process in place of the call that gives a file its name for the n-th time, as $KILL_AT says.
KILL = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

static void count(void) {
    static int calls;
    const char* at = getenv("KILL_AT");
    if (at && __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST) == atoi(at)) {
        kill(getpid(), SIGKILL);
    }
}
int rename(const char* from, const char* to) {
    count();
    return (int)syscall(SYS_renameat2, -100, from, -100, to, 0); /* -100: AT_FDCWD */
}
int renameat(int from_folder, const char* from, int to_folder, const char* to) {
    count();
    return (int)syscall(SYS_renameat2, from_folder, from, to_folder, to, 0);
}
"""


def run(script):
    subprocess.run(["sh", "-ec", script], check=True)


def setUpModule():
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNET) != 0:
        raise unittest.SkipTest(f"NOT TESTED: this needs a network of its own: {os.strerror(ctypes.get_errno())}")


class Wire:
    """What leaves this computer by `near`, from the moment this is made until it is closed."""

    def __init__(self):
        self.asked = []  # the addresses that were asked for by ARP
        self.connected = []  # the ends of connections that were begun
        self.ended = []  # the ends of connections that this computer has ended
        self.elsewhere = []  # who else got packets: outside the network, but for groups of devices
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.socket.bind(("near", ETH_P_ALL))

    def close(self):
        self.read()
        self.socket.close()

    def read(self):
        while select.select([self.socket], [], [], 0)[0]:
            self._take()

    def wait_for_end(self, end):
        """Returns once this computer has ended a connection to there."""
        while end not in self.ended:
            if not select.select([self.socket], [], [], PATIENCE)[0]:
                raise AssertionError(f"no connection to {end} was ended, only {self.ended}")
            self._take()

    def _take(self):
        frame, (_, protocol, kind, *_) = self.socket.recvfrom(2048)
        if kind != socket.PACKET_OUTGOING:
            return
        if protocol == ETH_P_ARP and struct.unpack(">H", frame[20:22])[0] == ARP_REQUEST:
            self.asked.append(socket.inet_ntoa(frame[38:42]))
        elif protocol == ETH_P_IP:
            self._take_ipv4(frame[14:])
        elif protocol == ETH_P_IPV6:
            self._judge(ipaddress.ip_address(frame[14 + 24:14 + 40]))

    def _take_ipv4(self, packet):
        target = ipaddress.ip_address(packet[16:20])
        self._judge(target)
        if packet[9] == TCP:
            segment = packet[(packet[0] & 0x0F) * 4:]
            end = (str(target), struct.unpack(">H", segment[2:4])[0])
            if segment[13] & (SYN | ACK) == SYN:
                self.connected.append(end)
            if segment[13] & FIN:
                self.ended.append(end)

    def _judge(self, target):
        if not (target.is_multicast or target.is_link_local or target in NETWORK):
            self.elsewhere.append(str(target))


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
        """Sends a file to whatever is recorded, so that nothing leaves the network: whom this computer asked for, to
        whom it connected, and how it ended."""
        file = self.file("a.txt", content)
        wire = self.wire()
        result = self.mac.run("send", "--to", "phone", *arguments, str(file))
        wire.read()
        self.assertEqual([], wire.elsewhere)
        return wire.asked, wire.connected, result

    def wire(self):
        wire = Wire()
        self.addCleanup(wire.close)
        return wire

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

    def serve_there(self, port):
        """The phone takes whatever comes, at this port."""
        phone = self.running_program(
            self.there.command(ORLINTH, "serve", "--port", str(port), "--dir", str(self.phone.downloads), "--json",
                               "--no-clipboard"), self.phone)
        phone.events.wait_for("listening")
        return phone

    def serve(self):
        """The service of this computer."""
        service = self.running(self.mac, "serve", "--port", "0", "--dir", str(self.mac.downloads), "--json",
                               "--no-clipboard")
        service.events.wait_for("listening")
        return service


class Search(MovedPhoneTest):
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

    def test_it_is_reached_by_ipv6_where_it_has_no_other_address(self):
        run("ip address add fe80::10/64 dev near nodad")
        self.there.run("ip address add fe80::57/64 dev wlan nodad")
        port = self.make_known("192.168.7.30")
        addresses = self.mac.data / "Orlinth" / "addresses.json"
        book = json.loads(addresses.read_text())
        [known] = book["phones"][self.phone.key]
        book["phones"][self.phone.key] = [{**known, "address": "fe80::57", "zone": "near"}]
        addresses.write_text(json.dumps(book))
        self.there.run("ip address delete 192.168.7.30/24 dev wlan")
        asked, connected = self.assert_arrives(b"by IPv6", port)
        self.assertEqual({("192.168.7.30", port)}, set(connected))
        self.assertLessEqual(set(asked), {"192.168.7.30"})
        self.assertEqual("192.168.7.30", self.recorded())

    def test_what_was_shared_finds_it_too(self):
        port = self.make_known("192.168.7.30")
        self.move("192.168.7.57")
        self.serve_there(port)
        wire = self.wire()
        service = self.serve()
        result = self.mac.run("share", "--to", "phone", str(self.file("a.txt", b"shared")),
                              str(self.file("b.txt", b"too")))
        self.assertEqual(0, result.returncode, result.stderr)
        service.events.wait_for("outbox_done")
        self.assertEqual([], [event for event in service.events.all if event["event"] == "outbox_waiting"])
        self.assertEqual(b"shared", (self.phone.downloads / "a.txt").read_bytes())
        self.assertEqual("192.168.7.57", self.recorded())
        wire.read()
        self.assertIn(("192.168.7.57", port), wire.connected)
        self.assertEqual([], wire.elsewhere)

    def go(self, address):
        """This computer is in the network of this address now, and in no other."""
        run(f"""
            ip link set near down
            ip address flush dev near
            ip address add {address}/24 dev near
            ip link set near up""")

    def share_elsewhere_and_come_home(self, port):
        """The phone moves while this computer is away. Whom it connects to from coming home to the arrival."""
        phone = self.serve_there(port)
        self.go("192.168.8.10")
        service = self.serve()
        file = self.file("a.txt", os.urandom(1000))
        result = self.mac.run("share", "--to", "phone", str(file))
        self.assertEqual(0, result.returncode, result.stderr)
        service.events.wait_for("outbox_waiting")
        self.assertIsNone(phone.events.find("received"))
        self.move("192.168.7.57")
        self.go("192.168.7.10")
        wire = self.wire()  # the service waits for the network to settle
        run("ip route add default via 192.168.7.1")
        service.events.wait_for("outbox_done")
        self.assertEqual(sha256(file), sha256(phone.events.wait_for("received")["saved_at"]))
        self.assertEqual("192.168.7.57", self.recorded())
        wire.read()
        self.assertEqual([], wire.elsewhere)
        return set(wire.asked), set(wire.connected)

    def test_what_was_shared_elsewhere_finds_it_on_coming_home(self):
        asked, connected = self.share_elsewhere_and_come_home(self.make_known("192.168.7.30"))
        self.assertGreater(len(asked), 20, "by a sweep")
        self.assertEqual({"192.168.7"}, {address.rsplit(".", 1)[0] for address in asked})

    def test_what_was_shared_elsewhere_finds_it_where_it_was_before(self):
        port = self.make_known("192.168.7.57", "192.168.7.30")
        asked, connected = self.share_elsewhere_and_come_home(port)
        self.assertLessEqual(asked, {"192.168.7.1", "192.168.7.30", "192.168.7.57"})
        self.assertIn(("192.168.7.57", port), connected)
        self.assertLessEqual(connected, {("192.168.7.1", port), ("192.168.7.30", port), ("192.168.7.57", port)})

    def test_nothing_that_was_shared_leaves_the_network_while_the_phone_is_away(self):
        self.make_known("192.168.7.30")
        self.there.run("ip link set wlan down")
        wire = self.wire()
        service = self.serve()
        result = self.mac.run("share", "--to", "phone", str(self.file("a.txt", b"shared")))
        self.assertEqual(0, result.returncode, result.stderr)
        service.events.wait_for("outbox_waiting")
        wire.read()
        self.assertGreater(len(set(wire.asked)), 200, "there was a sweep")
        self.assertEqual([], wire.elsewhere)

    def test_a_packet_to_another_network_would_be_seen(self):
        self.mac.record(self.phone, 7000, ip="192.168.8.30")
        wire = self.wire()
        self.assertEqual(1, self.mac.run("send", "--to", "phone", "--warm-timeout", "1",
                                         str(self.file("a.txt", b"a"))).returncode)
        wire.read()
        self.assertEqual({"192.168.8.30"}, set(wire.elsewhere))

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


class KilledSender(MovedPhoneTest):
    def assert_killed_sender_left_whole_files(self):
        record = json.loads(self.mac.peer_file.read_text())["peers"]
        self.assertEqual([self.phone.key], [one["peer_pubkey"] for one in record])
        self.assertIn(record[0]["peer_ip"], ("192.168.7.30", "192.168.7.57"))
        self.assertIn("192.168.7.30", self.remembered())

    def test_a_sender_is_killed_while_the_new_address_waits_to_be_written(self):
        port = self.make_known("192.168.7.30")
        self.move("192.168.7.57")
        self.serve_there(port)
        before = self.mac.peer_file.read_bytes()
        file = self.file("a.txt", b"a")
        with open(f"{self.mac.peer_file}.lock", "ab") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            wire = self.wire()
            sender = self.running(self.mac, "send", "--to", "phone", "--json", str(file))
            wire.wait_for_end(("192.168.7.57", port))  # it has its proof, and hung up
            sender.kill()
        self.assertEqual(before, self.mac.peer_file.read_bytes())
        self.assert_killed_sender_left_whole_files()
        self.assert_sent(file)
        self.assertEqual("192.168.7.57", self.recorded())

    def test_a_sender_is_killed_before_each_of_its_files_gets_its_name(self):
        port = self.make_known("192.168.7.30")
        self.move("192.168.7.57")
        self.serve_there(port)
        kept = {path: path.read_bytes() for path in self.mac.peer_file.parent.glob("*.json")}
        killing = {"LD_PRELOAD": str(self.shim("kill", KILL))}
        seen = []  # the address that a sender left in the record
        status = -signal.SIGKILL
        while status == -signal.SIGKILL:
            for path, content in kept.items():
                path.write_bytes(content)
            file = self.file(f"{len(seen)}.txt", os.urandom(100))
            killed = self.mac.run("send", "--to", "phone", str(file),
                                  environment={**killing, "KILL_AT": str(len(seen) + 1)})
            status = killed.returncode
            seen.append(self.recorded())
            self.assert_killed_sender_left_whole_files()
            self.assert_sent(file)
            self.assertEqual("192.168.7.57", self.recorded())
        self.assertEqual(0, status, killed.stderr)
        self.assertEqual({"192.168.7.30", "192.168.7.57"}, set(seen[:-1]), "some were killed before, some behind it")

    def assert_sent(self, file):
        result = self.mac.run("send", "--to", "phone", str(file))
        self.assertEqual(0, result.returncode, result.stderr)


if __name__ == "__main__":
    side_by_side.main()
