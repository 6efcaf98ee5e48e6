"""`send` with many files: several at once where the other side takes them, and several phones side by side."""

import contextlib
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading

import side_by_side
import test_wake
from harness import (FRAMES_BEFORE_DATA, MIB, ORLINTH, PATIENCE, Identity, ProgramTest, Relay, UnansweredPort, seeded,
                     sha256, silent_port)
from terminal import Terminal

MOST_AT_ONCE = 8
SMALL_BUFFER = 65536


class ManyTest(ProgramTest):
    """With receive services instead of single receivers."""

    def service(self, identity=None, port="0"):
        """`serve` on the phone, listening; `.port` is where."""
        identity = identity or self.phone
        program = self.running(identity, "serve", "--port", port, "--dir", str(identity.downloads), "--json",
                               "--no-clipboard")
        program.port = program.events.wait_for("listening")["port"]
        return program

    def tablet(self):
        """A second phone."""
        tablet = Identity(self.folder, "tablet")
        tablet.record(self.mac)
        self.mac.record(tablet)
        return tablet

    def files(self, count, size, prefix="file"):
        random = seeded(self)
        return [self.file(f"{prefix} {number:03}.bin", random.randbytes(size)) for number in range(count)]

    def send(self, files, *arguments, to=("phone",)):
        selectors = [word for name in to for word in ("--to", name)]
        return self.running(self.mac, "send", *selectors, "--json", *arguments, *map(str, files))

    def assert_arrived(self, files, identity=None):
        """Each of them, under its own name, and nothing else."""
        downloads = (identity or self.phone).downloads
        self.assertEqual({file.name: sha256(file) for file in files},
                         {path.name: sha256(path) for path in downloads.iterdir()})

    def assert_nothing_remembered(self):
        self.assertEqual({}, self.mac.journal())
        sources = self.mac.data / "Orlinth" / "inflight-sources.json"
        self.assertRegex(sources.read_text(), r'"sources" : \{\s*\}')

    @staticmethod
    def of(sender, name, to="phone"):
        """The files of all events of a name, for one phone."""
        return [event["file"] for event in sender.events.all if event["event"] == name and event["to"] == to]

    @staticmethod
    def under_way(sender):
        """How many files were under way at each event."""
        counts = [0]
        for event in sender.events.all:
            change = {"file": 1, "complete": -1, "error": -1}.get(event["event"], 0)
            counts.append(counts[-1] + change)
        return counts


class ToAService(ManyTest):
    def test_all_files_arrive_and_are_begun_in_their_order(self):
        files = self.files(100, 10_000)
        self.mac.record(self.phone, self.service().port)
        sender = self.send(files)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assert_arrived(files)
        self.assertEqual([str(file) for file in files], self.of(sender, "file"))
        self.assertEqual({str(file) for file in files}, set(self.of(sender, "complete")))
        self.assertEqual(100, len(self.of(sender, "complete")))
        self.assert_nothing_remembered()

    def test_several_are_under_way_at_once_but_not_before_the_first_is_through(self):
        files = self.files(60, 10_000)
        self.mac.record(self.phone, self.service().port)
        sender = self.send(files)
        self.assertEqual(0, sender.wait(), sender.stderr)
        counts = self.under_way(sender)
        first = next(i for i, event in enumerate(sender.events.all) if event["event"] == "complete")
        self.assertEqual(1, max(counts[:first + 1]))
        self.assertGreater(max(counts), 1)
        self.assertLessEqual(max(counts), MOST_AT_ONCE)

    def test_large_files_go_one_after_the_other(self):
        files = self.files(3, 9 * MIB)
        self.mac.record(self.phone, self.service().port)
        sender = self.send(files)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assert_arrived(files)
        self.assertEqual(1, max(self.under_way(sender)))

    def test_files_that_cannot_be_sent_do_not_stop_the_others(self):
        files = self.files(30, 1000)
        folder = self.folder / "a folder"
        folder.mkdir()
        missing = self.folder / "missing.bin"
        self.mac.record(self.phone, self.service().port)
        sender = self.send([missing, *files[:10], folder, *files[10:]])
        self.assertEqual(1, sender.wait())
        self.assert_arrived(files)
        self.assertEqual({str(missing), str(folder)}, set(self.of(sender, "error")))
        self.assertIn("2 of 32 transfers failed.", sender.stderr)
        self.assert_nothing_remembered()

    def test_the_same_file_twice_and_two_of_the_same_name_and_content_arrive_each(self):
        one, other = self.files(2, 5000)
        twin = self.folder / "elsewhere" / one.name
        twin.parent.mkdir()
        twin.write_bytes(one.read_bytes())
        self.mac.record(self.phone, self.service().port)
        sender = self.send([other, one, twin, one, one])
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(5, len(self.of(sender, "complete")))
        arrived = [sha256(path) for path in self.phone.downloads.iterdir()]
        self.assertEqual(sorted([sha256(other)] + 4 * [sha256(one)]), sorted(arrived))
        self.assert_nothing_remembered()

    def test_the_progress_bar_counts_the_files(self):
        files = self.files(5, 3 * MIB)
        self.mac.record(self.phone, self.service().port)
        terminal = Terminal(80)
        sender = subprocess.Popen([ORLINTH, "send", *map(str, files)], stderr=terminal.end, stdout=subprocess.DEVNULL,
                                  env={**self.mac.environment, "TERM": "xterm", "NO_COLOR": "1"})
        self.assertEqual(0, sender.wait(PATIENCE))
        drawings = re.findall(r"\r([^\r\n]*)\x1b\[K", terminal.text())
        self.assertRegex(drawings[0], r"^0 of 5 files  \[-+\]    0%")
        self.assertTrue(any(re.match(r"[1-4] of 5 files ", drawing) for drawing in drawings), drawings)
        self.assertEqual("", drawings[-1])
        self.assertTrue(all(len(drawing) < 80 for drawing in drawings), drawings)


