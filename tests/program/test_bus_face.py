"""What others find on the session's bus: the service as objects, as its description has them. What can be asked of it
there and by the control socket alike is in test_both_faces.py."""

import json
import os
import pathlib
import subprocess
import threading
import urllib.parse
import xml.etree.ElementTree

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from harness import MIB, PATIENCE, Identity
from outbox_world import OutboxTest
from private_bus import BusTestMixin
from service_client import ServiceClient

NAME = "com.tarvinex.orlinth1"
ROOT = "/com/tarvinex/orlinth1"
DESCRIPTION = pathlib.Path(os.environ["ORLINTH_SOURCE"]) / "packaging" / "dbus" / f"{NAME}.xml"
EMITS = "org.freedesktop.DBus.Property.EmitsChangedSignal"
SLOWLY = 4 * MIB


def interfaces_in(text):
    """By name: methods and signals with their arguments, properties with their types, as sets."""
    found = {}
    for interface in xml.etree.ElementTree.fromstring(text).iter("interface"):
        methods = {(method.get("name"), tuple((arg.get("name"), arg.get("type"), arg.get("direction"))
                                              for arg in method.iter("arg"))) for method in interface.iter("method")}
        properties = {(prop.get("name"), prop.get("type"), prop.get("access"),
                       next((note.get("value") for note in prop.iter("annotation") if note.get("name") == EMITS),
                            "true")) for prop in interface.iter("property")}
        signals = {(signal.get("name"), tuple((arg.get("name"), arg.get("type")) for arg in signal.iter("arg")))
                   for signal in interface.iter("signal")}
        found[interface.get("name")] = (methods, properties, signals)
    return found


