"""Phones that sleep, or vanish, in a network of their own: what the kernel itself says about them.

A phone whose radio is off answers no ARP, so that its address cannot be reached; one that is waking up has its address
back before the app has opened its port. On loopback there is no such thing. So the computer and the phones are in two
network namespaces with a wire between them, and the push service is in that of the computer.

Each case takes several seconds, nearly all of it waiting: all of them run side by side, before the first test, and the
tests look at what came of each.

Needs root and iproute2.
"""

import concurrent.futures
import ctypes
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

from harness import CLIP_PHONE, MIB, ORLINTH, PATIENCE, Identity, Running, sha256
from https_server import PushServer
from test_wake import PROXIES, PUSH_URLS
from waiting import ends_within

CLONE_NEWNET = 0x40000000
TEXT = "a text for a phone that sleeps"
# After this many seconds a sender has noticed that its phone is gone: what keep-alive takes, and as much again.
NOTICED = 50


def ip(*words):
    subprocess.run(["ip", *words], check=True)


def inside(space, function):
    """What the function returns, run in this network namespace, as are the threads that it starts."""
    def run():
        file = os.open(f"/run/netns/{space}", os.O_RDONLY)
        try:
            library = ctypes.CDLL(None, use_errno=True)
            if library.setns(file, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
        finally:
            os.close(file)
        return function()

    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        return thread.submit(run).result()


class World:
    """A computer's network and that of its phones, with a wire between them, and a push service on the computer."""

    HERE = "10.213.8.1"

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="orlinth-test-"))
        mark = self.folder.name[-8:]
        self.spaces = {"desk": f"orlinth-desk-{mark}", "phones": f"orlinth-phones-{mark}"}
        self.made = []
        self.server = None
        self.phones = {}  # by push token
        self.timers = []
        try:
            self._make()
        except BaseException:
            self.close()
            raise

    def _make(self):
        for space in self.spaces.values():
            ip("netns", "add", space)
            self.made.append(space)
            ip("-n", space, "link", "set", "lo", "up")
        ip("-n", self.spaces["desk"], "link", "add", "wire0", "type", "veth", "peer", "name", "wire0",
           "netns", self.spaces["phones"])
        for space in self.spaces.values():
            ip("-n", space, "link", "set", "wire0", "up")
        ip("-n", self.spaces["desk"], "address", "add", f"{self.HERE}/24", "dev", "wire0")
        ip("-n", self.spaces["phones"], "route", "add", f"{self.HERE}/32", "dev", "wire0")
        self.server = inside(self.spaces["desk"], lambda: PushServer(self.folder / "push", self._on_push))

    def _on_push(self, request):
        token = json.loads(request.body)["message"]["token"]
        self.phones[token].wake()

    def after(self, seconds, action):
        timer = threading.Timer(seconds, action)
        timer.daemon = True
        self.timers.append(timer)
        timer.start()

    def pushes(self, token):
        return sum(json.loads(push.body)["message"]["token"] == token for push in self.server.requests("push"))

    def close(self):
        for timer in self.timers:
            timer.cancel()
        if self.server:
            self.server.close()
        for space in self.made:
            ip("netns", "del", space)
        shutil.rmtree(self.folder, ignore_errors=True)


