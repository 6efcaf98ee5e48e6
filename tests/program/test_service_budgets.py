"""What the receive service lets strangers take, and single phones: little, and nothing of what others need."""

import concurrent.futures
import contextlib
import os
import signal
import socket
import subprocess
import threading
import time
import unittest

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from harness import BUILD, MIB, ORLINTH, PATIENCE, SANITIZED, Running, unused_port
from terminal import Terminal
from test_serve import ServeTest, is_open, resident, told, wait_for_count
from waiting import Flag, Watch

RUDE_PHONE = str(BUILD / "tests" / "interop" / "rude_phone")
MOST_OF_ONE_SOURCE = 16
MOST_OF_ONE_PHONE = 16
LATE_SECONDS = 2
FRAME_ROOM = 64 * MIB
# A sanitizer takes minutes for what is large, and its memory says nothing.
LARGE = MIB if SANITIZED else 15 * MIB
# Chooses the local port with the connection.
IP_BIND_ADDRESS_NO_PORT = 24


class BudgetTest(ServeTest):
    def stranger(self, service, source="127.0.0.66"):
        stranger = socket.create_connection(("127.0.0.1", service.port), source_address=(source, 0))
        self.addCleanup(stranger.close)
        return stranger

    def rude(self, service, *what, phone=None):
        """A rude phone that has done its worst; `.ready` is what it says then."""
        program = self.running_program([RUDE_PHONE, str(service.port), self.desk.key, *map(str, what)],
                                       phone or self.phone, stdin=subprocess.PIPE)
        self.addCleanup(program.process.stdin.close)
        program.ready = program.events.wait_for("ready")
        return program

    def leaves(self, program):
        program.process.stdin.close()
        self.assertEqual(0, program.wait(), program.stderr)


class Strangers(BudgetTest):
    def test_one_source_keeps_sixteen_places(self):
        service = self.serve()
        crowd = [self.stranger(service) for _ in range(200)]
        other = self.stranger(service, "127.0.0.67")
        self.wait_until(lambda: sum(map(is_open, crowd)) <= MOST_OF_ONE_SOURCE, *crowd)
        self.assertEqual(MOST_OF_ONE_SOURCE, sum(map(is_open, crowd)))
        self.assertTrue(is_open(other))
        self.assertTrue(is_open(crowd[-1]))
        self.assert_ends(service)

    def test_a_flood_from_one_source_costs_a_phone_of_another_nothing_but_time(self):
        count = 16 if SANITIZED else 24
        service = self.serve("--no-clipboard")
        files = [self.file(f"{number}.bin", os.urandom(64 * 1024)) for number in range(count)]
        self.phone.record(self.desk, service.port)
        self.assertEqual(0, self.phone.run("send", "--to", "mac", str(files[0])).returncode)
        stop = threading.Event()
        made = [0]

        def flood():
            held = []
            while not stop.is_set():
                stranger = socket.socket()
                try:
                    stranger.setsockopt(socket.IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1)  # others need ports too
                    stranger.bind(("127.0.0.66", 0))
                    stranger.connect(("127.0.0.1", service.port))
                    held.append(stranger)
                    made[0] += 1
                except OSError:
                    stranger.close()
                while len(held) > 400:
                    held.pop(0).close()
                if SANITIZED:  # ten times slower, it would be kept busy by what costs nobody else anything
                    stop.wait(0.004)
            for stranger in held:
                stranger.close()
        floods = [threading.Thread(target=flood) for _ in range(2)]
        for thread in floods:
            thread.start()
        begin = time.monotonic()
        try:
            with concurrent.futures.ThreadPoolExecutor(4) as pool:
                results = list(pool.map(lambda file: self.phone.run("send", "--to", "mac", str(file)), files[1:]))
        finally:
            stop.set()
            for thread in floods:
                thread.join()
        seconds = time.monotonic() - begin
        failed = [result.stderr for result in results if result.returncode != 0]
        print(f"\n  {len(results)} deliveries in {seconds:.1f} s beside {made[0]} connections of a stranger; "
              f"{len(failed)} failed", flush=True)
        self.assertGreater(made[0], 10 * count, "this was no flood")
        self.assertEqual([], failed)
        wait_for_count(service.events, "received", count)
        self.assert_ends(service)


