"""The receive service under faults: kills, broken wires, full disks, lost links, stepping clocks, a ruined peer store.

After each of them: no wrong byte under a final name, every transfer finishes when it is tried again, and the service
lives. ORLINTH_FAULT_SECONDS says how long the random rounds go on (600 for the full ten minutes).
"""

import collections
import json
import os
import pathlib
import re
import signal
import struct
import subprocess
import time

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from harness import MIB, ORLINTH, PATIENCE, SANITIZED, Relay, Victim, seeded, sha256
from test_serve import ServeTest, wait_for_count
from waiting import happens_within

SECONDS = float(os.environ.get("ORLINTH_FAULT_SECONDS", 12))
PHONES = 4
TEMPORARY = re.compile(r"\.orlinth-[0-9a-f]{16}\.tmp")
RUBBISH = [b"", b"{", b"null", b'{"peers": 5}', b"\0\xff" * 500, b'{"peers": [{"peer_pubkey": "x"}]}']


class Wire(Relay):
    """A relay for an end that may be gone already."""

    def _serve(self):
        try:
            super()._serve()
        except OSError:  # nobody listens any more; the near end is closed with the last reference to it
            self.reached.set()

    def _cut(self):
        self.reached.set()
        super()._cut()


class FaultTest(ServeTest):
    def setUp(self):
        super().setUp()
        self.phones = [self.phone] + [self.another_phone(f"phone {number}") for number in range(1, PHONES)]

    def wire(self, port, **rules):
        wire = Wire(port, **rules)
        self.addCleanup(wire.close)
        return wire

    def assert_folder_is_sound(self, sources, folder=None):
        """Whole files of these sources, partial files that begin as their sources do and can be resumed."""
        for path in (folder or self.desk.downloads).iterdir():
            if TEMPORARY.fullmatch(path.name):  # of a sidecar, by a service that was killed; removed a while later
                continue
            name = re.sub(r" \d+(?=\.bin)", "", path.name)
            if name.endswith(".partial.meta.json"):
                continue
            source = sources[name.removesuffix(".partial")]
            if name.endswith(".partial"):
                content = path.read_bytes()
                self.assertTrue(source.read_bytes().startswith(content), path)
                # a kill between two system calls may leave an empty one, of which nothing is lost
                if content:
                    self.assertTrue(path.with_name(path.name + ".meta.json").exists(), path)
            else:
                self.assertEqual(sha256(source), sha256(path), path)

    def deliver(self, phone, file, service):
        """The transfer finishes, and its event says where; returns the event."""
        before = len(service.events.all)
        sender = self.send(phone, file, service.port)
        self.assertEqual(0, sender.wait(), f"{sender.stderr} {service.events.all[before:]}")
        offset = sender.events.find("complete")["resumed_from_offset"]
        if offset == file.stat().st_size > 0:
            # all of it was there: an earlier attempt has delivered it, which may have been told of then
            copies = lambda: [path for path in self.desk.downloads.glob(file.stem + "*.bin")
                              if sha256(path) == sha256(file)]
            self.wait_until(copies, self.desk.downloads)
            sender.close()
            return {"resumed_from_offset": offset, "saved_at": str(copies()[0])}

        def found():
            return next((event for event in service.events.all[before:]
                         if event["event"] == "received" and pathlib.Path(event["saved_at"]).name.startswith(file.stem)),
                        None)
        with service.events.changed:
            service.events.changed.wait_for(lambda: service.events.ended or found(), PATIENCE)
        event = found()
        self.assertIsNotNone(event, service.events.all[before:])
        self.assertEqual(sha256(file), sha256(event["saved_at"]))
        sender.close()
        return event

    def started(self, phone, file, port):
        """A sender whose record of the service has this port; it is under way."""
        return self.send(phone, file, port)


