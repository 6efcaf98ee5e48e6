"""One case from its beginning to its verdict: a disturbed attempt, and undisturbed ones until the file is there."""

import dataclasses
import signal
import threading
import time

import cases
from relay import Fault
from verdicts import Seen, judge
from worlds import Flag, comes_true

# Nothing that is not held up by a fault takes so long.
PATIENCE = 100.0
# A wire on which nothing has happened for so long is taken for dead by whoever sits before it.
QUIET = 2.0
# For a file that was called sent too early, to arrive after all.
LATE = 1.0
TICK = 0.02


@dataclasses.dataclass
class Result:
    case: cases.Case
    has_struck: bool
    seen: Seen
    verdict: object
    in_window: bool
    seconds: float
    notes: list


def run_case(world, case):
    trial = (OutboxTrial if case.way == cases.OUTBOX else SendTrial)(world, case)
    begin = time.monotonic()
    try:
        trial.run()
    finally:
        trial.tidy()
    return Result(case, trial.has_struck, trial.seen, judge(trial.seen), trial.in_window,
                  time.monotonic() - begin, trial.notes)


class Trial:
    def __init__(self, world, case):
        self.world = world
        self.case = case
        self.content = case.content()
        self.seen = Seen()
        self.notes = []
        self.has_struck = False
        self.in_window = False
        self.looks = []         # at the folder, each time when the file was called sent
        self.wrong = set()      # files with another content, by inode
        self.partials_at_death = None
        self.was_interrupted = False
        self.file = world.outgoing / case.name
        self.file.write_bytes(self.content)
        self.fault = None
        self.victim_is_there = threading.Event()
        self.direct = None

    # Faults

    def prepare(self, receiver_identity, receiver):
        """`receiver` runs, and nothing is under way."""
        case = self.case
        self.folder = self.world.folders[receiver_identity.name]
        self.folder.clear()
        self.receiver = receiver
        self.world.relay.look = self.look
        if case.is_direct:
            self.direct = threading.Thread(target=self.strike_directly, daemon=True)
            self.direct_is_off = Flag()
        elif case.kind == cases.DISK_FULL:
            self.world.fill_disk(self.folder, receiver, case.disk_bytes)
        else:
            action = "call" if case.kind in cases.PROCESS else case.kind
            self.fault = Fault(action, case.flow, case.anchor, case.at, case.bit, case.count, case.seconds,
                               self.strike)
        self.world.relay.arm(self.fault)

    def strike(self):
        self.victim_is_there.wait(PATIENCE)
        number = signal.SIGKILL if self.case.kind in (cases.RECEIVER_KILLED, cases.SENDER_KILLED) else signal.SIGTERM
        victim = self.victim()
        if not victim.has_ended.is_set():
            self.has_struck = True
            victim.signal(number)

    def victim(self):
        return self.receiver if self.case.kind in (cases.RECEIVER_KILLED, cases.RECEIVER_ENDED) else self.sender

    def strike_directly(self):
        """Without the relay, so that the sender's system knows of each byte what became of it."""
        case = self.case

        def is_time():
            if self.direct_is_off.is_set() or self.look():
                return True
            sizes = self.folder.partials(case.name)
            return case.share <= 1 and bool(sizes) and max(sizes) >= case.share * case.size
        comes_true(is_time, PATIENCE, self.folder.path, self.direct_is_off)
        if not self.direct_is_off.wait(case.seconds):
            self.strike()

    def victims_are(self, sender):
        self.sender = sender
        self.victim_is_there.set()
        if self.direct and not self.direct.is_alive() and not self.direct_is_off.is_set():
            self.direct.start()

    def fault_is_over(self):
        """From here on nothing more happens."""
        if self.direct:
            self.direct_is_off.set()
            self.direct.join()
        elif self.fault:
            self.fault.struck.wait(self.fault.seconds + TICK if self.fault.action == "call" else TICK)
            self.world.relay.disarm(self.fault)
            if self.fault.action != "call":
                self.has_struck = self.fault.struck.is_set()
        elif self.case.kind == cases.DISK_FULL:
            self.world.fill_disk(self.folder, self.receiver, None)
            self.has_struck = self.has_struck or self.was_disk_full()

    def was_disk_full(self):
        return any("No space left" in event.get("message", "") or "File too large" in event.get("message", "")
                   for event in self.receiver.events)

    def running_sender(self):
        return self.sender

    def is_hanging(self):
        """Whether the wire is dead, or the sender does not even wait for the receiver's farewell.

        Behind a wire that is cut it may wait for that too: but its system would hear nothing of its bytes and end the
        connection, while the relay's has acknowledged them.
        """
        relay = self.world.relay
        return (not self.case.is_direct and relay.has_open() and relay.quiet_seconds() > QUIET
                and not relay.is_stalled() and (relay.is_cut() or not relay.is_sender_leaving()))

    def interrupt(self):
        """What a person or the network does about a transfer that hangs."""
        self.was_interrupted = True
        self.notes.append(f"hung: {self.case.ending}")
        match self.case.ending:
            case "kill the sender":
                self.running_sender().signal(signal.SIGKILL)
            case "end the sender":
                self.running_sender().signal(signal.SIGTERM)
            case "reset the sender":
                self.world.relay.abort_sender_sides()
            case "reset both":
                self.world.relay.abort_all()

    # What lies there

    def look(self):
        return self.folder.finals(self.case.name)

    def right(self, look):
        """How many of these have the right content; remembers those that have not."""
        right = 0
        for name, inode, _ in look:
            try:
                is_right = (self.folder.path / name).read_bytes() == self.content
            except FileNotFoundError:
                is_right = False
            if is_right:
                right += 1
            else:
                self.wrong.add(inode)
                self.notes.append(f"wrong content in {name}")
        return right

    def is_there(self):
        return bool(self.look())

    def note_death(self):
        """The receiver was killed; before it is started again."""
        self.partials_at_death = self.folder.partials(self.case.name)
        has_all = self.case.size in self.partials_at_death and not self.look()
        if self.case.kind == cases.RECEIVER_KILLED and self.has_struck and has_all:
            connections = self.world.relay.connections
            if self.case.is_direct:
                self.in_window = True
            elif connections:
                # Its system ends a killed program's connection in order only if it had read everything.
                first = connections[0]
                relay = self.world.relay
                relay.wait_until(lambda: first.is_over or first.back.has_ended, LATE)
                relay.wait_until(lambda: first.is_over or first.back.is_end_passed, LATE)
                self.in_window = (first.there.passed == self.total_there() and first.back.has_ended
                                  and first.was_reset_by != "receiver")

    def total_there(self):
        return sum(cases.frames_there(self.case.name, self.case.size))

    def was_there_when_said(self, look):
        """Also when the receiver ended the connection: the sender has its word from there."""
        ended = [connection.seen_at_end for connection in self.world.relay.connections
                 if connection.seen_at_end is not None]
        return bool(look) and (not ended or bool(ended[-1])) and self.right(look) > 0

    def final_look(self):
        relay = self.world.relay
        relay.wait_until(lambda: all(c.is_over or c.is_frozen for c in relay.connections), LATE)
        relay.abort_all()
        self.seen.right = self.right(self.look())
        self.seen.wrong = len(self.wrong)
        self.seen.unfinished = sum(size > 0 for size in self.folder.partials(self.case.name))
        self.notes += [f"connection: {c.there.passed} bytes there, {c.back.passed} back, reset by {c.was_reset_by}, "
                       f"at its end {c.seen_at_end}{', held in vain' if c.is_held_in_vain else ''}"
                       for c in relay.connections]
        self.notes.append(f"in the end: {self.look()}, partial files of {self.folder.partials(self.case.name)} bytes")

    def tidy(self):
        self.world.relay.look = None
        self.world.relay.abort_all()
        if self.direct:
            self.direct_is_off.set()
        self.file.unlink(missing_ok=True)


