"""Which interface this computer pairs with, in networks of its own with made-up interfaces.

Needs root (or unprivileged user namespaces), iproute2, and a kernel with veth, bridge and tun. Where one of them is
missing, the tests fail.
"""

import json
import os
import subprocess
import unittest

from harness import BUILD, PATIENCE

DEVICE_INFO = str(BUILD / "tests" / "interop" / "device_info")
NO_INTERFACE = {"error": "no active non-loopback IPv4 interface"}

# A network and a host name of one's own; they are gone with the last process in them.
NAMESPACES = ["unshare", "--net", "--uts"] + ([] if os.geteuid() == 0 else ["--map-root-user"])

# Makes a tun or tap interface, sets the kind of its link, and becomes the program behind it, which keeps it running.
TAP = """\
import fcntl, os, struct, sys
name, mode, link, *program = sys.argv[1:]
TUNSETIFF, TUNSETLINK, IFF_NO_PI = 0x400454CA, 0x400454CD, 0x1000
file = os.open("/dev/net/tun", os.O_RDWR)
fcntl.ioctl(file, TUNSETIFF, struct.pack("16sH22x", name.encode(), {"tun": 1, "tap": 2}[mode] | IFF_NO_PI))
fcntl.ioctl(file, TUNSETLINK, int(link))
os.set_inheritable(file, True)
os.execvp(program[0], program)
"""
ARPHRD_ETHER = 1
ARPHRD_IEEE802154 = 804  # its addresses have 8 bytes
ARPHRD_NONE = 65534  # none

FUNCTIONS = """\
lacks_carrier() { ip -brief link show "$1" | grep -q '[<]NO-CARRIER,.*UP'; }
# The kernel takes note of a link a moment after it has come or gone.
runs() { while lacks_carrier "$1"; do :; done; }
idles() { until lacks_carrier "$1"; do :; done; }
wired() {  # NAME MAC ADDRESS...: up and running, as with a cable that leads somewhere
    ip link add "$1" address "$2" type veth peer name "$1-end"
    ip link set "$1" up
    ip link set "$1-end" up
    runs "$1"
    name=$1
    shift 2
    for address; do ip address add "$address" dev "$name"; done
}
"""


def look(script, *arguments, tap=None):
    """What device_info says once `script` has made the network up."""
    shell = ["sh", "-euc", FUNCTIONS + script + '\nexec "$@"', "sh", DEVICE_INFO, *arguments]
    if tap:
        shell = ["/usr/bin/python3", "-c", TAP, *(str(word) for word in tap), *shell]
    done = subprocess.run(NAMESPACES + shell, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                          timeout=PATIENCE)
    if done.returncode != 0 or done.stderr:
        raise AssertionError(f"status {done.returncode}, {done.stderr!r} of:\n{script}")
    return json.loads(done.stdout)


def summary(*where, **how):
    """The same in short: name, address, subnet and hardware address, or the error."""
    found = look(*where, **how)
    return found.get("error") or " ".join(found[key] for key in ("interface", "ipv4", "subnet", "mac"))


