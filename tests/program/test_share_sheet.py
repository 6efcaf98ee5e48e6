"""The real share sheet: on a screen in memory with a person at it, and without a screen."""

import base64
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import side_by_side
from harness import BUILD, PATIENCE, ProgramTest, Running, SANITIZED, seeded
from screen import Screen, keep

SHARE = os.environ["ORLINTH_SHARE"]
PICTURES = BUILD / "share-sheet-pictures"
UUID = re.compile(r"[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")


class ShareSheetTest(ProgramTest):
    """`mac` has no phone yet, and a service seems to run."""

    def setUp(self):
        super().setUp()
        removed = self.mac.run("peers", "remove", "phone")
        self.assertEqual(removed.returncode, 0, removed.stderr)
        self.container = self.mac.data / "group.com.tarvinex.orlinth"
        self.outbox = self.container / "Outbox"
        self.keys = []
        # so that the sheet starts none; test_activation.py has what it does then
        service = socket.socket(socket.AF_UNIX)
        self.addCleanup(service.close)
        service.bind(str(self.mac.data / "Orlinth" / "service.sock"))
        service.listen()
        # what Qt keeps until it ends is not ours
        suppressions = pathlib.Path(os.environ["ORLINTH_SOURCE"]) / "tests" / "OrlinthShare" / "lsan.supp"
        self.environment = {**self.mac.environment,
                            "LSAN_OPTIONS": f"suppressions={suppressions}:print_suppressions=0"}

    def pair(self, count):
        """Phones with made-up keys, recorded by the host, which writes the sheet's list."""
        for number in range(1, count + 1):
            key = base64.b64encode(bytes([9] + [number] * 31)).decode()
            added = self.mac.run("peers", "add", "--pubkey", key, "--ip", "127.0.0.1", "--port", "9", "--name",
                                 f"Phone {number}")
            self.assertEqual(added.returncode, 0, added.stderr)
        self.keys = [peer["pubkey"] for peer in json.loads((self.container / "peers.json").read_text())]
        self.assertEqual(len(self.keys), count)

    def batches(self):
        return sorted(self.outbox.iterdir()) if self.outbox.exists() else []

    def manifest(self):
        """The only batch's, once it has been looked at as the host would."""
        batch, = self.batches()
        self.assertRegex(batch.name, UUID)
        manifest = json.loads((batch / "manifest.json").read_text())
        self.assertEqual(manifest["id"], batch.name)
        self.assertLess(abs(manifest["createdAtMs"] - time.time() * 1000), 600_000)
        self.assertEqual(sorted(os.listdir(batch)), sorted([*manifest["files"], "manifest.json"]))
        self.assertEqual(batch.stat().st_mode & 0o777, 0o700)
        return manifest

    def content(self, name):
        return (self.batches()[0] / name).read_bytes()


