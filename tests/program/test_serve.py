"""The receive service: many phones at once, phones that come and go while it runs, and everything that ends it."""

import array
import fcntl
import json
import os
import pathlib
import select
import signal
import socket
import subprocess
import sys
import termios
import time
import unittest

import own_root  # noqa: F401 (it is entered by the import)
import private_bus
import side_by_side
from harness import (FRAMES_BEFORE_DATA, MIB, ORLINTH, PATIENCE, SANITIZED, Identity, ProgramTest, Running, look, random_key,
                     sha256)
from terminal import Terminal

# What the service promises, and what a busy machine may add.
SECONDS_TO_END = 20 if SANITIZED else 2
LEEWAY = 3
# The least that a pipe can hold.
PIPE_BYTES = 4096

# A shell with one program in the foreground, which does what the socket says.
SHELL = """
import os, signal, socket, subprocess, sys
signal.signal(signal.SIGTTOU, signal.SIG_IGN)
orders = socket.socket(fileno=int(sys.argv[1]))
program = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", *sys.argv[2:]], process_group=0)
os.tcsetpgrp(0, program.pid)
while order := orders.recv(1):
    if order == b"r":
        orders.sendall(os.read(0, 100))
        continue
    if order == b"e":
        program.terminate()
        sys.exit(program.wait())
    os.tcsetpgrp(0, os.getpgrp() if order == b"t" else program.pid)
    orders.sendall(order)
"""


def wait_for_count(events, name, count):
    """The first `count` events of this name."""
    def found():
        return [event for event in events.all if event["event"] == name]
    with events.changed:
        if not events.changed.wait_for(lambda: events.ended or len(found()) >= count, PATIENCE) or len(found()) < count:
            raise AssertionError(f"{len(found())} of {count} events '{name}', only {events.all} {events.not_json}")
        return found()[:count]


def told(service):
    """What a running service has written to standard error. Reading as usual would move the place where it writes."""
    return os.pread(service.errors.fileno(), MIB, 0).decode()


def resident(program):
    """In bytes."""
    for line in pathlib.Path(f"/proc/{program.process.pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) * 1024
    raise AssertionError("no VmRSS")


def is_open(connection):
    """Whether the other side has neither closed nor reset it. Nothing was sent that could be read."""
    try:
        return bool(connection.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT))
    except BlockingIOError:
        return True
    except ConnectionError:
        return False


def waiting_bytes(pipe):
    """How many bytes lie in it."""
    count = array.array("i", [0])
    fcntl.ioctl(pipe, termios.FIONREAD, count)
    return count[0]


class ServeTest(ProgramTest):
    """`desk` runs the service; `phone` and whoever else is made are paired with it."""

    def setUp(self):
        super().setUp()
        self.desk = self.mac

    def serve(self, *arguments, port="0", identity=None, **options):
        """The service, listening; `.port` is where."""
        service = self.start(*arguments, port=port, identity=identity, **options)
        service.port = service.events.wait_for("listening")["port"]
        return service

    def start(self, *arguments, port="0", identity=None, **options):
        identity = identity or self.desk
        return self.running(identity, "serve", "--port", str(port), "--dir", str(identity.downloads), "--json",
                            *arguments, **options)

    def another_phone(self, name):
        phone = Identity(self.folder, name)
        self.desk.record(phone)
        return phone

    def send(self, phone, file, port, *arguments):
        """`send` of a phone to the service, under way."""
        phone.record(self.desk, port)
        return self.running(phone, "send", "--to", "mac", "--json", *arguments, str(file))

    def assert_sent(self, phone, file, service):
        before = len(service.events.all)
        sender = self.send(phone, file, service.port)
        self.assertEqual(0, sender.wait(), sender.stderr)
        with service.events.changed:
            service.events.changed.wait_for(
                lambda: any(event["event"] == "received" for event in service.events.all[before:]), PATIENCE)
        event = next(event for event in service.events.all[before:] if event["event"] == "received")
        self.assertEqual(sha256(file), sha256(event["saved_at"]))
        return event

    def assert_ends(self, service, number=signal.SIGTERM):
        begin = time.monotonic()
        service.signal(number)
        self.assertEqual(0, service.wait(), service.stderr)
        self.assertLess(time.monotonic() - begin, SECONDS_TO_END + LEEWAY)
        self.assertEqual([], service.events.not_json)
        # it has come to its end, and was not ended because its time was up
        self.assertFalse((self.desk.data / "Orlinth" / "service.sock").exists())

    def left_over(self):
        return sorted(path.name for path in self.desk.downloads.iterdir())


