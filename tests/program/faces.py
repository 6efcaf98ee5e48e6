"""The running service by either of its faces, its control socket and the session's bus, in the same words.

What there is, as both tell it:

    phone     key name address can_wake
    transfer  id direction name batch state done total rate path problem
    batch     id phone files files_done state problem
    history   direction phone name state size problem path time; nothing of that: the history is to be read anew
    offer     id name size
    setting   name value
"""

import base64
import fcntl
import hashlib
import json
import os
import socket
import threading
import urllib.parse

from bus_client import BUS, SIGNAL, BusClient, BusError
from harness import PATIENCE

NAME = "com.tarvinex.orlinth1"
ROOT = "/com/tarvinex/orlinth1"
OBJECTS = "org.freedesktop.DBus.ObjectManager"
ALL_SEALS = fcntl.F_SEAL_SEAL | fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW | fcntl.F_SEAL_WRITE


class Refused(Exception):
    """Not done: `missing` is what there is not (any more)."""

    def __init__(self, text, missing=False):
        super().__init__(text or "missing")
        self.text, self.missing = text, missing


def sealed_memory(content):
    number = os.memfd_create("test", os.MFD_ALLOW_SEALING | os.MFD_CLOEXEC)
    os.write(number, content) if content else None
    fcntl.fcntl(number, fcntl.F_ADD_SEALS, ALL_SEALS)
    return number


def content_of(number):
    """What is in sealed memory, which is closed."""
    try:
        if fcntl.fcntl(number, fcntl.F_GET_SEALS) & ALL_SEALS != ALL_SEALS:
            raise AssertionError("it is not sealed")
        return os.pread(number, os.fstat(number).st_size + 1, 0)
    finally:
        os.close(number)


class Watcher:
    """What one who watches has been told: (kind, fields), in its order; "phone gone" and "batch gone" of what is there no
    more."""

    def __init__(self):
        self.told = []
        self.changed = threading.Condition()
        self.ended = False

    def tell(self, kind, fields):
        with self.changed:
            self.told.append((kind, fields))
            self.changed.notify_all()

    def end(self):
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def all(self, kind, **fields):
        with self.changed:
            return [told for is_kind, told in self.told
                    if is_kind == kind and all(told.get(key) == value for key, value in fields.items())]

    def wait(self, kind, **fields):
        """The first of this kind with these fields."""
        with self.changed:
            self.changed.wait_for(lambda: self.ended or self.all(kind, **fields), PATIENCE)
            found = self.all(kind, **fields)
        if not found:
            raise AssertionError(f"no {kind} {fields}, only {self.told}")
        return found[0]