class SendTrial(Trial):
    """Through `orlinth send`, which is called again if it fails."""

    def run(self):
        world = self.world
        self.to = world.phone if self.case.way == cases.SERVE else world.tablet
        self.prepare(self.to, self.start_receiver())
        if self.case.is_direct:
            world.go_through_relay(world.mac, self.to, False)
        was_sent = self.attempt()
        self.fault_is_over()
        self.after_attempt()
        if self.case.is_direct:
            world.go_through_relay(world.mac, self.to, True)
        if was_sent:
            self.seen.was_called_sent = True
            self.seen.was_there = self.was_there_when_said(self.looks[0])
            self.seen.was_in_window = self.in_window
            self.seen.came_later = self.seen.was_there or comes_true(self.is_there, LATE, self.folder.path)
        if not self.seen.came_later:
            self.try_again()
        self.final_look()

    def start_receiver(self):
        return self.world.serve() if self.case.way == cases.SERVE else self.world.receive(self.world.mac)

    def attempt(self):
        """Whether it was called sent."""
        looks = []

        def on_event(event):
            if event["event"] == "complete":
                looks.append(self.look())
        sender = self.world.send(self.to, self.file, on_event)
        self.victims_are(sender)
        end = time.monotonic() + PATIENCE
        while not sender.has_ended.wait(TICK):
            if not self.was_interrupted and not self.seen.was_tried_again and self.is_hanging():
                self.interrupt()
            if time.monotonic() > end:
                self.notes.append("the sender did not end")
                sender.close()
                return False
        self.notes.append(f"send: {sender.status} {[event['event'] for event in sender.events]} {sender.stderr.strip()}")
        sender.close()
        # Also if it was killed behind the event: whoever has read that does not send again.
        was_sent = sender.status == 0 or bool(looks)
        if was_sent:
            self.looks.append(looks[0] if looks else self.look())
        return was_sent

    def after_attempt(self):
        """Waits for the receiver, at times, and sees to it that there is one again."""
        relay, receiver = self.world.relay, self.receiver
        frozen = any(connection.is_frozen and not connection.is_over for connection in relay.connections)
        if self.case.way == cases.RECEIVE:
            if not receiver.has_ended.wait(TICK if frozen or not relay.connections else PATIENCE):
                receiver.signal(signal.SIGKILL if self.case.index % 2 else signal.SIGTERM)
                if not receiver.has_ended.wait(PATIENCE):
                    self.notes.append("the receiver did not end")
        elif not self.case.retries_at_once and not frozen:
            relay.wait_until(lambda: not relay.has_open(), LATE)
        if self.case.kind in (cases.RECEIVER_KILLED, cases.RECEIVER_ENDED) and self.has_struck:
            receiver.has_ended.wait(PATIENCE)
        if receiver.has_ended.is_set():
            self.note_death()
            self.notes.append(f"receiver: {receiver.status} {receiver.stderr.strip()[-400:]}")

    def try_again(self):
        """The retry that nothing disturbs."""
        if self.case.way == cases.SERVE or self.receiver.has_ended.is_set():
            if self.case.way == cases.RECEIVE:
                self.receiver.close()
            self.receiver = self.start_receiver()
        self.seen.was_tried_again = True
        self.seen.was_again_called_sent = self.attempt()
        if self.seen.was_again_called_sent:
            self.seen.was_there_again = self.was_there_when_said(self.looks[-1])

    def tidy(self):
        super().tidy()
        if self.case.way == cases.RECEIVE:
            self.receiver.close()


