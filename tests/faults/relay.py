"""A wire between a sender and a receiver on this machine, with one fault in it.

It adds nothing of its own: a reset is passed on as a reset, an end as an end, and bytes as they came. It reads a byte
only to hand it on, so what a sender has got rid of has reached the receiver's system, or is held by a fault.

One thing a relay cannot do: leave bytes unacknowledged because the receiver's system has not acknowledged them. A
sender that asks its system whether everything was acknowledged would be lied to. Therefore the receiver's end is handed
to the sender only when the receiver's system has acknowledged all that the sender will ever send, or when the sender
waits for an answer and will send nothing. If that system answers with a reset instead, the reset is passed on.
"""

import dataclasses
import errno
import fcntl
import heapq
import itertools
import queue
import select
import socket
import struct
import termios
import threading
import time
import typing

from wire import FrameCounter

PIECE = 65536
# Small, so that a position on the wire is a position in the programs too.
BUFFER = 65536
HOLD_STEP, LONGEST_HOLD = 0.001, 2.0
THERE, BACK = "there", "back"
ALTERATIONS = ("flipped", "dropped", "doubled", "swapped")


@dataclasses.dataclass
class Fault:
    """What happens to one connection, once.

    action: "call", "cut", "reset", "half-close", "stall", or one of ALTERATIONS
    way: the direction whose bytes are counted (and which is altered or closed): THERE is from the sender
    anchor: "byte": when `at` bytes have passed; "end": when that way ends, before the end is passed on; "after": when
    the end has been passed on
    """

    action: str
    way: str = THERE
    anchor: str = "byte"
    at: int = 0
    bit: int = 0                # flipped: which one
    count: int = 1              # dropped, doubled: how many bytes
    seconds: float = 0          # stall: how long; call: how long after the moment
    call: typing.Callable[[], None] | None = None
    struck: threading.Event = dataclasses.field(default_factory=threading.Event)
    is_off: bool = False        # it has not struck, and will not


class Alteration:
    """Changes bytes of a stream at one position."""

    def __init__(self, fault):
        self.fault = fault
        self.at = fault.at
        self.position = 0   # in the stream, of the next byte to be returned
        self.kept = b""     # a byte whose neighbour is still to come
        self.is_done = False

    def apply(self, piece):
        piece = self.kept + piece
        self.kept = b""
        begin, self.position = self.position, self.position + len(piece)
        index = self.at - begin
        if self.is_done or self.fault.is_off or index >= len(piece):
            return piece
        altered = bytearray(piece)
        count = self.fault.count
        match self.fault.action:
            case "flipped":
                altered[index] ^= 1 << self.fault.bit
            case "dropped":
                del altered[index:index + count]
            case "doubled":
                altered[index:index] = altered[index:index + count]
            case "swapped":
                while index + 1 < len(altered) and altered[index] == altered[index + 1]:
                    index += 1
                if index + 1 == len(altered):
                    self.kept = bytes(altered[-1:])
                    self.position -= 1
                    self.at = self.position
                    return bytes(altered[:-1])
                altered[index], altered[index + 1] = altered[index + 1], altered[index]
        self.is_done = True
        self.fault.struck.set()
        return bytes(altered)


class Flow:
    """One direction of a connection."""

    def __init__(self, way, source, sink):
        self.way = way
        self.source = source
        self.sink = sink
        self.pending = b""
        self.passed = 0
        self.frames = FrameCounter()  # as the sender knows them: those that it has sent, or that have come to it
        self.alteration = None
        self.has_ended = False
        self.is_end_passed = False
        self.is_severed = False


class Connection:
    def __init__(self, near, far, fault):
        self.near = near  # to the sender
        self.far = far    # to the receiver
        self.fault = fault
        self.there = Flow(THERE, near, far)
        self.back = Flow(BACK, far, near)
        self.flows = {THERE: self.there, BACK: self.back}
        self.is_frozen = False
        self.is_stalled = False
        self.is_over = False
        self.was_reset_by = None    # "sender" or "receiver"
        self.holds_since = None     # the receiver's end is not handed on yet
        self.is_held_in_vain = False  # it was handed on although the sender may send more
        self.seen_at_end = None     # what look() saw when the receiver's end came

    def is_owed_an_answer(self):
        """The sender waits, and sends nothing before it hears something."""
        if not self.there.frames.is_between_frames or self.there.pending:
            return False
        return (self.there.frames.whole, self.back.frames.whole) in ((1, 0), (3, 1))


