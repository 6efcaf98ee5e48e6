"""A home on the real kernel: a computer, a phone and a router, each in a network namespace of its own.

    desk 10.77.7.10 ──┐                ┌── phone 10.77.7.30
                      bridge 10.77.7.1, the router

Needs root (own_root).
"""

import subprocess

from harness import PATIENCE


class Namespace:
    """A network of its own, for as long as this is open."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "ip link set lo up; echo ready; exec cat"],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self.holder.stdout.readline() != b"ready\n":
            raise AssertionError("no network namespace can be made")
        self.pid = self.holder.pid
        self.enter = ["nsenter", f"--net=/proc/{self.pid}/ns/net", "--"]

    def command(self, *words):
        """The command line of a program that runs in here."""
        return [*self.enter, *words]

    def run(self, script):
        subprocess.run(self.command("sh", "-ec", script), check=True, stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def close(self):
        self.holder.stdin.close()
        self.holder.wait(PATIENCE)
        self.holder.stdout.close()


class HomeNetwork:
    """The three of them, and the cables between them. The router knows the way to no other network: it drops what goes
    to 10.1.4.0/24, and refuses 10.1.5.0/24."""

    def __init__(self):
        self.desk, self.phone, self.router = Namespace(), Namespace(), Namespace()
        self.router.run("ip link add bridge type bridge")
        for place, name, address in ((self.desk, "wlan0", "10.77.7.10"), (self.phone, "phone0", "10.77.7.30")):
            self.router.run(f"ip link add {name} type veth peer name to-{name}\n"
                            f"ip link set {name} netns {place.pid}\n"
                            f"ip link set to-{name} master bridge up")
            place.run(f"ip address add {address}/24 dev {name}\n"
                      f"ip link set {name} up\n"
                      f"ip route add default via 10.77.7.1")
        self.router.run("ip address add 10.77.7.1/24 dev bridge\n"
                        "ip link set bridge up\n"
                        "echo 1 > /proc/sys/net/ipv4/ip_forward\n"
                        "ip route add blackhole 10.1.4.0/24\n"
                        "ip route add prohibit 10.1.5.0/24")

    def close(self):
        for place in (self.desk, self.phone, self.router):
            place.close()
