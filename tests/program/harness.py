"""What the tests of the whole program share: identities of their own, a receiver, a relay on the wire."""

import base64
import contextlib
import hashlib
import json
import os
import pathlib
import queue
import random
import shutil
import socket
import struct
import subprocess
import tempfile
import threading
import unittest

import own_environment  # noqa: F401 (it is entered by the import)
from waiting import Flag, comes_true

ORLINTH = os.environ.get("ORLINTH", "orlinth")
SANITIZED = bool(os.environ.get("ORLINTH_SANITIZE"))
BUILD = pathlib.Path(os.environ.get("ORLINTH_BUILD", "."))
CLIP_PHONE = str(BUILD / "tests" / "interop" / "clip_phone")
MIB = 1024 * 1024
# Nothing here takes this long; it only keeps a hung program from hanging the suite.
PATIENCE = 240 if SANITIZED else 90

# The frames of a send before the first data frame: two of the handshake, and the offer.
FRAMES_BEFORE_DATA = 3
# What the receiver's part of the handshake takes on the wire: 4 bytes of length, 96 of message.
HANDSHAKE_ANSWER_BYTES = 100


def seeded(test):
    """A generator whose seed is printed, so that a failure can be repeated: ORLINTH_TEST_SEED=…"""
    seed = int(os.environ.get("ORLINTH_TEST_SEED", random.SystemRandom().randrange(2**32)))
    print(f"{test.id()}: ORLINTH_TEST_SEED={seed}", flush=True)
    return random.Random(seed)


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(MIB):
            digest.update(block)
    return digest.hexdigest()


def unused_port():
    """A port that nobody has at any address, and that the system gives to nobody who asks for any: those are above
    32767. One of those may be free here and yet be the other end of somebody's connection at another address, and then
    no program can listen on it everywhere."""
    for port in random.SystemRandom().sample(range(20000, 32000), 100):
        with contextlib.suppress(OSError), socket.socket() as probe:
            probe.bind(("", port))  # without SO_REUSEADDR, so that it is refused whatever has the port
            return port
    raise AssertionError("no port is free")


