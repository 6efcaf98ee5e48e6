"""`orlinth doctor` and a real firewalld, which has a network, a system bus and settings of its own.

Nothing is tested unless firewalld is installed. The tests do without it, as its package puts a firewall on the machine.
Whoever has it anyway, runs this too.
"""

import own_root  # noqa: F401 (first: it may start the program anew)

import errno
import itertools
import json
import os
import pathlib
import shutil
import subprocess
import sys
import unittest

import private_bus
import side_by_side
from harness import ORLINTH, PATIENCE, ProgramTest
from home_network import HomeNetwork

SOURCE = pathlib.Path(__file__).resolve().parents[2]
NOBODY = 65534
PORT = 28471

# Stands in for polkit: who may do what is in firewalld's own policy file, and root may do everything. There is nobody
# who could enter a password, so that "auth_admin" is a no. It says "ready" once firewalld has its name and answers.
AUTHORITY = """
import sys, xml.etree.ElementTree
import dbus, dbus.mainloop.glib, dbus.service
from gi.repository import GLib

allowed = {action.get("id"): action.findtext("defaults/allow_any")
           for action in xml.etree.ElementTree.parse(sys.argv[1]).iter("action")}
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SystemBus()

class Authority(dbus.service.Object):
    @dbus.service.method("org.freedesktop.PolicyKit1.Authority", "(sa{sv})sa{ss}us", "(bba{ss})")
    def CheckAuthorization(self, subject, action, details, flags, cancellation):
        may = bus.get_unix_user(subject[1]["name"]) == 0 or allowed[action] == "yes"
        if flags & 1 and not may:
            print("a person is asked for a password, for", action, file=sys.stderr, flush=True)
        return may, False, {}

authority = Authority(bus, "/org/freedesktop/PolicyKit1/Authority")
name = dbus.service.BusName("org.freedesktop.PolicyKit1", bus)

def say_ready(*_):
    print("ready", flush=True)

def ask(owner):
    if owner:
        bus.get_object("org.fedoraproject.FirewallD1", "/org/fedoraproject/FirewallD1").getDefaultZone(
            dbus_interface="org.fedoraproject.FirewallD1", reply_handler=say_ready, error_handler=print)

print("there", flush=True)
watch = bus.watch_name_owner("org.fedoraproject.FirewallD1", ask)
GLib.MainLoop().run()
"""



def action_policy(which):
    """The file that says who may do what: "desktop", which lets everybody read the settings, or "server", which keeps
    them for the administrator, and is what Debian uses unless it is told otherwise."""
    return pathlib.Path(f"/usr/share/polkit-1/actions/org.fedoraproject.FirewallD1.{which}.policy.choice")


def user_command():
    """What makes an ordinary user of root; there is no other user in a user namespace that maps one."""
    if pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
        raise unittest.SkipTest("NOT TESTED: another user, as this account may be only one")
    return ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]