class Pair:
    """A computer and a phone that know each other. Each pair has a name and a number of its own."""

    def __init__(self, world, name, number):
        self.world = world
        self.name = name
        self.token = f"token-of-{number}"
        self.address = f"10.213.8.{10 + number}"
        self.port = 7000 + number
        self.mac = Identity(world.folder / str(number), "mac")
        self.phone = Identity(world.folder / str(number), "phone")
        for variable in (*PUSH_URLS, *PROXIES):
            self.mac.environment.pop(variable, None)
        self.mac.environment.update(world.server.environment)
        world.server.write_service_account(self.mac.data / "Orlinth" / "firebase-service-account.json")
        self.phone.record(self.mac)
        self.mac.record(self.phone, self.port, ip=self.address, token=self.token)
        self.programs = []
        self.app = None  # the phone's program
        self.problem = None  # why the phone could not wake up
        self.changed = threading.Condition()
        world.phones[self.token] = self

    def wake(self):
        """What happens when a push has come. Pushes are counted; these phones expect none."""

    def has_address(self, verb="add"):
        # a subnet of its own: with the first address of a larger one, the kernel would take away all others
        ip("-n", self.world.spaces["phones"], "address", verb, f"{self.address}/32", "dev", "wire0")

    def running(self, side, identity, *arguments):
        program = Running(["ip", "netns", "exec", self.world.spaces[side], *arguments], env=identity.environment)
        self.programs.append(program)
        return program

    def file(self, size):
        path = self.world.folder / str(self.port) / "a.bin"
        path.parent.mkdir()
        with open(path, "wb") as file:
            file.write(os.urandom(min(size, MIB)))
            file.truncate(size)
        return path

    def receive(self):
        return self.running("phones", self.phone, ORLINTH, "receive", "--from", "mac", "--port", str(self.port), "--dir",
                            str(self.phone.downloads), "--json")

    def clip_phone(self, leave):
        return self.running("phones", self.phone, CLIP_PHONE, leave, str(self.port), self.mac.key)

    def close(self):
        for program in self.programs:
            program.close()

    def check(self, condition, *what):
        if not condition:
            raise AssertionError(*what, *[(program.events.all, program.stderr) for program in self.programs])


class Sleeper(Pair):
    """A phone whose address, or only its port, is there so many seconds after the push, and not before."""

    def __init__(self, world, name, number, address=None, port=None):
        super().__init__(world, name, number)
        self.address_after = address
        self.port_after = port

    def start_app(self):
        try:
            app = self.make_app()
            app.events.wait_for("listening")
        except Exception as error:  # on a thread of its own; reported by `the_app`
            app, self.problem = None, error
        with self.changed:
            self.app = app
            self.changed.notify_all()

    def the_app(self):
        with self.changed:
            self.changed.wait_for(lambda: self.app or self.problem, PATIENCE)
        if self.problem:
            raise self.problem
        return self.app

    def wake(self):
        if self.address_after is not None:
            self.world.after(self.address_after, self.has_address)
        if self.port_after is not None:
            self.world.after(self.port_after, self.start_app)

    def run(self):
        try:
            if self.address_after is None:
                self.has_address()
            if self.port_after is None:
                self.start_app()
            self.send()
            self.check(self.world.pushes(self.token) == 1, f"{self.world.pushes(self.token)} pushes")
        finally:
            self.close()


class FileSleeper(Sleeper):
    def make_app(self):
        return self.receive()

    def assert_arrived(self, file):
        self.check(self.the_app().wait() == 0, "the phone's exit status")
        self.check(sha256(file) == sha256(self.phone.downloads / file.name), "another content")


class Sending(FileSleeper):
    def send(self):
        file = self.file(3 * MIB)
        sender = self.running("desk", self.mac, ORLINTH, "send", "--to", "phone", "--json", str(file))
        self.check(sender.wait() == 0, "the sender's exit status")
        self.check(sender.events.find("waking"), "no event about waking")
        self.assert_arrived(file)


class Sharing(FileSleeper):
    def send(self):
        file = self.file(3 * MIB)
        service = self.running("desk", self.mac, ORLINTH, "serve", "--port", "0", "--dir", str(self.mac.downloads),
                               "--json", "--no-clipboard")
        service.events.wait_for("listening")
        shared = self.mac.run("share", "--to", "phone", str(file))
        self.check(shared.returncode == 0, shared.stderr)
        service.events.wait_for("outbox_done")
        self.check(not service.events.find("outbox_waiting"), "the first attempt has failed")
        self.assert_arrived(file)
        service.signal(signal.SIGTERM)
        self.check(service.wait() == 0, "the service's exit status")