class OnePhone(BudgetTest):
    def test_a_phone_keeps_sixteen_connections_and_another_is_served(self):
        other = self.another_phone("tablet")
        service = self.serve()
        rude = self.rude(service, "hold", 300)
        self.assertEqual(MOST_OF_ONE_PHONE, rude.ready["open"])
        self.assert_sent(other, self.file("a.bin", os.urandom(MIB)), service)
        self.leaves(rude)
        self.assert_ends(service)

    def test_half_sent_frames_take_bounded_memory_and_others_deliver_meanwhile(self):
        others = [self.another_phone(f"tablet {number}") for number in range(3)]
        service = self.serve()
        self.assert_sent(self.phone, self.file("first.bin", os.urandom(MIB)), service)
        before = resident(service)
        rude = [self.rude(service, "halves", 14, LARGE, phone=phone) for phone in (self.phone, *others[:2])]
        grown = resident(service) - before
        print(f"\n  {3 * 14} frames of which {LARGE // MIB} MiB were sent: {grown / MIB:.0f} MiB", flush=True)
        self.assert_sent(others[2], self.file("second.bin", os.urandom(8 * MIB)), service)
        if not SANITIZED:
            self.assertLess(grown, FRAME_ROOM + 32 * MIB)
            self.assertGreater(grown, 15 * MIB, "nothing was half-sent, so nothing was tested")
        for program in rude:
            self.leaves(program)
        self.assert_ends(service)

    def test_texts_of_sixteen_megabytes_pass_all_the_same(self):
        service = self.serve("--no-clipboard")
        self.leaves(self.rude(service, "texts", 3, LARGE))
        texts = wait_for_count(service.events, "clipboard", 3)
        self.assertEqual([LARGE + 2] * 3, [len(event["text"]) for event in texts])
        self.assert_ends(service)


class Records(BudgetTest):
    def test_five_hundred_tokens_are_two_writes_and_the_last_one_is_kept(self):
        service = self.serve()
        inodes = []
        stop = Flag()

        def watch():  # each write replaces the file
            with Watch(self.desk.peer_file, stop) as changes:
                while not stop.is_set():
                    inode = self.desk.peer_file.stat().st_ino
                    if not inodes or inodes[-1] != inode:
                        inodes.append(inode)
                    changes.wait(PATIENCE)
        watcher = threading.Thread(target=watch)
        watcher.start()
        try:
            self.leaves(self.rude(service, "tokens", 500))
            self.assert_ends(service)  # which writes what is left
        finally:
            stop.set()
            watcher.join()
        self.assertIn('"token 500"', self.desk.peer_file.read_text())
        self.assertLessEqual(len(inodes) - 1, 3, "writes of the peer store")

    def test_the_lines_about_one_phone_are_few_and_their_number_is_said(self):
        service = self.running(self.desk, "serve", "--port", "0", "--dir", str(self.desk.downloads))
        self.wait_until(lambda: told(service).endswith("\n"), service)
        service.port = int(told(service).removeprefix("listening on port "))
        self.leaves(self.rude(service, "names", 200))
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(), service.stderr)
        lines = [line for line in service.events.not_json if b"is now called" in line]
        self.assertEqual(20, len(lines))
        self.assertRegex(service.stderr, r"\n\S.*: 180 more lines were left out\n")


class Texts(BudgetTest):
    def test_texts_behind_a_clipboard_that_hangs_cost_little_and_hold_nobody_up(self):
        other = self.another_phone("tablet")
        tools = self.folder / "tools"
        tools.mkdir()
        (tools / "xclip").write_text("#!/bin/sh\nexec sleep 60\n")
        (tools / "xclip").chmod(0o755)
        self.desk.environment.update(DISPLAY=":77", PATH=f"{tools}:{os.environ['PATH']}")
        service = self.serve()
        self.assert_sent(other, self.file("first.bin", os.urandom(MIB)), service)
        before = resident(service)
        rude = self.rude(service, "texts", 16, LARGE // 4)
        grown = resident(service) - before
        begin = time.monotonic()
        for number in range(20):  # as many threads as connections have, and more
            self.assert_sent(other, self.file(f"{number}.bin", b"abc"), service)
        seconds = time.monotonic() - begin
        print(f"\n  16 texts of {LARGE / 4 / MIB:.1f} MiB behind a clipboard that hangs: {grown / MIB:.0f} MiB; 20 files of another phone "
              f"took {seconds:.1f} s", flush=True)
        if not SANITIZED:
            self.assertLess(grown, 32 * MIB)
            self.assertLess(seconds, 10)
        self.leaves(rude)
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait())


