"""`orlinth doctor` on the real kernel: a computer, a phone and a router, each in a network namespace of its own.

    desk 10.77.7.10 ──┐                ┌── phone 10.77.7.30
                      bridge 10.77.7.1, the router
"""

import own_root  # noqa: F401 (first: it may start the program anew)

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
import unittest

from harness import ORLINTH, PATIENCE, SANITIZED, Identity, ProgramTest

HAS_FILTER = shutil.which("nft") is not None
PORT = "7000"
NOBODY = 65534


class Namespace:
    """A network of its own, for as long as its process runs."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "ip link set lo up; echo ready; exec cat"],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self.holder.stdout.readline() != b"ready\n":
            raise AssertionError("no network namespace can be made")
        self.enter = ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net", "--"]

    def run(self, script):
        subprocess.run([*self.enter, "sh", "-ec", script], check=True, stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def close(self):
        self.holder.stdin.close()
        self.holder.wait(PATIENCE)
        self.holder.stdout.close()


class Home:
    """The three of them, and the cables between them."""

    def __init__(self):
        self.desk, self.phone, self.router = Namespace(), Namespace(), Namespace()
        self.router.run("ip link add bridge type bridge")
        for place, name, address in ((self.desk, "wlan0", "10.77.7.10"), (self.phone, "phone0", "10.77.7.30")):
            self.router.run(f"ip link add {name} type veth peer name to-{name}\n"
                            f"ip link set {name} netns {place.holder.pid}\n"
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


class DoctorTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.home = Home()
        self.addCleanup(self.home.close)
        self.mac.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/nonexistent"  # not this machine's firewall
        self.mac.environment["LC_ALL"] = "C.UTF-8"
        self.at("10.77.7.30")

    def at(self, address):
        self.mac.record(self.phone, int(PORT), ip=address)

    def meet_router(self):
        """The desk has spoken to the router, as it would have."""
        self.home.desk.run("ip neigh flush dev wlan0; "
                           f"{sys.executable} -c 'import socket; socket.socket().connect_ex((\"10.77.7.1\", 9))'")

    def doctor(self, *arguments, enter=()):
        """The events of `orlinth doctor --json` on the desk, and its exit status."""
        result = subprocess.run([*self.home.desk.enter, *enter, ORLINTH, "doctor", "--json", *arguments],
                                env=self.mac.environment, capture_output=True, encoding="utf-8",
                                stdin=subprocess.DEVNULL, timeout=PATIENCE, check=False)
        self.assertEqual("", result.stderr)
        return [json.loads(line) for line in result.stdout.splitlines()], result.returncode

    def check(self, name, *arguments, **options):
        events, status = self.doctor(*arguments, **options)
        found = next(event for event in events if event.get("id") == name)
        self.assertEqual("complete", events[-1]["event"])
        self.assertEqual(0 if events[-1]["problems"] == 0 else 1, status)
        return found

    def look(self, *arguments):
        """What is found of the phone, which is looked for nowhere else."""
        return self.check("phone", "phone", *(arguments or ("--find", "never")))

    def assert_cause(self, cause, found, within=10):
        self.assertEqual(cause, found["cause"], found)
        self.assertLessEqual(found["duration_seconds"], within, found)

    def receiver_at(self, place, identity, sender="mac"):
        program = self.running_program(
            [*place.enter, ORLINTH, "receive", "--from", sender, "--port", PORT, "--dir", str(identity.downloads),
             "--json"], identity)
        program.events.wait_for("listening")
        return program

    def listener_at(self, place, port, answer=b""):
        """A program that listens there and gives each connection this answer; silent if that is empty."""
        code = ("import socket, sys\n"
                "listener = socket.create_server(('', int(sys.argv[1])))\n"
                "print('ready', flush=True)\n"
                "taken = []\n"
                "while True:\n"
                "    stream, _ = listener.accept()\n"
                "    taken.append(stream)\n"
                "    if sys.argv[2]:\n"
                "        stream.sendall(sys.argv[2].encode())\n"
                "        stream.shutdown(socket.SHUT_WR)\n")
        program = subprocess.Popen([*place.enter, sys.executable, "-c", code, str(port), answer.decode()],
                                   stdout=subprocess.PIPE)
        self.addCleanup(program.stdout.close)
        self.addCleanup(program.wait, PATIENCE)
        self.addCleanup(program.kill)
        self.assertEqual(b"ready\n", program.stdout.readline())


class WayToThePhone(DoctorTest):
    def test_it_is_there(self):
        program = self.receiver_at(self.home.phone, self.phone)
        found = self.look()
        self.assertEqual(("ok", "none"), (found["status"], found["cause"]), found)
        self.assertIn("here now, 10.77.7.30, answered in", found["message"])
        self.assertEqual("phones_key", found["evidence"]["proof"])
        self.assertLess(found["duration_seconds"], 2)
        self.assertIsNone(program.process.poll(), "a look does not use the receiver up")

    def test_orlinth_is_not_open(self):
        found = self.look()
        self.assert_cause("not_listening", found, within=2)
        self.assertEqual("refused", found["evidence"]["connect"])

    def test_it_is_off(self):
        self.home.phone.run("ip link set phone0 down")
        self.assert_cause("not_there", self.look(), within=5)

    def test_it_has_left_just_now(self):
        self.look()  # so that its entry is fresh
        self.home.phone.run("ip link set phone0 down")
        self.assertIn(self.look()["cause"], ("silent", "not_there"))

    def test_another_phone_has_its_address(self):
        other = Identity(self.folder, "tablet")
        other.record(self.mac)
        self.receiver_at(self.home.phone, other)
        self.assert_cause("other_key", self.look(), within=2)

    def test_another_program_has_its_port(self):
        self.listener_at(self.home.phone, PORT, b"HTTP/1.1 400 Bad Request\r\n\r\n")
        self.assert_cause("not_orlinth", self.look(), within=2)

    def test_its_port_says_nothing(self):
        self.listener_at(self.home.phone, PORT)
        self.assert_cause("silent_port", self.look(), within=4)

    def test_another_device_has_its_address(self):
        self.meet_router()
        program = self.receiver_at(self.home.phone, self.phone)
        self.assertEqual("ok", self.look()["status"])  # and its hardware address is remembered
        program.kill()
        self.home.phone.run("ip link set phone0 down\nip link set phone0 address 02:77:00:00:00:99\nip link set phone0 up")
        self.home.desk.run("ip neigh flush dev wlan0")
        self.meet_router()
        self.assert_cause("other_device", self.look(), within=5)

    def test_it_has_moved(self):
        self.meet_router()
        self.receiver_at(self.home.phone, self.phone)
        self.assertEqual("ok", self.look()["status"])
        self.home.phone.run("ip address del 10.77.7.30/24 dev phone0\nip address add 10.77.7.57/24 dev phone0")
        self.meet_router()
        found = self.look("--find", "known")
        self.assert_cause("moved", found, within=6)
        self.assertEqual("ok", found["status"])
        self.assertEqual("has moved to 10.77.7.57 (was 10.77.7.30); recorded", found["message"])
        self.assertEqual("10.77.7.57", json.loads(self.mac.peer_file.read_text())["peers"][0]["peer_ip"])

    def test_it_is_in_another_network(self):
        self.at("10.1.4.30")
        self.assert_cause("other_network", self.look(), within=5)

    def test_a_router_turns_the_connection_away(self):
        self.at("10.1.5.30")
        self.assert_cause("router_says", self.look(), within=2)

    def test_there_is_no_route(self):
        self.at("198.18.0.1")
        self.home.desk.run("ip route add unreachable 198.18.0.0/15")
        self.assert_cause("no_route", self.look(), within=1)

    def test_a_vpn_takes_the_network(self):
        self.home.desk.run("ip link add tun0 type veth peer name server\n"
                           "ip link set server up\n"
                           "ip address add 10.8.0.2/32 dev tun0\n"
                           "ip link set tun0 up\n"
                           "ip route add 10.77.7.0/25 dev tun0")
        found = self.check("computer", "phone", "--find", "never")
        self.assert_cause("vpn_takes_lan", found)
        self.assertIn("(tun0) takes the way to 10.77.7.0/24", found["message"])

    def test_containers_take_the_network(self):
        self.home.desk.run("ip link add docker0 type veth peer name container\n"
                           "ip link set container up\n"
                           "ip address add 10.77.7.17/28 dev docker0\n"
                           "ip link set docker0 up")
        self.assert_cause("container_net", self.check("computer", "phone", "--find", "never"))

    def test_there_is_no_network(self):
        self.home.router.run("ip link set to-wlan0 down")
        self.assert_cause("no_network", self.check("computer", "phone", "--find", "never"), within=2)

    def test_the_wifi_keeps_its_devices_apart(self):
        self.home.router.run("bridge link set dev to-wlan0 isolated on\n"
                             "bridge link set dev to-phone0 isolated on\n"
                             "echo 1 > /proc/sys/net/ipv4/conf/bridge/proxy_arp_pvlan")
        self.meet_router()
        self.assert_cause("isolated", self.look())


@unittest.skipUnless(HAS_FILTER, "NOT TESTED: filters on the way, as nft is not installed")
class Filters(DoctorTest):
    @staticmethod
    def filter(place, hook, rule):
        place.run(f"echo 'table inet test {{ chain stop {{ type filter hook {hook} priority 0; {rule}; }}; }}' | nft -f -")

    def test_something_on_the_phone_swallows_connections(self):
        self.filter(self.home.phone, "input", f"tcp dport {PORT} drop")
        self.assert_cause("swallowed", self.look(), within=5)

    def test_something_on_the_phone_forbids_connections(self):
        self.filter(self.home.phone, "input", "ip protocol tcp reject with icmp admin-prohibited")
        self.assert_cause("forbidden", self.look(), within=3)

    def test_the_phone_blocks_everything_but_answers_for_its_address(self):
        self.filter(self.home.phone, "input", "drop")
        self.assert_cause("swallowed", self.look(), within=5)

    def test_a_filter_on_this_computer_stops_what_goes_out(self):
        self.look()  # so that the phone's hardware address is known
        self.filter(self.home.desk, "output", "ip daddr 10.77.7.30 drop")
        self.assert_cause("own_outgoing", self.look(), within=3)


class ThisComputer(DoctorTest):
    def test_the_service_does_not_run(self):
        self.assert_cause("not_running", self.check("service", "--find", "never"), within=1)

    def test_the_service_runs(self):
        service = self.running_program(
            [*self.home.desk.enter, ORLINTH, "serve", "--port", "28471", "--dir", str(self.mac.downloads), "--json"],
            self.mac)
        service.events.wait_for("listening")
        found = self.check("service", "--find", "never")
        self.assertEqual("ok", found["status"], found)
        self.assertRegex(found["message"], r"^receives at port 28471 since (\d\d:\d\d|\d{4}-\d\d-\d\d)$")

    def test_the_folder_that_the_service_uses_is_looked_at(self):
        service = self.running_program(
            [*self.home.desk.enter, ORLINTH, "serve", "--port", "28471", "--dir", str(self.mac.downloads), "--json"],
            self.mac)
        service.events.wait_for("listening")
        self.assertEqual(str(self.mac.downloads), self.check("downloads", "--find", "never")["evidence"]["folder"])
        service.kill()
        (self.mac.config / "orlinth").mkdir(parents=True, exist_ok=True)
        (self.mac.config / "orlinth" / "config.toml").write_text(f'[serve]\ndir = "{self.mac.root}"\n')
        self.assertEqual(str(self.mac.root), self.check("downloads", "--find", "never")["evidence"]["folder"])

    def test_a_phone_comes_in_while_it_listens(self):
        service = self.running_program(
            [*self.home.desk.enter, ORLINTH, "serve", "--port", "28471", "--dir", str(self.mac.downloads), "--json"],
            self.mac)
        service.events.wait_for("listening")
        self.receiver_at(self.home.phone, self.phone)
        doctor = self.running_program(
            [*self.home.desk.enter, ORLINTH, "doctor", "--listen", "--find", "never", "--json"], self.mac)
        doctor.events.wait_for("listening")
        self.phone.record(self.mac, 28471, ip="10.77.7.10")
        sender = self.running_program(
            [*self.home.phone.enter, ORLINTH, "send", "--to", "mac", "--json", str(self.file("a.txt", b"a"))], self.phone)
        self.assertEqual(0, sender.wait(), sender.stderr)
        arrival = doctor.events.wait_until(
            lambda: next((event for event in doctor.events.all if event.get("id") == "arrival"), None), "arrival")
        self.assertEqual("ok", arrival["status"], arrival)
        self.assertRegex(arrival["message"], r"^phone came in (at|on) \d")
        self.assertTrue(doctor.events.wait_for("complete")["can_receive"])
        self.assertIn(doctor.wait(), (0, 1))  # whatever else is wrong with the machine of the test

    def test_an_interrupt_ends_it_while_it_listens(self):
        doctor = self.running_program([*self.home.desk.enter, ORLINTH, "doctor", "--listen", "--find", "never", "--json"],
                                      self.mac)
        doctor.events.wait_for("listening")
        doctor.signal(signal.SIGINT)
        self.assertEqual(130, doctor.wait(10))

    def test_another_program_has_the_port(self):
        self.listener_at(self.home.desk, 28471)
        found = self.check("service", "--find", "never")
        self.assert_cause("port_taken", found, within=1)
        self.assertIn(pathlib.Path(sys.executable).resolve().name[:7], found["message"])

    def test_phones_know_another_address(self):
        (self.mac.data / "Orlinth" / "addresses.json").write_text(
            json.dumps({"phones": {}, "told_ip": "10.77.7.12", "told_port": 28471}))
        found = self.check("computer", "--find", "never")
        self.assert_cause("own_address", found, within=1)
        self.assertIn("Your phones know this computer as 10.77.7.12. It is 10.77.7.10 now", found["message"])

    def test_the_downloads_folder_is_full(self):
        folder = self.mac.root / "Downloads"
        folder.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", str(folder)], check=True)
        self.addCleanup(subprocess.run, ["umount", str(folder)], check=True)
        self.assert_cause("disk", self.check("downloads", "--find", "never"), within=1)

    @unittest.skipIf(SANITIZED, "a sanitizer wants to be the first library")
    def test_the_disk_of_the_downloads_folder_does_not_answer(self):
        self.mac.environment["LD_PRELOAD"] = str(self.shim("dead_disk", """
            #include <sys/statvfs.h>
            #include <unistd.h>
            int fstatvfs(int number, struct statvfs *found) {
                for (;;) {
                    pause();
                }
            }
        """))
        began = time.monotonic()
        events, status = self.doctor("--find", "never")
        self.assertLess(time.monotonic() - began, 10)
        found = next(event for event in events if event.get("id") == "downloads")
        self.assertEqual("not_measured", found["status"])
        self.assertIn("no answer in", found["message"])
        self.assertEqual("complete", events[-1]["event"])
        self.assertEqual(1, status)

    def test_the_downloads_folder_is_read_only(self):
        folder = self.mac.root / "Downloads"
        folder.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", str(folder)], check=True)
        self.addCleanup(subprocess.run, ["umount", str(folder)], check=True)
        found = self.check("downloads", "--find", "never")
        self.assert_cause("folder", found, within=1)
        self.assertIn("it is read-only", found["message"])

    def test_everything_works_for_an_ordinary_user_too(self):
        if pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
            self.skipTest("NOT TESTED: another user, as this account may be only one")
        self.receiver_at(self.home.phone, self.phone)
        (self.mac.root / "Downloads").mkdir(mode=0o555)
        for path in [self.folder, *self.mac.root.rglob("*"), self.mac.root]:
            os.chown(path, NOBODY, NOBODY)
        as_nobody = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        events, status = self.doctor("--find", "never", enter=as_nobody)
        found = {event["id"]: event for event in events if event["event"] == "check"}
        self.assertEqual("ok", found["phone"]["status"], found["phone"])
        self.assertEqual("ok", found["computer"]["status"])
        self.assertEqual("folder", found["downloads"]["cause"])
        self.assertEqual("not_running", found["service"]["cause"])
        self.assertEqual(1, status)

    def test_nothing_is_written_for_a_phone_that_is_not_there(self):
        def everything():
            return {path: path.read_bytes() for path in self.mac.root.rglob("*") if path.is_file()}

        before = everything()
        self.look()
        self.doctor("--find", "never")
        self.assertEqual(before, everything())

    def test_nothing_leaves_the_network(self):
        def forwarded():
            """What the router has passed on, or could not."""
            text = subprocess.run([*self.home.router.enter, "cat", "/proc/net/snmp"], check=True, capture_output=True,
                                  encoding="ascii").stdout
            names, values = [line.split() for line in text.splitlines() if line.startswith("Ip:")]
            counts = dict(zip(names, values))
            return int(counts["ForwDatagrams"]) + int(counts["OutNoRoutes"])

        before = forwarded()
        self.home.phone.run("ip link set phone0 down")
        self.meet_router()
        self.doctor("--find", "always")
        self.assertEqual(before, forwarded())
        self.home.router.run("ip route add 10.77.8.0/24 dev bridge")
        self.at("10.77.8.30")  # but for a phone that was last in another network
        self.look()
        self.assertLess(before, forwarded())

    def test_people_read_it_in_eighty_columns(self):
        result = subprocess.run([*self.home.desk.enter, ORLINTH, "doctor", "--find", "never"], env=self.mac.environment,
                                capture_output=True, encoding="utf-8", timeout=PATIENCE, check=False)
        self.assertEqual(1, result.returncode)
        lines = result.stdout.splitlines()
        self.assertEqual("ok This computer  10.77.7.10 on wlan0", lines[0])
        self.assertTrue(all(len(line) <= 80 for line in lines), lines)
        self.assertEqual("2 problems. phone cannot be reached now. Receiving does not work either.", lines[-1])


if __name__ == "__main__":
    unittest.main()