class Receiving(ServeTest):
    @unittest.skipIf(SANITIZED, "a sanitizer locks no memory")
    def test_the_key_lies_in_memory_that_is_neither_swapped_out_nor_dumped(self):
        service = self.serve()
        mappings = pathlib.Path(f"/proc/{service.process.pid}/smaps").read_text()
        flags = [line.split()[1:] for line in mappings.splitlines() if line.startswith("VmFlags:")]
        self.assertTrue([found for found in flags if "lo" in found and "dd" in found], "no page is locked")
        self.assert_ends(service)

    def test_several_phones_deliver_several_files_at_once(self):
        service = self.serve()
        sent = {}
        senders = []
        for number in range(4):
            phone = self.another_phone(f"phone {number}")
            phone.record(self.desk, service.port)
            files = [self.file(f"{number} {index}.bin", os.urandom(MIB + index)) for index in range(3)]
            sent.update({file.name: (sha256(file), phone.name) for file in files})
            senders.append(self.running(phone, "send", "--to", "mac", "--json", *map(str, files)))
        for sender in senders:
            self.assertEqual(0, sender.wait(), sender.stderr)
        received = wait_for_count(service.events, "received", len(sent))
        self.assertEqual(sent, {pathlib.Path(event["saved_at"]).name: (sha256(event["saved_at"]), event["from"])
                                for event in received})
        self.assert_ends(service)
        self.assertEqual(sorted(sent), self.left_over())
        self.assertIsNone(service.events.find("error"))

    def test_the_event_of_a_file_has_what_receive_tells_and_the_sender(self):
        service = self.serve()
        file = self.file("a.txt", b"some text")
        event = self.assert_sent(self.phone, file, service)
        self.assertEqual({"event", "saved_at", "bytes_written", "advertised_size", "mime", "resumed_from_offset",
                          "bytes_received_this_session", "duration_seconds", "remote_endpoint", "from"}, set(event))
        self.assertEqual((str(self.desk.downloads / "a.txt"), 9, 9, "text/plain", 0, 9, "phone"),
                         tuple(event[key] for key in ("saved_at", "bytes_written", "advertised_size", "mime",
                                                      "resumed_from_offset", "bytes_received_this_session", "from")))
        self.assertEqual(["listening", "received"], service.events.names())

    def test_one_line_a_happening_for_people_and_no_text_in_it(self):
        service = self.running(self.desk, "serve", "--port", "0", "--dir", str(self.desk.downloads))
        port = self.port_of(service)
        sender = self.send(self.phone, self.file("a\x1b[31m.bin", b"abc"), port)
        self.assertEqual(0, sender.wait(), sender.stderr)
        clip = self.phone.run("clip", "--to", "mac", "--text", "a secret text")
        self.assertEqual(0, clip.returncode, clip.stderr)
        service.events.wait_until(lambda: len(service.events.not_json) >= 2, "second line")
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(), service.stderr)
        lines = [line.decode() for line in service.events.not_json]
        self.assertEqual(2, len(lines), lines)
        self.assertRegex(lines[0], r"^received \S+/a\\u\{001B\}\[31m\.bin from phone \(3 bytes in .*\)\n$")
        self.assertEqual("received 13 bytes of text from phone\n", lines[1])
        self.assertNotIn("secret", service.stderr)

    def port_of(self, service):
        """From the message for people."""
        self.wait_until(lambda: told(service).endswith("\n"), service)
        return int(told(service).removeprefix("listening on port "))

    def test_files_go_to_the_downloads_folder_unless_told_otherwise(self):
        service = self.running(self.desk, "serve", "--port", "0", "--json")
        service.port = service.events.wait_for("listening")["port"]
        event = self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assertEqual(str(self.desk.root / "Downloads" / "a.bin"), event["saved_at"])

    def test_settings_of_the_service_are_taken(self):
        folder = self.folder / "incoming"
        (self.desk.config / "orlinth").mkdir(parents=True)
        (self.desk.config / "orlinth" / "config.toml").write_text(
            f'[serve]\nport = 0\ndir = "{folder}"\naccept = "always"\nno-clipboard = true\n')
        service = self.running(self.desk, "serve", "--json")
        service.port = service.events.wait_for("listening")["port"]
        event = self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assertEqual(str(folder / "a.bin"), event["saved_at"])

    def test_what_came_is_in_the_history_unless_that_is_switched_off(self):
        service = self.running(self.desk, "serve", "--port", "0", "--json")
        service.port = service.events.wait_for("listening")["port"]
        saved = self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)["saved_at"]
        self.assert_ends(service)
        history = [json.loads(line) for line in self.desk.run("history", "--json").stdout.splitlines()]
        self.assertEqual([("in", "a.bin", 3, "done", saved)],
                         [tuple(one[key] for key in ("direction", "file", "size", "outcome", "path")) for one in history])
        (self.desk.config / "orlinth").mkdir(parents=True)
        (self.desk.config / "orlinth" / "config.toml").write_text("[serve]\nhistory = false\n")
        service = self.running(self.desk, "serve", "--port", "0", "--json")
        service.port = service.events.wait_for("listening")["port"]
        self.assert_sent(self.phone, self.file("b.bin", b"abc"), service)
        self.assert_ends(service)
        self.assertEqual(1, len(self.desk.run("history").stdout.splitlines()))

    def test_nobody_is_paired_yet_is_told_and_no_failure(self):
        self.desk.run("peers", "remove", "phone")
        service = self.serve()
        self.assert_ends(service)
        self.assertIn("No phone is paired yet", service.stderr)
        quiet = self.serve("--quiet")
        self.assert_ends(quiet)
        self.assertEqual("", quiet.stderr)


