"""What can be asked of the service, and what it tells, is the same by its control socket and by the session's bus: each
row of the table below is run with both. All that comes over the bus meanwhile is looked through for what must never be in
a message: texts, push tokens, what is in files, keys."""

import base64
import functools
import json
import os

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from bus_client import BUS, BusClient, BusError
from faces import FACES, NAME, ROOT, BusFace, Refused, sealed_memory
from harness import MIB, PATIENCE, Identity, random_key, unused_port
from https_server import PushServer
from outbox_world import OutboxTest
from private_bus import BusTestMixin

TEXT = "a text that is nobody else's business: Grüße, 東京"
TOKEN = "a-push-token-that-nobody-may-see"
CONTENT = b"the content of a file, which is in no message"
SLOWLY = 4 * MIB

# Each takes the test and the face. It may return a text that is in the messages of the bus, whichever face was asked.
TABLE = []


def row(case):
    TABLE.append(case)
    return case


class BothFaces(BusTestMixin, OutboxTest):
    def setUp(self):
        super().setUp()
        self.on_usual_folder(self.mac)
        self.mac.record(self.phone, token=TOKEN)
        self.phone.record(self.mac)

    def eavesdrop(self):
        monitor = BusClient(self.address)
        self.addCleanup(monitor.close)
        monitor.become_monitor()
        return monitor

    def assert_nothing_secret(self, monitor):
        """Of all that came over the bus up to now, which is returned."""
        last = BusClient(self.address)
        self.addCleanup(last.close)
        last.call(*BUS, "NameHasOwner", "s", "com.example.TheEnd")
        monitor.wait_until(lambda: any(b"com.example.TheEnd" in message.raw for message in monitor.messages), "end")
        key = (self.mac.data / "Orlinth" / "noise_static.bin").read_bytes()
        self.assertGreaterEqual(len(key), 32)
        with monitor.changed:
            everything = b"".join(message.raw for message in monitor.messages)
        self.assertNotIn(TOKEN.encode(), everything)
        self.assertNotIn(TEXT.encode(), everything)
        self.assertNotIn(CONTENT, everything)
        for form in (key, base64.b64encode(key), key.hex().encode()):
            self.assertNotIn(form, everything)
        return everything

    def slow_phone(self):
        """The phone's service behind a slow way, at which the mac knows it."""
        service = self.serve(self.phone)
        gate = self.gate(service.port, bytes_per_second=SLOWLY)
        self.mac.record(self.phone, gate.port, token=TOKEN)
        return service

    def texts_come(self, service, count):
        """Until the service has taken so many: a text that was delivered is on its way through it."""
        service.events.wait_until(
            lambda: [event["event"] for event in service.events.all].count("clipboard") == count, "the text")

    def refusal(self, call, *arguments):
        with self.assertRaises(Refused) as caught:
            call(*arguments)
        return caught.exception

    def assert_missing(self, call, *arguments):
        self.assertTrue(self.refusal(call, *arguments).missing)

    def peers(self, identity):
        return {line["peer"]["peer_hostname"] if "peer" in line else line["peer_hostname"]
                for line in map(json.loads, identity.run("peers", "--json").stdout.splitlines())}


# Phones

@row
def a_phone_is_renamed(test, face):
    test.another_phone("tablet")
    service = test.serve(test.mac)
    watcher = face.watch()
    face.rename(test.phone.key, "  Grüner Klee ")
    watcher.wait("phone", key=test.phone.key, name="Grüner Klee")
    test.assertEqual({"Grüner Klee", "tablet"}, test.peers(test.mac))
    for name, expected in (("tablet", "another phone is called 'tablet'"),
                           ("TABLET", "another phone is called 'TABLET'"),
                           ("", "'' cannot be the name of a phone"),
                           ("a\nb", "'a\\u{000A}b' cannot be the name of a phone"),
                           ("x" * 1000, "cannot be the name of a phone")):
        refusal = test.refusal(face.rename, test.phone.key, name)
        test.assertFalse(refusal.missing)
        test.assertIn(expected, refusal.text)
    test.assert_missing(face.rename, random_key(), "Nobody")
    test.assertEqual({"Grüner Klee", "tablet"}, test.peers(test.mac))
    test.end(service)
    return "Grüner Klee"


