"""The downloads folder, where others may write too: nothing of theirs is followed, waited for, continued or delivered."""

import fcntl
import json
import os
import pathlib
import shutil
import signal
import subprocess
import time
import unittest

import side_by_side
from harness import FRAMES_BEFORE_DATA, MIB, PATIENCE, SANITIZED, sha256
from test_serve import ServeTest

SWAP = r"""
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Files get their final names by this call. Right before it, somebody puts $STRANGER in place of $PARTIAL. */
int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) {
    const char* stranger = getenv("STRANGER");
    if (stranger && *stranger) {
        rename(stranger, getenv("PARTIAL"));
        unsetenv("STRANGER");
    }
    return (int)syscall(SYS_renameat2, from_folder, from, to_folder, to, flags);
}
"""


class DownloadsFolder(ServeTest):
    """`phone` sends to the service of `desk`, or `mac` to the one-file receiver of `phone`."""

    def break_off(self, phone, file, port):
        """Sends a file up to its first frame of data; then the sender is killed, and the wire cut."""
        relay = self.relay(port, after_frames=FRAMES_BEFORE_DATA + 1, then="hold")
        sender = self.send(phone, file, relay.port)
        partial = self.desk.downloads / (file.name + ".partial")
        self.wait_until(lambda: partial.exists() and partial.stat().st_size > 0, partial)
        sender.kill()
        relay.close()
        # until no receiver writes it any more
        subprocess.run(["flock", "--exclusive", "--timeout", str(PATIENCE), str(partial), "true"], check=True)

    def sidecar(self, name):
        return self.desk.downloads / f"{name}.partial.meta.json"

    def test_a_link_in_the_sidecars_place_is_replaced_itself(self):
        precious = self.desk.root / ".bashrc"
        service = self.serve()
        for target in (precious, self.desk.root / ".bash_profile"):
            precious.write_text("precious")
            self.sidecar("a.bin").symlink_to(target)
            self.assert_sent(self.phone, self.file("a.bin", os.urandom(9 * MIB)), service)  # enough for it to be flushed
            self.assertEqual("precious", precious.read_text())
            self.assertEqual(["a.bin"], self.left_over())
            (self.desk.downloads / "a.bin").unlink()
        self.assertFalse((self.desk.root / ".bash_profile").exists())
        self.assert_ends(service)

    def test_a_pipe_or_a_folder_in_its_place_holds_nobody_up(self):
        service = self.serve()
        os.mkfifo(self.sidecar("a.bin"))
        self.assert_sent(self.phone, self.file("a.bin", b"content"), service)
        self.sidecar("b.bin").mkdir()
        sender = self.send(self.phone, self.file("b.bin", b"content"), service.port)
        self.assertEqual(1, sender.wait())
        self.assertEqual("file write failed: meta write: Is a directory", service.events.wait_for("error")["message"])
        self.assert_ends(service)

    def test_somebody_elses_lock_on_the_folder_stops_nobody(self):
        held = os.open(self.desk.downloads, os.O_RDONLY)
        self.addCleanup(os.close, held)
        fcntl.flock(held, fcntl.LOCK_EX)
        service = self.serve()
        self.assert_sent(self.phone, self.file("a.bin", b"content"), service)
        self.assert_ends(service)
        [lock] = (self.desk.data / "Orlinth").glob("downloads-*.lock")
        folder = self.desk.downloads.stat()
        self.assertEqual(f"downloads-{folder.st_dev}-{folder.st_ino}.lock", lock.name)
        self.assertEqual(0o600, lock.stat().st_mode & 0o777)

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_somebody_else_can_neither_read_nor_lock_what_is_not_whole(self):
        service = self.serve()
        self.folder.chmod(0o755)
        file = self.file("film.mov", os.urandom(3 * MIB))
        self.break_off(self.phone, file, service.port)
        partial = self.desk.downloads / "film.mov.partial"
        stranger = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "flock", "--nonblock",
                                   str(partial), "true"], capture_output=True, text=True, check=False)
        self.assertIn("Permission denied", stranger.stderr)
        event = self.assert_sent(self.phone, file, service)
        self.assertGreater(event["resumed_from_offset"], 0)
        self.assertEqual(0o644, pathlib.Path(event["saved_at"]).stat().st_mode & 0o777)
        self.assert_ends(service)

    def test_a_receiver_that_holds_the_turn_for_ever_is_reported(self):
        service = self.serve()
        self.assert_sent(self.phone, self.file("a.bin", b"content"), service)
        [lock] = (self.desk.data / "Orlinth").glob("downloads-*.lock")
        held = os.open(lock, os.O_RDWR)
        self.addCleanup(os.close, held)
        fcntl.flock(held, fcntl.LOCK_EX)
        sender = self.send(self.phone, self.file("b.bin", b"content"), service.port)
        self.assertEqual(f"file write failed: another program holds the lock {lock}",
                         service.events.wait_for("error")["message"])
        sender.wait()
        fcntl.flock(held, fcntl.LOCK_UN)
        self.assert_sent(self.phone, self.file("c.bin", b"content"), service)
        self.assert_ends(service)

    def test_a_file_put_in_the_partials_place_is_not_delivered(self):
        stranger = self.folder / "stranger"
        stranger.write_text("not what the phone has sent")
        self.desk.environment.update(LD_PRELOAD=str(self.shim("swap", SWAP)), STRANGER=str(stranger),
                                     PARTIAL=str(self.desk.downloads / "a.bin.partial"))
        service = self.serve()
        file = self.file("a.bin", b"content")
        sender = self.send(self.phone, file, service.port)
        self.assertEqual("file write failed: rename: another program has replaced a.bin.partial",
                         service.events.wait_for("error")["message"])
        sender.wait()
        self.assertIsNone(next((event for event in service.events.all if event["event"] == "received"
                                and sha256(event["saved_at"]) != sha256(file)), None))
        for path in self.desk.downloads.iterdir():
            if path.read_bytes() == b"not what the phone has sent":
                self.assertEqual("a.bin.partial", path.name)
        self.assert_ends(service)

    def test_only_the_phone_that_began_a_download_continues_it(self):
        service = self.serve()
        file = self.file("film.mov", os.urandom(3 * MIB))
        self.break_off(self.phone, file, service.port)
        self.assertEqual(self.phone.key, json.loads(self.sidecar("film.mov").read_text())["peer_pubkey"])
        thief = self.another_phone("thief")
        thief.record(self.desk, service.port)
        for name in ("inflight.json", "inflight-sources.json"):  # the same transfer id
            shutil.copy(self.phone.data / "Orlinth" / name, thief.data / "Orlinth" / name)
        event = self.assert_sent(thief, file, service)
        self.assertEqual((0, "film 2.mov"), (event["resumed_from_offset"], pathlib.Path(event["saved_at"]).name))
        event = self.assert_sent(self.phone, file, service)
        self.assertEqual("film.mov", pathlib.Path(event["saved_at"]).name)
        self.assertGreater(event["resumed_from_offset"], 0)
        self.assert_ends(service)

    def test_a_file_of_the_users_own_is_not_continued_by_a_sidecar_that_a_phone_delivers(self):
        own = self.desk.downloads / "thesis.partial"
        own.write_text("years of work")
        service = self.serve()
        victim = self.file("thesis", b"years of work, and what the phone adds")
        self.phone.record(self.desk, 9)
        self.assertEqual(1, self.phone.run("send", "--to", "mac", "--warm-timeout", "1", str(victim)).returncode)
        [transfer_id] = self.phone.journal().values()
        sidecar = json.dumps({"transfer_id": transfer_id, "advertised_size": 38, "started_at_epoch_ms": 1})
        for name in ("thesis.partial.meta.json", "thesis.PARTIAL.meta.json"):
            event = self.assert_sent(self.phone, self.file(name, sidecar.encode()), service)
            self.assertNotEqual(name, pathlib.Path(event["saved_at"]).name)
        event = self.assert_sent(self.phone, victim, service)
        self.assertEqual((0, "thesis 2"), (event["resumed_from_offset"], pathlib.Path(event["saved_at"]).name))
        self.assertEqual("years of work", own.read_text())
        self.assert_ends(service)

    def test_a_second_name_of_a_file_is_not_continued(self):
        service = self.serve()
        file = self.file("film.mov", os.urandom(3 * MIB))
        self.break_off(self.phone, file, service.port)
        partial = self.desk.downloads / "film.mov.partial"
        own = self.desk.root / "own.txt"
        own.write_text("own")
        partial.unlink()
        os.link(own, partial)
        event = self.assert_sent(self.phone, file, service)
        self.assertEqual("film 2.mov", pathlib.Path(event["saved_at"]).name)
        self.assertEqual("own", own.read_text())
        self.assert_ends(service)

    def test_the_one_file_receiver_is_as_careful(self):
        precious = self.phone.root / ".bashrc"
        precious.write_text("precious")
        (self.phone.downloads / "a.bin.partial.meta.json").symlink_to(precious)
        held = os.open(self.phone.downloads, os.O_RDONLY)
        self.addCleanup(os.close, held)
        fcntl.flock(held, fcntl.LOCK_EX)
        file = self.file("a.bin", os.urandom(MIB))
        sender, receiver = self.transfer(file)
        self.assert_delivered(file, sender, receiver)
        self.assertEqual("precious", precious.read_text())