class RandomRounds(FaultTest):
    """Each phone gets a fault of its own, and now and then the service one besides."""

    WIRES = ("none", "cut", "stalled", "slow", "damaged", "sender killed", "half-open")
    SERVICE = ("none", "none", "killed", "peer store ruined", "hung up on")

    def setUp(self):
        super().setUp()
        self.counts = collections.Counter()

    def attempt(self, phone, file, service, fault, random):
        """One attempt with a fault; a function that ends it, which is to be called once, and the sender."""
        size = file.stat().st_size
        at = random.randrange(1, size + 200)
        victim = Victim()
        rules = {"cut": {"after_bytes": at},
                 "stalled": {"after_bytes": at, "then": "hold"},
                 "half-open": {"after_bytes": at, "then": "hold"},
                 "slow": {"bytes_per_second": 2 * size + 1000},
                 "damaged": {"flip": at},
                 "service killed": {"after_bytes": at, "then": service.kill},
                 "sender killed": {"after_bytes": at, "then": victim.kill}}.get(fault, {})
        wire = self.wire(service.port, buffer=65536, **rules)
        sender = self.started(phone, file, wire.port)
        victim.is_(sender)

        def end():
            if fault in ("stalled", "half-open"):
                self.wait_until(lambda: wire.reached.is_set() or sender.process.poll() is not None,
                                wire.reached, sender)
                if fault == "half-open":  # gone without a word: the service's end of the connection stays
                    sender.kill()
                    return
                wire.close()
            sender.wait()
            wire.close()
        return end, sender, wire

    def one_round(self, number, service, random):
        """Returns the service, which may be another one than before."""
        phones = random.sample(self.phones, random.randrange(1, PHONES + 1))
        work = [(phone, self.file(f"{number}-{index}.bin", random.randbytes(random.choice((1, 12)) * random.randrange(1, MIB))))
                for index, phone in enumerate(phones)]
        sources = {file.name: file for _, file in work}
        fault = random.choice(self.SERVICE)
        if fault not in ("none", "killed"):  # a kill is counted with the wire on which it happens
            self.counts["service " + fault] += 1
        good = self.desk.peer_file.read_bytes()
        if fault == "peer store ruined":
            self.replace_peer_store(random.choice(RUBBISH))
        attempts = []
        for index, (phone, file) in enumerate(work):
            kind = "service killed" if fault == "killed" and index == 0 else random.choice(self.WIRES)
            self.counts[kind] += 1
            attempts.append(self.attempt(phone, file, service, kind, random))
        if fault == "hung up on":
            service.signal(signal.SIGHUP)
        for end, _, _ in attempts:
            end()
        if fault == "peer store ruined":
            self.replace_peer_store(good)
        if fault == "killed":
            self.assertEqual([], service.events.not_json)
            service.close()
            service = self.serve()
        self.assertIsNone(service.process.poll(), "the service is gone")
        self.assert_folder_is_sound(sources)
        self.retry(work, service)
        self.assert_folder_is_sound(sources)
        for _, sender, wire in attempts:
            wire.close()
            sender.close()
        self.clear(sources)
        return service

    def retry(self, work, service):
        for phone, file in work:
            event = self.deliver(phone, file, service)
            self.counts["resumed"] += event["resumed_from_offset"] > 0
            self.counts["files"] += 1
            self.assertEqual({}, phone.journal())

    def replace_peer_store(self, content):
        new = self.desk.peer_file.with_suffix(".new")
        new.write_bytes(content)
        new.replace(self.desk.peer_file)

    def clear(self, sources):
        for path in [*self.desk.downloads.iterdir(), *sources.values()]:
            path.unlink()

    def test_every_transfer_finishes_and_the_service_lives(self):
        random = seeded(self)
        service = self.serve()
        end = time.monotonic() + SECONDS
        number = 0
        # a slow machine needs longer until a transfer has got far enough to be resumed
        while time.monotonic() < end or number < 5 or (self.counts["resumed"] == 0 and number < 50):
            number += 1
            service = self.one_round(number, service, random)
        print(f"\n  {number} rounds in {SECONDS:.0f} s: "
              + ", ".join(f"{count} {what}" for what, count in sorted(self.counts.items())), flush=True)
        self.assertGreater(self.counts["resumed"], 0, "no transfer has been resumed: nothing was tested")
        self.assert_ends(service)


