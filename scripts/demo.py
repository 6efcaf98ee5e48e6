"""The story that scripts/demo tells. Usage: demo.py ORLINTH ORLINTH_SHARE [FILE]"""

import hashlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "program"))

from waiting import comes_true  # noqa: E402

MIB = 1 << 20
MADE_FILE = 512 * MIB
SMALLEST_TO_CUT = 64 * MIB  # below that a kill in the middle is a matter of luck
CUT_AT = 0.35               # of the file: somewhere in the middle, whatever the machine's speed
ATTEMPTS = 4
PICTURES, PICTURE = 200, 100_000
TEXT = "Grüße vom Schreibtisch: 東京, 6 pm ☕"
PATIENCE = 120              # seconds for anything that should take a few
SLOWEST = 2e6               # bytes a second at which a transfer still counts as going on


class Trouble(Exception):
    """The demo cannot go on; the text says why."""


class NotCut(Exception):
    """The transfer was over before the kill came."""


class Paint:
    """Colours, where they are wanted."""

    wanted = sys.stdout.isatty() and not os.environ.get("NO_COLOR")

    @classmethod
    def code(cls, number, text):
        return f"\033[{number}m{text}\033[0m" if cls.wanted else text


def bold(text):
    return Paint.code(1, text)


def faint(text):
    return Paint.code(2, text)


def green(text):
    return Paint.code(32, text)


def red(text):
    return Paint.code(31, text)


def step(text):
    print(f"\n{bold(text)}", flush=True)


def tell(text):
    print(f"  {text}", flush=True)


def size_of(path):
    """Of a file that may not be there, or go at any moment: then 0."""
    try:
        return path.stat().st_size
    except FileNotFoundError:
        return 0


def human(count):
    """As file managers show sizes: 1500 -> '1.5 kB'."""
    value, unit = float(count), "bytes"
    for larger in ("kB", "MB", "GB", "TB"):
        if value < 999.5:
            break
        value, unit = value / 1000, larger
    return f"{count} bytes" if unit == "bytes" else f"{value:.{1 if value < 99.5 else 0}f} {unit}"


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(MIB):
            digest.update(block)
    return digest.hexdigest()


