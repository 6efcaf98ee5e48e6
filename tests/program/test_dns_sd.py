"""Announcing and finding pair mode with a real Avahi daemon, on a bus and in a network of its own."""

import contextlib
import hashlib
import os
import pathlib
import re
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
import unittest.mock

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from avahi_world import AvahiWorld, Lines
from harness import BUILD, ORLINTH, PATIENCE, SANITIZED, Identity, Running

TOOL = str(BUILD / "tests" / "interop" / "dns_sd_tool")
TYPE = "_orlinth-pair._tcp"
KEY = "2IvhjdeTAr0xOCAxF3ZKGiqbBBSQTWQEE2UArz1XWkA="
PORT = 53318
HOSTNAME = "Anns \"Stüdio\" ; 1"
LOST = "Daemon connection failed"
MISSING = "Daemon not running"
HALFWAY = "An unexpected D-Bus error occurred"  # gone while it was being asked
SILENT = "Timeout reached"
# Seconds for which libdbus waits for an answer.
ANSWER_TIMEOUT = 25
# What ends at once has ended by then, even on a busy machine.
PROMPT = 10

# asks the daemon itself, and prints the TXT record as it is on the wire
ASK = """
import socket, sys
name, address = bytes.fromhex(sys.argv[1]), sys.argv[2]
query = bytes.fromhex("123400000001000000000000") + name + bytes.fromhex("00100001")
end = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
end.bind((address, 0))
end.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
end.settimeout(2)
for attempt in range(5):
    end.sendto(query, ("224.0.0.251", 5353))
    try:
        print(end.recv(65536).hex())
        break
    except TimeoutError:
        pass
"""


def code_hash(code):
    return hashlib.sha256(f"orlinth-pair:{code}:{KEY}".encode()).hexdigest()[:16]


def expected_txt(code, hostname=HOSTNAME):
    return [["v", "1"], ["c", code_hash(code)], ["pk", KEY], ["ip", "192.168.77.1"], ["sn", "192.168.77.0/24"],
            ["hn", hostname], ["mac", "02:00:5e:10:00:01"],
            ["sec", "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8="], ["t", "mac"]]


def service_name(code):
    return "Orlinth-pair-" + code_hash(code)[:6]


# A computer on which Avahi's client library is not installed.
NO_AVAHI = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>

