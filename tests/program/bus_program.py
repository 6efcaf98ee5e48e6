"""A program on a D-Bus bus, in plain Python: it has names, answers calls, and sends signals.

Only what the tests need of the D-Bus Specification: little-endian messages without descriptors, and the types that occur
in them. A value of a variant is read as itself, and written as Variant(signature, value).
"""

import collections
import os
import socket
import struct
import threading

CALL, RETURN, ERROR, SIGNAL = 1, 2, 3, 4
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE = range(1, 9)
NUMBERS = {"y": "B", "n": "h", "q": "H", "i": "i", "u": "I", "x": "q", "t": "Q", "d": "d"}
SIZES = {"y": 1, "n": 2, "q": 2, "i": 4, "u": 4, "x": 8, "t": 8, "d": 8, "b": 4, "s": 4, "o": 4, "a": 4, "g": 1, "v": 1,
         "(": 8, "{": 8}

Variant = collections.namedtuple("Variant", "signature value")
Message = collections.namedtuple("Message", "kind serial path interface member sender reply_to error arguments")


def split_types(signature):
    """The complete types one after the other."""
    types = []
    while signature:
        end = type_end(signature)
        types.append(signature[:end])
        signature = signature[end:]
    return types


def type_end(signature):
    if signature[0] == "a":
        return 1 + type_end(signature[1:])
    if signature[0] not in "({":
        return 1
    depth = 0
    for at, character in enumerate(signature):
        depth += (character in "({") - (character in ")}")
        if depth == 0:
            return at + 1
    raise ValueError(signature)


class Writer:
    def __init__(self):
        self.data = bytearray()

    def align(self, size):
        self.data += bytes(-len(self.data) % size)

    def write(self, kind, value):
        self.align(SIZES[kind[0]])
        if kind in NUMBERS:
            self.data += struct.pack("<" + NUMBERS[kind], value)
        elif kind == "b":
            self.data += struct.pack("<I", bool(value))
        elif kind in "so":
            text = value.encode()
            self.data += struct.pack("<I", len(text)) + text + b"\0"
        elif kind == "g":
            self.data += bytes([len(value)]) + value.encode() + b"\0"
        elif kind == "v":
            self.write("g", value.signature)
            self.write(value.signature, value.value)
        elif kind[0] == "a":
            place = len(self.data)
            self.data += bytes(4)
            self.align(SIZES[kind[1]])
            start = len(self.data)
            for item in value.items() if kind[1] == "{" else value:
                self.write(kind[1:], item)
            struct.pack_into("<I", self.data, place, len(self.data) - start)
        else:
            for part, item in zip(split_types(kind[1:-1]), value, strict=True):
                self.write(part, item)


class Reader:
    def __init__(self, data):
        self.data, self.at = data, 0

    def align(self, size):
        self.at += -self.at % size

    def take(self, count):
        self.at += count
        return self.data[self.at - count:self.at]

    def number(self, form):
        return struct.unpack("<" + form, self.take(struct.calcsize("<" + form)))[0]

    def read(self, kind):
        self.align(SIZES[kind[0]])
        if kind in NUMBERS:
            return self.number(NUMBERS[kind])
        if kind == "b":
            return bool(self.number("I"))
        if kind in "so":
            return self.take(self.number("I") + 1)[:-1].decode()
        if kind == "g":
            return self.take(self.number("B") + 1)[:-1].decode()
        if kind == "v":
            return self.read(self.read("g"))
        if kind[0] == "a":
            length = self.number("I")
            self.align(SIZES[kind[1]])
            end, items = self.at + length, []
            while self.at < end:
                items.append(self.read(kind[1:]))
            return dict(items) if kind[1] == "{" else items
        return tuple(self.read(part) for part in split_types(kind[1:-1]))