class Choosing(unittest.TestCase):
    def test_everything_is_told(self):
        self.assertEqual(
            {"interface": "wired0", "ipv4": "192.168.1.23", "subnet": "192.168.1.0/24", "mac": "3c:22:fb:01:02:0a",
             "hostname": "workshop.example.org"},
            look("hostname workshop.example.org; wired wired0 3c:22:fb:01:02:0a 192.168.1.23/24"))

    def test_a_host_name_that_is_not_utf8(self):
        self.assertEqual("caf\N{REPLACEMENT CHARACTER}",
                         look("""/usr/bin/python3 -c 'import socket; socket.sethostname(b"caf\\xe9")'
                                wired w 02:00:00:00:00:01 10.0.0.1/8""")
                         ["hostname"])

    def test_no_interface_but_loopback(self):
        self.assertEqual(NO_INTERFACE, look(""))
        self.assertEqual(NO_INTERFACE, look("ip link set lo up"))
        self.assertEqual(NO_INTERFACE, look("ip link set lo up; ip address add 192.168.1.1/24 dev lo"))

    def test_without_an_address(self):
        self.assertEqual(NO_INTERFACE, look("wired w 02:00:00:00:00:01"))
        self.assertEqual(NO_INTERFACE, look("wired w 02:00:00:00:00:01 fd00::1/64"))

    def test_down(self):
        self.assertEqual(NO_INTERFACE, look("wired w 02:00:00:00:00:01 10.0.0.1/24; ip link set w down"))
        self.assertEqual("next 10.0.1.1 10.0.1.0/24 02:00:00:00:00:02",
                         summary("wired w 02:00:00:00:00:01 10.0.0.1/24; ip link set w down\n"
                                 "wired next 02:00:00:00:00:02 10.0.1.1/24"))

    def test_up_but_not_running(self):
        self.assertEqual(NO_INTERFACE, look("wired w 02:00:00:00:00:01 10.0.0.1/24; ip link set w-end down; idles w"))
        self.assertEqual("next 10.0.1.1 10.0.1.0/24 02:00:00:00:00:02",
                         summary("wired w 02:00:00:00:00:01 10.0.0.1/24; ip link set w-end down; idles w\n"
                                 "wired next 02:00:00:00:00:02 10.0.1.1/24"))

    def test_link_local(self):
        self.assertEqual(NO_INTERFACE, look("wired w 02:00:00:00:00:01 169.254.7.7/16"))
        self.assertEqual("w 10.0.0.1 10.0.0.0/24 02:00:00:00:00:01",
                         summary("wired w 02:00:00:00:00:01 169.254.7.7/16 10.0.0.1/24"))

    def test_point_to_point(self):
        tunnel = "ip link set tun0 up; runs tun0; ip address add 10.9.0.1 peer 10.9.0.2 dev tun0"
        tap = ("tun0", "tun", ARPHRD_NONE)
        self.assertEqual(NO_INTERFACE, look(tunnel, tap=tap))
        self.assertEqual("w 10.0.0.1 10.0.0.0/24 02:00:00:00:00:01",
                         summary(tunnel + "\nwired w 02:00:00:00:00:01 10.0.0.1/24", tap=tap))

    def test_the_first_of_two_wired_ones(self):
        one = "wired one 02:00:00:00:00:01 10.0.1.1/24\n"
        two = "wired two 02:00:00:00:00:02 10.0.2.1/24\n"
        self.assertEqual("one 10.0.1.1 10.0.1.0/24 02:00:00:00:00:01", summary(one + two))
        self.assertEqual("two 10.0.2.1 10.0.2.0/24 02:00:00:00:00:02", summary(two + one))

    def test_a_bridge_that_is_listed_first(self):
        bridge = """\
            ip link add br0 address 02:00:00:00:00:09 type bridge
            wired port 02:00:00:00:00:01
            ip link set port master br0
            ip link set br0 up
            runs br0
            ip address add 172.17.0.1/16 dev br0
            wired w 02:00:00:00:00:02 10.0.0.1/24
        """
        self.assertEqual("br0 172.17.0.1 172.17.0.0/16 02:00:00:00:00:09", summary(bridge))
        self.assertEqual("w 10.0.0.1 10.0.0.0/24 02:00:00:00:00:02", summary(bridge, "w"))

    def test_odd_netmasks(self):
        for address, subnet in (("10.1.37.5/20", "10.1.32.0/20"), ("10.1.37.5/32", "10.1.37.5/32"),
                                ("10.1.37.5/31", "10.1.37.4/31"), ("10.1.37.5/9", "10.0.0.0/9"),
                                ("210.1.37.5/1", "128.0.0.0/1"), ("10.1.37.5/0", "0.0.0.0/0")):
            with self.subTest(address):
                self.assertEqual(subnet, look(f"wired w 02:00:00:00:00:01 {address}")["subnet"])

    def test_an_address_with_a_label(self):
        self.assertEqual("w 10.0.0.1 10.0.0.0/24 02:00:00:00:00:01",
                         summary("wired w 02:00:00:00:00:01; ip address add 10.0.0.1/24 dev w label w:1"))


class HardwareAddresses(unittest.TestCase):
    MAKE = "ip link set tap0 up; runs tap0; ip address add 10.0.0.1/24 dev tap0"

    def test_one_of_six_bytes(self):
        # The same interface as in the next tests, so that these are about the address and nothing else.
        self.assertEqual("tap0 10.0.0.1 10.0.0.0/24 02:00:00:00:00:05",
                         summary("ip link set tap0 address 02:00:00:00:00:05; " + self.MAKE,
                                 tap=("tap0", "tap", ARPHRD_ETHER)))

    def test_none(self):
        for arguments in ((), ("tap0",)):
            self.assertEqual({"error": "MAC address not found for tap0"},
                             look(self.MAKE, *arguments, tap=("tap0", "tap", ARPHRD_NONE)))

    def test_one_of_another_length(self):
        self.assertEqual({"error": "MAC address not found for tap0"},
                         look("ip link show tap0 | grep -q 'ieee802.15.4 ..:..:..:..:..:..:..:.. '; " + self.MAKE,
                              tap=("tap0", "tap", ARPHRD_IEEE802154)))

    def test_none_is_not_made_up_for_by_the_next_interface(self):
        self.assertEqual({"error": "MAC address not found for tap0"},
                         look(self.MAKE + "\nwired w 02:00:00:00:00:01 10.0.1.1/24",
                              tap=("tap0", "tap", ARPHRD_NONE)))


class ByName(unittest.TestCase):
    TWO = "wired one 02:00:00:00:00:01 10.0.1.1/24\nwired two 02:00:00:00:00:02 10.0.2.1/24 10.0.3.1/24\n"

    def test_another_than_the_first(self):
        self.assertEqual("two 10.0.2.1 10.0.2.0/24 02:00:00:00:00:02", summary(self.TWO, "two"))

    def test_loopback(self):
        self.assertEqual("lo 127.0.0.1 127.0.0.0/8 00:00:00:00:00:00", summary("ip link set lo up", "lo"))

    def test_a_tunnel(self):
        self.assertEqual("tun0 10.9.0.1 10.9.0.1/32 ",
                         summary("ip link set tun0 up; ip address add 10.9.0.1 peer 10.9.0.2 dev tun0", "tun0",
                                 tap=("tun0", "tun", ARPHRD_NONE)))

    def test_link_local(self):
        self.assertEqual("w 169.254.7.7 169.254.0.0/16 02:00:00:00:00:01",
                         summary("wired w 02:00:00:00:00:01 169.254.7.7/16 10.0.0.1/24", "w"))

    def test_missing_down_or_without_an_address(self):
        self.assertEqual(NO_INTERFACE, look(self.TWO, "three"))
        self.assertEqual(NO_INTERFACE, look(self.TWO, "tw"))
        self.assertEqual(NO_INTERFACE, look(self.TWO, "two-end"))
        self.assertEqual(NO_INTERFACE, look(self.TWO + "ip link set two down", "two"))


if __name__ == "__main__":
    unittest.main()