class HoldingRelay:
    """A wire that lets some connections through whole, and of each later one the frames up to the first data."""

    def __init__(self, port, whole, holds):
        self.target = port
        self.whole = whole
        self.holding = threading.Semaphore(0)
        self.listener = socket.create_server(("127.0.0.1", 0))
        # so that the sender is not done long before anything has arrived
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER)
        self.port = self.listener.getsockname()[1]
        self.relays = []
        self.ends = []
        self.holds = holds
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                near, _ = self.listener.accept()
            except OSError:
                return
            rules = {} if len(self.relays) < self.whole else {"after_frames": FRAMES_BEFORE_DATA + 1, "then": "hold"}
            relay = Relay(self.target, buffer=SMALL_BUFFER, **rules)
            self.relays.append(relay)
            far = socket.socket()
            far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SMALL_BUFFER)
            far.connect(("127.0.0.1", relay.port))
            self.ends += [near, far]
            for ends in ((near, far), (far, near)):
                threading.Thread(target=self._pump, args=ends, daemon=True).start()
            if rules:
                threading.Thread(target=self._tell_hold, args=(relay,), daemon=True).start()

    def _tell_hold(self, relay):
        if relay.reached.wait(PATIENCE):
            self.holding.release()

    @staticmethod
    def _pump(source, sink):
        try:
            while piece := source.recv(65536):
                sink.sendall(piece)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            for end in (source, sink):
                with contextlib.suppress(OSError):
                    end.shutdown(socket.SHUT_RDWR)

    def wait_for_holds(self):
        return all(self.holding.acquire(timeout=PATIENCE) for _ in range(self.holds))

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join(PATIENCE)
        for relay in self.relays:
            relay.close()
        for end in self.ends:
            end.close()


class Interrupted(ManyTest):
    def test_all_under_way_end_keep_what_has_arrived_and_go_on_later(self):
        files = self.files(6, 7 * MIB)
        service = self.service()
        relay = HoldingRelay(service.port, whole=1, holds=2)
        self.addCleanup(relay.close)
        self.mac.record(self.phone, relay.port)
        sender = self.send(files)
        self.assertTrue(relay.wait_for_holds())
        sender.signal(signal.SIGINT)
        self.assertEqual(130, sender.wait(), sender.stderr)
        self.assert_one_line_error(sender.stderr, "interrupted by SIGINT")
        self.assertEqual([str(file) for file in files[1:3]], sorted(self.of(sender, "error")))
        self.assertEqual("error", sender.events.all[-1]["event"])
        self.assertIn("Send them again and they go on there.", sender.stderr)
        for file in files[1:3]:
            self.assertRegex(sender.stderr, rf"(?m)^[1-9]\d? % of {file.name} was sent to phone\.$")
        self.assertEqual({file.name for file in files[1:]}, {key.split("|")[0] for key in self.mac.journal()})
        service.signal(signal.SIGTERM)  # so that it has let go of them
        service.wait()
        partials = sorted(self.phone.downloads.glob("*.partial"))
        self.assertEqual(2, len(partials))
        for partial in partials:
            self.assertEqual(MIB, partial.stat().st_size)
            self.assertTrue(pathlib.Path(str(partial) + ".meta.json").exists())

        self.mac.record(self.phone, self.service().port)
        again = self.send(files[1:])
        self.assertEqual(0, again.wait(), again.stderr)
        self.assert_arrived(files)
        resumed = [event["file"] for event in again.events.all
                   if event["event"] == "complete" and event["resumed_from_offset"] == MIB]
        self.assertEqual([str(file) for file in files[1:3]], sorted(resumed))
        self.assert_nothing_remembered()