class Choice(ServeTest):
    """Which folders are none for what phones send."""

    COMMANDS = (["serve", "--port", "0"], ["receive", "--from", "phone", "--port", "0"])

    def assert_refused(self, identity, arguments, text, environment=None):
        for command in self.COMMANDS:
            with self.subTest(command=command[0], arguments=arguments):
                result = identity.run(*command, *arguments, environment=environment or {})
                self.assertEqual(2, result.returncode, result.stderr)
                first, second = result.stderr.splitlines()
                self.assertEqual(f"orlinth: received files cannot go to {text}", first)
                self.assertIn("`--dir`", second)

    def test_the_home_folder_and_those_of_settings_and_data_and_all_above_them(self):
        home = self.desk.root
        (self.desk.config / "orlinth").mkdir(parents=True)
        for folder, why in ((home, "it is your home folder"),
                            (f"{home}/", "it is your home folder"),
                            (f"{home}/downloads/..", "it is your home folder"),
                            (home.parent, "your home folder is in it"),
                            ("/", "your home folder is in it"),
                            (self.desk.config, "it is your folder for settings"),
                            (self.desk.data, "it is your folder for programs' data"),
                            (self.desk.data / "Orlinth", f"Orlinth keeps its own files in {self.desk.data}/Orlinth"),
                            (self.desk.data / "Orlinth/new", f"Orlinth keeps its own files in {self.desk.data}/Orlinth"),
                            (self.desk.config / "orlinth",
                             f"Orlinth keeps its own files in {self.desk.config}/orlinth")):
            self.assert_refused(self.desk, ["--dir", str(folder)], f"{folder}: {why}")

    def test_by_another_path_too(self):
        link = self.folder / "link"
        link.symlink_to(self.desk.root)
        self.assert_refused(self.desk, ["--dir", str(link)], f"{link}: it is your home folder")
        inner = self.desk.downloads / "config"
        inner.mkdir()
        shutil.rmtree(self.desk.config, ignore_errors=True)
        self.desk.config.symlink_to(inner)  # what is above the folder itself, not above its path
        self.assert_refused(self.desk, ["--dir", str(self.desk.downloads)],
                            f"{self.desk.downloads}: your folder for settings is in it")

    def test_of_a_home_that_does_not_exist_the_path_counts(self):
        nowhere = self.folder / "nowhere"
        for folder, why in ((nowhere, "it is your home folder"), (self.folder, "your home folder is in it")):
            self.assert_refused(self.desk, ["--dir", str(folder)], f"{folder}: {why}", {"HOME": str(nowhere)})

    def test_the_desktops_setting_for_no_downloads_folder_means_downloads_in_the_home(self):
        self.desk.config.mkdir(exist_ok=True)
        setting = self.desk.config / "user-dirs.dirs"
        for text in ('XDG_DOWNLOAD_DIR="$HOME"\n', 'XDG_DOWNLOAD_DIR="$HOME/"\n', f'XDG_DOWNLOAD_DIR="{self.desk.root}/."\n'):
            setting.write_text(text)
            service = self.running(self.desk, "serve", "--port", "0", "--json")
            service.port = service.events.wait_for("listening")["port"]
            event = self.assert_sent(self.phone, self.file("a.txt", os.urandom(10)), service)
            self.assertEqual(self.desk.root / "Downloads", pathlib.Path(event["saved_at"]).parent)
            self.assertIn(f"Received files go to {self.desk.root}/Downloads instead.", service.stderr)
            self.assert_ends(service)
        setting.write_text(f'XDG_DOWNLOAD_DIR="{self.desk.root.parent}"\n')
        self.assert_refused(self.desk, [], f"{self.desk.root.parent}: your home folder is in it")