class Questions(BudgetTest):
    def ask(self):
        """A service that asks at a terminal; (service, terminal)."""
        terminal = Terminal(80)
        self.addCleanup(lambda: os.close(terminal.screen))
        service = Running(["setsid", "--ctty", "--wait", ORLINTH, "serve", "--port", "0", "--dir",
                           str(self.desk.downloads), "--json", "--accept", "ask"],
                          env=self.desk.environment, stdin=terminal.end)
        self.addCleanup(service.close)
        service.port = service.events.wait_for("listening")["port"]
        return service, terminal

    def questions(self, service):
        return [part.rsplit("\n", 1)[-1] for part in told(service).split(" [y/N] ")[:-1]]

    def test_a_phone_that_hangs_up_takes_its_question_with_it(self):
        other = self.another_phone("tablet")
        service, terminal = self.ask()
        gone = self.send(self.phone, self.file("gone.bin", b"abc"), service.port)
        self.wait_until(lambda: len(self.questions(service)) == 1, service)
        waiting = self.send(other, self.file("here.bin", b"abc"), service.port)
        waiting.events.wait_for("handshake")
        gone.kill()
        self.wait_until(lambda: "The phone is gone" in told(service), service)
        os.write(terminal.screen, b"y\n")  # meant for the first one, and too late
        self.wait_until(lambda: len(self.questions(service)) == 2, service)
        self.assertIn("here.bin", self.questions(service)[1])
        os.write(terminal.screen, b"n\n")
        self.assertEqual(1, waiting.wait(), "the late answer was taken for one to the other phone's question")
        self.assertEqual([], self.left_over())
        self.assert_ends(service)
        os.close(terminal.end)

    def test_a_yes_is_a_yes_to_the_size_that_was_offered(self):
        service, terminal = self.ask()
        program = self.running_program([RUDE_PHONE, str(service.port), self.desk.key, "greedy", "5", str(60 * MIB)],
                                       self.phone, stdin=subprocess.PIPE)
        self.addCleanup(program.process.stdin.close)
        self.wait_until(lambda: len(self.questions(service)) == 1, service)
        os.write(terminal.screen, b"y\n")
        error = service.events.wait_for("error")
        self.assertEqual("protocol violation: more data than was offered", error["message"])
        program.events.wait_for("ready")
        self.leaves(program)
        self.assertLess(sum(path.stat().st_size for path in self.desk.downloads.iterdir()), 2 * MIB)
        self.assert_ends(service)
        os.close(terminal.end)

    def test_a_phone_has_one_question_open_and_three_waiting(self):
        service, terminal = self.ask()
        senders = {}
        for number in range(6):
            name = f"{number}.bin"
            senders[name] = self.send(self.phone, self.file(name, b"abc"), service.port)
            senders[name].events.wait_for("handshake")
            self.wait_until(lambda: len(self.questions(service)) >= 1, service)
        declined = {event["name"] for event in wait_for_count(service.events, "declined", 2)}
        for name in declined:
            self.assertEqual(1, senders.pop(name).wait())
        for number in range(1, 5):
            self.wait_until(lambda: len(self.questions(service)) == number, service)  # pylint: disable=W0640
            os.write(terminal.screen, b"y\n")
        for sender in senders.values():
            self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(sorted(senders), self.left_over())
        self.assert_ends(service)
        os.close(terminal.end)