@row
def a_phone_is_removed_and_notified(test, face):
    receiving = test.phone_listens()
    service = test.serve(test.mac)
    watcher = face.watch()
    face.remove(test.phone.key)
    watcher.wait("phone gone", key=test.phone.key)
    test.assertEqual(set(), test.peers(test.mac))
    test.wait_until(lambda: not test.peers(test.phone), test.phone.peer_file)
    test.assert_missing(face.remove, test.phone.key)
    test.end(service)
    test.end(receiving)


@row
def a_phone_that_is_away_is_removed_and_notified_when_it_comes(test, face):
    service = test.serve(test.mac)
    face.remove(test.phone.key)
    test.assertEqual(set(), test.peers(test.mac))
    test.phone.record(test.mac, service.port)
    result = test.phone.run("clip", "--text", "hello?")
    test.assertEqual(1, result.returncode)
    test.assertIn("removed this Mac", result.stderr)
    test.end(service)


@row
def a_phone_is_woken(test, face):
    server = PushServer(test.folder / "push")
    test.addCleanup(server.close)
    test.mac.environment.update(server.environment)
    service = test.serve(test.mac)
    test.assertIn("service account", test.refusal(face.wake, test.phone.key).text)
    server.write_service_account(test.mac.data / "Orlinth" / "firebase-service-account.json")
    face.wake(test.phone.key)
    test.assertEqual([], server.problems)
    [push] = server.requests("push")
    test.assertEqual(TOKEN, json.loads(push.body)["message"]["token"])
    tablet = test.another_phone("tablet")
    face.watch().wait("phone", key=tablet.key)
    refusal = test.refusal(face.wake, tablet.key)
    test.assertEqual("no push token is recorded for 'tablet'", refusal.text)
    test.assert_missing(face.wake, random_key())
    test.end(service)


# Texts

@row
def a_text_is_sent(test, face):
    receiving = test.phone_listens()
    service = test.serve(test.mac)
    face.send_text(TEXT.encode(), [test.phone.key])
    test.wait_for(receiving, "clipboard", text=TEXT)
    face.send_text(("x" * MIB).encode())  # to the only phone
    test.wait_for(receiving, "clipboard", text="x" * MIB)
    test.end(service)
    test.end(receiving)


@row
def a_text_is_sent_to_two_phones_of_which_one_is_away(test, face):
    test.another_phone("tablet")
    receiving = test.phone_listens()
    service = test.serve(test.mac)
    keys = [peer["peer_pubkey"] for peer in json.loads(test.mac.peer_file.read_text())["peers"]]
    test.assertEqual(2, len(keys))
    refusal = test.refusal(face.send_text, TEXT.encode(), keys)
    test.assertIn("not every phone has got the text: tablet: network: ", refusal.text)
    test.assertNotIn("phone:", refusal.text.replace("every phone", ""))
    test.wait_for(receiving, "clipboard", text=TEXT)
    test.end(service)
    test.end(receiving)


@row
def what_is_no_text_is_not_sent(test, face):
    service = test.serve(test.mac)
    for content, expected in ((b"", "there is no text to send"), (b"\xff\xfe", "the text is not UTF-8"),
                              (bytes(16 * MIB + 1), "Message too long")):
        test.assertIn(expected, test.refusal(face.send_text, content, [test.phone.key]).text)
    test.assert_missing(face.send_text, TEXT.encode(), [random_key()])
    refusal = test.refusal(face.send_text, TEXT.encode(), [test.phone.key])  # nobody is there
    test.assertFalse(refusal.missing)
    test.assertNotIn(TEXT, refusal.text)
    test.end(service)


