"""A program on a test's own bus that stays there: it calls methods, one after the other, and takes descriptors. It
speaks the protocol itself, as far as these tests need it (D-Bus Specification, "Message Protocol" and
"Authentication Protocol")."""

import os
import socket
import struct

from harness import PATIENCE

METHOD_CALL, METHOD_RETURN, ERROR, SIGNAL = 1, 2, 3, 4
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE, DESCRIPTORS = range(1, 10)
BASIC = {"y": "B", "b": "I", "n": "h", "q": "H", "i": "i", "u": "I", "x": "q", "t": "Q", "d": "d", "h": "I"}
ALIGNMENT = {"y": 1, "g": 1, "v": 1, "n": 2, "q": 2, "x": 8, "t": 8, "d": 8, "(": 8, "{": 8}
MOST_DESCRIPTORS = 8


class BusError(Exception):
    """What a call was answered with; `name` is the error's."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name, self.text = name, text


def split(signature):
    """The first complete type, and the rest."""
    if signature[0] == "a":
        first, rest = split(signature[1:])
        return "a" + first, rest
    if signature[0] in "({":
        depth = 0
        for end, letter in enumerate(signature):
            depth += (letter in "({") - (letter in ")}")
            if depth == 0:
                return signature[:end + 1], signature[end + 1:]
    return signature[0], signature[1:]


def types_of(signature):
    types = []
    while signature:
        first, signature = split(signature)
        types.append(first)
    return types


class Writer:
    def __init__(self):
        self.data = bytearray()

    def align(self, count):
        self.data += bytes(-len(self.data) % count)

    def put(self, kind, value):
        self.align(ALIGNMENT.get(kind[0], 4))
        if kind in BASIC:
            self.data += struct.pack("<" + BASIC[kind], value)
        elif kind in ("s", "o", "g"):
            text = value.encode()
            self.data += struct.pack("<B" if kind == "g" else "<I", len(text)) + text + b"\0"
        elif kind == "v":
            inner, content = value
            self.put("g", inner)
            self.put(inner, content)
        elif kind[0] == "a":
            at = len(self.data)
            self.data += bytes(4)
            self.align(ALIGNMENT.get(kind[1], 4))
            begin = len(self.data)
            for item in value.items() if kind[1] == "{" else value:
                self.put(kind[1:], item)
            struct.pack_into("<I", self.data, at, len(self.data) - begin)
        else:
            for inner, content in zip(types_of(kind[1:-1]), value):
                self.put(inner, content)


class Reader:
    def __init__(self, data):
        self.data, self.at = data, 0

    def align(self, count):
        self.at += -self.at % count

    def take(self, form):
        [value] = struct.unpack_from("<" + form, self.data, self.at)
        self.at += struct.calcsize("<" + form)
        return value

    def get(self, kind):
        self.align(ALIGNMENT.get(kind[0], 4))
        if kind in BASIC:
            return self.take(BASIC[kind])
        if kind in ("s", "o", "g"):
            length = self.take("B" if kind == "g" else "I")
            text = self.data[self.at:self.at + length].decode()
            self.at += length + 1
            return text
        if kind == "v":
            return self.get(self.get("g"))
        if kind[0] == "a":
            length = self.take("I")
            self.align(ALIGNMENT.get(kind[1], 4))
            end, items = self.at + length, []
            while self.at < end:
                items.append(self.get(kind[1:]))
            return dict(items) if kind[1] == "{" else items
        return tuple(self.get(inner) for inner in types_of(kind[1:-1]))


class BusClient:
    """`.name` is the one that the bus has given it."""

    def __init__(self, address):
        path = next(part.split("=", 1)[1] for part in address.split(":", 1)[1].split(",") if part.startswith("path="))
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(path)
        self.buffer, self.descriptors, self.serial, self.signals = b"", [], 0, []
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        self.line()
        self.socket.sendall(b"NEGOTIATE_UNIX_FD\r\n")
        self.line()
        self.socket.sendall(b"BEGIN\r\n")
        [self.name] = self.call("/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello",
                                destination="org.freedesktop.DBus")

    def close(self):
        for descriptor in self.descriptors:
            os.close(descriptor)
        self.descriptors = []
        self.socket.close()

    def line(self):
        while b"\r\n" not in self.buffer:
            self.receive()
        line, self.buffer = self.buffer.split(b"\r\n", 1)
        if not line.startswith((b"OK", b"AGREE_UNIX_FD")):
            raise AssertionError(line)

    def receive(self):
        data, descriptors, _, _ = socket.recv_fds(self.socket, 1 << 16, MOST_DESCRIPTORS)
        if not data:
            raise AssertionError("the bus has closed the connection")
        self.buffer += data
        self.descriptors += descriptors

    def call(self, path, interface, member, signature="", *arguments, destination="com.tarvinex.orlinth1"):
        """What it returns, as a list; a descriptor as its number, which is the caller's to close."""
        self.send(path, interface, member, signature, *arguments, destination=destination)
        while True:
            kind, fields, values = self.message()
            if fields.get(REPLY_SERIAL) == self.serial:
                if kind == ERROR:
                    raise BusError(fields[ERROR_NAME], values[0] if values else "")
                return values
            if kind == SIGNAL:
                self.signals.append((fields[MEMBER], values))

    def send(self, path, interface, member, signature="", *arguments, destination="com.tarvinex.orlinth1"):
        """The call alone, whose answer nobody waits for."""
        self.serial += 1
        body = Writer()
        for kind, value in zip(types_of(signature), arguments):
            body.put(kind, value)
        fields = [(PATH, ("o", path)), (INTERFACE, ("s", interface)), (MEMBER, ("s", member)),
                  (DESTINATION, ("s", destination))]
        if signature:
            fields.append((SIGNATURE, ("g", signature)))
        head = Writer()
        for kind, value in (("y", ord("l")), ("y", METHOD_CALL), ("y", 0), ("y", 1), ("u", len(body.data)),
                            ("u", self.serial), ("a(yv)", fields)):
            head.put(kind, value)
        head.align(8)
        self.socket.sendall(head.data + body.data)

    def wait_for_signal(self, member, condition=lambda values: True):
        """The values of the next signal of this name for which that holds."""
        while True:
            while self.signals:
                name, values = self.signals.pop(0)
                if name == member and condition(values):
                    return values
            kind, fields, values = self.message()
            if kind == SIGNAL:
                self.signals.append((fields[MEMBER], values))

    def message(self):
        fixed = 16
        while len(self.buffer) < fixed:
            self.receive()
        length, = struct.unpack_from("<I", self.buffer, 4)
        fields, = struct.unpack_from("<I", self.buffer, 12)
        begin = fixed + fields + (-fields % 8)
        while len(self.buffer) < begin + length:
            self.receive()
        whole, self.buffer = self.buffer[:begin + length], self.buffer[begin + length:]
        if whole[:1] != b"l":
            raise AssertionError("a message in another byte order")
        reader = Reader(whole[:begin])
        reader.at = 12
        fields = dict(reader.get("a(yv)"))
        return whole[1], fields, self.values(fields, whole[begin:])

    def values(self, fields, content):
        count = fields.get(DESCRIPTORS, 0)
        passed, self.descriptors = self.descriptors[:count], self.descriptors[count:]
        reader = Reader(content)
        types = types_of(fields.get(SIGNATURE, ""))
        values = [reader.get(kind) for kind in types]
        return [passed[value] if kind == "h" else value for kind, value in zip(types, values)]