class Disks(FaultTest):
    def mounted(self, options):
        folder = self.folder / "mounted"
        folder.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", str(folder)], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", str(folder)], check=True)
        return folder

    @staticmethod
    def remount(folder, options):
        # with its source, mount(8) repeats no options of before: root of a user namespace may not give all of them
        subprocess.run(["mount", "-t", "tmpfs", "-o", "remount," + options, "tmpfs", str(folder)], check=True)

    def all_at_once(self, work, service):
        """The exit statuses of the senders, one a phone."""
        senders = [self.started(phone, file, service.port) for phone, file in work]
        return [sender.wait() for sender in senders]

    def work(self, random, size):
        return [(phone, self.file(f"{index}.bin", random.randbytes(size))) for index, phone in enumerate(self.phones)]

    def test_a_disk_that_fills_up_under_several_phones_loses_nothing_that_arrived(self):
        random = seeded(self)
        folder = self.mounted("size=48m,mode=0777")
        service = self.serve("--keep-free", "0", "--dir", str(folder))
        work = self.work(random, 32 * MIB + 5)  # more than the kernel takes from a sender unread
        sources = {file.name: file for _, file in work}
        statuses = self.all_at_once(work, service)
        self.assertIn(1, statuses)
        self.assert_folder_is_sound(sources, folder)
        self.assertIn("No space left on device", service.events.wait_for("error")["message"])
        self.remount(folder, "size=256m")
        # also those whose sender was done when the kernel had taken the last bytes, which then found no room
        left = [(phone, file) for phone, file in work if not (folder / file.name).exists()]
        events = [self.deliver(phone, file, service) for phone, file in left]
        self.assertTrue(any(event["resumed_from_offset"] > 0 for event in events), events)
        self.assert_folder_is_sound(sources, folder)
        # one whose sender was done goes under a new id: the partial file that it has left stays
        whole = [path for path in folder.iterdir() if ".partial" not in path.name]
        self.assertEqual(sorted(map(sha256, sources.values())), sorted(map(sha256, whole)))
        self.assert_ends(service)

    def test_a_folder_that_turns_read_only_and_back(self):
        random = seeded(self)
        folder = self.mounted("size=64m,mode=0777")
        service = self.serve("--keep-free", "0", "--dir", str(folder))
        work = self.work(random, MIB + 1)
        sources = {file.name: file for _, file in work}
        self.deliver(*work[0], service)
        self.remount(folder, "ro")
        self.assertEqual([1] * (PHONES - 1), self.all_at_once(work[1:], service))
        self.assertIn("Read-only file system", service.events.wait_for("error")["message"])
        self.remount(folder, "rw")
        for phone, file in work[1:]:
            self.deliver(phone, file, service)
        self.assert_folder_is_sound(sources, folder)
        self.assertEqual(sorted(sources), sorted(path.name for path in folder.iterdir()))
        self.assert_ends(service)


class PeerStore(FaultTest):
    def test_rubbish_of_every_kind_costs_no_known_phone_a_file_and_is_never_overwritten(self):
        service = self.serve()
        self.deliver(self.phone, self.file("before.bin", b"1"), service)
        good = self.desk.peer_file.read_bytes()
        for index, rubbish in enumerate(RUBBISH):
            with self.subTest(rubbish=rubbish[:20]):
                self.desk.peer_file.write_bytes(rubbish)
                self.deliver(self.phone, self.file(f"rubbish {index}.bin", b"2"), service)
                self.assertEqual(rubbish, self.desk.peer_file.read_bytes())
        self.desk.peer_file.write_bytes(good)
        self.deliver(self.phones[1], self.file("after.bin", b"3"), service)
        late = self.another_phone("late")
        self.deliver(late, self.file("late.bin", b"4"), service)
        self.assert_ends(service)


class Links(FaultTest):
    """The service and the phone in two network namespaces of their own, with a wire between them."""

    HERE, THERE = "10.213.7.1", "10.213.7.2"

    def setUp(self):
        super().setUp()
        mark = self.folder.name[-8:]
        self.spaces = {"desk": f"orlinth-desk-{mark}", "phone": f"orlinth-phone-{mark}"}
        for space in self.spaces.values():
            self.ip("netns", "add", space)
            self.addCleanup(self.ip, "netns", "del", space)
        self.ip("-n", self.spaces["desk"], "link", "add", "wire0", "type", "veth", "peer", "name", "wire0",
                "netns", self.spaces["phone"])
        for side, address in (("desk", self.HERE), ("phone", self.THERE)):
            self.ip("-n", self.spaces[side], "address", "add", address + "/24", "dev", "wire0")
            self.link(side, "up")
        self.service = self.running_program(
            ["ip", "netns", "exec", self.spaces["desk"], ORLINTH, "serve", "--port", "0", "--dir",
             str(self.desk.downloads), "--json"], self.desk)
        self.port = self.service.events.wait_for("listening")["port"]

    @staticmethod
    def ip(*words):
        subprocess.run(["ip", *words], check=True)

    def link(self, side, state):
        self.ip("-n", self.spaces[side], "link", "set", "wire0", state)

    def send_over_wire(self, file):
        self.phone.record(self.desk, self.port, ip=self.HERE)
        return self.running_program(["ip", "netns", "exec", self.spaces["phone"], ORLINTH, "send", "--to", "mac",
                                     "--json", str(file)], self.phone)

    def begin(self, file, side):
        """A transfer that loses its link after the first MiB."""
        sender = self.send_over_wire(file)
        partial = self.desk.downloads / (file.name + ".partial")
        self.wait_until(lambda: partial.exists() and partial.stat().st_size >= MIB
                        or sender.process.poll() is not None, partial, sender)
        self.link(side, "down")
        self.assertIsNone(sender.process.poll(), "the transfer was over before the link went down")
        return sender, partial

    def still(self, partial):
        """Waits until nothing comes any more; returns how much there is."""
        while happens_within(0.5, partial):
            pass
        return partial.stat().st_size

    def assert_arrived(self, file):
        self.assertEqual([file.name], self.left_over())
        self.assertEqual(sha256(file), sha256(self.desk.downloads / file.name))

    def test_that_come_back_cost_only_time(self):
        file = self.file("a.bin", seeded(self).randbytes(192 * MIB))
        for side in ("desk", "phone"):
            with self.subTest(side):
                sender, partial = self.begin(file, side)
                self.assertLess(self.still(partial), 192 * MIB)
                self.link(side, "up")
                self.assertEqual(0, sender.wait(), sender.stderr)
                self.service.events.wait_for("received")
                self.assert_arrived(file)
                self.assertEqual(0, self.service.events.all[-1]["resumed_from_offset"])
                (self.desk.downloads / file.name).unlink()
                self.service.events.all.clear()

    def test_on_which_a_phone_vanished_do_not_keep_it_from_going_on(self):
        file = self.file("a.bin", seeded(self).randbytes(192 * MIB))
        for side in ("desk", "phone"):
            with self.subTest(side):
                sender, partial = self.begin(file, side)
                held = self.still(partial)
                sender.kill()  # its farewell reaches nobody
                self.link(side, "up")
                sender = self.send_over_wire(file)
                self.assertEqual(0, sender.wait(), sender.stderr)
                event = self.service.events.wait_for("received")
                self.assert_arrived(file)
                self.assertGreaterEqual(event["resumed_from_offset"], held)
                (self.desk.downloads / file.name).unlink()
                self.service.events.all.clear()