class Texts(ServeTest):
    def clipboard_tool(self, script):
        """Puts a stand-in for the clipboard's program into the service's way; returns the environment."""
        tools = self.folder / "tools"
        tools.mkdir()
        tool = tools / "xclip"
        tool.write_text("#!/bin/sh\n" + script)
        tool.chmod(0o755)
        self.desk.environment.update(DISPLAY=":77", PATH=f"{tools}:{os.environ['PATH']}")

    def clip(self, text, service):
        self.phone.record(self.desk, service.port)
        sent = self.phone.run("clip", "--to", "mac", "--text", text)
        self.assertEqual(0, sent.returncode, sent.stderr)

    def clip_through_input(self, text, service):
        """The same for what is too long for an argument."""
        self.phone.record(self.desk, service.port)
        sent = self.phone.run("clip", "--to", "mac", "-", input=text)
        self.assertEqual(0, sent.returncode, sent.stderr)

    def wait_for_texts(self, service, count):
        service.events.wait_until(lambda: sum(event["event"] == "clipboard" for event in service.events.all) == count,
                                  f"{count} texts")

    def test_a_text_is_told_with_its_sender_and_goes_to_the_clipboard(self):
        written = self.folder / "clipboard"
        self.clipboard_tool(f'cat > "{written}.new" && mv "{written}.new" "{written}"\n')
        service = self.serve()
        self.clip("Grüße\nan alle", service)
        event = service.events.wait_for("clipboard")
        self.assertEqual({"event": "clipboard", "text": "Grüße\nan alle", "from": "phone"}, event)
        self.assert_ends(service)  # which waits for the clipboard
        self.assertEqual("Grüße\nan alle", written.read_text())

    def test_the_programs_of_the_desktop_see_nothing_that_is_the_services(self):
        seen = self.folder / "seen"
        self.clipboard_tool(f'cat > /dev/null; env > "{seen}.new" && mv "{seen}.new" "{seen}"\n')
        own = {"NOTIFY_SOCKET": str(self.folder / "nobody"), "LISTEN_FDS": "1", "LISTEN_PID": "1",
               "WATCHDOG_USEC": "100000000", "WATCHDOG_PID": "1", "INVOCATION_ID": "0" * 32, "API_TOKEN": "hunter2"}
        self.desk.environment.update(own, LANG="de_DE.UTF-8")
        service = self.serve()
        self.clip("text", service)
        service.events.wait_for("clipboard")
        self.assert_ends(service)
        environment = dict(line.split("=", 1) for line in seen.read_text().splitlines())
        self.assertEqual(set(), set(own) & set(environment))
        self.assertEqual((":77", "de_DE.UTF-8", str(self.desk.root)),
                         tuple(environment[name] for name in ("DISPLAY", "LANG", "HOME")))

    def test_no_clipboard_leaves_it_alone(self):
        written = self.folder / "clipboard"
        self.clipboard_tool(f'cat > "{written}"\n')
        service = self.serve("--no-clipboard")
        self.clip("text", service)
        service.events.wait_for("clipboard")
        self.assert_ends(service)
        self.assertFalse(written.exists())

    def test_a_clipboard_that_cannot_be_written_is_a_message_and_no_end(self):
        service = self.serve()
        self.clip("a secret text", service)
        service.events.wait_for("clipboard")
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)
        self.assertIn("cannot write the clipboard: there is no desktop session", service.stderr)
        self.assertIn("\nTo print the last text: `orlinth clip --last`\n", service.stderr)
        self.assertNotIn("secret", service.stderr)

    def started(self, command):
        """Another program, once it has said its first line; and that line."""
        process = subprocess.Popen(command, stdout=subprocess.PIPE, env=self.desk.environment, encoding="utf-8")
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process, process.stdout.readline().strip()

    def test_a_desktop_that_begins_after_the_service_is_found_through_the_service_manager(self):
        written = self.folder / "clipboard"
        self.clipboard_tool(f'(cat; echo " on $DISPLAY with $XAUTHORITY") > "{written}.new" && '
                            f'mv "{written}.new" "{written}"\n')
        del self.desk.environment["DISPLAY"]
        self.desk.environment["DBUS_SESSION_BUS_ADDRESS"] = self.started(private_bus.command(self.folder))[1]
        manager = pathlib.Path(os.environ["ORLINTH_BUILD"]) / "tests" / "interop" / "service_manager"
        service = self.serve()
        self.clip("before", service)
        self.wait_until(lambda: "cannot write the clipboard: there is no desktop session" in service.stderr,
                        service)
        for display in (":78", ":79"):  # the second desktop of a service that outlives the first
            session, line = self.started([manager, "PATH=/nowhere", f"DISPLAY={display}", "XAUTHORITY=/run/key"])
            self.assertEqual("ready", line)
            self.clip(f"text for {display}", service)
            expected = f"text for {display} on {display} with /run/key\n"
            self.wait_until(lambda: written.exists() and written.read_text() == expected, self.folder)
            session.kill()
            session.wait()
        self.assert_ends(service)

    def test_the_last_text_can_be_printed_and_forgotten(self):
        for flag in ("--last", "--forget"):
            result = self.desk.run("clip", flag)
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assert_one_line_error(result.stderr, "the service does not run, so no text is kept")
            self.assertEqual("To start it: `orlinth serve`", result.stderr.splitlines()[1])
        service = self.serve()
        none = self.desk.run("clip", "--last")
        self.assertEqual((1, ""), (none.returncode, none.stdout))
        self.assert_one_line_error(none.stderr, "the service has no text")
        for text in ("first", "Grüße\n \x1b[31msecond line\n\n", "x" * 1_000_000):
            self.clip_through_input(text, service)
        self.clip("Grüße\n \x1b[31msecond line\n\n", service)
        self.wait_for_texts(service, 4)
        result = self.desk.run("clip", "--last")
        self.assertEqual((0, "Grüße\n \x1b[31msecond line\n\n", ""),
                         (result.returncode, result.stdout, result.stderr))
        event = json.loads(self.desk.run("clip", "--last", "--json").stdout)
        self.assertLess(abs(time.time() * 1000 - event.pop("received_epoch_ms")), 1000 * PATIENCE)
        self.assertEqual({"event": "clipboard", "text": "Grüße\n \x1b[31msecond line\n\n", "from": "phone"}, event)
        terminal = Terminal(80)
        subprocess.run([ORLINTH, "clip", "--last"], env=self.desk.environment, stdin=subprocess.DEVNULL,
                       stdout=terminal.end, check=True, timeout=PATIENCE)
        self.assertEqual("Grüße\r\n \\u{001B}[31msecond line\r\n\r\n\r\n", terminal.text())
        self.assertEqual("forgot the last text\n", self.desk.run("clip", "--forget").stdout)
        self.assertEqual("there was no text to forget\n", self.desk.run("clip", "--forget").stdout)
        self.assertEqual(1, self.desk.run("clip", "--last").returncode)
        self.assertEqual(2, self.desk.run("clip", "--last", "--text", "x").returncode)
        self.assert_ends(service)

    def test_a_large_text_is_the_last_one_up_to_its_limit(self):
        service = self.serve("--no-clipboard")
        self.clip_through_input("x" * (1 << 20), service)
        service.events.wait_for("clipboard")
        self.assertEqual("x" * (1 << 20), self.desk.run("clip", "--last").stdout)
        self.clip_through_input("x" * (1 << 20) + "y", service)
        self.wait_for_texts(service, 2)
        self.assertEqual(1, self.desk.run("clip", "--last").returncode)
        self.assert_ends(service)

    def test_a_clipboard_that_hangs_holds_nobody_up(self):
        held = self.folder / "held"
        self.clipboard_tool(f'touch "{held}"; exec sleep 600\n')
        service = self.serve()
        self.clip("text", service)
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)
        self.assertTrue(held.exists())