def abort(end):
    """Closes with a reset."""
    try:
        end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    except OSError:
        pass
    end.close()


def has_unacknowledged(end):
    return struct.unpack("i", fcntl.ioctl(end, termios.TIOCOUTQ, b"\0\0\0\0"))[0] > 0


class FaultyRelay:
    """Listens on `port`, and connects whoever comes with `target`. The next connection gets the fault that is armed."""

    def __init__(self, target=0):
        self.target = target
        self.look = None  # called when the receiver ends a connection, before the sender hears of it
        self.connections = []
        self.armed = None
        self.last_activity = time.monotonic()
        self.order = itertools.count()
        self.timers = []
        self.orders = queue.SimpleQueue()
        self.changed = threading.Condition()  # notified whenever the relay's thread has done something
        self.wakes, self.woken = socket.socketpair()
        self.woken.setblocking(False)
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, BUFFER)
        self.listener.setblocking(False)
        self.port = self.listener.getsockname()[1]
        self.epoll = select.epoll()
        self.epoll.register(self.listener, select.EPOLLIN)
        self.epoll.register(self.woken, select.EPOLLIN)
        self.watched = {}  # descriptor -> (connection, events)
        self.is_closing = False
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    # From any thread

    def arm(self, fault):
        """For the next connection, and no other. Forgets the connections that there were."""
        def do():
            self.connections = [connection for connection in self.connections if not connection.is_over]
            self._abort_all()
            self.connections = []
            self.armed = fault
        self._order(do)

    def disarm(self, fault):
        """The fault has struck before this returns, or it never will."""
        def do():
            fault.is_off = not fault.struck.is_set()
            self.armed = None
        self._order(do)

    def abort_all(self):
        """Resets whatever is open, on both sides."""
        self._order(self._abort_all)

    def abort_sender_sides(self):
        """Resets the senders' ends; the receivers' stay open, and hear nothing any more."""
        def do():
            for connection in self.connections:
                if not connection.is_over:
                    self._freeze(connection)
                    self._forget(connection.near)
                    abort(connection.near)
        self._order(do)

    def is_sender_leaving(self):
        """Whether some sender has ended its side of an open connection."""
        def do():
            return any(not c.is_over and c.near.fileno() >= 0 and (c.there.has_ended or self._has_hung_up(c.near))
                       for c in self.connections)
        return self._order(do)

    def is_stalled(self):
        return any(connection.is_stalled for connection in self.connections)

    def is_cut(self):
        return any(connection.is_frozen and not connection.is_stalled and not connection.is_over
                   for connection in self.connections)

    def has_open(self):
        return any(not connection.is_over for connection in self.connections)

    def wait_until(self, condition, seconds):
        """Whether this comes true of the connections in this time."""
        with self.changed:
            return self.changed.wait_for(condition, seconds)

    def quiet_seconds(self):
        return time.monotonic() - self.last_activity

    def close(self):
        def do():
            self._abort_all()
            self.is_closing = True
        self._order(do)
        self.thread.join()
        for end in (self.listener, self.wakes, self.woken, self.epoll):
            end.close()

    def _order(self, do):
        """Has it done on the relay's thread, and returns what it returns."""
        done = threading.Event()
        box = []

        def run():
            try:
                box.append((do(), None))
            except Exception as error:  # is raised where it was asked for
                box.append((None, error))
            done.set()
        if threading.current_thread() is self.thread:
            return do()
        self.orders.put(run)
        self.wakes.send(b"x")
        while not done.wait(5):
            if not self.thread.is_alive():
                raise RuntimeError("the relay's thread has ended")
        value, error = box[0]
        if error:
            raise error
        return value

    # On the relay's thread

    def _run(self):
        while not self.is_closing:
            for descriptor, _ in self.epoll.poll(self._seconds_to_wait()):
                if descriptor == self.listener.fileno():
                    self._accept()
                elif descriptor == self.woken.fileno():
                    self.woken.recv(4096)
                elif descriptor in self.watched:
                    self._serve(self.watched[descriptor][0])
            while not self.orders.empty():
                self.orders.get()()
            while self.timers and self.timers[0][0] <= time.monotonic():
                heapq.heappop(self.timers)[2]()
            with self.changed:
                self.changed.notify_all()

    def _seconds_to_wait(self):
        """For ever if there is nothing to wait for; and not at all if that is less than epoll can wait for."""
        if not self.timers:
            return -1
        left = self.timers[0][0] - time.monotonic()
        return left if left > 0.0015 else 0

    def _after(self, seconds, do):
        heapq.heappush(self.timers, (time.monotonic() + seconds, next(self.order), do))

    def _accept(self):
        try:
            near, _ = self.listener.accept()
        except OSError:
            return
        self.last_activity = time.monotonic()
        far = socket.socket()
        far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, BUFFER)
        try:
            far.settimeout(5)
            far.connect(("127.0.0.1", self.target))
        except OSError:
            far.close()
            abort(near)
            return
        for end in (near, far):
            end.setblocking(False)
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        fault, self.armed = self.armed, None
        connection = Connection(near, far, fault)
        if fault and fault.action in ALTERATIONS:
            connection.flows[fault.way].alteration = Alteration(fault)
        self.connections.append(connection)
        self._check_position(connection)
        self._serve(connection)

    def _serve(self, connection):
        for flow in (connection.there, connection.back):
            if not connection.is_over:
                self._pump(connection, flow)
        if not connection.is_over and all(flow.is_end_passed or flow.is_severed
                                          for flow in (connection.there, connection.back)):
            self._finish(connection)
        self._watch(connection)

    def _pump(self, connection, flow):
        for _ in range(8):  # then it is the others' turn
            if connection.is_over or connection.is_frozen or flow.is_severed or flow.is_end_passed:
                return
            try:
                if not self._step(connection, flow):
                    return
            except BlockingIOError:
                return
        # There may be more to do of which no socket tells: an end that was read, and is still to be passed on.
        self._after(0, lambda: connection.is_over or self._serve(connection))

    def _step(self, connection, flow):
        """Moves some bytes; False if there is nothing to be done now."""
        if flow.pending:
            try:
                count = flow.sink.send(flow.pending)
            except (ConnectionResetError, BrokenPipeError):
                self._reset(connection, flow.sink)
                return False
            if flow.way == BACK:
                flow.frames.feed(flow.pending[:count])
            flow.pending = flow.pending[count:]
            flow.passed += count
            self.last_activity = time.monotonic()
            self._check_position(connection)
            return True
        if flow.has_ended:
            self._pass_end(connection, flow)
            return False
        try:
            piece = flow.source.recv(self._limit(connection, flow))
        except ConnectionResetError:
            self._reset(connection, flow.source)
            return False
        self.last_activity = time.monotonic()
        if piece:
            if flow.way == THERE:
                flow.frames.feed(piece)
            flow.pending = flow.alteration.apply(piece) if flow.alteration else piece
        else:
            flow.has_ended = True
            flow.pending = flow.alteration.kept if flow.alteration else b""
            if flow.way == BACK:
                connection.seen_at_end = self.look() if self.look else None
        return True

    def _limit(self, connection, flow):
        fault = connection.fault
        if (fault is None or fault.way != flow.way or fault.anchor != "byte" or fault.action in ALTERATIONS
                or flow.passed >= fault.at):
            return PIECE
        return min(PIECE, fault.at - flow.passed)

    def _pass_end(self, connection, flow):
        if flow.way == BACK and not self._may_end(connection):
            return
        if self._check_end(connection, flow, "end"):
            return
        try:
            flow.sink.shutdown(socket.SHUT_WR)
        except OSError:  # it has gone meanwhile
            self._reset(connection, flow.sink)
            return
        flow.is_end_passed = True
        self._check_end(connection, flow, "after")

    def _may_end(self, connection):
        """Whether the receiver's end may be handed on; otherwise looks again soon."""
        error = connection.far.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if error in (errno.ECONNRESET, errno.EPIPE):
            self._reset(connection, connection.far)
            return False
        there = connection.there
        now = time.monotonic()
        if connection.holds_since is None:
            connection.holds_since = now
        if (there.is_severed or connection.is_owed_an_answer()
                or (there.is_end_passed and not has_unacknowledged(connection.far))):
            return True
        if now - connection.holds_since > LONGEST_HOLD:
            connection.is_held_in_vain = True
            return True
        self._after(HOLD_STEP, lambda: connection.is_over or self._serve(connection))
        return False

    # Faults

    def _check_position(self, connection):
        fault = connection.fault
        if fault and fault.anchor == "byte" and fault.action not in ALTERATIONS:
            if connection.flows[fault.way].passed >= fault.at:
                self._strike(connection)

    def _check_end(self, connection, flow, anchor):
        """Whether the end is to be kept back."""
        fault = connection.fault
        if fault and fault.anchor == anchor and fault.way == flow.way:
            self._strike(connection)
        return connection.is_over or connection.is_frozen

    def _strike(self, connection):
        fault, connection.fault = connection.fault, None
        if fault.is_off:
            return
        if fault.action == "call":
            def call():
                if not fault.is_off:
                    fault.call()
                    fault.struck.set()
            if fault.seconds:
                self._after(fault.seconds, call)
            else:
                call()
            return
        match fault.action:
            case "cut":
                self._freeze(connection)
            case "reset":
                abort_both = (connection.near, connection.far)
                self._over(connection)
                for end in abort_both:
                    abort(end)
            case "half-close":
                flow = connection.flows[fault.way]
                flow.is_severed = True
                try:
                    flow.sink.shutdown(socket.SHUT_WR)
                except OSError:
                    self._reset(connection, flow.sink)
            case "stall":
                self._freeze(connection)
                connection.is_stalled = True

                def go_on():
                    connection.is_stalled = False
                    connection.is_frozen = False
                    self.last_activity = time.monotonic()
                    if not connection.is_over:
                        self._serve(connection)
                self._after(fault.seconds, go_on)
        fault.struck.set()

    def _freeze(self, connection):
        connection.is_frozen = True
        self._watch(connection)

    # Ends of connections

    def _reset(self, connection, end):
        """One end was reset, and so is the other."""
        connection.was_reset_by = "sender" if end is connection.near else "receiver"
        self._over(connection)
        for side in (connection.near, connection.far):
            abort(side)

    def _finish(self, connection):
        self._over(connection)
        connection.near.close()
        connection.far.close()

    def _abort_all(self):
        for connection in self.connections:
            if not connection.is_over:
                self._over(connection)
                abort(connection.near)
                abort(connection.far)

    def _over(self, connection):
        self.last_activity = time.monotonic()
        connection.is_over = True
        connection.is_stalled = False
        self._forget(connection.near)
        self._forget(connection.far)

    # What is waited for

    def _forget(self, end):
        if self.watched.pop(end.fileno(), None):
            self.epoll.unregister(end)

    def _watch(self, connection):
        if connection.is_over:
            return
        for end, reads, writes in ((connection.near, connection.there, connection.back),
                                   (connection.far, connection.back, connection.there)):
            if end.fileno() < 0:
                continue
            events = 0
            if not connection.is_frozen:
                if not reads.has_ended and not reads.pending and not reads.is_severed:
                    events |= select.EPOLLIN
                if writes.pending and not writes.is_severed:
                    events |= select.EPOLLOUT
            known = self.watched.get(end.fileno())
            if known == (connection, events):
                continue
            if known:
                self.epoll.unregister(end)
                del self.watched[end.fileno()]
            if events:
                self.epoll.register(end, events)
                self.watched[end.fileno()] = (connection, events)

    @staticmethod
    def _has_hung_up(end):
        poll = select.poll()
        poll.register(end, select.POLLRDHUP)
        return bool(poll.poll(0))