class AFileThatChanges(ManyTest):
    def test_between_its_examination_and_its_turn_is_not_joined_to_what_was_there_of_it(self):
        random = seeded(self)
        first, changed = self.files(2, 16 * MIB)  # more than the kernel takes from a sender unread
        service = self.service()
        relay = self.relay(service.port, after_bytes=2 * MIB, buffer=SMALL_BUFFER)
        self.mac.record(self.phone, relay.port)
        self.assertEqual(1, self.send([changed]).wait())
        partial = self.phone.downloads / (changed.name + ".partial")
        self.wait_until(lambda: partial.exists() and partial.stat().st_size >= MIB, partial)

        self.mac.record(self.phone, service.port)
        service.signal(signal.SIGSTOP)
        try:
            sender = self.send([first, changed])
            sender.events.wait_for("connected")  # both have been examined
            with open(changed, "r+b") as file:  # the same name, size and front
                file.seek(MIB // 2)
                file.write(random.randbytes(MIB))
        finally:
            service.signal(signal.SIGCONT)
        self.assertEqual(0, sender.wait(), sender.stderr)
        complete = [event for event in sender.events.all if event["event"] == "complete"]
        self.assertEqual([0, 0], [event["resumed_from_offset"] for event in complete])
        arrived = {sha256(path) for path in self.phone.downloads.glob("*.bin")}
        self.assertEqual({sha256(first), sha256(changed)}, arrived)


class NarrowDoor:
    """A wire to a service that carries so many connections at once; any further one is reset when it speaks."""

    def __init__(self, port, at_once):
        self.target = port
        self.free = threading.Semaphore(at_once)
        self.turned_away = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.threads = [threading.Thread(target=self._serve, daemon=True)]
        self.threads[0].start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for thread in self.threads:
            thread.join(PATIENCE)

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                near, _ = self.listener.accept()
                self.threads.append(threading.Thread(target=self._carry, args=(near,), daemon=True))
                self.threads[-1].start()

    def _carry(self, near):
        with near, contextlib.suppress(OSError):
            begin = near.recv(SMALL_BUFFER)
            if not self.free.acquire(blocking=False):
                self.turned_away += 1
                near.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                return
            try:
                with socket.create_connection(("127.0.0.1", self.target)) as far:
                    far.sendall(begin)
                    back = threading.Thread(target=self._pump, args=(far, near), daemon=True)
                    back.start()
                    self._pump(near, far)
                    back.join(PATIENCE)
            finally:
                self.free.release()

    @staticmethod
    def _pump(source, sink):
        with contextlib.suppress(OSError):
            while data := source.recv(SMALL_BUFFER):
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)


class ToOneWhoTakesFew(ManyTest):
    def test_files_whose_connections_were_too_many_are_sent_all_the_same(self):
        files = self.files(60, 200_000)
        with NarrowDoor(self.service().port, at_once=2) as door:
            self.mac.record(self.phone, door.port)
            sender = self.send(files)
            self.assertEqual(0, sender.wait(), sender.stderr)
            self.assertGreater(door.turned_away, 0)
        self.assert_arrived(files)
        self.assertEqual([], self.of(sender, "error"))
        self.assertEqual([str(file) for file in files], self.of(sender, "file"))
        self.assertEqual(sorted(map(str, files)), sorted(self.of(sender, "complete")))
        self.assert_nothing_remembered()

    def test_one_that_turns_away_a_single_connection_is_a_failure(self):
        files = self.files(3, 1000)
        with NarrowDoor(self.service().port, at_once=0) as door:
            self.mac.record(self.phone, door.port)
            sender = self.send(files)
            self.assertEqual(1, sender.wait())
            self.assertEqual(3, door.turned_away)
        self.assertEqual([str(file) for file in files], self.of(sender, "error"))