class Instances(ServeTest):
    def test_a_second_one_says_so_and_the_first_goes_on(self):
        service = self.serve()
        second = self.desk.run("serve", "--port", "0")
        self.assertEqual((1, ""), (second.returncode, second.stdout))
        self.assert_one_line_error(second.stderr, "the receive service is already running")
        self.assertEqual(2, len(second.stderr.splitlines()), second.stderr)
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)
        self.assert_ends(self.serve())

    def test_the_lock_of_a_service_that_was_killed_does_not_stay(self):
        self.serve().kill()
        self.assert_ends(self.serve())

    def test_another_data_folder_has_its_own(self):
        first = self.serve()
        second = self.serve(identity=self.phone)
        self.assert_ends(first)
        self.assert_ends(second)

    def test_a_port_in_use_is_a_failure_with_a_hint(self):
        with socket.create_server(("0.0.0.0", 0)) as taken:
            port = taken.getsockname()[1]
            result = self.desk.run("serve", "--port", str(port), "--json")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "listener start failed: Address already in use")
        self.assertIn(f"Another program is using port {port}; ", result.stderr)
        self.assertEqual(["error"], [json.loads(line)["event"] for line in result.stdout.splitlines()])


class Signals(ServeTest):
    def test_each_of_the_two_ends_it_with_status_0(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number):
                self.assert_ends(self.serve(), number)

    def test_in_the_middle_of_a_file_which_is_resumed_then(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            with self.subTest(number):
                service = self.serve()
                file = self.file(f"{number.name}.bin", os.urandom(16 * MIB))
                relay = self.relay(service.port, after_frames=FRAMES_BEFORE_DATA + 3, then="hold")
                sender = self.send(self.phone, file, relay.port)
                self.assertTrue(relay.reached.wait(PATIENCE))
                partial = self.desk.downloads / (file.name + ".partial")
                self.wait_until(lambda: partial.exists() and partial.stat().st_size >= 3 * MIB,  # pylint: disable=W0640
                                partial)
                if number == signal.SIGKILL:
                    service.kill()
                else:
                    self.assert_ends(service, number)
                relay.close()
                self.assertEqual(1, sender.wait())
                self.assertEqual([file.name + ".partial", file.name + ".partial.meta.json"],
                                 [name for name in self.left_over() if name.startswith(number.name)])
                service = self.serve()
                event = self.assert_sent(self.phone, file, service)
                self.assertEqual(3 * MIB, event["resumed_from_offset"])
                self.assert_ends(service)

    def test_a_hangup_is_harmless(self):
        service = self.serve()
        service.signal(signal.SIGHUP)
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        service.signal(signal.SIGHUP)
        self.assert_ends(service)

    def hung_service(self):
        """One that waits for a reader of its output, for ever."""
        service = subprocess.Popen([ORLINTH, "serve", "--port", "0", "--dir", str(self.desk.downloads), "--json"],
                                   env=self.desk.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(service.stdout.close)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        port = json.loads(service.stdout.readline())["port"]
        fcntl.fcntl(service.stdout, fcntl.F_SETPIPE_SZ, PIPE_BYTES)
        self.phone.record(self.desk, port)
        sent = self.phone.run("clip", "--to", "mac", "-", input="x" * 60_000)
        self.assertEqual(0, sent.returncode, sent.stderr)
        # It is in the write once there is something to read, and does not leave it while the pipe is full.
        self.assertTrue(select.select([service.stdout], [], [], PATIENCE)[0])
        self.assertEqual(PIPE_BYTES, waiting_bytes(service.stdout))
        return service

    def test_one_that_cannot_wind_down_leaves_within_two_seconds(self):
        service = self.hung_service()
        begin = time.monotonic()
        service.send_signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(PATIENCE))
        self.assertLess(time.monotonic() - begin, SECONDS_TO_END + LEEWAY)

    def test_a_second_signal_ends_it_at_once(self):
        service = self.hung_service()
        # Two of a kind that wait to be taken are one; and of two kinds SIGINT is taken first.
        service.send_signal(signal.SIGINT)
        service.send_signal(signal.SIGTERM)
        self.assertEqual(128 + signal.SIGTERM, service.wait(PATIENCE))


class Phones(ServeTest):
    """Pairing and removing while the service runs."""

    def refused(self, phone, service):
        sender = self.send(phone, self.file("refused.bin", b"abc"), service.port)
        self.assertEqual(1, sender.wait(), sender.stderr)
        return sender.events.find("error")["message"]

    def test_a_phone_that_was_removed_is_told_also_after_a_restart_until_it_is_paired_again(self):
        service = self.serve()
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        removed = self.desk.run("peers", "remove", "phone")
        self.assertEqual((0, "forgot phone\n"), (removed.returncode, removed.stdout))
        self.assertIn("phone could not be told now", removed.stderr)
        remembered = self.desk.data / "Orlinth" / "removed.json"
        self.assertEqual({"removed": [self.phone.key]}, json.loads(remembered.read_text()))
        self.assertEqual(0o600, remembered.stat().st_mode & 0o777)
        for restart in (False, True):
            if restart:
                self.assert_ends(service)
                service = self.serve()
            with self.subTest(restart=restart):
                self.refused(self.phone, service)
                event = service.events.wait_for("unpair_replied")
                self.assertEqual(self.phone.key, event["peer_pubkey"])
                self.assertIsNone(service.events.find("error"))
        self.desk.record(self.phone)
        self.assertEqual({"removed": []}, json.loads(remembered.read_text()))
        self.assert_sent(self.phone, self.file("b.bin", b"abc"), service)

    def test_a_phone_that_is_there_hears_at_once_that_it_was_removed(self):
        service = self.serve(identity=self.phone)
        self.desk.record(self.phone, service.port)
        removed = self.desk.run("peers", "remove", "phone")
        self.assertEqual((0, "forgot phone\n", "phone was told.\n"),
                         (removed.returncode, removed.stdout, removed.stderr))
        self.assertEqual("mac", service.events.wait_for("unpair")["from"])
        self.assertEqual("", self.phone.run("peers", "--json").stdout)
        self.assert_ends(service)
        shared = self.phone.data / "group.com.tarvinex.orlinth" / "peers.json"
        self.assertEqual([], json.loads(shared.read_text()))
        self.assertTrue((self.desk.data / "Orlinth" / "removed.json").exists())

    def test_a_damaged_list_of_removed_phones_is_told_and_never_overwritten(self):
        self.desk.run("peers", "remove", "phone")
        remembered = self.desk.data / "Orlinth" / "removed.json"
        service = self.serve()
        self.refused(self.phone, service)
        service.events.wait_for("unpair_replied")
        for times, rubbish in enumerate(("{nonsense", "[]", '{"removed":["AAAA"]}', '{"removed":{}}'), 2):
            with self.subTest(rubbish):
                remembered.write_text(rubbish)
                self.refused(self.phone, service)
                wait_for_count(service.events, "unpair_replied", times)
                added = self.desk.run("peers", "add", "--pubkey", self.phone.key, "--ip", "127.0.0.1", "--port", "9",
                                      "--name", "phone")
                self.assertEqual((1, ""), (added.returncode, added.stdout))
                self.assertRegex(added.stderr, "^orlinth: cannot read the list of removed phones: ")
                self.assertIn(str(remembered), added.stderr)
                self.assertEqual(rubbish, remembered.read_text())
        self.assertIn("cannot read the list of removed phones", told(service))
        remembered.unlink()
        self.desk.record(self.phone)
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)

    def test_the_list_of_the_share_sheet_follows(self):
        self.desk.record(self.phone, ip="192.0.2.7")
        shared = self.desk.data / "group.com.tarvinex.orlinth" / "peers.json"
        service = self.serve()
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        shared.write_text("[]")
        # told by the phone that the computer was removed there
        self.phone.record(self.desk, service.port)
        self.assertEqual("mac was told.\n", self.phone.run("peers", "remove", "mac").stderr)
        self.assertEqual("phone", service.events.wait_for("unpair")["from"])
        self.assertEqual("", self.desk.run("peers", "--json").stdout)
        self.another_phone("tablet")
        shared.write_text("rubbish")
        self.assert_sent(self.another_phone("laptop"), self.file("b.bin", b"abc"), service)
        self.assert_ends(service)
        # first the one paired last, which is the default phone
        self.assertEqual(["laptop", "tablet"], [peer["hostname"] for peer in json.loads(shared.read_text())])