class WithoutAScreen(ShareSheetTest):
    """Qt's platform without a screen, as a script may use it."""

    def share(self, *items, **options):
        given = {**self.environment, "QT_QPA_PLATFORM": "offscreen"}
        return subprocess.run([SHARE, *map(str, items)], env=given, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=PATIENCE, check=False, encoding="utf-8", errors="surrogateescape", **options)

    def assert_shared(self, done):
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def assert_failed(self, done, message):
        self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", f"orlinth-share: {message}\n"))
        self.assertEqual(self.batches(), [])

    def test_one_phone_is_not_asked_for(self):
        self.pair(1)
        self.assert_shared(self.share(self.file("a.txt", b"content")))
        manifest = self.manifest()
        self.assertEqual(manifest["files"], ["a.txt"])
        self.assertNotIn("targetPubkeys", manifest)
        self.assertEqual(self.content("a.txt"), b"content")

    def test_paths_uris_and_relative_names(self):
        self.pair(1)
        folder = self.file("a b.txt", b"1").parent
        self.file("ü%20.txt", b"2")
        self.file("c:d.txt", b"3")
        self.file("--help", b"4")
        self.assert_shared(self.share(f"file://{folder}/a%20b.txt", f"file://localhost{folder}/%C3%BC%2520.txt",
                                      "--", "c:d.txt", "--help", "https://example.com/", cwd=folder))
        self.assertEqual(sorted(self.manifest()["files"]), ["--help", "a b.txt", "c:d.txt", "ü%20.txt"])

    def test_names_that_are_taken(self):
        self.pair(1)
        items = []
        for name in ("a.txt", "README", "manifest.json"):
            for number in range(3):
                (self.folder / str(number)).mkdir(exist_ok=True)
                path = self.folder / str(number) / name
                path.write_text(f"{name} {number}")
                items.append(path)
        self.assert_shared(self.share(*items))
        manifest = self.manifest()
        self.assertEqual(sorted(manifest["files"]),
                         sorted(["a.txt", "a 2.txt", "a 3.txt", "README", "README 2", "README 3", "manifest 2.json",
                                 "manifest 3.json", "manifest 4.json"]))
        contents = sorted(self.content(name).decode() for name in manifest["files"])
        self.assertEqual(contents, sorted(path.read_text() for path in items))

    def test_nothing_shareable(self):
        self.pair(1)
        message = "Nothing shareable — Orlinth sends files only"
        folder = self.folder / "folder"
        folder.mkdir()
        (self.folder / "link").symlink_to(folder)
        os.mkfifo(self.folder / "pipe")
        for items in (["just a text"], [], ["https://example.com/x"], [folder], [self.folder / "link"],
                      [self.folder / "pipe"], ["/dev/zero"]):
            with self.subTest(items=items):
                self.assert_failed(self.share(*items), message)

    def test_folders_and_special_files_are_left_out(self):
        self.pair(1)
        file = self.file("a.txt", b"a")
        (self.folder / "to-folder").symlink_to(self.folder)
        (self.folder / "to-file").symlink_to(file)
        os.mkfifo(self.folder / "pipe")
        self.assert_shared(self.share(self.folder / "to-folder", self.folder / "pipe", file, "/dev/zero",
                                      self.folder / "to-file"))
        self.assertEqual(sorted(self.manifest()["files"]), ["a.txt", "to-file"])
        self.assertFalse((self.batches()[0] / "to-file").is_symlink())

    def test_files_that_cannot_be_read(self):
        self.pair(1)
        self.assert_failed(self.share(self.folder / "gone.txt"), "Could not read the shared file(s)")
        self.assert_shared(self.share(self.folder / "gone.txt", self.file("a.txt", b"a")))
        self.assertEqual(self.manifest()["files"], ["a.txt"])

    def test_uris_of_other_computers(self):
        self.pair(1)
        self.assert_failed(self.share("file://elsewhere/a.txt"), "Could not read the shared file(s)")
        self.assert_shared(self.share("file://elsewhere/a.txt", self.file("b.txt", b"b")))
        self.assertEqual(self.manifest()["files"], ["b.txt"])

    def test_names_that_are_no_text(self):
        self.pair(1)
        name = b"caf\xe9.txt"
        path = os.path.join(os.fsencode(self.folder), name)
        with open(path, "wb") as file:
            file.write(b"1")
        uri = b"file://" + os.fsencode(self.folder) + b"/caf%E9.txt"
        self.assert_shared(self.share(os.fsdecode(path), os.fsdecode(uri)))
        self.assertEqual(sorted(self.manifest()["files"]), ["caf\ufffd 2.txt", "caf\ufffd.txt"])
        self.assertEqual(self.content("caf\ufffd 2.txt"), b"1")

    def test_a_bus_that_says_nothing(self):
        self.pair(1)
        with socket.socket(socket.AF_UNIX) as silent:
            path = str(self.folder / "bus")
            silent.bind(path)
            silent.listen()
            self.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={path}"
            self.assert_shared(self.share(self.file("a.txt", b"a")))
        self.assertEqual(self.manifest()["files"], ["a.txt"])

    def test_a_working_folder_that_is_gone(self):
        self.pair(1)
        file = self.file("a.txt", b"a")
        gone = self.folder / "gone"
        gone.mkdir()
        done = subprocess.run(["sh", "-c", 'cd "$1" && rmdir "$1" && exec "$2" "$3" b.txt', "sh", gone, SHARE, file],
                              env={**self.environment, "QT_QPA_PLATFORM": "offscreen"}, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)
        self.assert_shared(done)
        self.assertEqual(self.manifest()["files"], ["a.txt"])

    def test_no_place_for_a_batch(self):
        self.pair(1)
        self.outbox.write_text("a file where the folder should be")
        done = self.share(self.file("a.txt", b"a"))
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, r"\Aorlinth-share: Could not create outbox batch: .+\n\Z")

    def test_many_files(self):
        self.pair(1)
        files = [self.file(f"{number}.bin", os.urandom(1000 + number)) for number in range(1000)]
        self.assert_shared(self.share(*files))
        self.assertEqual(sorted(self.manifest()["files"]), sorted(file.name for file in files))
        for file in files:
            self.assertEqual(self.content(file.name), file.read_bytes())

    def test_the_command_line(self):
        done = self.share("--help")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("--color-scheme", done.stdout)
        done = self.share("--version")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"\Aorlinth-share \d+\.\d+\.\d+\n\Z")
        for wrong in (["--nonsense"], ["--color-scheme", "pink"], ["--color-scheme"], ["-x"]):
            done = self.share(*wrong)
            self.assertEqual((done.returncode, done.stdout), (2, ""), wrong)
            self.assertRegex(done.stderr, r"\Aorlinth-share: .+\nTry --help\.\n\Z")

    def test_without_a_desktop_there_is_one_clear_line(self):
        self.pair(1)
        file = self.file("a.txt", b"a")
        # libwayland complains by itself if there is not even a folder to look in
        environment = {**self.environment, "XDG_RUNTIME_DIR": str(self.folder)}
        for more, message in (({}, "there is no desktop session (neither WAYLAND_DISPLAY nor DISPLAY is set)"),
                              ({"DISPLAY": ":987654"}, "the desktop session cannot be reached"),
                              ({"WAYLAND_DISPLAY": "nowhere"}, "the desktop session cannot be reached")):
            with self.subTest(more=more):
                done = subprocess.run([SHARE, str(file)], env={**environment, **more}, stdin=subprocess.DEVNULL,
                                      capture_output=True, text=True, timeout=PATIENCE, check=False)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", f"orlinth-share: {message}\n"))
                self.assertEqual(self.batches(), [])

    def test_a_kill_leaves_a_whole_batch_or_none(self):
        self.pair(1)
        random = seeded(self)
        files = {f"{number}.bin": os.urandom(200_000) for number in range(30)}
        paths = [self.file(name, content) for name, content in files.items()]
        environment = {**self.environment, "QT_QPA_PLATFORM": "offscreen"}
        began = time.monotonic()
        self.assert_shared(self.share(*paths))
        usual = time.monotonic() - began
        killed = 0
        for _ in range(8 if SANITIZED else 25):
            process = subprocess.Popen([SHARE, *map(str, paths)], env=environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                process.wait(random.uniform(0, usual))
            except subprocess.TimeoutExpired:
                process.send_signal(signal.SIGKILL)
            killed += process.wait(PATIENCE) == -signal.SIGKILL
        whole = 0
        for batch in self.batches():
            manifest = batch / "manifest.json"
            if manifest.exists():
                whole += 1
                self.assertEqual(sorted(json.loads(manifest.read_text())["files"]), sorted(files))
                for name, content in files.items():
                    self.assertEqual((batch / name).read_bytes(), content)
        print(f"{killed} killed, {whole} whole, {len(self.batches()) - whole} without a manifest", flush=True)
        self.assertGreater(killed, 0)


GATE = r"""
#define _GNU_SOURCE
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Nothing is copied before there is a file $GATE. */
ssize_t copy_file_range(int from, off_t* at, int to, off_t* there, size_t size, unsigned flags) {
    while (access(getenv("GATE"), F_OK) != 0) {
        usleep(1000);
    }
    return syscall(SYS_copy_file_range, from, at, to, there, size, flags);
}
"""


class OnAScreen(ShareSheetTest):
    @classmethod
    def setUpClass(cls):
        cls.screen = Screen()
        cls.addClassCleanup(cls.screen.close)

    def start(self, *items, prefix=(), **more):
        """The sheet, and its window, once there is something on it. `more` are variables of its environment."""
        given = {**self.environment, **{name: self.screen.environment[name]
                                        for name in ("DISPLAY", "QT_QPA_PLATFORM", "XDG_RUNTIME_DIR")},
                 **more}
        sheet = Running([*prefix, SHARE, *map(str, items)], env=given)
        self.addCleanup(sheet.close)
        window = self.screen.window(sheet.process)
        self.screen.wait_for(lambda: len({row[:600] for row in window.picture()[2]}) > 1, "its content", sheet.process)
        return sheet, window

    def keep_picture(self, window, name):
        keep(window.picture(), PICTURES / f"{name}.png")

    def test_two_phones_are_chosen_with_the_mouse(self):
        self.pair(3)
        sheet, window = self.start(self.file("a.txt", b"a"))
        window.has_size(400, 316)
        before = window.color(24, 63 + 12 + 60 + 8)  # inside the second row, beside its picture
        window.click(200, 63 + 12 + 60 + 26)
        self.screen.wait_for(lambda: window.color(24, 63 + 12 + 60 + 8) != before, "the second row's mark",
                             sheet.process)
        self.keep_picture(window, "screen-two-chosen")
        window.click(340, 316 - 28)
        self.assertEqual(sheet.wait(), 0, sheet.stderr)
        self.assertEqual(sheet.stderr, "")
        self.assertEqual(self.manifest()["targetPubkeys"], self.keys[:2])

    def test_a_phone_is_chosen_with_the_keyboard(self):
        self.pair(5)
        sheet, window = self.start(self.file("a.txt", b"a"), self.file("b.txt", b"b"))
        window.has_size(400, 376)
        window.key("space", "Down", "Down", "Down", "Down", "space")
        self.keep_picture(window, "screen-five")
        window.key("Return")
        self.assertEqual(sheet.wait(), 0, sheet.stderr)
        manifest = self.manifest()
        self.assertEqual(manifest["targetPubkeys"], [self.keys[4]])
        self.assertEqual(sorted(manifest["files"]), ["a.txt", "b.txt"])

    def test_it_grows_with_the_pixels(self):
        self.pair(2)
        sheet, window = self.start(self.file("a.txt", b"a"), QT_SCALE_FACTOR="1.5")
        window.has_size(600, 384)
        self.keep_picture(window, "screen-scaled")
        window.click(300, 241)
        window.click(510, 342)
        self.assertEqual(sheet.wait(), 0, sheet.stderr)
        self.assertEqual(self.manifest()["targetPubkeys"], self.keys)

    def test_escape_and_the_button_cancel(self):
        self.pair(2)
        file = self.file("a.txt", b"a")
        for cancel in (lambda window: window.key("Escape"), lambda window: window.click(240, 256 - 28)):
            sheet, window = self.start(file)
            cancel(window)
            self.assertEqual(sheet.wait(), 1)
            self.assertEqual(sheet.stderr, "orlinth-share: cancelled\n")
            self.assertEqual(self.batches(), [])

    def test_nothing_is_sent_once_the_only_choice_is_taken_back(self):
        self.pair(2)
        sheet, window = self.start(self.file("a.txt", b"a"))
        enabled = window.color(320, 256 - 38)
        window.key("space")
        self.screen.wait_for(lambda: window.color(320, 256 - 38) != enabled, "a button without colour", sheet.process)
        window.key("Return")
        window.click(340, 256 - 28)
        self.keep_picture(window, "screen-nothing-chosen")
        self.assertIsNone(sheet.process.poll())
        window.key("Escape")
        self.assertEqual(sheet.wait(), 1)
        self.assertEqual(self.batches(), [])

    def test_without_a_phone_there_is_only_cancel(self):
        sheet, window = self.start(self.file("a.txt", b"a"))
        window.has_size(400, 216)
        self.keep_picture(window, "screen-no-phone")
        window.key("Return")
        self.assertEqual(sheet.wait(), 1)
        self.assertEqual(sheet.stderr, "orlinth-share: cancelled\n")

    def test_one_phone_shows_what_is_going_on(self):
        self.pair(1)
        gate = self.folder / "gate"  # otherwise its window is gone again before a slow machine has looked
        sheet, window = self.start(self.file("a.txt", b"a"), LD_PRELOAD=str(self.shim("gate", GATE)), GATE=str(gate))
        self.assertEqual(window.geometry()[2:], (400, 84))
        gate.touch()
        self.assertEqual(sheet.wait(), 0, sheet.stderr)
        self.assertEqual(self.manifest()["files"], ["a.txt"])

    def test_a_failure_stays_until_it_is_closed(self):
        self.pair(2)
        sheet, window = self.start("just a text")
        self.wait_until(lambda: sheet.stderr == "orlinth-share: Nothing shareable — Orlinth sends files only\n", sheet)
        self.keep_picture(window, "screen-failure")
        self.assertIsNone(sheet.process.poll())
        window.key("Return")
        self.assertEqual(sheet.wait(), 1)

    def test_the_colours_are_those_asked_for(self):
        self.pair(2)
        file = self.file("a.txt", b"a")
        for scheme, is_light in (("light", True), ("dark", False)):
            sheet, window = self.start("--color-scheme", scheme, file)
            self.screen.wait_for(lambda: (sum(window.color(3, 3)) > 600) == is_light and sum(window.color(3, 3)) > 60,
                     f"a {scheme} window", sheet.process)
            window.key("Escape")
            self.assertEqual(sheet.wait(), 1)

    def test_a_large_copy_is_cancelled_at_once(self):
        self.pair(1)
        # strace holds the copying up for longer than the test lasts; it does not notice before that the program has ended
        delay = 4 * PATIENCE
        sheet, window = self.start(self.file("large.bin", b"x" * 3_000_000), prefix=[
            "strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=copy_file_range", "-e",
            f"inject=copy_file_range:delay_enter={delay}000000"])
        self.assertEqual(window.geometry()[2:], (400, 84))
        self.wait_until(self.batches, self.outbox, sheet)
        [batch] = self.batches()
        copy = batch / "large.bin"
        self.wait_until(copy.exists, copy, sheet)
        window.key("Escape")
        self.wait_until(lambda: not self.batches(), self.outbox)
        said = [line for line in sheet.stderr.splitlines() if not line.startswith("strace: ")]
        self.assertEqual(said, ["orlinth-share: cancelled"])


if __name__ == "__main__":
    side_by_side.main()
