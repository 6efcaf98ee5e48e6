"""A connection to a D-Bus bus, for what busctl cannot do: pass descriptors, and hear signals as they come."""

import array
import binascii
import os
import socket
import struct
import threading

from harness import PATIENCE

CALL, RETURN, ERROR, SIGNAL = 1, 2, 3, 4
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE, UNIX_FDS = range(1, 10)
HEADER_TYPES = {PATH: "o", INTERFACE: "s", MEMBER: "s", ERROR_NAME: "s", REPLY_SERIAL: "u", DESTINATION: "s",
                SENDER: "s", SIGNATURE: "g", UNIX_FDS: "u"}
FIXED = {"y": ("B", 1), "b": ("I", 4), "n": ("h", 2), "q": ("H", 2), "i": ("i", 4), "u": ("I", 4), "x": ("q", 8),
         "t": ("Q", 8), "d": ("d", 8), "h": ("I", 4)}
ALIGNMENT = {"s": 4, "o": 4, "g": 1, "a": 4, "v": 1, "(": 8, "{": 8, **{key: size for key, (_, size) in FIXED.items()}}
BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")


class BusError(Exception):
    """An error as answer: its name and its text."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name, self.text = name, text


def first_type(signature):
    """The first complete type of the signature, and the rest."""
    if signature[0] == "a":
        inner, rest = first_type(signature[1:])
        return "a" + inner, rest
    if signature[0] in "({":
        depth = 0
        for i, letter in enumerate(signature):
            depth += (letter in "({") - (letter in ")}")
            if depth == 0:
                return signature[:i + 1], signature[i + 1:]
    return signature[0], signature[1:]


def types(signature):
    found = []
    while signature:
        one, signature = first_type(signature)
        found.append(one)
    return found


class Writer:
    """Little endian, from an offset that is a multiple of eight."""

    def __init__(self):
        self.data = bytearray()

    def align(self, to):
        self.data += bytes(-len(self.data) % to)

    def put(self, kind, value):
        self.align(ALIGNMENT[kind[0]])
        if kind in FIXED:
            self.data += struct.pack("<" + FIXED[kind][0], int(value) if kind != "d" else value)
        elif kind in "so":
            text = value.encode()
            self.data += struct.pack("<I", len(text)) + text + b"\0"
        elif kind == "g":
            self.data += bytes([len(value)]) + value.encode() + b"\0"
        elif kind == "v":
            inner, content = value
            self.put("g", inner)
            self.put(inner, content)
        elif kind[0] == "a":
            place = len(self.data)
            self.data += bytes(4)
            self.align(ALIGNMENT[kind[1]])
            begin = len(self.data)
            for item in (value.items() if kind[1] == "{" else value):
                self.put(kind[1:], item)
            self.data[place:place + 4] = struct.pack("<I", len(self.data) - begin)
        else:
            for inner, item in zip(types(kind[1:-1]), value):
                self.put(inner, item)


class Reader:
    def __init__(self, data, order="<"):
        self.data, self.order, self.place = data, order, 0

    def align(self, to):
        self.place += -self.place % to

    def take(self, count):
        piece = self.data[self.place:self.place + count]
        self.place += count
        return piece

    def get(self, kind):
        self.align(ALIGNMENT[kind[0]])
        if kind in FIXED:
            letter, size = FIXED[kind]
            [value] = struct.unpack(self.order + letter, self.take(size))
            return bool(value) if kind == "b" else value
        if kind in "so":
            text = self.take(self.get("u")).decode()
            self.place += 1
            return text
        if kind == "g":
            text = self.take(self.get("y")).decode()
            self.place += 1
            return text
        if kind == "v":
            return self.get(self.get("g"))
        if kind[0] == "a":
            size = self.get("u")
            self.align(ALIGNMENT[kind[1]])
            end, items = self.place + size, []
            while self.place < end:
                items.append(self.get(kind[1:]))
            return dict(items) if kind[1] == "{" else items
        return tuple(self.get(inner) for inner in types(kind[1:-1]))


class Message:
    """One that has come: `fields` of its header by their numbers, `values` of its body; `raw` is all of its bytes."""

    def __init__(self, raw, descriptors):
        self.raw, self.descriptors = raw, descriptors
        self.order = "<" if raw[:1] == b"l" else ">"
        self.type = raw[1]
        reader = Reader(raw, self.order)
        reader.place = 12
        self.fields = dict(reader.get("a(yv)"))
        reader.align(8)
        self.body = Reader(raw[reader.place:], self.order)
        self.values = [self.body.get(kind) for kind in types(self.fields.get(SIGNATURE, ""))]

    @property
    def member(self):
        return self.fields.get(MEMBER)


def path_of(address):
    return dict(part.split("=", 1) for part in address.split(":", 1)[1].split(","))["path"]


class BusClient:
    """Calls methods, and keeps the signals that it has asked for, or, as a monitor, everything: `messages`."""

    def __init__(self, address, connection=None):
        """At this address of a bus, or on a connection to it that has said nothing yet."""
        self.socket = connection or socket.socket(socket.AF_UNIX)
        if not connection:
            self.socket.connect(path_of(address))
        self.socket.sendall(b"\0AUTH EXTERNAL " + binascii.hexlify(str(os.getuid()).encode()) + b"\r\n")
        self._expect_line(b"OK")
        self.socket.sendall(b"NEGOTIATE_UNIX_FD\r\n")
        self._expect_line(b"AGREE_UNIX_FD")
        self.socket.sendall(b"BEGIN\r\n")
        self.name = None
        self.serial = 0
        self.answers = {}
        self.messages = []
        self.changed = threading.Condition()
        self.ended = False
        self.thread = threading.Thread(target=self._read_all, daemon=True)
        self.thread.start()
        [self.name] = self.call(*BUS, "Hello").values

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join(PATIENCE)
        self.socket.close()

    def _expect_line(self, begin):
        line = b""
        while not line.endswith(b"\r\n"):
            piece = self.socket.recv(1)
            if not piece:
                raise AssertionError("the bus hung up")
            line += piece
        if not line.startswith(begin):
            raise AssertionError(line)

    def _read_exactly(self, count):
        data = b""
        while len(data) < count:
            ancillary = socket.CMSG_SPACE(16 * array.array("i").itemsize)
            piece, ancillary, _, _ = self.socket.recvmsg(count - len(data), ancillary, socket.MSG_CMSG_CLOEXEC)
            if not piece:
                raise EOFError
            for level, kind, content in ancillary:
                if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                    numbers = array.array("i")
                    numbers.frombytes(content)
                    self.pending += numbers.tolist()
            data += piece
        return data

    def _read_all(self):
        self.pending = []
        try:
            while True:
                start = self._read_exactly(16)
                order = "<" if start[:1] == b"l" else ">"
                body, = struct.unpack(order + "I", start[4:8])
                fields, = struct.unpack(order + "I", start[12:16])
                rest = self._read_exactly(fields + (-fields % 8) + body)
                message = Message(start + rest, self.pending)
                self.pending = []
                with self.changed:
                    self._keep(message)
                    self.changed.notify_all()
        except (EOFError, OSError):
            with self.changed:
                self.ended = True
                self.changed.notify_all()

    def _keep(self, message):
        # a monitor hears the answers of others too, whose numbers may be the same
        is_ours = self.name in (None, message.fields.get(DESTINATION))
        if message.type in (RETURN, ERROR) and message.fields[REPLY_SERIAL] in self.answers and is_ours:
            self.answers[message.fields[REPLY_SERIAL]] = message
        else:
            self.messages.append(message)

    def call(self, destination, path, interface, member, signature="", *arguments, descriptors=()):
        """The answer. @raises BusError"""
        serial = self.send(destination, path, interface, member, signature, *arguments, descriptors=descriptors)
        return self.answer(serial)

    def send(self, destination, path, interface, member, signature="", *arguments, descriptors=()):
        """The number of the call, for answer()."""
        return self._write(CALL, destination, path, interface, member, signature, arguments, descriptors)

    def signal(self, destination, path, interface, member, signature="", *arguments):
        """To this program alone."""
        self._write(SIGNAL, destination, path, interface, member, signature, arguments, ())

    def _write(self, message_type, destination, path, interface, member, signature, arguments, descriptors):
        body = Writer()
        for kind, value in zip(types(signature), arguments):
            body.put(kind, value)
        fields = [(PATH, path), (INTERFACE, interface), (MEMBER, member), (DESTINATION, destination)]
        if signature:
            fields.append((SIGNATURE, signature))
        if descriptors:
            fields.append((UNIX_FDS, len(descriptors)))
        with self.changed:
            self.serial += 1
            serial = self.serial
            if message_type == CALL:
                self.answers[serial] = None
        header = Writer()
        header.data += b"l" + bytes([message_type, 0, 1]) + struct.pack("<II", len(body.data), serial)
        header.put("a(yv)", [(number, (HEADER_TYPES[number], value)) for number, value in fields])
        header.align(8)
        data = bytes(header.data + body.data)
        sent = socket.send_fds(self.socket, [data], list(descriptors)) if descriptors else 0
        self.socket.sendall(data[sent:])
        return serial

    def answer(self, serial):
        with self.changed:
            if not self.changed.wait_for(lambda: self.ended or self.answers[serial], PATIENCE):
                raise AssertionError("no answer")
            message = self.answers.pop(serial)
        if message is None:
            raise AssertionError("the bus hung up")
        if message.type == ERROR:
            raise BusError(message.fields[ERROR_NAME], message.values[0] if message.values else "")
        return message

    def listen(self, rule):
        self.call(*BUS, "AddMatch", "s", rule)

    def become_monitor(self):
        """Hears everything from now on, also what is for others, and calls nothing any more."""
        self.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
                  "asu", [], 0)

    def wait_until(self, condition, what):
        """What `condition` returns, once that is true of `messages`."""
        with self.changed:
            self.changed.wait_for(lambda: self.ended or condition(), PATIENCE)
            found = condition()
        if not found:
            raise AssertionError(f"no {what}, only {[(message.member, message.values) for message in self.messages]}")
        return found
