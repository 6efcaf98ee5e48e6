"""Everything that one worker needs: two senders, two receivers, a relay between them, and a disk that can be filled."""

import contextlib
import json
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "program"))

from harness import ORLINTH, Identity  # noqa: E402
from outbox_world import GROUP  # noqa: E402
from programs import Program  # noqa: E402
from relay import FaultyRelay  # noqa: E402
from waiting import Flag, comes_true  # noqa: E402,F401 (for the trials too, which do not know where it lies)

START_SECONDS = 60
DISK = 128 << 20
PAGE = 4096


class Trouble(Exception):
    """The machinery itself fails; says nothing about the transfers."""


def make_small_disk(folder):
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={DISK},mode=0755", "tmpfs", str(folder)], check=True)


class Folder:
    """A receiver's folder, and what lies there of one file."""

    def __init__(self, path, is_disk):
        self.path = path
        self.is_disk = is_disk

    def finals(self, name):
        """The names under which this file lies there, whole or so it seems; with inode and size."""
        stem, dot, suffix = name.partition(".")
        own = re.compile(re.escape(stem) + r"( \d+)?" + re.escape(dot + suffix))
        found = []
        with os.scandir(self.path) as entries:
            for entry in entries:
                if own.fullmatch(entry.name):
                    with contextlib.suppress(FileNotFoundError):
                        status = entry.stat(follow_symlinks=False)
                        found.append((entry.name, status.st_ino, status.st_size))
        return sorted(found)

    def partials(self, name):
        """The sizes of the partial files of this file."""
        stem = name.partition(".")[0]
        own = re.compile(re.escape(stem) + r"( \d+)?(\.bin)?\.partial")
        sizes = []
        with os.scandir(self.path) as entries:
            for entry in entries:
                if own.fullmatch(entry.name):
                    with contextlib.suppress(FileNotFoundError):
                        sizes.append(entry.stat().st_size)
        return sizes

    def clear(self):
        for path in self.path.iterdir():
            with contextlib.suppress(FileNotFoundError):
                path.unlink()

    def limit(self, free):
        """Leaves so many bytes free, in whole pages; None: plenty."""
        if free is None:
            size = DISK
        else:
            status = os.statvfs(self.path)
            used = (status.f_blocks - status.f_bfree) * status.f_frsize
            size = max(PAGE, used + free // PAGE * PAGE)
        subprocess.run(["mount", "-o", f"remount,size={size}", str(self.path)], check=True)


class World:
    """With `can_mount`, the receivers' folders are file systems of their own."""

    def __init__(self, folder, can_mount):
        folder = pathlib.Path(folder)
        folder.mkdir(parents=True)
        self.folder = folder
        self.outgoing = folder / "outgoing"
        self.outgoing.mkdir()
        self.relay = FaultyRelay()
        self.on_outbox = None  # hears the events of the service that sends what was shared
        self.mac, self.desk = Identity(folder, "mac"), Identity(folder, "desk")
        self.phone, self.tablet = Identity(folder, "phone"), Identity(folder, "tablet")
        self.folders = {}
        for receiver in (self.phone, self.tablet):
            if can_mount:
                make_small_disk(receiver.downloads)
            self.folders[receiver.name] = Folder(receiver.downloads, can_mount)
            for sender in (self.mac, self.desk):
                sender.environment["DBUS_SESSION_BUS_ADDRESS"] = "disabled:"
                receiver.record(sender)
                sender.record(receiver, self.relay.port)
            receiver.environment["DBUS_SESSION_BUS_ADDRESS"] = "disabled:"
        self.service = None  # of the phone
        self.port = 0        # of the receiver that was started last
        self.outbox = None   # the service of the desk
        self.batches = []    # that it was given
        self.programs = []

    def start(self, identity, *arguments, on_event=None):
        program = Program([ORLINTH, *arguments], identity.environment, on_event)
        self.programs = [old for old in self.programs if not old.is_closed] + [program]
        return program

    def listening(self, program):
        event = program.wait_for("listening", START_SECONDS)
        if event is None:
            raise Trouble(f"a receiver does not start: {program.events} {program.stderr}")
        self.port = self.relay.target = event["port"]
        return program

    def serve(self):
        """The phone's service, started again if it has ended."""
        if self.service and self.service.has_ended.is_set():
            self.service.close()
        if self.service is None or self.service.is_closed:
            self.service = self.listening(self.start(
                self.phone, "serve", "--port", "0", "--dir", str(self.phone.downloads), "--json", "--no-clipboard",
                "--keep-free", "0"))
        self.port = self.relay.target = self.service.wait_for("listening", START_SECONDS)["port"]
        return self.service

    def receive(self, sender):
        """The tablet, which takes one file from this sender."""
        return self.listening(self.start(self.tablet, "receive", "--from", sender.name, "--port", "0", "--dir",
                                         str(self.tablet.downloads), "--json"))

    def send(self, receiver, file, on_event=None):
        return self.start(self.mac, "send", "--to", receiver.name, "--json", str(file), on_event=on_event)

    def serve_outbox(self):
        """The desk's service, which sends what was shared; started again if it has ended."""
        if self.outbox and self.outbox.has_ended.is_set():
            self.outbox.close()
        if self.outbox is None or self.outbox.is_closed:
            self.outbox = self.start(self.desk, "serve", "--port", "0", "--dir", str(self.desk.downloads), "--json",
                                     "--no-clipboard", on_event=lambda event: self.on_outbox and self.on_outbox(event))
            if self.outbox.wait_for("listening", START_SECONDS) is None:
                raise Trouble(f"a sending service does not start: {self.outbox.events} {self.outbox.stderr}")
        return self.outbox

    def share(self, file):
        """The id of the batch."""
        result = self.desk.run("share", "--json", "--to", self.phone.name, str(file))
        if result.returncode != 0:
            raise Trouble(f"sharing fails: {result.stderr}")
        batch = json.loads(result.stdout)["batch"]
        self.batches.append(batch)
        return batch

    def batch_folder(self, batch, is_set_aside=False):
        return self.desk.data / GROUP / ("OutboxSetAside" if is_set_aside else "Outbox") / batch

    def is_held(self, batch):
        return self.batch_folder(batch).exists() or self.batch_folder(batch, True).exists()

    def retry_outbox(self, *batch):
        self.desk.run("outbox", "retry", *batch)

    def drop(self, batch):
        self.desk.run("outbox", "drop", batch)

    def go_through_relay(self, sender, receiver, is_relayed):
        """Has the sender know the receiver at the relay's port, or at its own."""
        sender.record(receiver, self.relay.port if is_relayed else self.port)

    def fill_disk(self, folder, program, count):
        """The receiver's disk takes so many bytes of a file more; None: as many as come."""
        if folder.is_disk:
            folder.limit(count)
        elif not program.has_ended.is_set():
            hard = resource.prlimit(program.process.pid, resource.RLIMIT_FSIZE)[1]
            soft = resource.RLIM_INFINITY if count is None else count
            if hard != resource.RLIM_INFINITY:
                soft = hard if count is None else min(hard, count)
            resource.prlimit(program.process.pid, resource.RLIMIT_FSIZE, (soft, hard))

    def close(self):
        for program in self.programs:
            program.close()
        self.relay.close()
        for folder in self.folders.values():
            if folder.is_disk:
                subprocess.run(["umount", "-l", str(folder.path)], stderr=subprocess.DEVNULL)
        shutil.rmtree(self.folder, ignore_errors=True)