class Events(threading.Thread):
    """Reads the JSON lines of a running program; `wait_for` returns the next event of a name."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream = stream
        self.all = []
        self.not_json = []
        self.changed = threading.Condition()
        self.ended = False
        self.start()

    def run(self):
        for line in self.stream:
            try:
                event = json.loads(line)
            except ValueError:
                event = None
            with self.changed:
                if isinstance(event, dict) and "event" in event:
                    self.all.append(event)
                else:
                    self.not_json.append(line)
                self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def find(self, name):
        return next((event for event in self.all if event["event"] == name), None)

    def names(self):
        """Without the repeated ones next to each other."""
        names = [event["event"] for event in self.all]
        return [name for i, name in enumerate(names) if i == 0 or names[i - 1] != name]

    def wait_for(self, name):
        return self.wait_until(lambda: self.find(name), f"event '{name}'")

    def wait_until(self, condition, what):
        """What `condition` returns, once that is true of what was read. `what` is what is missing if it never is."""
        with self.changed:
            self.changed.wait_for(lambda: self.ended or condition(), PATIENCE)
            found = condition()
        if not found:
            raise AssertionError(f"no {what}, only {self.all} {self.not_json}")
        return found


class Running:
    """A program that runs with --json: its events, its exit status, its standard error."""

    def __init__(self, arguments, **options):
        self.errors = tempfile.TemporaryFile()
        options.setdefault("stdin", subprocess.DEVNULL)
        self.process = subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=self.errors, **options)
        self.events = Events(self.process.stdout)

    def wait(self, patience=PATIENCE):
        """The exit status, once everything that was written has been read."""
        status = self.process.wait(patience)
        self.events.join(PATIENCE)
        return status

    def signal(self, number):
        self.process.send_signal(number)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    @property
    def stderr(self):
        # not by seek and read: the program writes at the same file offset
        return os.pread(self.errors.fileno(), os.fstat(self.errors.fileno()).st_size, 0).decode(errors="replace")

    def close(self):
        if self.process.poll() is None:
            self.kill()
        self.events.join(PATIENCE)
        self.process.stdout.close()
        self.errors.close()


class Identity:
    """One computer: a data folder, a settings folder and a downloads folder of its own."""

    def __init__(self, root, name):
        self.name = name
        self.root = pathlib.Path(root) / name
        self.data = self.root / "data"
        self.config = self.root / "config"
        self.downloads = self.root / "downloads"
        self.downloads.mkdir(parents=True)
        self.environment = {
            **os.environ,
            "HOME": str(self.root),
            "XDG_DATA_HOME": str(self.data),
            "XDG_CONFIG_HOME": str(self.config),
        }

    def run(self, *arguments, **options):
        """Runs the program to its end; text streams."""
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        return subprocess.run(
            [ORLINTH, *arguments],
            env={**self.environment, **options.pop("environment", {})},
            stdout=options.pop("stdout", subprocess.PIPE),
            stderr=options.pop("stderr", subprocess.PIPE),
            encoding="utf-8",
            errors="surrogateescape",
            timeout=PATIENCE,
            **options,
        )

    @property
    def key(self):
        return json.loads(self.run("id", "--json").stdout)["self_pubkey"]

    @property
    def peer_file(self):
        return self.data / "Orlinth" / "peer.json"

    def journal(self):
        """The entries of the journal."""
        path = self.data / "Orlinth" / "inflight.json"
        return json.loads(path.read_text())["entries"] if path.exists() else {}

    def record(self, other, port=9, ip="127.0.0.1", key=None, token=None):
        """Records another identity by hand, in place of an earlier record of it."""
        result = self.run(
            "peers", "add", "--pubkey", key or other.key, "--ip", ip, "--port", str(port), "--name", other.name,
            *(["--fcm-token", token] if token else []),
        )
        if result.returncode != 0:
            raise AssertionError(result.stderr)


class ProgramTest(unittest.TestCase):
    """A test with two paired identities, `mac` and `phone`, and a folder of its own."""

    # where the test's folder is made; None for the usual place
    base = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="orlinth-test-", dir=self.base))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.mac = Identity(self.folder, "mac")
        self.phone = Identity(self.folder, "phone")
        self.phone.record(self.mac)
        self.mac.record(self.phone)

    def running(self, identity, *arguments, **options):
        return self.running_program([ORLINTH, *arguments], identity, **options)

    def running_program(self, arguments, identity, **options):
        program = Running(arguments, env=identity.environment, **options)
        self.addCleanup(program.close)
        return program

    def receiver(self, *arguments, port="0", **options):
        """`receive` on the phone, listening; `.port` is where."""
        program = self.running(
            self.phone,
            *["receive", "--from", "mac", "--port", port, "--dir", str(self.phone.downloads), "--json"],
            *arguments,
            **options,
        )
        program.port = program.events.wait_for("listening")["port"]
        return program

    def clip_phone(self, leave, port=0):
        """A stand-in for the phone that takes one clipboard message, listening; `.port` is where."""
        program = self.running_program([CLIP_PHONE, leave, str(port), self.mac.key], self.phone)
        program.port = program.events.wait_for("listening")["port"]
        return program

    def sender(self, file, port, *arguments, **options):
        """`send` on the mac, to the phone at this port."""
        self.mac.record(self.phone, port)
        return self.running(self.mac, "send", "--to", "phone", "--json", *arguments, str(file), **options)

    def relay(self, port, **rules):
        relay = Relay(port, **rules)
        self.addCleanup(relay.close)
        return relay

    def shim(self, name, source):
        """A library from this C text, to come before the system's own in LD_PRELOAD."""
        text, library = self.folder / f"{name}.c", self.folder / f"{name}.so"
        text.write_text(source)
        subprocess.run([os.environ.get("ORLINTH_CXX", "clang++-19"), "-x", "c", "-shared", "-fPIC", "-o", str(library),
                        str(text)], check=True)
        return library

    def wait_until(self, condition, *sources):
        """Until `condition` is true. Only a change at one of the sources (see waiting.Watch) can make it so."""
        self.assertTrue(comes_true(condition, PATIENCE, *sources), "what was waited for did not come")

    def file(self, name, content):
        folder = self.folder / "outgoing"
        folder.mkdir(exist_ok=True)
        path = os.path.join(os.fsencode(folder), os.fsencode(name))
        with open(path, "wb") as file:
            file.write(content)
        return pathlib.Path(os.fsdecode(path))

    def transfer(self, file, patience=PATIENCE):
        """One whole transfer without a relay; (sender, receiver), both ended."""
        receiver = self.receiver()
        sender = self.sender(file, receiver.port)
        sender.wait(patience)
        receiver.wait(patience)
        return sender, receiver

    def assert_delivered(self, file, sender, receiver):
        """Both ended well, and the file has arrived byte for byte; returns where."""
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        saved = pathlib.Path(receiver.events.find("complete")["saved_at"])
        self.assertEqual(sha256(file), sha256(saved))
        self.assertEqual([], list(self.phone.downloads.glob(saved.name + ".partial*")))
        return saved

    def assert_one_line_error(self, stderr, text):
        """Exactly one line begins with the program's name, and it is this."""
        lines = [line for line in stderr.splitlines() if line.startswith("orlinth: ")]
        self.assertEqual(["orlinth: " + text], lines, stderr)