class SocketFace:
    """The control socket: one request a connection."""

    name = "socket"

    def __init__(self, test):
        self.test = test
        self.path = test.mac.data / "Orlinth" / "service.sock"

    def connect(self, request, descriptors=()):
        connection = socket.socket(socket.AF_UNIX)
        self.test.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        connection.connect(str(self.path))
        connection.sendall(json.dumps(request).encode() + b"\n")
        if descriptors:
            socket.send_fds(connection, [b"x"], list(descriptors))
        return connection

    @staticmethod
    def line(connection):
        """The next one; nothing of what is behind it is read."""
        text = b""
        while not text.endswith(b"\n"):
            piece = connection.recv(1)
            if not piece:
                raise AssertionError(f"it ended in a line: {text}")
            text += piece
        return json.loads(text)

    def ask(self, name, descriptors=(), /, **fields):
        reply = self.line(self.connect({"request": name, **fields}, descriptors))
        if "error" in reply:
            raise Refused(reply["error"])
        if reply.get("found") is False:
            raise Refused("", missing=True)
        return reply

    def rename(self, phone, name):
        self.ask("rename_phone", peer_pubkey=phone, name=name)

    def remove(self, phone):
        self.ask("remove_phone", peer_pubkey=phone)

    def wake(self, phone):
        self.ask("wake_phone", peer_pubkey=phone)

    def send_text(self, content, phones=()):
        number = sealed_memory(content)
        try:
            self.ask("send_text", [number], peer_pubkeys=list(phones))
        finally:
            os.close(number)

    def last_text(self):
        connection = self.connect({"request": "last_text"})
        reply = self.line(connection)
        if reply.get("found") is False:
            raise Refused("", missing=True)
        _, [number], _, _ = socket.recv_fds(connection, 1, 1)
        return content_of(number)

    def history(self, before=0, count=500):
        connection = self.connect({"request": "history", "before_epoch_ms": before, "count": count})
        reply = self.line(connection)
        if "error" in reply:
            raise Refused(reply["error"])
        return [self.entry(self.line(connection)) for _ in range(reply["entries"])]

    def restart(self):
        self.ask("restart")

    def clear_history(self):
        self.ask("clear_history")

    def send_files(self, files, phones=()):
        """As programs without a bus do: into the outbox."""
        return self.test.share(*files, to=phones)

    def cancel_transfer(self, transfer):
        self.ask("cancel", transfer=transfer)

    def retry(self, batch, phone):
        self.ask("outbox_retry", batch=batch)

    def drop(self, batch, phone):
        self.ask("outbox_drop", batch=batch)

    def settings(self):
        connection = self.connect({"request": "settings"})
        found = {}
        while (line := self.line(connection))["event"] == "setting":
            found[line["name"]] = line["value"]
        return found

    def set(self, name, value):
        self.ask("set", setting=name, value=value)

    def answer_offer(self, offer, accepts):
        self.ask("accept" if accepts else "decline", offer=offer)

    def pair(self):
        return SocketPairing(self)

    @staticmethod
    def entry(line):
        return {"direction": line["direction"], "phone": line["phone"], "name": line["file"], "state": line["outcome"],
                "size": line["size"], "problem": line.get("problem", ""), "path": line.get("path", ""),
                "time": line["time"]}

    def watch(self):
        """From what there is now on."""
        watcher = Watcher()
        connection = self.connect({"request": "watch"})
        current = threading.Event()

        def read():
            try:
                while True:
                    line = self.line(connection)
                    event = line.pop("event")
                    if event == "current":
                        current.set()
                    elif event == "phone":
                        watcher.tell("phone", {"key": line["peer_pubkey"], "name": line["name"],
                                               "address": line["address"], "can_wake": line["can_wake"]})
                    elif event == "transfer":
                        watcher.tell("transfer", {
                            "id": line["transfer"], "direction": line["direction"], "name": line["name"],
                            "batch": line.get("batch", ""), "state": line["state"], "done": line["bytes_done"],
                            "total": line["total_bytes"], "rate": line["bytes_per_second"],
                            "path": line.get("path", ""), "problem": line.get("message", "")})
                    elif event == "batch":
                        watcher.tell("batch", {"id": line["batch"], "phone": line["peer_pubkey"],
                                               "files": line["files"], "files_done": line["files_done"],
                                               "state": line["state"], "problem": line.get("message", "")})
                    elif event == "history_added":
                        watcher.tell("history", self.entry(line) if line else {})
                    elif event == "offer":
                        watcher.tell("offer", {"id": line["offer"], "name": line["name"], "size": line["size"],
                                               "is_asked": "expires_epoch_ms" in line})
                    elif event == "offer_gone":
                        watcher.tell("offer gone", {"id": line["offer"]})
                    elif event == "setting":
                        watcher.tell("setting", {"name": line["name"], "value": line["value"]})
                    elif event == "setting_gone":
                        watcher.tell("setting gone", {"name": line["name"]})
                    elif event == "batch_gone":
                        watcher.tell("batch gone", {"id": line["batch"]})
                    elif event == "phone_gone":
                        watcher.tell("phone gone", {"key": line["peer_pubkey"]})
            except (OSError, AssertionError):
                watcher.end()

        threading.Thread(target=read, daemon=True).start()
        if not current.wait(PATIENCE):
            raise AssertionError("it does not say what there is")
        return watcher


class SocketPairing:
    """A pairing of whoever has the connection."""

    def __init__(self, face):
        self.face = face
        self.connection = face.connect({"request": "pair", "interface": "lo"})
        waiting = face.line(self.connection)
        if "error" in waiting:
            raise Refused(waiting["error"])
        [number] = socket.recv_fds(self.connection, 1, 1)[1]
        self.code = content_of(number)

    def code_for_join(self, folder):
        """What a phone is given in place of a look at the screen."""
        file = folder / "payload.json"
        file.write_bytes(self.code)
        return ["--payload", str(file)]

    def wait(self, state):
        line = self.face.line(self.connection)
        while line["state"] != state:
            line = self.face.line(self.connection)
        return {"phone": line["phone"], "code": line["confirmation_code"]}

    def confirm(self, is_same):
        self.connection.sendall(json.dumps({"confirm": is_same}).encode() + b"\n")