void* dlopen(const char* name, int flags) {
    void* (*next)(const char*, int) = dlsym(RTLD_NEXT, "dlopen");
    return next(name && strstr(name, "libavahi-client") ? "libavahi-that-is-missing.so" : name, flags);
}
"""


class Program(Running):
    """The helper program, with lines to be written to it."""

    def __init__(self, world, *arguments):
        super().__init__(world.inside([TOOL, *arguments]), env=world.environment, stdin=subprocess.PIPE)

    def say(self, line):
        done = self.count("done")
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()
        return done

    def do(self, line):
        done = self.say(line)
        self.wait_until(lambda: self.count("done") > done, line)

    def count(self, name):
        return sum(event["event"] == name for event in self.events.all)

    def wait_until(self, condition, what):
        with self.events.changed:
            self.events.changed.wait_for(lambda: self.events.ended or condition(), PATIENCE)
            if not condition():
                raise AssertionError(f"never: {what}; only {self.events.all}")

    def messages(self, name):
        return [event["message"] for event in self.events.all if event["event"] == name]

    def close(self):
        super().close()
        self.process.stdin.close()


class DnsSd(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.world = stack.enter_context(AvahiWorld())

    def program(self, *arguments):
        program = Program(self.world, *arguments)
        self.addCleanup(program.close)
        return program

    def advertiser(self, code="4711", hostname=HOSTNAME):
        program = self.program("advertise", str(PORT), hostname, code)
        program.do("start")
        return program

    def browser(self):
        """Lines of avahi-browse, which goes on."""
        process = subprocess.Popen(self.world.inside(["stdbuf", "-oL", "avahi-browse", "-rp", TYPE]),
                                   env=self.world.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.kill)
        return Lines(process.stdout)

    def bus_monitor(self):
        """Lines on what is said on the bus from now on."""
        process = subprocess.Popen(self.world.inside(["dbus-monitor", "--system"]), env=self.world.environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.kill)
        lines = Lines(process.stdout)
        lines.wait_for(lambda line: "member=NameLost" in line, "monitor")  # its own name, which it gives up for this
        return lines

    def sees(self, browser, name, sign="="):
        return browser.wait_for(lambda line: line.startswith(sign + ";") and f";{name};" in line, f"{sign} {name}")

    def publish(self, name, *txt, port=PORT):
        """Another program's service; returns when it is there."""
        process = subprocess.Popen(self.world.inside(["avahi-publish", "-s", name, TYPE, str(port), *txt]),
                                   env=self.world.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.kill)
        Lines(process.stdout).wait_for(lambda line: "Established" in line, "publisher")

    def find(self, seconds="3"):
        program = self.program("find", seconds)
        self.assertEqual(0, program.wait(), program.stderr)
        self.assert_nothing_left(program)
        return program

    def mute_bus(self):
        bus = self.world.mute_bus()
        self.addCleanup(bus.close)
        return bus

    def ends_promptly(self, program, line="end"):
        program.say(line)
        self.assertEqual(0, program.wait(PROMPT), program.stderr)
        self.assert_nothing_left(program)

    def ends_well(self, program):
        program.do("end")
        self.assertEqual(0, program.wait(), program.stderr)
        self.assert_nothing_left(program)

    def assert_nothing_left(self, program):
        self.assertEqual(1, program.events.find("threads")["count"])

    def assert_failures(self, program, *reasons):
        program.wait_until(lambda: len(program.messages("failure")) >= len(reasons), reasons)
        self.assertEqual(list(reasons), program.messages("failure"))
        logged = [event for event in program.events.all if event["event"] == "log"]
        self.assertEqual([{"event": "log", "subsystem": "com.tarvinex.orlinth", "category": "pair",
                           "message": "Orlinth pair advert failed: " + reason} for reason in reasons], logged)

    # announcing

    def test_what_is_announced_is_what_others_read(self):
        self.world.start_daemon()
        program = self.advertiser()
        browser = self.browser()
        line = self.sees(browser, service_name("4711"))
        fields = line.split(";", 9)
        self.assertEqual([service_name("4711"), TYPE, "local"], fields[3:6])
        self.assertEqual(str(PORT), fields[8])
        # avahi-browse prints the strings from the last to the first, with escapes for quotes and what is not ASCII
        txt = [f'"{key}={value}"' for key, value in expected_txt("4711")]
        printed = re.sub(rb"\\(\d{3})", lambda match: bytes([int(match[1])]), fields[9].encode())
        printed = printed.decode().replace('\\"', '"')
        self.assertEqual(" ".join(reversed(txt)), printed)
        self.assertEqual(expected_txt("4711"), self.txt_on_the_wire(service_name("4711")))
        program.do("stop")
        self.sees(browser, service_name("4711"), "-")
        self.assert_failures(program)
        self.ends_well(program)

    def txt_on_the_wire(self, name):
        labels = b"".join(struct.pack("B", len(label)) + label.encode() for label in [name, *TYPE.split("."), "local", ""])
        answer = self.world.run([sys.executable, "-c", ASK, labels.hex(), AvahiWorld.ADDRESS])
        packet = bytes.fromhex(answer.stdout.strip())
        first = b"\x03v=1"
        self.assertIn(first, packet, answer)
        start = packet.index(first)
        data = packet[start:start + struct.unpack(">H", packet[start - 2:start])[0]]
        strings = []
        while data:
            strings.append(data[1:1 + data[0]].decode().split("=", 1))
            data = data[1 + data[0]:]
        return strings

    def test_ending_the_program_withdraws_it(self):
        self.world.start_daemon()
        for end in ("end", "kill"):
            with self.subTest(end=end):
                program = self.advertiser(code="1" + end)
                browser = self.browser()
                self.sees(browser, service_name("1" + end))
                if end == "kill":
                    program.kill()
                else:
                    self.ends_well(program)
                self.sees(browser, service_name("1" + end), "-")

    def test_it_can_be_announced_again(self):
        self.world.start_daemon()
        program = self.advertiser()
        browser = self.browser()
        self.sees(browser, service_name("4711"))
        program.do("stop")
        self.sees(browser, service_name("4711"), "-")
        program.do("start")
        self.sees(self.browser(), service_name("4711"))
        self.assert_failures(program)
        self.ends_well(program)

    def test_a_daemon_that_is_missing_is_told_once_and_used_when_it_comes(self):
        program = self.advertiser()
        self.assert_failures(program, MISSING)
        self.world.start_daemon()
        self.sees(self.browser(), service_name("4711"))
        self.assert_failures(program, MISSING)
        self.ends_well(program)

    def test_each_loss_of_the_daemon_is_told_once_and_mended(self):
        self.world.start_daemon()
        program = self.advertiser()
        self.sees(self.browser(), service_name("4711"))
        for losses in (1, 2):
            monitor = self.bus_monitor()
            self.world.stop_daemon()
            self.assert_failures(program, *[LOST] * losses)
            monitor.wait_for(lambda line: "member=Hello" in line, "other attempt")
            self.world.start_daemon()
            self.sees(self.browser(), service_name("4711"))
        self.assert_failures(program, LOST, LOST)
        self.ends_well(program)

    def test_a_taken_name_is_told_and_given_up(self):
        self.world.start_daemon()
        self.publish(service_name("4711"), "other=1")
        program = self.advertiser()
        self.assert_failures(program, "Local name collision")
        self.assertNotIn("sec=", self.world.run(["avahi-browse", "-rpt", TYPE]).stdout)
        program.do("stop")
        self.ends_well(program)

    def test_a_missing_bus_is_told_once_and_used_when_it_comes(self):
        self.world.stop_bus()
        program = self.advertiser()
        program.wait_until(lambda: program.count("failure"), "a failure")
        self.world.start_bus()
        self.world.start_daemon()
        self.sees(self.browser(), service_name("4711"))
        self.assertEqual(1, program.count("failure"), program.events.all)
        self.ends_well(program)

    def test_nobody_waits_for_a_daemon_that_hangs(self):
        self.world.start_daemon()
        self.world.signal_daemon(signal.SIGSTOP)
        program = self.advertiser()
        program.do("stop")
        program.do("start")
        program.do("end")
        self.assertEqual(0, program.wait(ANSWER_TIMEOUT - 5), program.stderr)
        self.assert_nothing_left(program)
        self.assert_failures(program)
        search = self.program("find", "60")
        search.events.wait_for("searching")
        search.say("cancel")
        self.assertEqual(0, search.wait(ANSWER_TIMEOUT - 5), search.stderr)
        self.assertEqual(["searching", "cancelled", "threads"], search.events.names())

    def test_it_can_be_ended_in_every_state(self):
        program = self.advertiser()  # no daemon yet
        program.do("stop")
        program.do("start")
        self.ends_well(program)
        self.world.start_daemon()
        for lines in ([], ["stop"], ["start"], ["stop", "start"], ["stop", "start", "stop", "start"]):
            with self.subTest(lines=lines):
                program = self.advertiser()
                for line in lines:
                    program.do(line)
                self.ends_well(program)
                self.assertEqual([], program.messages("failure"))

    # a bus that hangs

    def test_nobody_waits_for_a_bus_that_is_silent(self):
        bus = self.mute_bus()
        program = self.advertiser()
        bus.wait_for_silence()
        self.ends_promptly(program)
        search = self.program("find", "600")
        bus.wait_for_silence(2)
        self.ends_promptly(search, "cancel")
        self.assertEqual(["searching", "cancelled", "threads"], search.events.names())

    def test_a_bus_that_is_silent_is_as_good_as_none(self):
        bus = self.mute_bus()
        program = self.advertiser()
        self.assert_failures(program, SILENT)
        bus.wait_for_silence(3)  # it is tried again, and told once
        self.assert_failures(program, SILENT)
        self.ends_promptly(program)
        self.assertEqual([SILENT], self.find("600").messages("error"))
        self.assertEqual([SILENT], self.find("0.1").messages("error"))

    def test_a_bus_that_stops_while_announcing_holds_nobody_up(self):
        self.world.start_daemon()
        for lines in ([], ["stop"], ["stop", "start"]):
            with self.subTest(lines=lines):
                program = self.advertiser()
                browser = self.browser()
                self.sees(browser, service_name("4711"))
                self.world.signal_bus(signal.SIGSTOP)
                try:
                    for line in lines:
                        program.do(line)
                    if "start" in lines:
                        self.assert_failures(program, SILENT)
                    self.ends_promptly(program)
                finally:
                    self.world.signal_bus(signal.SIGCONT)
                self.sees(browser, service_name("4711"), "-")

    def test_a_bus_that_stops_while_finding_holds_nobody_up(self):
        self.world.start_daemon()
        monitor = self.bus_monitor()
        search = self.program("find", "600")
        monitor.wait_for(lambda line: "member=ServiceBrowser" in line, "search")
        self.world.signal_bus(signal.SIGSTOP)
        self.ends_promptly(search, "cancel")
        self.assertEqual(["searching", "cancelled", "threads"], search.events.names())

    def test_pairing_shows_its_digits_once_others_can_find_it(self):
        root = tempfile.TemporaryDirectory()
        self.addCleanup(root.cleanup)
        anna, bert = (Identity(root.name, name) for name in ("anna", "bert"))
        environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.world.environment["DBUS_SYSTEM_BUS_ADDRESS"]}
        pair = subprocess.Popen(self.world.inside([ORLINTH, "pair", "--yes", "--port", "0"]),
                                env={**anna.environment, **environment}, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.addCleanup(pair.wait, PATIENCE)
        self.addCleanup(pair.kill)
        lines = Lines(pair.stdout)
        lines.wait_for(lambda line: line.startswith("Announcing this computer on the network failed ("), "lack of a daemon")
        self.assertEqual([], [line for line in lines.all if "enter these four digits" in line])
        self.world.start_daemon()
        digits = lines.wait_for(lambda line: "enter these four digits there: " in line, "digits")[-4:]
        joined = subprocess.run(self.world.inside([ORLINTH, "join", "--yes", "--code", digits]),
                                env={**bert.environment, **environment}, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=PATIENCE, check=False)
        self.assertEqual(0, joined.returncode, joined)
        self.assertEqual(0, pair.wait(PATIENCE), lines.all)

    def test_pairing_ends_in_time_with_a_bus_that_is_silent(self):
        self.mute_bus()
        root = tempfile.TemporaryDirectory()
        self.addCleanup(root.cleanup)
        identity = Identity(root.name, "anna")
        environment = dict(identity.environment)
        environment["DBUS_SYSTEM_BUS_ADDRESS"] = self.world.environment["DBUS_SYSTEM_BUS_ADDRESS"]

        def run(*arguments):
            return subprocess.run(self.world.inside([ORLINTH, *arguments]), env=environment, stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, timeout=PATIENCE, check=False)

        pair = run("pair", "--timeout", "1")
        self.assertNotEqual(0, pair.returncode, pair)
        join = run("join", "--code", "1234", "--timeout", "1")
        self.assertNotEqual(0, join.returncode, join)
        self.assertIn("cannot look for computers on the network: " + SILENT, join.stderr)

    # finding

    def test_a_service_is_found_once_with_all_that_it_says(self):
        self.world.start_daemon()
        program = self.advertiser()
        browser = self.browser()
        self.sees(browser, service_name("4711"))
        services = self.find().events.find("found")["services"]
        self.assertEqual([{"name": service_name("4711"), "type": TYPE + ".", "domain": "local.", "port": PORT,
                           "txt": expected_txt("4711")}], services)
        with browser.changed:  # it was not just one place at which it could be seen
            seen = {tuple(line.split(";")[1:3]) for line in browser.all if line.startswith("+;")}
        self.assertGreater(len(seen), 1, browser.all)
        self.ends_well(program)

    def test_different_services_are_all_found(self):
        self.world.start_daemon()
        programs = [self.advertiser(code) for code in ("0001", "0002")]
        self.publish("Another one", "v=1", "V=2", "=x", "flag", "PK=a=b", port=7)
        for code in ("0001", "0002"):
            self.sees(self.browser(), service_name(code))
        found = {service["name"]: service for service in self.find().events.find("found")["services"]}
        self.assertEqual({service_name("0001"), service_name("0002"), "Another one"}, set(found))
        self.assertEqual(expected_txt("0002"), found[service_name("0002")]["txt"])
        self.assertEqual([["v", "1"], ["flag", ""], ["pk", "a=b"]], found["Another one"]["txt"])
        self.assertEqual(7, found["Another one"]["port"])
        for program in programs:
            self.ends_well(program)

    def test_nothing_is_found_where_nothing_is(self):
        self.world.start_daemon()
        self.assertEqual([], self.find().events.find("found")["services"])

    def test_finding_needs_a_daemon(self):
        search = self.find("60")
        self.assertEqual([MISSING], search.messages("error"))
        self.world.stop_bus()
        self.assertEqual(1, len(self.find("60").messages("error")))

    @unittest.skipIf(SANITIZED, "the sanitizer's own dlopen comes first")
    def test_without_avahis_library_both_name_it_and_go_on(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="orlinth-no-avahi-")))
        (folder / "no_avahi.c").write_text(NO_AVAHI, encoding="utf-8")
        subprocess.run([os.environ.get("ORLINTH_CXX", "clang++-19"), "-x", "c", "-shared", "-fPIC", "-o",
                        folder / "no_avahi.so", folder / "no_avahi.c"], check=True)
        self.enterContext(unittest.mock.patch.dict(os.environ, LD_PRELOAD=str(folder / "no_avahi.so")))
        reason = "cannot load libavahi-that-is-missing.so: cannot open shared object file: No such file or directory"
        self.assertEqual([reason], self.find("60").messages("error"))
        program = self.advertiser()
        self.assert_failures(program, reason)
        self.ends_well(program)

    def test_a_daemon_that_goes_away_ends_the_search(self):
        self.world.start_daemon()
        program = self.advertiser()
        self.sees(self.browser(), service_name("4711"))
        search = self.program("find", "600")
        search.events.wait_for("searching")
        self.world.stop_daemon()
        self.assertEqual(0, search.wait(), search.stderr)
        self.assertIn(search.messages("error"), ([LOST], [MISSING], [HALFWAY]))
        self.ends_well(program)

    def test_a_search_can_be_cancelled(self):
        self.world.start_daemon()
        search = self.program("find", "600")
        search.events.wait_for("searching")
        search.say("cancel")
        self.assertEqual(0, search.wait(), search.stderr)
        self.assertEqual(["searching", "cancelled", "threads"], search.events.names())
        self.assert_nothing_left(search)


if __name__ == "__main__":
    side_by_side.main()