class ToOneReceiver(ManyTest):
    def test_one_that_takes_a_single_file_gets_the_first_and_the_others_fail_in_order(self):
        files = self.files(4, 1000)
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port)
        sender = self.send(files)
        self.assertEqual(1, sender.wait())
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        self.assert_arrived(files[:1])
        self.assertEqual([str(file) for file in files[:1]], self.of(sender, "complete"))
        self.assertEqual([str(file) for file in files[1:]], self.of(sender, "error"))
        self.assertEqual([str(file) for file in files], self.of(sender, "file"))
        self.assertEqual(3, sender.stderr.count("refused"), sender.stderr)
        self.assertEqual({file.name for file in files[1:]}, {key.split("|")[0] for key in self.mac.journal()})


class SeveralPhones(ManyTest):
    def test_both_get_everything(self):
        files = self.files(20, 20_000)
        tablet = self.tablet()
        self.mac.record(self.phone, self.service().port)
        self.mac.record(tablet, self.service(tablet).port)
        sender = self.send(files, to=("phone", "tablet"))
        self.assertEqual(0, sender.wait(), sender.stderr)
        for identity in (self.phone, tablet):
            self.assert_arrived(files, identity)
            self.assertEqual([str(file) for file in files], self.of(sender, "file", identity.name))
        self.assert_nothing_remembered()

    def test_one_that_does_not_answer_keeps_nobody_waiting(self):
        files = self.files(20, 1000)
        tablet = self.tablet()
        self.mac.record(tablet, self.service(tablet).port)
        with UnansweredPort() as port:
            self.mac.record(self.phone, port.port)
            sender = self.send(files, "--warm-timeout", "0", to=("phone", "tablet"))
            for _ in files:
                self.assertTrue(self.wait_for_complete(sender, len(files)))
            self.assertEqual([], self.of(sender, "error"))
            sender.signal(signal.SIGTERM)
            self.assertEqual(143, sender.wait(), sender.stderr)
        self.assert_arrived(files, tablet)
        self.assertEqual([str(files[0])], self.of(sender, "error"))

    @staticmethod
    def wait_for_complete(sender, count):
        events = sender.events
        with events.changed:
            return events.changed.wait_for(
                lambda: sum(event["event"] == "complete" for event in events.all) == count, PATIENCE)

    def test_the_time_limit_of_a_handshake_ends_only_that_transfer(self):
        files = self.files(3, 1000)
        tablet = self.tablet()
        self.mac.record(tablet, self.service(tablet).port)
        with silent_port() as port:
            self.mac.record(self.phone, port)
            sender = self.send(files[:1], to=("phone", "tablet"))
            self.assertEqual(1, sender.wait())
        self.assert_arrived(files[:1], tablet)
        self.assert_one_line_error(sender.stderr, "noise handshake: timed out after 10 seconds")
        self.assertEqual([str(files[0])], self.of(sender, "complete", "tablet"))

    def test_one_that_goes_away_in_the_middle_costs_only_its_own_files(self):
        files = self.files(200, 1000)
        tablet = self.tablet()
        service = self.service()
        self.mac.record(self.phone, service.port)
        self.mac.record(tablet, self.service(tablet).port)
        sender = self.send(files, to=("phone", "tablet"))
        service.events.wait_for("received")
        service.kill()
        self.assertEqual(1, sender.wait())
        self.assert_arrived(files, tablet)
        outcomes = self.of(sender, "complete") + self.of(sender, "error")
        self.assertEqual(sorted(str(file) for file in files), sorted(outcomes))
        self.assertTrue(self.of(sender, "error"))
        finished = {path.name for path in self.phone.downloads.glob("*.bin")}
        self.assertLessEqual({os.path.basename(name) for name in self.of(sender, "complete")}, finished)

        self.mac.record(self.phone, self.service().port)
        again = self.send(self.of(sender, "error"))
        self.assertEqual(0, again.wait(), again.stderr)
        self.assertLessEqual({sha256(file) for file in files},
                             {sha256(path) for path in self.phone.downloads.iterdir()})
        self.assert_nothing_remembered()


class Asleep(test_wake.WakeTest, ManyTest):
    def test_a_sleeping_phone_is_woken_once_for_many_files(self):
        files = self.files(30, 1000)
        self.phone_wakes(lambda: self.service(port=str(self.port.port)))
        sender = self.send(files)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assert_arrived(files)
        self.assertEqual([str(files[0])], self.of(sender, "waking"))
        self.assert_pushed(times=1)


if __name__ == "__main__":
    side_by_side.main()