class Room(ServeTest):
    """What is declined, and why."""

    def assert_declined(self, service, file, reason, limit):
        before = len(service.events.all)
        sender = self.send(self.phone, file, service.port)
        self.assertEqual(1, sender.wait())
        self.assertIn("declined", sender.events.find("error")["message"])
        [event] = service.events.wait_until(
            lambda: [event for event in service.events.all[before:] if event["event"] == "declined"], "second 'declined'")
        self.assertEqual((file.name, "phone", reason, limit),
                         tuple(event[key] for key in ("name", "from", "reason", "limit")))

    def test_files_that_are_too_large_or_leave_too_little_room_are_declined(self):
        service = self.serve("--max-file", "1M")
        self.assert_sent(self.phone, self.file("small.bin", os.urandom(MIB)), service)
        self.assert_declined(service, self.file("large.bin", os.urandom(MIB + 1)), "too_large", MIB)
        self.assert_ends(service)
        service = self.serve("--keep-free", "1000T")
        self.assert_declined(service, self.file("b.bin", b"content"), "no_room", 1000 << 40)
        self.assert_ends(service)
        service = self.serve("--keep-free", "0")
        self.assert_sent(self.phone, self.file("c.bin", b"content"), service)
        self.assert_ends(service)
        self.assertEqual(["c.bin", "small.bin"], self.left_over())

    def test_in_words(self):
        service = self.running(self.desk, "serve", "--port", "0", "--dir", str(self.desk.downloads), "--max-file", "1MB")
        self.wait_until(lambda: "listening on port " in service.stderr, service)
        port = int(service.stderr.split("listening on port ")[1].split()[0])
        self.send(self.phone, self.file("large.bin", os.urandom(MIB)), port).wait()
        service.events.wait_until(lambda: service.events.not_json, "line")
        self.assertEqual(b"declined large.bin from phone: it is larger than 1.0 MB (`--max-file`)\n",
                         service.events.not_json[0])

    def test_a_size_must_be_one(self):
        for text in ("", "much", "-1", "10X"):
            result = self.desk.run("serve", "--keep-free", text)
            self.assertEqual(2, result.returncode, result.stderr)
        self.desk.config.mkdir(exist_ok=True)
        (self.desk.config / "orlinth").mkdir(exist_ok=True)
        (self.desk.config / "orlinth" / "config.toml").write_text('[serve]\nkeep-free = "1000T"\n')
        service = self.serve()
        self.assert_declined(service, self.file("b.bin", b"content"), "no_room", 1000 << 40)