@row
def the_last_text_is_handed_over(test, face):
    service = test.serve(test.mac)
    test.assert_missing(face.last_text)
    test.phone.record(test.mac, service.port)
    for number, text in enumerate((TEXT, "x" * MIB, TEXT), 1):
        test.assertEqual(0, test.phone.run("clip", "-", input=text).returncode)
        test.texts_come(service, number)
        test.assertEqual(text.encode(), face.last_text())
    test.assertEqual(0, test.mac.run("clip", "--forget").returncode)
    test.assert_missing(face.last_text)
    test.end(service)


# History

@row
def the_history_is_followed_read_and_cleared(test, face):
    receiving = test.phone_listens()
    service = test.serve(test.mac)
    test.phone.record(test.mac, service.port)
    test.assertEqual([], face.history())
    watcher = face.watch()
    names = ["a.txt", "ä b.txt", "c.txt"]
    for name in names:
        face.send_files([test.file(name, CONTENT)])
        watcher.wait("history", name=name)
    came = test.file("came.txt", CONTENT)
    test.assertEqual(0, test.phone.run("send", str(came)).returncode)
    told = watcher.wait("history", name="came.txt")
    test.assertEqual(("in", "phone", "done", len(CONTENT), str(test.mac.downloads / "came.txt")),
                     tuple(told[key] for key in ("direction", "phone", "state", "size", "path")))
    entries = face.history()
    test.assertEqual(["came.txt", *reversed(names)], [entry["name"] for entry in entries])
    test.assertEqual(["in", "out", "out", "out"], [entry["direction"] for entry in entries])
    test.assertEqual(told, entries[0])
    test.assertEqual(sorted((entry["time"] for entry in entries), reverse=True), [entry["time"] for entry in entries])
    paged, before = [], 0
    while page := face.history(before, 1):
        paged += page
        before = page[-1]["time"]
    test.assertEqual(entries, paged)
    for count in (0, 501):
        test.assertIn("1 to 500 entries", test.refusal(face.history, 0, count).text)
    face.clear_history()
    test.assertEqual([], face.history())
    test.assertEqual("", test.mac.run("history").stdout)
    with watcher.changed:
        watcher.changed.wait_for(lambda: watcher.ended or ("history", {}) in watcher.told, PATIENCE)
        test.assertIn(("history", {}), watcher.told)
    test.end(service)
    test.end(receiving)


# Questions and pairings

@row
def an_offered_file_is_taken_or_declined(test, face):
    service = test.serve(test.mac, "--accept", "ask")
    test.phone.record(test.mac, service.port)
    watcher = face.watch()
    for name, accepts in (("yes.txt", True), ("no.txt", False)):
        sending = test.running(test.phone, "send", "--to", "mac", "--json", str(test.file(name, CONTENT)))
        offer = watcher.wait("offer", name=name, is_asked=True)
        test.assertEqual(len(CONTENT), offer["size"])
        face.answer_offer(offer["id"], accepts)
        test.assertEqual(0 if accepts else 1, sending.wait(), sending.stderr)
        watcher.wait("offer gone", id=offer["id"])
        test.assert_missing(face.answer_offer, offer["id"], True)
    test.assertEqual(CONTENT, (test.mac.downloads / "yes.txt").read_bytes())
    test.assertFalse((test.mac.downloads / "no.txt").exists())
    test.end(service)


@row
def a_phone_is_paired(test, face):
    tablet = Identity(test.folder, "tablet")
    service = test.serve(test.mac)
    watcher = face.watch()
    pairing = face.pair()
    test.assertEqual("another pairing is under way", test.refusal(face.pair).text)
    joined = test.running(tablet, "join", "--listen-port", str(unused_port()), "--json", "--yes",
                          *pairing.code_for_join(test.folder))
    test.assertEqual(0, joined.wait(), joined.stderr)
    confirming = pairing.wait("confirming")
    test.assertEqual(joined.events.find("introduction")["confirmation_code"], confirming["code"])
    test.assertEqual({"phone"}, test.peers(test.mac), "nobody has confirmed")
    pairing.confirm(True)
    test.assertEqual(confirming, pairing.wait("done"))
    watcher.wait("phone", key=tablet.key, name=confirming["phone"])
    test.end(service)
    return None if face.name == "socket" else confirming["code"]