def look(port):
    """Begins a handshake at this port of this machine, takes the answer and hangs up in good order; returns once the
    other side has closed too."""
    ephemeral_key, answer_bytes = os.urandom(32), 4 + 96
    with socket.create_connection(("127.0.0.1", port), PATIENCE) as onlooker:
        onlooker.sendall(struct.pack(">I", len(ephemeral_key)) + ephemeral_key)
        answer = onlooker.recv(answer_bytes, socket.MSG_WAITALL)
        if len(answer) != answer_bytes:
            raise AssertionError(f"an answer of {len(answer)} bytes")
        onlooker.shutdown(socket.SHUT_WR)
        if onlooker.recv(1):
            raise AssertionError("more than an answer came")


class Relay:
    """A wire between a sender and a receiver on this machine that can be cut, held, slowed down or damaged.

    Rules hold for the direction from the sender to the receiver, or with `answers=True` for the other one:
    after_bytes or after_frames: how much to let through, whole; then `then` happens: "cut" closes the connection,
    "hold" keeps it open and lets nothing more through, a function is called and the connection cut.
    flip: the offset of a byte of which one bit is turned. bytes_per_second: how fast at most.
    buffer: how many bytes the kernel may hold on each side of the relay; by default it takes megabytes, so that the
    sender can be done long before a slow receiver has read anything.
    when: a function; once the limit is reached, `then` waits until it says yes, which a change at one of the sources
    `changed_by` (see waiting.Watch) makes it. However small the relay's buffers are, the kernel keeps megabytes for a
    program that is slow to read.
    """

    def __init__(self, port, answers=False, after_bytes=None, after_frames=None, then="cut", flip=None,
                 bytes_per_second=None, buffer=None, when=None, changed_by=()):
        self.target = port
        self.buffer = buffer
        self.answers = answers
        self.limit = after_bytes
        self.frames = after_frames
        self.then = then
        self.flip = flip
        self.bytes_per_second = bytes_per_second
        self.when = when
        self.changed_by = changed_by
        self.reached = Flag()
        self.closed = Flag()
        self.listener = socket.create_server(("127.0.0.1", 0))
        if buffer:  # an accepted connection takes this over; later it would no longer narrow the window
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
        self.port = self.listener.getsockname()[1]
        self.sockets = []
        self.threads = [threading.Thread(target=self._serve, daemon=True)]
        self.threads[0].start()

    def _serve(self):
        try:
            near, _ = self.listener.accept()
        except OSError:
            return
        self.listener.close()  # one way, once: who comes again is refused, and does not wait for an answer
        far = socket.create_connection(("127.0.0.1", self.target))
        self.sockets += [near, far]
        if self.buffer:
            far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, self.buffer)
        for end in self.sockets:
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        ways = [(near, far, not self.answers), (far, near, self.answers)]
        self.threads += [threading.Thread(target=self._pump, args=way, daemon=True) for way in ways]
        for thread in self.threads[1:]:
            thread.start()

    def _pump(self, source, sink, ruled):
        try:
            if ruled and self.frames is not None:
                self._forward_frames(source, sink)
                self._end()
            elif self._forward_bytes(source, sink, ruled):
                self._end()
        except OSError:
            self._cut()

    def _forward_frames(self, source, sink):
        for _ in range(self.frames):
            prefix = self._exactly(source, 4)
            sink.sendall(prefix + self._exactly(source, struct.unpack(">I", prefix)[0]))

    @staticmethod
    def _exactly(source, count):
        data = b""
        while len(data) < count:
            piece = source.recv(count - len(data))
            if not piece:
                raise OSError("ended early")
            data += piece
        return data

    def _forward_bytes(self, source, sink, ruled):
        """Whether the limit was reached; otherwise the source has ended."""
        passed = 0
        limit = self.limit if ruled else None
        while limit is None or passed < limit:
            piece = source.recv(65536 if limit is None else min(65536, limit - passed))
            if not piece:
                sink.shutdown(socket.SHUT_WR)
                return False
            if ruled and self.flip is not None and passed <= self.flip < passed + len(piece):
                damaged = bytearray(piece)
                damaged[self.flip - passed] ^= 1
                piece = bytes(damaged)
                self.reached.set()
            if ruled and self.bytes_per_second:
                self.closed.wait(len(piece) / self.bytes_per_second)
            sink.sendall(piece)
            passed += len(piece)
        return True

    def _end(self):
        if self.when:
            comes_true(lambda: self.closed.is_set() or self.when(), PATIENCE, self.closed, *self.changed_by)
        self.reached.set()
        if self.then == "hold":
            self.closed.wait()
            return
        if callable(self.then):
            self.then()
        self._cut()

    def _cut(self):
        for end in self.sockets:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            end.close()  # with unread input this resets the connection, so that a blocked writer hears of it

    def close(self):
        self.closed.set()
        try:
            self.listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._cut()
        for thread in self.threads:
            thread.join(PATIENCE)
        for end in [self.listener, *self.sockets]:
            end.close()