class OutboxTrial(Trial):
    """Through `orlinth share` and the service, which goes on by itself."""

    def run(self):
        world = self.world
        self.news = threading.Event()
        self.waiting = self.failed = self.prods = 0
        self.restarts = 0
        self.earlier_batches = frozenset(world.batches)
        world.serve_outbox()
        self.prepare(world.phone, world.serve())
        if self.case.is_direct:
            world.go_through_relay(world.desk, world.phone, False)
        world.on_outbox = self.hear
        self.victims_are(world.outbox)
        batch = world.share(self.file)
        was_sent = self.follow(batch)
        was_tried_again = bool(self.waiting or self.restarts or len(world.relay.connections) > 1)
        self.fault_is_over()
        self.restart_what_ended()
        if self.case.is_direct:
            world.go_through_relay(world.desk, world.phone, True)
        if was_sent:
            self.seen.was_called_sent = True
            self.seen.was_there = self.was_there_when_said(self.looks[-1])
            self.seen.was_in_window = self.in_window
            self.seen.came_later = self.seen.was_there or comes_true(self.is_there, LATE, self.folder.path)
            self.seen.was_tried_again = self.seen.was_again_called_sent = was_tried_again
            self.seen.was_there_again = was_tried_again
            if not self.seen.came_later:
                self.share_again()
        elif world.is_held(batch):
            world.drop(batch)
        self.final_look()

    def running_sender(self):
        return self.world.outbox

    def hear(self, event):
        """On the thread that reads the service's events. What concerns an earlier case may still come."""
        name = event["event"]
        if event.get("file", self.case.name) != self.case.name or event.get("batch") in self.earlier_batches:
            return
        if name == "outbox_sent":
            self.looks.append(self.look())
        elif name == "outbox_waiting":
            self.waiting += 1
        elif name == "outbox_failed":
            self.failed += 1
        elif name not in ("outbox_done",):
            return
        self.notes.append(" ".join(str(event[key]) for key in ("event", "message") if key in event))
        self.news.set()

    def follow(self, batch):
        """Until the batch is gone, which means that it was sent; False if that does not happen."""
        world = self.world
        end = time.monotonic() + PATIENCE
        was_set_aside = False
        while world.is_held(batch):
            self.news.wait(TICK)
            self.news.clear()
            self.restart_what_ended()
            if not self.was_interrupted and self.is_hanging():
                self.interrupt()
            if self.waiting > self.prods:
                self.prods = self.waiting
                self.fault_is_over()
                self.restart_what_ended()
                if not self.case.outbox_goes_on_alone:
                    world.retry_outbox()
            if not world.batch_folder(batch).exists() and world.batch_folder(batch, True).exists():
                if was_set_aside:
                    return False
                was_set_aside = True
                self.fault_is_over()
                self.restart_what_ended()
                world.retry_outbox(batch)
            if time.monotonic() > end:
                self.notes.append("the outbox did not come to an end")
                return False
        if not self.looks:  # a service that was killed may not have come to say so
            self.looks.append(self.look())
        return True

    def restart_what_ended(self):
        world = self.world
        if self.case.kind in cases.PROCESS and self.has_struck:
            self.victim().has_ended.wait(PATIENCE)
        if world.service.has_ended.is_set():
            self.note_death()
            self.notes.append(f"receiver: {world.service.status} {world.service.stderr.strip()[-400:]}")
            world.serve()
            if self.case.is_direct:
                world.go_through_relay(world.desk, world.phone, False)
        if world.outbox.has_ended.is_set():
            self.restarts += 1
            self.notes.append(f"sending service: {world.outbox.status}")
            world.serve_outbox()

    def share_again(self):
        """What somebody does who misses a file."""
        self.seen.was_tried_again = True
        known = len(self.looks)
        batch = self.world.share(self.file)
        self.seen.was_again_called_sent = self.follow(batch)
        self.seen.was_there_again = len(self.looks) > known and self.was_there_when_said(self.looks[-1])

    def tidy(self):
        self.world.on_outbox = None
        super().tidy()