CLOCK = r"""
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static volatile const long* step;

__attribute__((constructor)) static void find_step(void) {
    int file = open(getenv("CLOCK_STEP"), O_RDONLY);
    step = mmap(NULL, sizeof *step, PROT_READ, MAP_SHARED, file, 0);
    close(file);
}

/* Adds the seconds in the file $CLOCK_STEP to the wall clock, and to no other one. Calls the kernel itself: an allocator
   that looks at the clock cannot wait for the dynamic linker. */
int clock_gettime(clockid_t clock, struct timespec* now) {
    int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_REALTIME && step) {
        now->tv_sec += *step;
    }
    return result;
}
"""


class Clocks(FaultTest):
    YEAR = 365 * 24 * 3600

    def step(self, seconds):
        with open(self.steps, "r+b", buffering=0) as file:
            file.write(struct.pack("l", int(seconds)))

    def setUp(self):
        super().setUp()
        self.steps = self.folder / "step"
        self.steps.write_bytes(struct.pack("l", 0))
        self.desk.environment.update(LD_PRELOAD=str(self.shim("clock", CLOCK)), CLOCK_STEP=str(self.steps))

    def test_that_step_do_not_touch_transfers_or_who_is_paired(self):
        random = seeded(self)
        service = self.serve()
        before = 0
        for index, seconds in enumerate((3600, -3600, self.YEAR, -10 * self.YEAR, 0)):
            with self.subTest(seconds=seconds):
                file = self.file(f"{index}.bin", random.randbytes(16 * MIB))
                wire = self.wire(service.port, buffer=65536, after_bytes=4 * MIB,
                                 then=lambda: self.step(seconds))  # pylint: disable=W0640
                sender = self.started(self.phone, file, wire.port)
                self.assertEqual(1, sender.wait())  # cut right after the step
                wait_for_count(service.events, "error", index + 1)
                partial = self.desk.downloads / (file.name + ".partial")
                sidecar = partial.with_name(partial.name + ".meta.json")
                held = partial.stat().st_size
                started = json.loads(sidecar.read_text())["started_at_epoch_ms"] / 1000
                if not SANITIZED:  # whose own clock_gettime comes first, so that no step is seen
                    self.assertLess(abs(started - before - time.time()), PATIENCE)
                before = seconds
                event = self.deliver(self.phone, file, service)
                self.assertEqual(held, event["resumed_from_offset"])
                self.assertLess(event["duration_seconds"], PATIENCE)
                # one who is paired while the clock is off is served, and so is he afterwards
                phone = self.another_phone(f"paired {index}")
                self.deliver(phone, self.file(f"new {index}.bin", b"x"), service)
        self.assert_ends(service)


if __name__ == "__main__":
    side_by_side.main()