class Unfinished(ServeTest):
    """`orlinth partials`."""

    def partials(self, *arguments):
        result = self.desk.run("partials", "--dir", str(self.desk.downloads), "--json", *arguments)
        self.assertEqual(0, result.returncode, result.stderr)
        return [json.loads(line) for line in result.stdout.splitlines()]

    def old_partial(self, folder, name):
        """An unfinished download that has not changed for ages."""
        partial = folder / f"{name}.partial"
        partial.write_bytes(b"01234")
        (folder / f"{name}.partial.meta.json").write_text(json.dumps(
            {"transfer_id": name, "advertised_size": 10, "started_at_epoch_ms": 1, "peer_pubkey": self.phone.key}))
        os.utime(partial, (1, 1))

    def test_are_listed_and_removed_in_a_folder_in_which_nothing_may_be_received_any_more(self):
        home = self.desk.root
        (home / "own.partial").write_text("own")
        self.old_partial(home, "old.mov")
        result = self.desk.run("partials", "--dir", str(home))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertRegex(result.stdout, r"^old.mov  5 bytes of 10 bytes  from phone  1970-01-01 \d\d:\d\d\n$")
        result = self.desk.run("partials", "--dir", str(home), "--remove-older-than", "7")
        self.assertEqual((0, "removed old.mov.partial (5 bytes)\n"), (result.returncode, result.stdout))
        self.assertEqual(["own.partial"], sorted(path.name for path in home.glob("*.partial*")))

    # of the turns in the downloads folder the first two can be had; then another program has it for ever
    BUSY = """
        #define _GNU_SOURCE
        #include <dlfcn.h>
        #include <errno.h>
        #include <fcntl.h>
        #include <stdio.h>
        #include <stdlib.h>
        #include <string.h>
        #include <unistd.h>
        static int turns;
        int flock(int number, int operation) {
            char link[64], path[4096] = "";
            snprintf(link, sizeof link, "/proc/self/fd/%d", number);
            if (readlink(link, path, sizeof path - 1) > 0 && strstr(path, "/downloads-") && ++turns > 2) {
                close(open(getenv("ORLINTH_TEST_BUSY"), O_CREAT | O_WRONLY, 0600));
                errno = EWOULDBLOCK;
                return -1;
            }
            return ((int (*)(int, int))dlsym(RTLD_NEXT, "flock"))(number, operation);
        }
    """

    def removing(self):
        """`partials` that has removed two of three and waits for its turn; the other program has the turn."""
        for name in ("a", "b", "c"):
            self.old_partial(self.desk.downloads, name)
        busy = self.folder / "busy"
        self.desk.environment.update(LD_PRELOAD=str(self.shim("busy", self.BUSY)), ORLINTH_TEST_BUSY=str(busy))
        program = self.running(self.desk, "partials", "--dir", str(self.desk.downloads), "--json",
                               "--remove-older-than", "7")
        self.wait_until(busy.exists, busy)
        return program

    def assert_two_are_told(self, program):
        self.assertEqual(["a", "b"], [event["name"] for event in program.events.all
                                      if event["event"] == "partial_removed"])
        self.assertIn("Removed 2 unfinished downloads, 10 bytes.\n", program.stderr)
        self.assertEqual(["c.partial", "c.partial.meta.json"], self.left_over())

    @unittest.skipIf(SANITIZED, "a sanitizer wants to be the first library")
    def test_that_were_removed_are_told_if_a_signal_ends_it(self):
        program = self.removing()
        program.signal(signal.SIGINT)
        self.assertEqual(130, program.wait())
        self.assert_two_are_told(program)

    def test_are_listed_and_removed_when_they_are_old(self):
        self.assertEqual([], self.partials())
        key = self.phone.key
        for name, days in (("old.mov", 10), ("new.mov", 1)):
            partial = self.desk.downloads / f"{name}.partial"
            partial.write_bytes(b"01234")
            (self.desk.downloads / f"{name}.partial.meta.json").write_text(json.dumps(
                {"transfer_id": name, "advertised_size": 10, "started_at_epoch_ms": 1, "peer_pubkey": key}))
            then = time.time() - days * 24 * 3600
            os.utime(partial, (then, then))
        (self.desk.downloads / "own.partial").write_text("own")
        listed = self.partials()
        self.assertEqual([("partial", name, 5, 10, key, "phone") for name in ("new.mov", "old.mov")],
                         [tuple(event[field] for field in ("event", "name", "size", "advertised_size", "peer_pubkey",
                                                           "from")) for event in listed])
        self.assertEqual([], self.partials("--remove-older-than", "11"))
        held = open(self.desk.downloads / "old.mov.partial", "rb")
        self.addCleanup(held.close)
        fcntl.flock(held, fcntl.LOCK_EX)
        self.assertEqual([], self.partials("--remove-older-than", "7"), "it is being written")
        held.close()
        [removed] = self.partials("--remove-older-than", "7")
        self.assertEqual(("partial_removed", "old.mov"), (removed["event"], removed["name"]))
        self.assertEqual(["new.mov.partial", "new.mov.partial.meta.json", "own.partial"], self.left_over())
        result = self.desk.run("partials", "--dir", str(self.desk.downloads))
        self.assertRegex(result.stdout, r"^new.mov  5 bytes of 10 bytes  from phone  \d{4}-\d\d-\d\d \d\d:\d\d\n$")
        self.assertEqual(2, self.desk.run("partials", "--remove-older-than", "-1").returncode)

    def test_one_that_cannot_be_removed_does_not_keep_the_others(self):
        for name in ("busy", "old"):
            partial = self.desk.downloads / f"{name}.partial"
            shutil.copy("/bin/sleep", partial)
            (self.desk.downloads / f"{name}.partial.meta.json").write_text(json.dumps(
                {"transfer_id": name, "advertised_size": 10, "started_at_epoch_ms": 1, "peer_pubkey": self.phone.key}))
            os.utime(partial, (1, 1))
        running = subprocess.Popen([self.desk.downloads / "busy.partial", "60"])  # nobody may write a running program
        self.addCleanup(running.wait)
        self.addCleanup(running.kill)
        result = self.desk.run("partials", "--dir", str(self.desk.downloads), "--remove-older-than", "7")
        self.assertEqual(1, result.returncode, result.stderr)
        self.assertIn("orlinth: cannot remove busy.partial: Text file busy\n", result.stderr)
        self.assertIn("removed old.partial", result.stdout)
        self.assertEqual(["busy.partial", "busy.partial.meta.json"], self.left_over())


if __name__ == "__main__":
    side_by_side.main()