class Places(BudgetTest):
    """The service in a network namespace, and somebody in another one who has an address from far away too."""

    DESK, NEAR, FAR = "192.168.77.1", "192.168.77.2", "203.0.114.5"

    def setUp(self):
        super().setUp()
        mark = self.folder.name[-8:]
        self.desk_space, self.other_space = f"orlinth-desk-{mark}", f"orlinth-far-{mark}"
        for space in (self.desk_space, self.other_space):
            self.ip("netns", "add", space)
            self.addCleanup(self.ip, "netns", "del", space)
            self.ip("-n", space, "link", "set", "lo", "up")
        self.ip("-n", self.desk_space, "link", "add", "wire0", "type", "veth", "peer", "name", "wire0", "netns",
                self.other_space)
        self.ip("-n", self.desk_space, "address", "add", self.DESK + "/24", "dev", "wire0")
        self.ip("-n", self.other_space, "address", "add", self.NEAR + "/24", "dev", "wire0")
        self.ip("-n", self.other_space, "address", "add", self.FAR + "/32", "dev", "wire0")
        for space in (self.desk_space, self.other_space):
            self.ip("-n", space, "link", "set", "wire0", "up")
        self.ip("-n", self.desk_space, "route", "add", self.FAR, "via", self.NEAR)

    @staticmethod
    def ip(*words):
        subprocess.run(["ip", *words], check=True)

    def serve_here(self, *arguments):
        service = self.running_program(
            ["ip", "netns", "exec", self.desk_space, ORLINTH, "serve", "--port", "0", "--dir",
             str(self.desk.downloads), "--json", *arguments], self.desk)
        service.port = service.events.wait_for("listening")["port"]
        return service

    def calls(self, space, source, target, port, count=1):
        """What becomes of calls: "closed", "open" (for a second) or "refused"."""
        script = f"""
import socket
results = []
for _ in range({count}):
    try:
        with socket.create_connection(({target!r}, {port}), 10, source_address=({source!r}, 0)) as call:
            call.settimeout(1)
            call.sendall(bytes([0, 0, 0, 32]) + bytes([9]) * 32)
            try:
                results.append("answered" if call.recv(100) else "closed")
            except ConnectionError:
                results.append("closed")
            except TimeoutError:
                results.append("open")
    except ConnectionRefusedError:
        results.append("refused")
    except ConnectionError:
        results.append("closed")
print(",".join(sorted(set(results))))
"""
        return subprocess.run(["ip", "netns", "exec", space, "python3", "-c", script], check=True, encoding="utf-8",
                              stdout=subprocess.PIPE).stdout.strip()

    def test_who_comes_from_outside_the_own_networks_is_not_answered(self):
        service = self.serve_here()
        self.assertEqual("closed", self.calls(self.other_space, self.FAR, self.DESK, service.port, 50))
        self.assertEqual("answered", self.calls(self.other_space, self.NEAR, self.DESK, service.port))
        self.assert_ends(service)
        messages = [event["message"] for event in service.events.all if event["event"] == "error"]
        self.assertEqual(5, messages.count("closed a connection from outside your networks"))
        self.assertIn("45 more connections came from outside your networks", messages)

    def test_listen_public_lets_everybody_in(self):
        service = self.serve_here("--listen-public")
        self.assertEqual("answered", self.calls(self.other_space, self.FAR, self.DESK, service.port))
        self.assert_ends(service)

    def test_listen_is_for_addresses_and_interfaces_as_often_as_wanted(self):
        for places, here in ((["lo"], False), (["wire0"], True), ([self.DESK], True), (["127.0.0.1", self.DESK], True)):
            with self.subTest(places=places):
                service = self.serve_here(*[word for place in places for word in ("--listen", place)])
                self.assertEqual("answered" if here else "refused",
                                 self.calls(self.other_space, self.NEAR, self.DESK, service.port))
                loopback = "127.0.0.1" in places or "lo" in places
                self.assertEqual("answered" if loopback else "refused",
                                 self.calls(self.desk_space, "127.0.0.1", "127.0.0.1", service.port))
                self.assert_ends(service)

    def test_a_place_that_is_none_is_a_clear_failure(self):
        for place, reason in (("wire7", "No such device"), ("192.0.2.77", "Cannot assign requested address")):
            result = self.desk.run("serve", "--port", "0", "--listen", place)
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assert_one_line_error(result.stderr, f"listener start failed: {reason}")
            self.assertIn("`--listen` takes addresses and interfaces of this computer", result.stderr)

    def pair_here(self, *arguments):
        program = self.running_program(["ip", "netns", "exec", self.desk_space, ORLINTH, "pair", "--no-advertise",
                                        "--yes", "--json", *arguments], self.desk)
        return program

    def test_a_pairing_names_the_address_at_which_the_service_lends_its_port(self):
        second = "192.168.79.1"
        self.ip("-n", self.desk_space, "address", "add", second + "/24", "dev", "wire0")
        for places, address in (([], self.DESK), (["127.0.0.1", self.DESK], self.DESK), ([second], second),
                                (["lo", "wire0"], self.DESK), (["::1", second], second), (["lo"], "127.0.0.1"),
                                (["127.0.0.1"], "127.0.0.1")):
            with self.subTest(places=places):
                service = self.serve_here(*[word for place in places for word in ("--listen", place)])
                program = self.pair_here()
                payload = program.events.wait_for("payload")["payload"]
                self.assertEqual((address, service.port), (payload["peer_ip"], payload["peer_port"]))
                space, source = ((self.desk_space, "127.0.0.1") if address == "127.0.0.1"
                                 else (self.other_space, self.NEAR))
                if address == second:
                    self.ip("-n", self.other_space, "route", "replace", second, "dev", "wire0")
                self.assertEqual("closed", self.calls(space, source, address, service.port), "nobody listens there")
                program.signal(signal.SIGINT)
                self.assertEqual(130, program.wait())
                self.assert_ends(service)

    def test_a_place_that_is_named_twice_counts_once(self):
        service = self.serve("--listen", "127.0.0.1", "--listen", "127.0.0.2", "--listen", "127.0.0.1")
        self.assert_sent(self.phone, self.file("a.bin", b"abc"), service)
        self.assert_ends(service)

    def test_places_that_exclude_each_other_are_not_taken_for_another_program(self):
        for port in ("0", str(unused_port())):
            for places in (["0.0.0.0", "127.0.0.1"], ["127.0.0.1", "0.0.0.0"], ["lo", "127.0.0.1"]):
                with self.subTest(places=places, port=port):
                    result = self.desk.run("serve", "--port", port, "--listen", places[0], "--listen", places[1])
                    self.assertEqual((1, ""), (result.returncode, result.stdout))
                    self.assert_one_line_error(result.stderr, "listener start failed: Address already in use")
                    self.assertIn("The places that `--listen` names exclude each other", result.stderr)

    def test_another_program_at_one_of_several_places_is_named_as_the_reason(self):
        with socket.create_server(("127.0.0.2", unused_port())) as other:
            port = str(other.getsockname()[1])
            result = self.desk.run("serve", "--port", port, "--listen", "127.0.0.1", "--listen", "127.0.0.2")
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assertIn(f"Another program is using port {port}", result.stderr)

    def test_receive_does_not_take_somebody_from_far_away_for_its_phone(self):
        receiver = self.running_program(
            ["ip", "netns", "exec", self.desk_space, ORLINTH, "receive", "--from", "phone", "--port", "0", "--dir",
             str(self.desk.downloads), "--json"], self.desk)
        port = receiver.events.wait_for("listening")["port"]
        self.assertEqual("closed", self.calls(self.other_space, self.FAR, self.DESK, port))
        self.phone.record(self.desk, port, ip=self.DESK)
        file = self.file("a.bin", b"abc")
        sender = self.running_program(["ip", "netns", "exec", self.other_space, ORLINTH, "send", "--to", "mac",
                                       "--json", str(file)], self.phone)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        self.assertIn("closed a connection from outside your networks: " + self.FAR, receiver.stderr)