class Messages(threading.Thread):
    """What a monitor of the bus writes, a message a line."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream, self.all, self.changed, self.ended = stream, [], threading.Condition(), False
        self.start()

    def run(self):
        for line in self.stream:
            with self.changed:
                self.all.append(json.loads(line))
                self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def wait_until(self, condition, what):
        with self.changed:
            if not self.changed.wait_for(lambda: self.ended or condition(), PATIENCE) or not condition():
                raise AssertionError(f"no {what}, only {self.all}")


class BusFace(BusTestMixin, OutboxTest):
    def setUp(self):
        super().setUp()
        self.on_usual_folder(self.mac)
        self.mac.record(self.phone)
        self.phone.record(self.mac)

    def busctl(self, *arguments, status=0):
        result = subprocess.run(["busctl", f"--address={self.address}", "--json=short", *arguments],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
        self.assertEqual(status, result.returncode, result.stderr + result.stdout)
        return json.loads(result.stdout)["data"] if status == 0 and result.stdout.strip() else result.stderr

    def call(self, path, interface, method, *arguments, status=0):
        return self.busctl("call", NAME, path, interface if "." in interface else f"{NAME}.{interface}", method,
                           *arguments, status=status)

    def get(self, path, interface, name):
        return self.busctl("get-property", NAME, path, f"{NAME}.{interface}", name)

    def objects(self, kind):
        """By path, the properties of all objects of this kind."""
        [managed] = self.call(ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
        return {path: {name: value["data"] for name, value in interfaces[f"{NAME}.{kind}"].items()}
                for path, interfaces in managed.items() if f"{NAME}.{kind}" in interfaces}

    def monitor(self):
        """Everything that comes over the bus from now on, as a list that grows."""
        process = subprocess.Popen(["busctl", f"--address={self.address}", "--json=short", "monitor"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        messages = Messages(process.stdout)
        # it says nothing when it begins: until it has heard of somebody who came after it
        def hears():
            subprocess.run(["busctl", f"--address={self.address}", "status"], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, timeout=PATIENCE)
            return messages.all
        while not hears():
            self.assertIsNone(process.poll(), "the monitor has ended")
        return messages

    def signals(self, monitor, member, interface=None):
        """Their paths and payloads."""
        found = []
        for message in list(monitor.all):
            if message.get("type") == "signal" and message.get("member") == member:
                data = message["payload"]["data"]
                if interface is None or data[0] == f"{NAME}.{interface}":
                    found.append((message["path"], data))
        return found

    def changes(self, monitor, kind):
        """For each path, the values of a property in their order, as objects appeared and changed."""
        found = []
        for message in list(monitor.all):
            if message.get("member") == "InterfacesAdded":
                path, interfaces = message["payload"]["data"]
                values = interfaces.get(f"{NAME}.{kind}")
            elif message.get("member") == "PropertiesChanged" and message["payload"]["data"][0] == f"{NAME}.{kind}":
                path, values = message["path"], message["payload"]["data"][1]
            else:
                continue
            if values:
                found.append((path, {name: value["data"] for name, value in values.items()}))
        return found

    def removed(self, monitor):
        return [data[0] for _, data in self.signals(monitor, "InterfacesRemoved")]

    def slow_phone(self):
        service = self.serve(self.phone)
        gate = self.gate(service.port, bytes_per_second=SLOWLY)
        self.mac.record(self.phone, gate.port)
        return service

    def send(self, *files, phones=()):
        uris = ["file://" + urllib.parse.quote(str(file)) for file in files]
        [batch] = self.call(ROOT, "Service", "SendFiles", "asaoa{sv}", str(len(uris)), *uris, str(len(phones)), *phones,
                            "0")
        return batch

    def test_it_is_as_the_installed_description_says(self):
        service = self.serve(self.mac, "--accept", "ask")
        self.send(self.file("a.txt", b"a"))
        self.send_something_slowly()
        self.be_asked(service)
        described = interfaces_in(DESCRIPTION.read_text(encoding="utf-8"))
        shown = {}
        [managed] = self.call(ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
        for path in (ROOT, *managed):
            [text] = self.call(path, "org.freedesktop.DBus.Introspectable", "Introspect")
            shown.update({name: what for name, what in interfaces_in(text).items() if name.startswith(NAME)})
        self.assertEqual(described, shown)
        self.end(service)

    def be_asked(self, service):
        """Until the phone has offered a file, somebody is to say whether to take it, and a pairing runs."""
        client = ServiceClient(self.address)
        self.addCleanup(client.close)
        client.call(ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
        monitor = self.monitor()
        self.phone.record(self.mac, service.port)
        self.running(self.phone, "send", "--to", "mac", str(self.file("b.txt", b"b")))
        monitor.wait_until(lambda: self.changes(monitor, "Offer"), "an offer")
        client.call(ROOT, f"{NAME}.Service", "Pair", "a{sv}", {"interface": ("s", "lo")})

    def send_something_slowly(self):
        """Until there is a transfer."""
        self.slow_phone()
        monitor = self.monitor()
        self.send(self.file("film.bin", bytes(64 * MIB)))
        monitor.wait_until(lambda: self.changes(monitor, "Transfer"), "a transfer")

    def test_the_service_and_its_phones(self):
        service = self.serve(self.mac)
        monitor = self.monitor()
        self.assertEqual(service.port, self.get(ROOT, "Service", "Port"))
        self.assertEqual("listening", self.get(ROOT, "Service", "State"))
        self.assertEqual(self.mac.key, self.get(ROOT, "Service", "PublicKey"))
        self.assertEqual(str(self.mac.data / "Orlinth"), self.get(ROOT, "Service", "DataDirectory"))
        [(path, phone)] = self.objects("Phone").items()
        self.assertRegex(path, "^" + ROOT + "/phones/[0-9a-f]{16}$")
        self.assertEqual(("phone", self.phone.key, "127.0.0.1", False, 0),
                         tuple(phone[name] for name in ("Name", "PublicKey", "Address", "CanWake", "WaitingFiles")))
        tablet = Identity(self.folder, "tablet")
        self.mac.record(tablet)
        monitor.wait_until(lambda: any("Name" in values and values["Name"] == "tablet"
                                       for _, values in self.changes(monitor, "Phone")), "another phone")
        self.assertEqual(0, self.mac.run("peers", "remove", "tablet").returncode)
        monitor.wait_until(lambda: self.removed(monitor), "that it has gone")
        self.assertEqual([path], list(self.objects("Phone")))
        self.end(service)

    def test_a_batch_is_cancelled_for_one_phone(self):
        tablet = self.another_phone("tablet")
        service = self.serve(self.mac)
        monitor = self.monitor()
        phones = {phone["Name"]: path for path, phone in self.objects("Phone").items()}
        batch = self.send(self.file("a.txt", b"a"), self.file("b.txt", b"b"), phones=sorted(phones.values()))
        monitor.wait_until(lambda: len({path for path, _ in self.changes(monitor, "Batch")}) == 2, "both")
        batches = self.objects("Batch")
        self.assertEqual({2}, {each["FilesTotal"] for each in batches.values()})
        [its_own] = [path for path, each in batches.items() if each["Phone"] == phones["tablet"]]
        self.call(its_own, "Batch", "Cancel")
        monitor.wait_until(lambda: its_own in self.removed(monitor), "the end of one")
        self.phone_listens()
        monitor.wait_until(lambda: set(batches) <= set(self.removed(monitor)), "the end of the other")
        self.assertEqual({"a.txt", "b.txt"}, {path.name for path in self.phone.downloads.iterdir()})
        self.assertEqual([], list(tablet.downloads.iterdir()))
        self.assertNotIn(batch, self.batches())
        self.end(service)

    def test_what_cannot_be_sent_is_said(self):
        service = self.serve(self.mac)
        for uris, expected in ((["file:///nowhere"], "'/nowhere' cannot be shared"),
                               (["file:///nowhere/%FF%0A"], "cannot be shared"),
                               (["https://example.org/"], "is not the URI of a file"),
                               (["file://server/a"], "is on another computer"),
                               (["file:///a%zz"], "stands for nothing"),
                               ([], "Could not read the shared file")):
            error = self.call(ROOT, "Service", "SendFiles", "asaoa{sv}", str(len(uris)), *uris, "0", "0", status=1)
            self.assertIn(expected, error)
        error = self.call(ROOT, "Service", "SendFiles", "asaoa{sv}", "0", "1", ROOT + "/phones/0", "0", status=1)
        self.assertIn("there is no such phone", error)
        self.assertIn("Unknown object", self.call(ROOT + "/transfers/7", "Transfer", "Cancel", status=1))
        self.assert_nothing_left()
        self.end(service)

    def test_a_setting_that_is_changed_is_told(self):
        service = self.serve(self.mac)
        monitor = self.monitor()
        self.call(ROOT, "Service", "SetSetting", "sv", "accept", "s", "ask")
        self.assertEqual("ask", self.get(ROOT, "Service", "Settings")["accept"]["data"])
        monitor.wait_until(lambda: any(values.get("Settings", {}).get("accept", {}).get("data") == "ask"
                                       for _, values in self.changes(monitor, "Service")), "the change")
        self.assertEqual(["clipboard", "dir"], sorted(self.get(ROOT, "Service", "FixedSettings")))
        self.end(service)

    def test_a_second_service_and_one_of_another_folder_do_their_work_without_the_name(self):
        first = self.serve(self.mac)
        other = Identity(self.folder, "other")
        other.environment["DBUS_SESSION_BUS_ADDRESS"] = self.address
        elsewhere = self.serve(other)
        twin = Identity(self.folder, "twin")
        twin.environment.pop("XDG_DATA_HOME")
        twin.environment["DBUS_SESSION_BUS_ADDRESS"] = self.address
        second = self.serve(twin)
        self.assertEqual(first.port, self.get(ROOT, "Service", "Port"))
        for service in (elsewhere, second, first):
            self.end(service)

    def test_without_a_bus_the_service_does_its_work(self):
        self.mac.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.folder}/nowhere"
        self.phone_listens()
        service = self.serve(self.mac)
        self.share(self.file("a.txt", b"a"))
        self.wait_for(service, "outbox_done")
        self.end(service)


if __name__ == "__main__":
    side_by_side.main()