class Clipping(Sleeper):
    def make_app(self):
        return self.clip_phone("close")

    def send(self):
        sender = self.running("desk", self.mac, ORLINTH, "clip", "--to", "phone", "--json", "--text", TEXT)
        self.check(sender.wait() == 0, "the sender's exit status")
        self.check(self.the_app().events.wait_for("message")["text"] == TEXT, "another text")


class Vanishing(Pair):
    """A phone that is gone, without a word, in the middle of a conversation."""

    def run(self):
        try:
            self.has_address()
            sender = self.vanish()
            gone = time.monotonic()
            self.has_address("del")
            self.check(sender.process.poll() is None, "the transfer was over before the phone was gone")
            self.check(sender.wait() == 1, "the sender's exit status")
            self.check(time.monotonic() - gone < NOTICED, f"noticed after {time.monotonic() - gone} seconds")
            self.check("wire I/O error: " in sender.stderr, "another error")
            self.check(len(self.mac.journal()) == 1, "nothing to go on with")
        finally:
            self.close()

    def send(self, size):
        return self.running("desk", self.mac, ORLINTH, "send", "--to", "phone", "--json", str(self.file(size)))


class VanishingBeforeItsAnswer(Vanishing):
    def vanish(self):
        self.clip_phone("stuck").events.wait_for("listening")
        sender = self.send(1)
        sender.events.wait_for("handshake")
        # the offer arrives, and then nothing is under way
        self.check(not ends_within(1, sender.process), "the sender did not wait for an answer")
        return sender


class VanishingAmidstTheData(Vanishing):
    def vanish(self):
        self.receive().events.wait_for("listening")
        sender = self.send(1024 * MIB)
        sender.events.wait_for("progress")
        return sender


class SleepingPhones(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.world = World()
        cls.addClassCleanup(cls.world.close)
        cases = {}
        for kind in (Sending, Clipping, Sharing):
            name = kind.__name__.lower()
            cases[f"{name}, absent"] = (kind, {"address": 4})
            cases[f"{name}, port soon"] = (kind, {"port": 1.5})
            cases[f"{name}, port late"] = (kind, {"port": 4})
        cases["waiting"] = (VanishingBeforeItsAnswer, {})
        cases["data"] = (VanishingAmidstTheData, {})
        pairs = [kind(cls.world, name, number, **how) for number, (name, (kind, how)) in enumerate(cases.items())]
        cls.threads = concurrent.futures.ThreadPoolExecutor(len(pairs))
        cls.addClassCleanup(cls.threads.shutdown)
        cls.outcomes = {pair.name: cls.threads.submit(pair.run) for pair in pairs}

    def test_a_phone_that_answers_no_arp_is_woken_and_gets_the_file(self):
        self.outcomes["sending, absent"].result()

    def test_a_phone_that_answers_no_arp_is_woken_and_gets_the_text(self):
        self.outcomes["clipping, absent"].result()

    def test_a_phone_that_answers_no_arp_is_woken_and_gets_what_was_shared(self):
        self.outcomes["sharing, absent"].result()

    def test_a_phone_whose_port_opens_after_the_wake_gets_the_file(self):
        self.outcomes["sending, port soon"].result()
        self.outcomes["sending, port late"].result()

    def test_a_phone_whose_port_opens_after_the_wake_gets_the_text(self):
        self.outcomes["clipping, port soon"].result()
        self.outcomes["clipping, port late"].result()

    def test_a_phone_whose_port_opens_after_the_wake_gets_what_was_shared(self):
        self.outcomes["sharing, port soon"].result()
        self.outcomes["sharing, port late"].result()

    def test_a_phone_that_vanishes_before_it_answers_the_offer_is_noticed(self):
        self.outcomes["waiting"].result()

    def test_a_phone_that_vanishes_amidst_the_data_is_noticed(self):
        self.outcomes["data"].result()

    def test_the_push_service_has_seen_nothing_wrong(self):
        for outcome in self.outcomes.values():
            outcome.exception()
        self.assertEqual([], self.world.server.problems)


if __name__ == "__main__":
    unittest.main()