@unittest.skipUnless(shutil.which("firewalld"), "NOT TESTED: a real firewall, as firewalld is not installed")
class RealFirewallTest(ProgramTest):
    def setUp(self):
        self.as_user = user_command()
        super().setUp()
        self.home = HomeNetwork()
        self.addCleanup(self.home.close)
        self.mac.record(self.phone, 7000, ip="10.77.7.30")
        self.settings = self.folder / "firewalld"
        for kind in ("zones", "policies", "services", "icmptypes", "ipsets", "helpers"):
            (self.settings / kind).mkdir(parents=True)
        (self.settings / "firewalld.conf").write_text("DefaultZone=public\nFirewallBackend=nftables\n")
        shutil.copy(SOURCE / "packaging/firewalld/orlinth.xml", self.settings / "services")
        self.logs = open(self.folder / "daemons.log", "ab")
        self.addCleanup(self.logs.close)

    def start(self, command):
        """A daemon, whose words but for what it prints are kept."""
        program = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=self.logs, env=self.mac.environment)
        self.addCleanup(program.stdout.close)
        self.addCleanup(program.wait, PATIENCE)
        self.addCleanup(program.terminate)
        return program

    def said(self):
        return (self.folder / "daemons.log").read_text(errors="replace")

    def start_firewalld(self, policy="desktop"):
        bus = self.start(private_bus.command(self.folder, "system"))
        self.mac.environment["DBUS_SYSTEM_BUS_ADDRESS"] = bus.stdout.readline().decode().strip()
        authority = self.start([sys.executable, "-c", AUTHORITY, action_policy(policy)])
        self.assertEqual(b"there\n", authority.stdout.readline(), self.said())
        self.start(self.home.desk.command(
            "unshare", "--mount", "sh", "-ec", 'mount -t tmpfs tmpfs /run; exec "$@" >&2', "sh",
            "firewalld", "--nofork", "--nopid", "--log-target=console", f"--system-config={self.settings}",
            "--default-config=/usr/lib/firewalld"))
        self.assertEqual(b"ready\n", authority.stdout.readline(), self.said())

    def firewall_cmd(self, *arguments):
        result = subprocess.run(self.home.desk.command("firewall-cmd", *arguments), env=self.mac.environment,
                                check=False, capture_output=True, encoding="utf-8", timeout=PATIENCE)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr + self.said())
        return result.stdout.strip()

    def firewall(self):
        """What an ordinary user hears of the firewall: the words, and the event."""
        lines = self.doctor()
        begin = next(i for i, line in enumerate(lines) if line[3:].startswith("Firewall"))
        words = [lines[begin], *itertools.takewhile(lambda line: line.startswith("   "), lines[begin + 1:])]
        events = [json.loads(line) for line in self.doctor("--json")]
        found = next(event for event in events if event.get("id") == "firewall")
        return words, found

    def doctor(self, *flags):
        for path in [self.folder, *self.mac.root.rglob("*"), self.mac.root]:
            os.chown(path, NOBODY, NOBODY)
        result = subprocess.run(self.home.desk.command(*self.as_user, ORLINTH, "doctor", "--find", "never", *flags),
                                env=self.mac.environment, check=False, capture_output=True, encoding="utf-8",
                                timeout=PATIENCE)
        self.assertEqual("", result.stderr)
        return result.stdout.splitlines()

    def can_come_in(self):
        """Whether the phone reaches a program that listens at the port."""
        listen = f"import socket; s = socket.create_server(('', {PORT})); print('ready', flush=True); s.accept()"
        listener = self.start(self.home.desk.command(sys.executable, "-c", listen))
        self.assertEqual(b"ready\n", listener.stdout.readline(), self.said())
        connect = f"import socket, sys; s = socket.socket(); sys.exit(s.connect_ex(('10.77.7.10', {PORT})))"
        status = subprocess.run(self.home.phone.command(sys.executable, "-c", connect), check=False,
                                timeout=PATIENCE).returncode
        listener.terminate()
        listener.wait(PATIENCE)
        self.assertIn(status, (0, errno.EHOSTUNREACH))
        return status == 0

    def assert_open(self):
        words, found = self.firewall()
        self.assertEqual(("ok", "none"), (found["status"], found["cause"]), found)
        self.assertTrue(self.can_come_in())
        return words

    def assert_closed(self):
        words, found = self.firewall()
        self.assertEqual(("problem", "firewall_in"), (found["status"], found["cause"]), found)
        self.assertFalse(self.can_come_in())
        return words


class Zones(RealFirewallTest):
    def test_the_port_is_closed_until_it_is_opened_in_the_zone(self):
        self.start_firewalld()
        self.assertEqual([
            "x  Firewall       this computer's firewall (firewalld, zone public) does not let",
            "                  phones in at port 28471",
            "                  To open the port:",
            "                  sudo firewall-cmd --permanent --add-port=28471/tcp",
            "                  sudo firewall-cmd --reload"], self.assert_closed())
        self.firewall_cmd("--permanent", "--add-port=28471/tcp")  # as it says
        self.firewall_cmd("--reload")
        self.assertEqual(["ok Firewall       firewalld (zone public) lets phones in at port 28471"], self.assert_open())

    def test_the_port_may_be_in_a_range_or_have_a_name(self):
        self.start_firewalld()
        for opening in ("port=28000-29000/tcp", "service=orlinth"):
            with self.subTest(opening):
                self.firewall_cmd(f"--add-{opening}")
                self.assert_open()
                self.firewall_cmd(f"--remove-{opening}")
                self.assert_closed()

    def test_the_zone_is_that_of_the_interface(self):
        self.start_firewalld()
        self.firewall_cmd("--zone=public", "--add-port=28471/tcp")
        self.firewall_cmd("--zone=block", "--change-interface=wlan0")
        self.assertIn("(firewalld, zone block)", self.assert_closed()[0])
        self.firewall_cmd("--zone=trusted", "--change-interface=wlan0")
        self.assertIn("firewalld (zone trusted) lets phones in", self.assert_open()[0])

    def test_rules_of_its_own_language_are_not_judged(self):
        self.start_firewalld()
        self.firewall_cmd("--add-rich-rule=rule family=ipv4 source address=10.77.7.0/24 accept")
        _, found = self.firewall()
        self.assertEqual(("warning", "firewall_maybe"), (found["status"], found["cause"]), found)
        self.assertTrue(self.can_come_in())

    def test_settings_that_only_the_administrator_may_read_are_not_known(self):
        self.start_firewalld("server")
        words, found = self.firewall()
        self.assertEqual(("warning", "firewall_maybe"), (found["status"], found["cause"]), found)
        self.assertEqual("public", found["evidence"]["zone"])
        self.assertIn("sudo firewall-cmd --permanent --add-port=28471/tcp", words[-2])
        self.assertNotIn("asked for a password", self.said())


if __name__ == "__main__":
    side_by_side.main()