class Victim:
    """A program that a relay kills; handed over when it has been started."""

    def __init__(self):
        self.handed_over = queue.Queue()

    def is_(self, program):
        self.handed_over.put(program)

    def kill(self):
        self.handed_over.get(timeout=PATIENCE).kill()


class UnansweredPort:
    """A port of this machine at which an attempt to connect neither succeeds nor is refused."""

    def __enter__(self):
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(0)
        self.port = self.listener.getsockname()[1]
        self.fillers = []
        for _ in range(16):  # its queue takes one or two; from then on the kernel drops what comes
            filler = socket.socket()
            filler.settimeout(0.3)
            self.fillers.append(filler)
            try:
                filler.connect(("127.0.0.1", self.port))
            except TimeoutError:
                return self
        raise AssertionError("the queue of a listening socket does not fill up")

    def __exit__(self, *_):
        for end in [self.listener, *self.fillers]:
            end.close()


class SleepingPort:
    """A port of this machine that refuses connections, and that a program may start to listen on meanwhile.

    It stays ours: while the socket is bound, the system gives the port to nobody who did not ask for it by number.
    """

    def __enter__(self):
        self.socket = socket.socket()
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.port = unused_port()
        self.socket.bind(("127.0.0.1", self.port))
        return self

    def __exit__(self, *_):
        self.socket.close()


@contextlib.contextmanager
def silent_port():
    """A port that takes connections and says nothing."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        yield listener.getsockname()[1]


def random_key():
    """The text of a public key that belongs to nobody."""
    return base64.b64encode(os.urandom(32)).decode()