def make_file(path, size):
    with open(path, "wb") as file:
        for _ in range(size // MIB):
            file.write(os.urandom(MIB))


class Running:
    """A program under way; its events are collected as they come. Ends with the demo, whatever happens."""

    def __init__(self, arguments, environment):
        self.process = subprocess.Popen(arguments, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True, errors="replace")
        self.events = []
        self.complaints = ""
        self._changed = threading.Condition()
        self._ended = False
        self._readers = [threading.Thread(target=self._read_events, daemon=True),
                         threading.Thread(target=self._read_complaints, daemon=True)]
        for reader in self._readers:
            reader.start()

    def _read_events(self):
        for line in self.process.stdout:
            with self._changed:
                try:
                    self.events.append(json.loads(line))
                except ValueError:
                    self.complaints += line
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def _read_complaints(self):
        for line in self.process.stderr:
            self.complaints += line

    def find(self, name):
        with self._changed:
            return next((event for event in self.events if event.get("event") == name), None)

    def wait_for(self, name):
        deadline = time.monotonic() + PATIENCE
        with self._changed:
            while True:
                for event in self.events:
                    if event.get("event") == name:
                        return event
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    break
                self._changed.wait(left)
        raise Trouble(f"no '{name}' came: {self.last_words()}")

    def finish(self, patience=PATIENCE):
        """Waits for the end, `patience` seconds at most; returns the exit status."""
        try:
            status = self.process.wait(patience)
        except subprocess.TimeoutExpired:
            raise Trouble("the program does not end") from None
        for reader in self._readers:
            reader.join(PATIENCE)
        return status

    def last_words(self):
        error = self.find("error")
        return (error or {}).get("message") or self.complaints.strip() or "it said nothing"

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


class Demo:
    def __init__(self, orlinth, folder):
        self.orlinth = orlinth
        self.folder = folder
        self.running = []

    def close(self):
        for running in self.running:
            running.stop()

    def environment(self, who):
        """An identity of its own: everything that orlinth keeps is below these two folders."""
        return {**os.environ, "XDG_DATA_HOME": str(self.folder / who / "data"),
                "XDG_CONFIG_HOME": str(self.folder / who / "config")}

    def call(self, who, *arguments, text=""):
        done = subprocess.run([self.orlinth, *arguments], env=self.environment(who), input=text,
                              capture_output=True, encoding="utf-8", errors="replace", timeout=PATIENCE)
        if done.returncode != 0:
            raise Trouble(f"orlinth {arguments[0]}: {done.stderr.strip()}")
        return done.stdout

    def start(self, who, *arguments):
        running = Running([self.orlinth, *arguments], self.environment(who))
        self.running.append(running)
        return running

    def pair(self):
        """Pairs the two by the picture of the code, as a phone's camera would."""
        step("Pairing two machines: one shows a QR code, the other one reads it")
        self.ports = {"desk": free_port(), "phone": free_port()}
        picture = self.folder / "code.png"
        shown = self.start("desk", "pair", "--port", str(self.ports["desk"]), "--interface", "lo", "--no-advertise",
                           "--png", str(picture), "--yes", "--json")
        shown.wait_for("payload")
        tell(f"desk   shows the code (here as a picture: {picture.name}, {human(picture.stat().st_size)})")
        scanned = self.start("phone", "join", "--qr", str(picture), "--listen-port", str(self.ports["phone"]), "--yes",
                             "--json")
        codes, self.keys = {}, {}
        for who, other, program in (("desk", "phone", shown), ("phone", "desk", scanned)):
            codes[who] = program.wait_for("introduction")["confirmation_code"]
            self.keys[other] = program.wait_for("paired")["peer"]["peer_pubkey"]
            if program.finish() != 0:
                raise Trouble(f"pairing failed: {program.last_words()}")
        for who in ("desk", "phone"):
            tell(f"{who:5}  shows the confirmation code {bold(codes[who])}; its key is {self.keys[who]}")
        if codes["desk"] != codes["phone"]:
            raise Trouble("the codes differ")
        tell(green("The same on both: nobody is in between."))
        tell(faint("A person compares the codes; the demo has said yes for one. A stranger's key is turned away from now on."))

    def listen(self, who="phone", other="desk"):
        """Starts the receiving side on the port that the other one has learned by pairing."""
        downloads = self.folder / who / "downloads"
        receiver = self.start(who, "receive", "--from", self.keys[other], "--port", str(self.ports[who]), "--dir",
                              str(downloads), "--timeout", str(PATIENCE), "--json")
        receiver.wait_for("listening")
        return receiver, downloads

    def send(self, file):
        return self.start("desk", "send", "--to", self.keys["phone"], "--json", str(file))

    def answer(self):
        """A file the other way."""
        step("And one back, from the phone to the desk")
        file = self.folder / "answer.txt"
        file.write_text(TEXT + "\n", encoding="utf-8")
        receiver, _ = self.listen("desk", "phone")
        sender = self.start("phone", "send", "--to", self.keys["desk"], "--json", str(file))
        if sender.finish() != 0 or receiver.finish() != 0:
            raise Trouble(f"{sender.last_words()}; {receiver.last_words()}")
        saved = pathlib.Path(receiver.wait_for("complete")["saved_at"])
        if saved.read_bytes() != file.read_bytes():
            raise Trouble("the files differ")
        tell(green(f"The same, byte for byte: {saved.name}, {human(saved.stat().st_size)}"))

    def cut(self, file):
        """Sends, and kills the sender in the middle. Returns the partial file and its size."""
        step(f"Sending {file.name} ({human(file.stat().st_size)}), and pulling the plug in the middle")
        receiver, downloads = self.listen()
        sender = self.send(file)
        threshold = int(file.stat().st_size * CUT_AT)
        partial = downloads / (file.name + ".partial")
        comes_true(lambda: sender.process.poll() is not None or size_of(partial) >= threshold,
                   PATIENCE + threshold / SLOWEST, partial, sender.process)
        sender.process.kill()
        status = sender.finish()
        if receiver.finish() == 0:
            raise NotCut
        if status != -signal.SIGKILL:
            raise Trouble(f"the sender failed by itself: {sender.last_words()}")
        kept = size_of(partial)
        if not 0 < kept < file.stat().st_size:
            raise Trouble(f"the receiver kept {kept} bytes: {receiver.last_words()}")
        tell("SIGKILL to the sender. The receiver says: " + faint(receiver.last_words()))
        tell(f"It keeps {bold(human(kept))} of {human(file.stat().st_size)} in {partial.name},")
        tell(f"and beside it, in {partial.name}.meta.json, which transfer that belongs to.")
        return kept

    def deliver(self, file, kept):
        """Sends to the end and checks everything that was claimed."""
        receiver, _ = self.listen()
        sender = self.send(file)
        if sender.finish(PATIENCE + file.stat().st_size / SLOWEST) != 0:
            raise Trouble(f"the send failed: {sender.last_words()}")
        if receiver.finish() != 0:
            raise Trouble(f"the receive failed: {receiver.last_words()}")
        sent, received = sender.wait_for("complete"), receiver.wait_for("complete")
        offset = sent["resumed_from_offset"]
        if offset != kept or received["resumed_from_offset"] != kept:
            raise Trouble(f"resumed from {offset}, and not from the {kept} bytes that were there")
        if kept:
            tell(f"Resumed from {bold(human(offset))}: only {human(sent['bytes_sent'] - offset)} went over the wire.")
        moved, seconds = sent["bytes_sent"] - offset, sent["duration_seconds"]
        rate = f", {bold(human(moved / seconds) + '/s')}" if seconds > 0 and moved else ""
        tell(f"{human(moved)} in {seconds:.2f} seconds{rate}")
        saved = pathlib.Path(received["saved_at"])
        ours, theirs = sha256(file), sha256(saved)
        tell(f"SHA-256 sent      {ours}")
        tell(f"SHA-256 received  {theirs}")
        if ours != theirs:
            raise Trouble("the files differ")
        tell(green(f"The same, byte for byte: {saved.name}, {human(saved.stat().st_size)}"))
        left = sorted(path.name for path in saved.parent.iterdir() if ".partial" in path.name)
        if left:
            raise Trouble(f"left behind: {', '.join(left)}")
        saved.unlink()

    def serve(self):
        """A text for the clipboard, and many files at once, to a service that goes on listening."""
        step("The receive service: it goes on listening, for whatever comes")
        downloads = self.folder / "phone" / "served"
        service = self.start("phone", "serve", "--port", str(self.ports["phone"]), "--dir", str(downloads),
                             "--no-clipboard", "--json")
        service.wait_for("listening")
        said = self.call("desk", "clip", "--to", self.keys["phone"], "-", text=TEXT).strip()
        got = service.wait_for("clipboard")
        tell(f"orlinth clip says: {faint(said)}")
        tell(f"The service got:   {bold(got['text'])}")
        if got["text"] != TEXT:
            raise Trouble("the texts differ")
        self.send_many(downloads)
        service.process.terminate()
        if service.finish() != 0:
            raise Trouble(f"the service did not end well: {service.last_words()}")

    def send_many(self, downloads):
        """One command with many files, of which several are under way at once."""
        pictures = self.folder / "pictures"
        pictures.mkdir()
        for number in range(1, PICTURES + 1):
            (pictures / f"picture {number:03}.jpg").write_bytes(os.urandom(PICTURE))
        files = sorted(pictures.iterdir())
        begin = time.monotonic()
        self.call("desk", "send", "--to", self.keys["phone"], *map(str, files))
        seconds = time.monotonic() - begin
        tell(f"{len(files)} files of {human(PICTURE)} in one command: {seconds:.2f} seconds")
        if {file.name: sha256(file) for file in files} != {file.name: sha256(file) for file in downloads.iterdir()}:
            raise Trouble("the files differ")
        tell(green("All the same, byte for byte."))


    def share(self, sheet):
        """From the file manager: the sheet puts a file into the outbox, and it goes when the phone is there."""
        step("The share sheet: a file goes on its way while the phone is away")
        file = self.folder / "shared.pdf"
        make_file(file, 5 * MIB)
        host = self.start("desk", "serve", "--port", "0", "--no-clipboard", "--json")
        host.wait_for("listening")
        # no window: the sheet asks nobody where there is only one phone, and the demo may run without a screen
        environment = {**self.environment("desk"), "QT_QPA_PLATFORM": "offscreen"}
        shared = subprocess.run([sheet, "--", file.as_uri()], env=environment, capture_output=True, encoding="utf-8",
                                errors="replace", timeout=PATIENCE)
        if shared.returncode != 0:
            raise Trouble(f"orlinth-share: {shared.stderr.strip()}")
        waiting = host.wait_for("outbox_waiting")
        tell(f"The sheet is done. The service says: {faint(waiting['message'])}")
        downloads = self.folder / "phone" / "shared"
        phone = self.start("phone", "serve", "--port", str(self.ports["phone"]), "--dir", str(downloads),
                           "--no-clipboard", "--json")
        phone.wait_for("listening")
        tell("The phone is back.")
        host.wait_for("outbox_done")
        saved = pathlib.Path(phone.wait_for("received")["saved_at"])
        if sha256(saved) != sha256(file):
            raise Trouble("the files differ")
        tell(green(f"It has come, byte for byte: {saved.name}, {human(saved.stat().st_size)}"))
        for service in (host, phone):
            service.process.terminate()
            if service.finish() != 0:
                raise Trouble(f"the service did not end well: {service.last_words()}")


def free_port():
    """A port that nobody listens on now."""
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def room_for(folder, size):
    """The largest file of at most `size` that fits twice with room to spare."""
    return min(size, shutil.disk_usage(folder).free // 3 // MIB * MIB)


def made_file(folder, size):
    size = room_for(folder, size)
    if size < SMALLEST_TO_CUT:
        raise Trouble(f"there is too little room in {folder}; set TMPDIR to a larger place")
    step(f"Making a file of {human(size)} with random content")
    path = folder / "holiday.mov"
    make_file(path, size)
    tell(faint(str(path)))
    return path


def cut_and_resume(demo, folder, given):
    """Returns whether the user's own file was the one that was cut."""
    size = MADE_FILE
    for attempt in range(ATTEMPTS):
        mine = given is not None and attempt == 0 and given.stat().st_size >= SMALLEST_TO_CUT
        file = given if mine else made_file(folder, size)
        try:
            kept = demo.cut(file)
        except NotCut:
            tell("It was through before the plug was out. Once more, with a larger file.")
            shutil.rmtree(folder / "phone" / "downloads")
            size = size if mine else size * 2
            continue
        step("Sending the same file again")
        demo.deliver(file, kept)
        return mine
    raise Trouble("this machine is too fast: no transfer could be cut")


def main():
    orlinth, sheet = (os.path.abspath(program) for program in sys.argv[1:3])
    given = pathlib.Path(sys.argv[3]) if len(sys.argv) > 3 else None
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(143))
    with tempfile.TemporaryDirectory(prefix="orlinth-demo-") as name:
        folder = pathlib.Path(name)
        demo = Demo(orlinth, folder)
        try:
            if given is not None and room_for(folder, given.stat().st_size) < given.stat().st_size // MIB * MIB:
                raise Trouble(f"there is too little room in {folder} for {given.name}; set TMPDIR to a larger place")
            demo.pair()
            if given is not None and given.stat().st_size < SMALLEST_TO_CUT:
                step(f"{given.name} has {human(given.stat().st_size)}, too little to be cut in the middle")
                tell("So a made file shows the cut, and yours goes afterwards, in one piece.")
            if not cut_and_resume(demo, folder, given) and given is not None:
                step(f"Sending {given.name}")
                demo.deliver(given, 0)
            demo.answer()
            demo.serve()
            demo.share(sheet)
            print(f"\n{green('That was the whole of it.')} Now between two machines: see README.md.")
            return 0
        except (Trouble, subprocess.TimeoutExpired) as error:
            print(f"\n{red('The demo failed:')} {error}", file=sys.stderr)
            return 1
        except KeyboardInterrupt:
            return 130
        finally:
            demo.close()


if __name__ == "__main__":
    sys.exit(main())