class BusProgram(threading.Thread):
    """Handles what comes on a thread of its own; `name` is the unique one.

    Override called(message): it returns (signature, values) of the answer, or None for an error. Override
    signalled(message) for signals that were asked for by listen().
    """

    def __init__(self, address):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(dict(part.split("=", 1) for part in address.split(":", 1)[1].split(","))["path"])
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        answer = b""
        while not answer.endswith(b"\r\n"):
            answer += self.socket.recv(1)
        if not answer.startswith(b"OK "):
            raise RuntimeError(f"the bus says {answer}")
        self.socket.sendall(b"BEGIN\r\n")
        self.lock = threading.Lock()
        self.serial = 0
        self.answers = {}
        self.changed = threading.Condition()
        self.start()
        self.name = self.ask("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello")[0]

    def close(self):
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # the bus has gone before
        self.join()
        self.socket.close()

    # ---- what others want

    def called(self, message):
        return None

    def signalled(self, message):
        pass

    def run(self):
        while (message := self.receive()) is not None:
            if message.kind == CALL:
                answer = self.called(message)
                fields = {REPLY_SERIAL: ("u", message.serial), DESTINATION: ("s", message.sender)}
                if answer is None:
                    self.send(ERROR, {**fields, ERROR_NAME: ("s", "org.freedesktop.DBus.Error.UnknownMethod")})
                else:
                    self.send(RETURN, fields, *answer)
            elif message.kind == SIGNAL:
                self.signalled(message)
            else:
                with self.changed:
                    self.answers[message.reply_to] = message
                    self.changed.notify_all()

    # ---- what we want

    def ask(self, destination, path, interface, member, signature="", values=()):
        """The values of the answer."""
        serial = self.send(CALL, {PATH: ("o", path), INTERFACE: ("s", interface), MEMBER: ("s", member),
                                  DESTINATION: ("s", destination)}, signature, values)
        with self.changed:
            if not self.changed.wait_for(lambda: serial in self.answers, 30):
                raise AssertionError(f"no answer to {member}")
            answer = self.answers.pop(serial)
        if answer.kind == ERROR:
            raise RuntimeError(f"{member}: {answer.error} {answer.arguments}")
        return answer.arguments

    def own(self, name):
        assert self.ask("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName", "su",
                        (name, 4)) == (1,), f"somebody has {name}"

    def listen(self, rule):
        self.ask("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "AddMatch", "s", (rule,))

    def signal(self, path, interface, member, signature="", values=(), destination=None):
        fields = {PATH: ("o", path), INTERFACE: ("s", interface), MEMBER: ("s", member)}
        if destination:
            fields[DESTINATION] = ("s", destination)
        self.send(SIGNAL, fields, signature, values)

    # ---- messages

    def send(self, kind, fields, signature="", values=()):
        body = Writer()
        for part, value in zip(split_types(signature), values, strict=True):
            body.write(part, value)
        if signature:
            fields = {**fields, SIGNATURE: ("g", signature)}
        with self.lock:
            self.serial += 1
            head = Writer()
            for part, value in (("y", ord("l")), ("y", kind), ("y", 0), ("y", 1), ("u", len(body.data)),
                                ("u", self.serial),
                                ("a(yv)", [(code, Variant(*field)) for code, field in fields.items()])):
                head.write(part, value)
            head.align(8)
            self.socket.sendall(bytes(head.data + body.data))
            return self.serial

    def receive(self):
        start = self.take(16)
        if start is None:
            return None
        kind = start[1]
        length, serial, fields_length = struct.unpack("<III", start[4:16])
        rest = self.take(fields_length + -fields_length % 8 + length)
        if rest is None:
            return None
        head = Reader(start + rest)
        head.at = 12
        fields = dict(head.read("a(yv)"))
        head.align(8)
        body = Reader(head.data[head.at:])
        arguments = tuple(body.read(part) for part in split_types(fields.get(SIGNATURE, "")))
        return Message(kind, serial, fields.get(PATH), fields.get(INTERFACE), fields.get(MEMBER), fields.get(SENDER),
                       fields.get(REPLY_SERIAL), fields.get(ERROR_NAME), arguments)

    def take(self, count):
        data = b""
        while len(data) < count:
            try:
                piece = self.socket.recv(count - len(data))
            except OSError:
                return None
            if not piece:
                return None
            data += piece
        return data