# Files

@row
def a_batch_is_sent_and_watched_to_its_end(test, face):
    receiving = test.slow_phone()
    service = test.serve(test.mac)
    watcher = face.watch()
    file = test.file("a film, ä.bin", CONTENT + os.urandom(12 * MIB))
    batch = face.send_files([file], ["phone"])
    done = watcher.wait("transfer", state="done")
    test.assertEqual(("out", file.name, batch, file.stat().st_size, file.stat().st_size),
                     tuple(done[key] for key in ("direction", "name", "batch", "done", "total")))
    steps = [told["done"] for told in watcher.all("transfer", id=done["id"])]
    test.assertEqual(sorted(steps), steps)
    test.assertGreaterEqual(len(steps), 4, "12 MiB at 4 MiB a second are three seconds")
    rates = [told["rate"] for told in watcher.all("transfer", id=done["id"], state="active")]
    test.assertTrue(any(SLOWLY / 4 < rate < SLOWLY * 5 for rate in rates), rates)
    test.assertIn("sending", [told["state"] for told in watcher.all("batch", id=batch)])
    watcher.wait("batch gone", id=batch)
    test.assert_arrived([file])
    test.assert_nothing_left()
    test.assert_missing(face.cancel_transfer, done["id"])
    test.end(service)
    test.end(receiving)


@row
def a_file_that_comes_is_watched_to_its_end(test, face):
    service = test.serve(test.mac)
    gate = test.gate(service.port, bytes_per_second=SLOWLY)
    test.phone.record(test.mac, gate.port)
    sending = test.serve(test.phone)
    watcher = face.watch()
    file = test.file("film.bin", CONTENT + bytes(8 * MIB))
    test.share(file, identity=test.phone)
    done = watcher.wait("transfer", state="done")
    test.assertEqual(("in", "film.bin", "", file.stat().st_size, str(test.mac.downloads / "film.bin")),
                     tuple(done[key] for key in ("direction", "name", "batch", "done", "path")))
    steps = [told["done"] for told in watcher.all("transfer", id=done["id"])]
    test.assertEqual(sorted(steps), steps)
    test.end(sending)
    test.end(service)


@row
def what_is_sent_is_cancelled(test, face):
    receiving = test.slow_phone()
    service = test.serve(test.mac)
    watcher = face.watch()
    batch = face.send_files([test.file("film.bin", bytes(64 * MIB))])
    transfer = watcher.wait("transfer", state="active")["id"]
    face.cancel_transfer(transfer)
    watcher.wait("transfer", id=transfer, state="cancelled")
    watcher.wait("batch gone", id=batch)
    test.wait_for(receiving, "error")
    test.assert_nothing_left()
    test.assertEqual([], [event for event in service.events.all if event["event"] in ("outbox_done", "outbox_failed")])
    test.assertEqual("cancelled", watcher.wait("history", name="film.bin")["state"])
    test.assert_missing(face.cancel_transfer, transfer)
    test.assert_missing(face.cancel_transfer, 10 ** 6)
    test.end(service)
    test.end(receiving)


@row
def what_comes_is_cancelled_and_declined_from_then_on(test, face):
    service = test.serve(test.mac)
    gate = test.gate(service.port, bytes_per_second=SLOWLY)
    test.phone.record(test.mac, gate.port)
    sending = test.serve(test.phone)
    watcher = face.watch()
    test.share(test.file("film.bin", bytes(64 * MIB)), identity=test.phone)
    transfer = watcher.wait("transfer", state="active", direction="in")["id"]
    face.cancel_transfer(transfer)
    watcher.wait("transfer", id=transfer, state="cancelled")
    test.wait_for(service, "declined", name="film.bin")
    test.wait_for(sending, "outbox_failed")
    test.assertEqual(1, len(list(test.mac.downloads.glob("film.bin.partial"))), "what has come stays")
    test.end(sending)
    test.end(service)