class Accepting(ServeTest):
    def declined(self, service, file):
        sender = self.send(self.phone, file, service.port)
        self.assertEqual(1, sender.wait(), sender.stderr)

    def test_never_declines_and_leaves_nothing(self):
        service = self.serve("--accept", "never")
        self.declined(service, self.file("a.bin", b"abc"))
        self.assertEqual({"event": "declined", "from": "phone", "name": "a.bin"}, service.events.wait_for("declined"))
        self.assertEqual([], self.left_over())
        self.assert_ends(service)
        self.assertIsNone(service.events.find("error"))

    def test_a_name_of_any_length_is_stored_and_shortened_if_it_must_be(self):
        service = self.serve()
        longest = "ä" * 116 + "x.txt"  # 237 bytes, 255 with ".partial.meta.json"
        for name, stored in ((longest, longest), (longest, "ä" * 115 + " 2.txt"), ("ä" * 125 + ".txt", "ä" * 116 + ".txt")):
            event = self.assert_sent(self.phone, self.file(name, name.encode()), service)
            self.assertEqual(str(self.desk.downloads / stored), event["saved_at"])
            (self.folder / "outgoing" / name).unlink()
        self.assert_ends(service)
        self.assertIsNone(service.events.find("error"))

    def test_without_anybody_to_ask_files_are_declined_and_that_is_told_once(self):
        self.desk.environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nonexistent"
        service = self.serve("--accept", "ask")
        for name in ("a.bin", "b.bin"):
            self.declined(service, self.file(name, b"abc"))
        wait_for_count(service.events, "declined", 2)
        self.assert_ends(service)
        self.assertEqual(1, service.stderr.count("there is nobody to ask"), service.stderr)
        self.assertEqual([], self.left_over())

    def test_the_person_at_the_terminal_is_asked_about_one_file_after_the_other(self):
        terminal = Terminal(80)
        self.addCleanup(lambda: os.close(terminal.screen))
        service = self.terminal_service(terminal)
        phones = {name: self.another_phone(name) for name in ("phone 1", "phone 2")}
        senders = {name: self.send(phone, self.file(name + ".bin", b"x" * 1500), service.port)
                   for name, phone in phones.items()}
        taken = {}
        for number, answer in enumerate((b"y\n", b"n\n"), 1):
            self.wait_until(lambda: told(service).count("[y/N]") == number, service)  # pylint: disable=W0640
            question = told(service).splitlines()[-1].split("[y/N] ")[-2]
            name = question.split(" wants to send ")[0]
            self.assertEqual(f"{name} wants to send {name}.bin (1.5 kB). Take it? ", question)
            taken[name] = answer == b"y\n"
            os.write(terminal.screen, answer)
            self.assertEqual(0 if taken[name] else 1, senders[name].wait(), senders[name].stderr)
        self.assertEqual(set(phones), set(taken))
        self.assertEqual([name + ".bin" for name in taken if taken[name]], self.left_over())
        self.assertEqual([name for name in taken if not taken[name]], [service.events.wait_for("declined")["from"]])
        self.assert_ends(service)
        os.close(terminal.end)

    def test_what_was_typed_before_the_question_is_no_answer(self):
        terminal = Terminal(80)
        self.addCleanup(lambda: os.close(terminal.screen))
        service = self.terminal_service(terminal)
        os.write(terminal.screen, b"y\n")
        sender = self.send(self.phone, self.file("a.bin", b"abc"), service.port)
        self.wait_until(lambda: "[y/N]" in told(service), service)
        os.write(terminal.screen, b"\n")
        self.assertEqual(1, sender.wait())
        service.events.wait_for("declined")
        self.assertEqual([], self.left_over())
        self.assert_ends(service)
        os.close(terminal.end)

    def test_what_is_typed_for_another_program_is_no_answer(self):
        terminal = Terminal(80)
        self.addCleanup(lambda: os.close(terminal.screen))
        ours, theirs = socket.socketpair()
        self.addCleanup(ours.close)
        service = self.terminal_service(terminal, [sys.executable, "-c", SHELL, str(theirs.fileno())],
                                        pass_fds=[theirs.fileno()])
        theirs.close()
        ours.settimeout(PATIENCE)
        sender = self.send(self.phone, self.file("a.bin", b"abc"), service.port)
        self.wait_until(lambda: "[y/N]" in told(service), service)
        ours.sendall(b"t")  # the shell takes the terminal
        self.assertEqual(b"t", ours.recv(1))
        os.write(terminal.screen, b"y\n")
        ours.sendall(b"r")  # reads what was typed
        self.assertEqual(b"y\n", ours.recv(100))
        ours.sendall(b"g")  # and gives the terminal back
        self.assertEqual(b"g", ours.recv(1))
        os.write(terminal.screen, b"n\n")
        self.assertEqual(1, sender.wait())
        service.events.wait_for("declined")
        self.assertEqual([], self.left_over())
        ours.sendall(b"e")  # ends the service
        self.assertEqual(0, service.wait())
        os.close(terminal.end)

    def test_a_signal_ends_it_while_a_question_is_open(self):
        terminal = Terminal(80)
        self.addCleanup(lambda: os.close(terminal.screen))
        service = self.terminal_service(terminal)
        sender = self.send(self.phone, self.file("a.bin", b"abc"), service.port)
        self.wait_until(lambda: "[y/N]" in told(service), service)
        self.assert_ends(service)
        self.assertEqual(1, sender.wait())
        self.assertEqual([], self.left_over())
        os.close(terminal.end)

    def terminal_service(self, terminal, shell=(), **options):
        """Runs in a session of its own that the terminal belongs to, as from a shell in a window."""
        service = Running(["setsid", "--ctty", "--wait", *shell, ORLINTH, "serve", "--port", "0", "--dir",
                           str(self.desk.downloads), "--json", "--accept", "ask"],
                          env=self.desk.environment, stdin=terminal.end, **options)
        self.addCleanup(service.close)
        service.port = service.events.wait_for("listening")["port"]
        return service


class Trouble(ServeTest):
    def test_strangers_get_five_lines_a_minute_and_then_one_with_their_number(self):
        service = self.serve()
        count = 12
        for _ in range(count):
            with socket.create_connection(("127.0.0.1", service.port)) as stranger:
                stranger.sendall(b"\x00\x00\x00\x05hello")
                while stranger.recv(4096):
                    pass
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)
        errors = [event for event in service.events.all if event["event"] == "error"]
        self.assertEqual(6, len(errors), errors)
        for error in errors[:5]:
            self.assertTrue(error["message"].startswith("noise handshake failed: "), error)
            self.assertTrue(error["remote_endpoint"].startswith("127.0.0.1:"), error)
        self.assertEqual("7 more connections failed that were of no paired phone", errors[5]["message"])

    def test_those_who_only_look_whether_it_is_here_are_no_trouble(self):
        service = self.serve()
        for _ in range(12):
            look(service.port)
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)
        self.assertEqual([], [event for event in service.events.all if event["event"] == "error"])
        self.assertNotIn("handshake", service.stderr)


if __name__ == "__main__":
    side_by_side.main()