@unittest.skipIf(SANITIZED, "a sanitizer wants to be the first library")
class Hanging(BudgetTest):
    # a call on the partial file of a download called "slow" hangs while a file says so, as on a disk that is gone; each
    # that does leaves a file beside that one
    HANGING_CALL = """
        #define _GNU_SOURCE
        #include <dlfcn.h>
        #include <fcntl.h>
        #include <stdio.h>
        #include <stdlib.h>
        #include <string.h>
        #include <unistd.h>
        static int hanging;
        static void hang(int number) {
            char link[64], path[4096] = "", mark[4096];
            snprintf(link, sizeof link, "/proc/self/fd/%d", number);
            if (readlink(link, path, sizeof path - 1) <= 0 || !strstr(path, "slow") || !strstr(path, ".partial")
                || access(getenv("ORLINTH_TEST_HANG"), F_OK) != 0)
                return;
            snprintf(mark, sizeof mark, "%s.%d", getenv("ORLINTH_TEST_HANG"), __sync_add_and_fetch(&hanging, 1));
            close(open(mark, O_CREAT | O_WRONLY, 0600));
            while (access(getenv("ORLINTH_TEST_HANG"), F_OK) == 0) usleep(10000);
        }
    """
    FLUSH = HANGING_CALL + """
        int fdatasync(int number) {
            hang(number);
            return ((int (*)(int))dlsym(RTLD_NEXT, "fdatasync"))(number);
        }
    """
    WRITE = HANGING_CALL + """
        ssize_t write(int number, const void* data, size_t size) {
            hang(number);
            return ((ssize_t (*)(int, const void*, size_t))dlsym(RTLD_NEXT, "write"))(number, data, size);
        }
    """

    def hang_in(self, call):
        """From now on services hang there, for as long as the file is there that this returns."""
        hang = self.folder / "hang"
        hang.touch()
        self.desk.environment.update(ORLINTH_TEST_HANG=str(hang), LD_PRELOAD=str(self.shim("hanging", call)))
        return hang

    def test_a_disk_that_hangs_for_all_connections_of_a_phone_holds_nobody_else_up(self):
        hang = self.hang_in(self.FLUSH)
        other = self.another_phone("tablet")
        service = self.serve()
        senders = [self.send(self.phone, self.file(f"slow {number}.bin", os.urandom(1000)), service.port)
                   for number in range(MOST_OF_ONE_PHONE)]
        self.wait_until(lambda: len(list(self.folder.glob("hang.*"))) == MOST_OF_ONE_PHONE, hang)
        reported = time.monotonic() + LATE_SECONDS + 1  # if a thread that others need were among those that hang
        number = 0
        while number < 4 or time.monotonic() < reported:
            self.assert_sent(other, self.file(f"{number}.bin", b"abc"), service)
            number += 1
        self.assertEqual([], [sender for sender in senders if sender.process.poll() is not None])
        self.assertNotIn("a thread has not answered", told(service))
        hang.unlink()
        for sender in senders:
            self.assertEqual(0, sender.wait(), sender.stderr)
        self.assert_ends(service)

    def test_a_thread_that_hangs_is_reported_and_the_service_manager_does_not_hear_that_all_is_well(self):
        hang, path = self.hang_in(self.WRITE), self.folder / "notify"
        hang.unlink()
        other = self.another_phone("tablet")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(str(path))
            manager.settimeout(PATIENCE)
            self.desk.environment.update(NOTIFY_SOCKET=str(path), WATCHDOG_USEC="2000000")
            service = self.serve()
            self.assert_alive(manager)
            hang.touch()
            sender = self.send(self.phone, self.file("slow.bin", os.urandom(MIB)), service.port)
            self.wait_until(lambda: "seconds: orlinth.receiver.connection" in told(service), service)
            self.assertRegex(told(service), r"\norlinth: a thread has not answered for [23] seconds: orlinth\.receiver\.")
            manager.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while manager.recv(1000):
                    pass
            manager.settimeout(1.5)
            with self.assertRaises(TimeoutError):
                manager.recv(1000)
            hang.unlink()
            manager.settimeout(PATIENCE)
            self.assert_alive(manager)
            self.assertEqual(0, sender.wait(), sender.stderr)
            self.assert_sent(other, self.file("b.bin", b"abc"), service)
            self.assertEqual(1, told(service).count("orlinth.receiver.connection"))
            self.assert_ends(service)

    def assert_alive(self, manager):
        while manager.recv(1000) != b"WATCHDOG=1":
            pass


if __name__ == "__main__":
    side_by_side.main(at_once=2)  # a thread that gets no processor for long would be reported as one that hangs