@row
def a_batch_is_tried_again_at_once(test, face):
    port = unused_port()
    test.mac.record(test.phone, port)
    service = test.serve(test.mac)
    watcher = face.watch()
    batch = face.send_files([test.file("a.txt", CONTENT)])
    paused = watcher.wait("batch", id=batch, state="paused")
    test.assertEqual((1, 0), (paused["files"], paused["files_done"]))
    test.assertIn("refused", paused["problem"])
    receiving = test.serve(test.phone, port=port)
    face.retry(batch, test.phone.key)
    watcher.wait("batch gone", id=batch)
    test.assertEqual(["a.txt"], [path.name for path in test.phone.downloads.iterdir()])
    test.assert_missing(face.retry, batch, test.phone.key)
    test.end(service)
    test.end(receiving)


@row
def a_batch_is_taken_back(test, face):
    service = test.serve(test.mac)
    watcher = face.watch()
    batch = face.send_files([test.file("a.txt", CONTENT), test.file("b.txt", CONTENT)])
    test.assertEqual(2, watcher.wait("batch", id=batch)["files"])
    face.drop(batch, test.phone.key)
    watcher.wait("batch gone", id=batch)
    test.wait_until(lambda: not test.batches(), test.outbox)
    test.assert_missing(face.drop, batch, test.phone.key)
    test.end(service)


# Settings

@row
def settings_are_read_and_changed(test, face):
    service = test.serve(test.mac)
    test.assertTrue(face.settings()["history"])
    watcher = face.watch()
    of_phone = f"phones.{test.phone.key}.accept"
    for name, value in (("history", False), ("max-file", 1000), ("name", "Büro"), ("accept", "never"),
                        (of_phone, "always")):
        face.set(name, value)
        test.assertEqual(value, face.settings()[name])
        watcher.wait("setting", name=name, value=value)
    face.set(of_phone, "")
    watcher.wait("setting gone", name=of_phone)
    for name, value in (("history", "perhaps"), ("nonsense", True), ("accept", "sometimes"), ("dir", "/nowhere")):
        before = face.settings()
        test.refusal(face.set, name, value)
        test.assertEqual(before, face.settings())
    test.end(service)


# The service itself

@row
def nobody_would_start_it_again(test, face):
    service = test.serve(test.mac)
    test.assertIn("no service manager would start the service again", test.refusal(face.restart).text)
    test.end(service)


def with_face(case, kind):
    @functools.wraps(case)
    def test(self):
        monitor = self.eavesdrop()
        public = case(self, LateFace(self, kind)) or NAME
        self.assertIn(public.encode(), self.assert_nothing_secret(monitor), "what is public the monitor has heard")
    return test


class LateFace:
    """The face, made when it is first used: by then the service runs."""

    def __init__(self, test, kind):
        self.make = functools.cache(lambda: kind(test))

    def __getattr__(self, name):
        return getattr(self.make(), name)


for each in TABLE:
    for of in FACES:
        setattr(BothFaces, f"test_{each.__name__}_by_the_{of.name}", with_face(each, of))