class BusFace:
    """The session's bus."""

    name = "bus"

    def __init__(self, test):
        self.test = test
        self.client = self.connect()

    def connect(self):
        client = BusClient(self.test.address)
        self.test.addCleanup(client.close)
        return client

    @staticmethod
    def phone_path(key):
        return f"{ROOT}/phones/{hashlib.sha256(base64.b64decode(key)).hexdigest()[:16]}"

    @staticmethod
    def batch_path(batch, phone):
        return f"{ROOT}/batches/{batch.replace('-', '_')}_{BusFace.phone_path(phone).rsplit('/', 1)[1]}"

    def call(self, path, interface, member, signature="", *arguments, descriptors=()):
        try:
            return self.client.call(NAME, path, interface if "." in interface else f"{NAME}.{interface}", member,
                                    signature, *arguments, descriptors=descriptors)
        except BusError as error:
            missing = error.name in (f"{NAME}.Error.NotFound", f"{NAME}.Error.NoSuchPhone",
                                     "org.freedesktop.DBus.Error.UnknownObject")
            raise Refused(error.text.split("\n")[0], missing) from error

    def rename(self, phone, name):
        self.call(self.phone_path(phone), "Phone", "Rename", "s", name)

    def remove(self, phone):
        self.call(self.phone_path(phone), "Phone", "Remove")

    def wake(self, phone):
        self.call(self.phone_path(phone), "Phone", "Wake")

    def send_text(self, content, phones=(), number=None):
        number = sealed_memory(content) if number is None else number
        try:
            self.call(ROOT, "Service", "SendText", "haoa{sv}", 0, [self.phone_path(phone) for phone in phones], {},
                      descriptors=[number])
        finally:
            os.close(number)

    def last_text(self):
        [number] = self.call(ROOT, "Service", "GetLastText").descriptors
        return content_of(number)

    def history(self, before=0, count=500):
        [entries] = self.call(ROOT, "Service", "GetHistory", "tu", before, count).values
        return [self.entry(entry) for entry in entries]

    def restart(self):
        self.call(ROOT, "Service", "Restart")

    def clear_history(self):
        self.call(ROOT, "Service", "ClearHistory")

    def send_files(self, files, phones=()):
        by_name = {fields["Name"]: path for path, fields in self.objects("Phone").items()}
        uris = ["file://" + urllib.parse.quote(str(file)) for file in files]
        [batch] = self.call(ROOT, "Service", "SendFiles", "asaoa{sv}", uris, [by_name[name] for name in phones],
                            {}).values
        return batch

    def cancel_transfer(self, transfer):
        self.call(f"{ROOT}/transfers/{transfer}", "Transfer", "Cancel")

    def retry(self, batch, phone):
        self.call(self.batch_path(batch, phone), "Batch", "RetryNow")

    def drop(self, batch, phone):
        self.call(self.batch_path(batch, phone), "Batch", "Cancel")

    def settings(self):
        [settings] = self.call(ROOT, "org.freedesktop.DBus.Properties", "Get", "ss", f"{NAME}.Service",
                               "Settings").values
        return settings

    def set(self, name, value):
        kind = "b" if isinstance(value, bool) else "t" if isinstance(value, int) else "s"
        self.call(ROOT, "Service", "SetSetting", "sv", name, (kind, value))

    def answer_offer(self, offer, accepts):
        self.call(f"{ROOT}/offers/{offer}", "Offer", "Accept" if accepts else "Decline")

    def pair(self):
        return BusPairing(self)

    def objects(self, kind):
        [managed] = self.call(ROOT, OBJECTS, "GetManagedObjects").values
        return {path: interfaces[f"{NAME}.{kind}"] for path, interfaces in managed.items()
                if f"{NAME}.{kind}" in interfaces}

    @staticmethod
    def entry(entry):
        return {"direction": entry["Direction"], "phone": entry["PhoneName"], "name": entry["Name"],
                "state": entry["State"], "size": entry["BytesTotal"], "problem": entry["Problem"],
                "path": entry["Path"], "time": entry["Time"]}

    def watch(self):
        client = self.connect()
        watcher = BusWatcher(client)
        client.listen(f"type='signal',path_namespace='{ROOT}'")
        [managed] = client.call(NAME, ROOT, OBJECTS, "GetManagedObjects").values
        [settings] = client.call(NAME, ROOT, "org.freedesktop.DBus.Properties", "Get", "ss", f"{NAME}.Service",
                                 "Settings").values
        watcher.begin(managed, settings)
        return watcher


