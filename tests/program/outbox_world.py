"""What the tests of the outbox share: a computer that shares, phones, and a way between them that can be cut."""

import contextlib
import json
import os
import signal
import socket
import struct
import threading
import uuid

from harness import PATIENCE, Identity, ProgramTest, sha256

GROUP = "group.com.tarvinex.orlinth"
# More than the system takes from a sender whose receiver is slow.
BIG = 20 * 1024 * 1024


class Gate:
    """A way to a port that stays open for any number of connections, one at a time or several.

    While `limit` is set, the first connection that has passed so many bytes calls `action`, and everything is cut; but
    so many connections as `spared` says pass whole before.
    """

    def __init__(self, port, bytes_per_second=None):
        self.target = port
        self.bytes_per_second = bytes_per_second
        self.limit = None
        self.spared = 0
        self.action = None
        self.lock = threading.Lock()
        self.ends = []
        self.closed = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        self.port = self.listener.getsockname()[1]
        self.threads = [threading.Thread(target=self._accept, daemon=True)]
        self.threads[0].start()

    def _accept(self):
        while True:
            try:
                near, _ = self.listener.accept()
            except OSError:
                return
            try:
                far = socket.create_connection(("127.0.0.1", self.target))
            except OSError:
                near.close()
                continue
            far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 65536)
            with self.lock:
                self.ends += [near, far]
                is_spared = self.spared > 0
                self.spared -= is_spared
                for way in ((near, far, True, is_spared), (far, near, False, True)):
                    thread = threading.Thread(target=self._pump, args=way, daemon=True)
                    self.threads.append(thread)
                    thread.start()

    def _pump(self, source, sink, is_way_there, is_spared):
        passed = 0
        try:
            while piece := source.recv(16384):
                sink.sendall(piece)
                passed += len(piece)
                if not is_spared and self._is_over(passed):
                    self.cut()
                    return
                if is_way_there and self.bytes_per_second:
                    self.closed.wait(len(piece) / self.bytes_per_second)
        except ConnectionError:  # a reset is passed on as one
            for end in (source, sink):
                with contextlib.suppress(OSError):
                    end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                    end.shutdown(socket.SHUT_RDWR)
                    end.close()
        except OSError:
            pass  # it was cut
        for end in (source, sink):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def _is_over(self, passed):
        with self.lock:
            if self.limit is None or passed < self.limit:
                return False
            self.limit = None
            action = self.action
        if action:
            action()
        return True

    def cut(self):
        with self.lock:
            ends, self.ends = self.ends, []
        for end in ends:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()  # with unread input this resets the connection, so that a blocked writer hears of it

    def close(self):
        self.closed.set()
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.cut()
        for thread in self.threads:
            thread.join(PATIENCE)
        self.listener.close()


class OutboxTest(ProgramTest):
    """`mac` shares and serves; `phone`, and whoever else is made, runs a service of its own to receive."""

    def serve(self, identity, *arguments, port="0", **options):
        service = self.running(identity, "serve", "--port", str(port), "--dir", str(identity.downloads), "--json",
                               "--no-clipboard", *arguments, **options)
        service.port = service.events.wait_for("listening")["port"]
        return service

    def phone_listens(self, identity=None, port="0"):
        """The phone's service, at whose port the mac knows it from now on."""
        identity = identity or self.phone
        service = self.serve(identity, port=port)
        self.mac.record(identity, service.port)
        return service

    def another_phone(self, name):
        phone = Identity(self.folder, name)
        phone.record(self.mac)
        self.mac.record(phone)
        return phone

    def gate(self, port, **options):
        gate = Gate(port, **options)
        self.addCleanup(gate.close)
        return gate

    def share(self, *files, to=(), identity=None):
        """Shares the files; the batch's id."""
        selectors = [word for name in to for word in ("--to", name)]
        result = (identity or self.mac).run("share", "--json", *selectors, *map(str, files))
        self.assertEqual(0, result.returncode, result.stderr)
        return json.loads(result.stdout)["batch"]

    def wait_for(self, service, name, /, count=1, **fields):
        """The first `count` events of this name with these fields."""
        def found():
            return [event for event in service.events.all
                    if event["event"] == name and all(event.get(key) == value for key, value in fields.items())]
        with service.events.changed:
            service.events.changed.wait_for(lambda: service.events.ended or len(found()) >= count, PATIENCE)
        self.assertGreaterEqual(len(found()), count, f"{name} {fields}: {service.events.all} {service.stderr}")
        return found()[:count]

    def end(self, service):
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(), service.stderr)
        self.assertEqual([], service.events.not_json)

    @property
    def container(self):
        return self.mac.data / GROUP

    @property
    def outbox(self):
        return self.container / "Outbox"

    @property
    def set_aside(self):
        return self.container / "OutboxSetAside"

    @property
    def memory(self):
        return self.mac.data / "Orlinth" / "outbox"

    def batches(self):
        return sorted(path.name for path in self.outbox.iterdir()) if self.outbox.exists() else []

    def remembered(self):
        return sorted(path.name for path in self.memory.iterdir()) if self.memory.exists() else []

    def assert_nothing_left(self):
        self.assertEqual([], self.batches())
        self.assertEqual([], self.remembered())
        self.assertFalse(self.set_aside.exists() and list(self.set_aside.iterdir()))

    def assert_arrived(self, files, identity=None):
        """Each of them once, under its own name, and nothing else."""
        downloads = (identity or self.phone).downloads
        self.assertEqual({file.name: sha256(file) for file in files},
                         {path.name: sha256(path) for path in downloads.iterdir()})

    def put_batch(self, manifest, files=(), name=None):
        """A batch by hand: `manifest` as it is if it is bytes."""
        name = name or str(uuid.uuid4()).upper()
        folder = self.outbox / name
        folder.mkdir(parents=True)
        for file in files:
            (folder / file).write_bytes(b"content of " + os.fsencode(file))
        if isinstance(manifest, dict):
            manifest = json.dumps({"id": name, "createdAtMs": 1, **manifest}).encode()
        if manifest is not None:
            (folder / ".new").write_bytes(manifest)
            (folder / ".new").rename(folder / "manifest.json")
        return name

    def listed(self):
        """What `orlinth outbox` lists."""
        result = self.mac.run("outbox", "--json")
        self.assertEqual(0, result.returncode, result.stderr)
        return [json.loads(line) for line in result.stdout.splitlines()]