class OnTheBusAlone(BothFaces):
    """What the socket has no counterpart of: names of errors, other descriptors than sealed memory, and that signals are
    few."""

    def test_errors_have_names_and_hints(self):
        service = self.serve(self.mac)
        face = BusFace(self)
        tablet = self.another_phone("tablet")
        face.watch().wait("phone", key=tablet.key)
        phone, away = face.phone_path(tablet.key), face.phone_path(random_key())
        memory = sealed_memory(b"text")
        self.addCleanup(os.close, memory)
        service_interface = f"{NAME}.Service"
        for expected, text, *call in (
                ("InvalidArgument", "'' cannot be the name", phone, f"{NAME}.Phone", "Rename", "s", ""),
                ("InvalidArgument", "another phone is called", phone, f"{NAME}.Phone", "Rename", "s", "Phone"),
                ("Failed", "no push token is recorded for 'tablet'\nWithout one", phone, f"{NAME}.Phone", "Wake"),
                ("InvalidArgument", "1 to 500 entries", ROOT, service_interface, "GetHistory", "tu", 0, 0),
                ("NotFound", "there is no text", ROOT, service_interface, "GetLastText"),
                ("NoSuchPhone", "there is no such phone", ROOT, service_interface, "SendText", "haoa{sv}", 0, [away], {}),
                ("Failed", "network: ", ROOT, service_interface, "SendText", "haoa{sv}", 0, [phone], {})):
            with self.subTest(call), self.assertRaises(BusError) as caught:
                face.client.call(NAME, *call, descriptors=[memory] if "SendText" in call else [])
            self.assertEqual(f"{NAME}.Error.{expected}", caught.exception.name)
            self.assertIn(text, caught.exception.text)
        self.end(service)

    def test_many_small_files_are_few_signals_and_nobody_misses_that_there_are_more(self):
        receiving = self.phone_listens()
        service = self.serve(self.mac)
        face = BusFace(self)
        watcher = face.watch()
        files = [self.file(f"{number}.txt", CONTENT) for number in range(100)]
        batch = face.send_files(files)
        watcher.wait("batch gone", id=batch)
        names = {file.name for file in files}
        self.assertEqual(names, {entry["name"] for entry in face.history()})

        def is_known():
            told = watcher.all("history")
            last_anew = max((i for i, entry in enumerate(told) if not entry), default=None)
            return last_anew is not None or names == {entry["name"] for entry in told}
        with watcher.changed:
            self.assertTrue(watcher.changed.wait_for(is_known, PATIENCE), watcher.told)
        self.assertLess(len(watcher.all("history")), len(files))
        self.assertEqual([], watcher.all("transfer"))
        self.end(service)
        self.end(receiving)

    def test_a_text_may_come_in_any_file_or_by_a_pipe(self):
        receiving = self.phone_listens()
        service = self.serve(self.mac)
        face = BusFace(self)
        reader, writer = os.pipe()
        os.write(writer, b"by a pipe")
        os.close(writer)
        memory = os.memfd_create("open")
        os.write(memory, b"in open memory")
        for number, text in ((memory, "in open memory"), (reader, "by a pipe"),
                             (os.open(self.file("a", b"in a file"), os.O_RDONLY), "in a file")):
            face.send_text(None, [self.phone.key], number)
            self.wait_for(receiving, "clipboard", text=text)
        self.assertIn("neither a file nor a pipe", self.refusal(face.send_text, None, [],
                                                                os.open("/dev/zero", os.O_RDONLY)).text)
        self.end(service)
        self.end(receiving)

    def test_a_pipe_without_end_holds_nobody_up(self):
        service = self.serve(self.mac)
        face = BusFace(self)
        reader, writer = os.pipe()
        self.addCleanup(os.close, writer)
        serial = face.client.send(NAME, ROOT, f"{NAME}.Service", "SendText", "haoa{sv}", 0, [], {}, descriptors=[reader])
        os.close(reader)
        self.assertEqual([], face.history())
        with self.assertRaises(BusError) as caught:
            face.client.answer(serial)
        self.assertEqual(f"{NAME}.Error.InvalidArgument", caught.exception.name)
        self.assertEqual("the text cannot be read: Connection timed out", caught.exception.text)
        self.end(service)


for name in [name for name in dir(BothFaces) if name.startswith("test_")]:
    setattr(OnTheBusAlone, name, None)  # each once


if __name__ == "__main__":
    side_by_side.main()