class BusPairing:
    """A pairing of the connection that has asked for it."""

    def __init__(self, face):
        self.face = face
        face.client.listen(f"type='signal',path='{ROOT}/pairing'")
        [self.path] = face.call(ROOT, "Service", "Pair", "a{sv}", {"interface": ("s", "lo")}).values
        [number] = face.call(self.path, "Pairing", "GetCode").descriptors
        self.code = content_of(number)

    def code_for_join(self, folder):
        """What a phone is given in place of a look at the screen."""
        file = folder / "code.png"
        file.write_bytes(self.code)
        return ["--qr", str(file)]

    def wait(self, state):
        self.face.client.wait_until(
            lambda: any(message.type == SIGNAL and message.member == "PropertiesChanged"
                        and message.values[1].get("State") == state for message in self.face.client.messages), state)
        [of] = self.face.call(self.path, "org.freedesktop.DBus.Properties", "GetAll", "s", f"{NAME}.Pairing").values
        return {"phone": of["PhoneName"], "code": of["ConfirmationCode"]}

    def confirm(self, is_same):
        self.face.call(self.path, "Pairing", "Confirm", "b", is_same)


class BusWatcher(Watcher):
    """Puts together what the signals say, as an applet does."""

    def __init__(self, client):
        super().__init__()
        self.client = client
        self.objects = {}  # by path: the kind, and the properties
        self.settings = {}

    def begin(self, managed, settings):
        self.settings = settings
        for path, interfaces in managed.items():
            self.add(path, interfaces)
        threading.Thread(target=self.follow, daemon=True).start()

    def follow(self):
        place = 0
        while True:
            with self.client.changed:
                self.client.changed.wait_for(lambda: self.client.ended or len(self.client.messages) > place)
                messages, place = self.client.messages[place:], len(self.client.messages)
                ended = self.client.ended
            for message in messages:
                if message.type == SIGNAL:
                    self.take(message)
            if ended:
                self.end()
                return

    def add(self, path, interfaces):
        for interface, properties in interfaces.items():
            if interface.startswith(NAME):
                self.objects[path] = (interface.rsplit(".", 1)[1], dict(properties))
                self.show(path)

    def take(self, message):
        if message.member == "InterfacesAdded":
            self.add(*message.values)
        elif message.member == "InterfacesRemoved":
            path = message.values[0]
            kind, properties = self.objects.pop(path, ("", {}))
            self.tell(f"{kind.lower()} gone", self.names_of(path, kind, properties))
        elif message.member == "PropertiesChanged":
            path, changed = message.fields[1], message.values[1]
            if path == ROOT and "Settings" in changed:
                self.compare(changed["Settings"])
            if path in self.objects:
                self.objects[path][1].update(changed)
                self.show(path)
        elif message.member == "HistoryAdded":
            [entry] = message.values
            self.tell("history", BusFace.entry(entry) if entry else {})

    def compare(self, settings):
        before, self.settings = self.settings, settings
        for name, value in settings.items():
            if before.get(name) != value:
                self.tell("setting", {"name": name, "value": value})
        for name in before.keys() - settings.keys():
            self.tell("setting gone", {"name": name})

    @staticmethod
    def names_of(path, kind, properties):
        if kind == "Phone":
            return {"key": properties["PublicKey"]}
        if kind == "Batch":
            return {"id": path.rsplit("/", 1)[1].rsplit("_", 1)[0].replace("_", "-")}
        if kind == "Offer":
            return {"id": int(path.rsplit("/", 1)[1])}
        return {}

    def show(self, path):
        kind, of = self.objects[path]
        if kind == "Phone":
            self.tell("phone", {"key": of["PublicKey"], "name": of["Name"], "address": of["Address"],
                                "can_wake": of["CanWake"]})
        elif kind == "Transfer":
            self.tell("transfer", {"id": int(path.rsplit("/", 1)[1]), "direction": of["Direction"], "name": of["Name"],
                                   "batch": of["Batch"], "state": of["State"], "done": of["BytesDone"],
                                   "total": of["BytesTotal"], "rate": of["BytesPerSecond"], "path": of["Path"],
                                   "problem": of["Problem"][0]})
        elif kind == "Offer":
            self.tell("offer", {**self.names_of(path, kind, of), "name": of["Name"], "size": of["Size"],
                                "is_asked": of["Expires"] > 0})
        elif kind == "Batch":
            self.tell("batch", {**self.names_of(path, kind, of), "phone": of["Phone"], "files": of["FilesTotal"],
                                "files_done": of["FilesDone"], "state": of["State"], "problem": of["Problem"][0]})


FACES = (SocketFace, BusFace)
