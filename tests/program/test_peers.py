"""The paired phones: listing, recording by hand, forgetting, and records that cannot be used."""

import json
import os
import signal
import threading

import side_by_side
from harness import Identity, ProgramTest, random_key

TOKEN = "a-push-token-that-nobody-may-see"


class Peers(ProgramTest):
    def setUp(self):
        super().setUp()
        self.mac.run("peers", "remove", "phone")

    def add(self, name, key=None, ip="192.0.2.7", port="4711", *more):
        return self.mac.run("peers", "add", "--pubkey", key or random_key(), "--ip", ip, "--port", port, "--name",
                            name, *more)

    def listed(self):
        return [json.loads(line) for line in self.mac.run("peers", "--json").stdout.splitlines()]

    def test_a_recorded_phone_is_listed(self):
        key = random_key()
        added = self.add("Pixel 8", key)
        self.assertEqual((0, "recorded Pixel 8 at 192.0.2.7:4711\n", ""),
                         (added.returncode, added.stdout, added.stderr))
        [peer] = self.listed()
        self.assertGreater(peer.pop("paired_at_epoch_ms"), 1_600_000_000_000)
        self.assertEqual({"state": "unknown", "seen_epoch_ms": 0, "can_wake": False},
                         {name: peer.pop(name) for name in ("state", "seen_epoch_ms", "can_wake")})
        self.assertEqual(
            {"event": "peer", "peer_pubkey": key, "peer_ip": "192.0.2.7", "peer_port": 4711, "peer_subnet": "",
             "peer_hostname": "Pixel 8", "peer_mac": "", "self_pubkey": self.mac.key, "has_fcm_token": False,
             "peer_android": ""},
            peer,
        )
        header, row = self.mac.run("peers").stdout.splitlines()
        self.assertEqual(["NAME", "ADDRESS", "KEY", "PAIRED", "SEEN", "WAKE"], header.split())
        self.assertRegex(row,
                         r"^Pixel 8  192\.0\.2\.7:4711  \S{12}  \d{4}-\d\d-\d\d \d\d:\d\d  -     no$")
        self.assertEqual(key[:12], row.split()[3])

    def test_no_phones_is_no_failure(self):
        result = self.mac.run("peers")
        self.assertEqual((0, ""), (result.returncode, result.stdout))
        self.assertIn("No phone is paired yet", result.stderr)

    def test_the_push_token_is_kept_and_never_printed(self):
        key = random_key()
        added = self.add("Pixel", key, "127.0.0.7", "4711", "--fcm-token", TOKEN, "--json")
        everything = added.stdout + added.stderr
        for arguments in (["peers"], ["peers", "--json"]):
            result = self.mac.run(*arguments)
            everything += result.stdout + result.stderr
        self.assertTrue(self.listed()[0]["has_fcm_token"])
        self.assertIn(TOKEN, self.mac.peer_file.read_text())
        # a new identity of the same phone reports the one it replaces
        replaced = self.add("Pixel", None, "127.0.0.7", "4711", "--json")
        event = json.loads(replaced.stdout)
        self.assertEqual([key], [peer["peer_pubkey"] for peer in event["replaced"]])
        removed = self.mac.run("peers", "--json", "remove", "pixel")
        self.assertEqual("Pixel", json.loads(removed.stdout)["peer"]["peer_hostname"])
        self.assertNotIn(TOKEN, everything + replaced.stdout + replaced.stderr + removed.stdout + removed.stderr)

    def test_a_phone_that_was_set_up_anew_replaces_its_old_record(self):
        self.add("Pixel")
        result = self.add("Pixel")
        self.assertIn("in place of the earlier identity of Pixel", result.stdout)
        self.assertEqual(1, len(self.listed()))

    def test_our_own_key_is_no_phone(self):
        result = self.add("me", self.mac.key)
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "this is the computer's own key")
        self.assertEqual([], self.listed())

    def test_remove_forgets_exactly_the_phone_that_is_meant(self):
        self.add("Pixel-7", ip="127.0.0.7")
        self.add("Pixel-8", ip="127.0.0.8")  # nobody is there, and that is known at once
        result = self.mac.run("peers", "remove", "pixel")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(
            result.stderr,
            "PeerRecord decode failed: selector 'pixel' is ambiguous (matches: Pixel-7, Pixel-8)",
        )
        self.assertEqual(0, self.mac.run("peers", "remove", "PIXEL-8").returncode)
        self.assertEqual(["Pixel-7"], [peer["peer_hostname"] for peer in self.listed()])
        result = self.mac.run("peers", "remove", "PIXEL-8")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "no paired phone matches 'PIXEL-8'")

    def test_two_phones_of_one_name_are_told_apart_by_their_keys(self):
        keys = ["A" * 11 + letter + random_key()[12:] for letter in "bc"]  # the same at first
        for number, key in enumerate(keys):
            self.assertEqual(0, self.add(f"phone {number}", key, f"192.0.2.{number + 1}").returncode)
        book = json.loads(self.mac.peer_file.read_text())
        for peer, name in zip(book["peers"], ("Pixel", "pixel")):
            peer["peer_hostname"] = name  # as older versions and people have recorded them
        self.mac.peer_file.write_text(json.dumps(book))
        before = self.mac.peer_file.read_text()
        for arguments in (
            ["send", "--to", "Pixel", str(self.file("a", b"a"))],
            ["receive", "--from", "Pixel", "--port", "0", "--timeout", "0.1"],
            ["wake", "Pixel"],
            ["clip", "--to", "Pixel", "--text", "a"],
            ["share", "--to", "Pixel", str(self.file("a", b"a"))],
            ["peers", "remove", "Pixel"],
        ):
            with self.subTest(command=arguments[0]):
                result = self.mac.run(*arguments)
                self.assertEqual(1, result.returncode)
                self.assert_one_line_error(
                    result.stderr,
                    "selector 'Pixel' is ambiguous: 2 paired phones have this name "
                    f"(keys: {keys[0][:12]}, {keys[1][:12]})",
                )
                self.assertEqual("Use the beginning of the phone's key instead of its name.",
                                 result.stderr.splitlines()[-1])
        self.assertEqual(before, self.mac.peer_file.read_text())
        by_prefix = self.mac.run("wake", "pix")
        self.assert_one_line_error(
            by_prefix.stderr, "PeerRecord decode failed: selector 'pix' is ambiguous (matches: Pixel, pixel)")
        self.assertEqual("Use the whole name, or the beginning of the phone's key: "
                         f"Pixel {keys[0][:12]}, pixel {keys[1][:12]}.", by_prefix.stderr.splitlines()[-1])
        self.assertEqual(0, self.mac.run("peers", "remove", keys[1][:12]).returncode)
        self.assertEqual([keys[0]], [peer["peer_pubkey"] for peer in self.listed()])

    def test_a_removed_phone_is_remembered_and_a_phone_that_is_recorded_again_is_not(self):
        remembered = self.mac.data / "Orlinth" / "removed.json"
        remembered.unlink(missing_ok=True)
        keys = [random_key() for _ in range(3)]
        for number, key in enumerate(keys):
            self.add(f"phone {number}", key, "127.0.0.1", "9")
        self.assertFalse(remembered.exists())
        for number in range(3):
            removed = self.mac.run("peers", "remove", f"phone {number}")
            self.assertEqual((0, f"forgot phone {number}\n"), (removed.returncode, removed.stdout))
            self.assertEqual(f"phone {number} could not be told now (network: Connection refused); it is told when it "
                             "connects to `orlinth serve`.\n", removed.stderr)
        self.assertEqual({"removed": keys}, json.loads(remembered.read_text()))
        self.add("phone 1", keys[1])
        self.assertEqual({"removed": [keys[0], keys[2]]}, json.loads(remembered.read_text()))
        self.add("phone 0", keys[0], "127.0.0.1", "9")
        self.mac.run("peers", "remove", "phone 0")
        self.assertEqual({"removed": [keys[2], keys[0]]}, json.loads(remembered.read_text()))

    def test_only_so_many_removed_phones_are_remembered_the_last_ones(self):
        remembered = self.mac.data / "Orlinth" / "removed.json"
        keys = [random_key() for _ in range(1000)]
        remembered.write_text(json.dumps({"removed": keys}))
        key = random_key()
        self.add("phone", key, "127.0.0.1", "9")
        self.mac.run("peers", "remove", "phone")
        self.assertEqual({"removed": keys[1:] + [key]}, json.loads(remembered.read_text()))

    def test_a_phone_without_a_usable_key_can_be_removed_too(self):
        self.add("phone")
        book = json.loads(self.mac.peer_file.read_text())
        book["peers"][0]["peer_pubkey"] = "AAAA"
        self.mac.peer_file.write_text(json.dumps(book))
        removed = self.mac.run("peers", "remove", "phone")
        self.assertEqual((0, "forgot phone\n"), (removed.returncode, removed.stdout))
        self.assertEqual([], self.listed())

    def test_names_from_outside_cannot_write_to_the_terminal(self):
        self.add("a\x1b[31m\u202eb")
        self.assertIn("a\\u{001B}[31m\\u{202E}b", self.mac.run("peers").stdout)

    def test_a_damaged_store_is_reported_and_left_alone(self):
        self.mac.peer_file.write_text("{nonsense")
        for arguments in (["peers"], ["send", str(self.file("a", b"a"))]):
            result = self.mac.run(*arguments)
            self.assertEqual(1, result.returncode)
            self.assertRegex(result.stderr, r"^orlinth: PeerRecord decode failed: .")
            self.assertEqual(f"The list of paired phones, {self.mac.peer_file}, is damaged. Restore it from a backup, "
                             "or move it away and pair your phones again.", result.stderr.splitlines()[-1])
        self.assertEqual(1, self.add("x").returncode)
        self.assertEqual("{nonsense", self.mac.peer_file.read_text())

    def test_a_file_that_cannot_be_used_is_named_with_the_way_out(self):
        key = self.mac.data / "Orlinth" / "noise_static.bin"
        good = key.read_bytes()
        self.mac.peer_file.unlink()
        for path, make, text, way in (
            (self.mac.peer_file, lambda: self.mac.peer_file.mkdir(), "PeerRecord read failed: Is a directory",
             "The list of paired phones is {}. Make it readable for this account."),
            (key, lambda: key.write_bytes(good[:31]), "stored key has wrong length 31 (want 32)",
             "This computer's key, {}, is damaged. Restore it from a backup, or delete it and pair every phone again."),
            (key, lambda: (key.unlink(), key.mkdir()), "vault read failed: Is a directory",
             "This computer's key is {}. Make it readable for this account."),
        ):
            with self.subTest(text):
                make()
                result = self.mac.run("peers", "remove", "x")
                self.assertEqual((1, [f"orlinth: {text}", way.format(path)]),
                                 (result.returncode, result.stderr.splitlines()))

    def test_two_processes_at_once_lose_nothing(self):
        failures = []

        def record(first):
            for number in range(first, 24, 2):
                result = self.add(f"phone {number}", ip=f"192.0.2.{number + 1}")
                if result.returncode != 0:
                    failures.append(result.stderr)

        both = [threading.Thread(target=record, args=(first,)) for first in (0, 1)]
        for one in both:
            one.start()
        for one in both:
            one.join()
        self.assertEqual([], failures)
        self.assertEqual({f"phone {number}" for number in range(24)},
                         {peer["peer_hostname"] for peer in self.listed()})


class AnyUmask(ProgramTest):
    """What is made on first use is for the owner alone, and usable, whatever the session's umask is."""

    def test_first_use(self):
        for umask in (0, 0o777):
            with self.subTest(umask=oct(umask)):
                self.first_use(umask)

    def first_use(self, umask):
        anna = Identity(self.folder, f"anna{umask:o}")
        file = self.file(f"{umask:o}.txt", b"some text")
        isRoot = os.geteuid() == 0  # who may do anything, whatever the modes say
        if isRoot:
            self.folder.chmod(0o755)
            for path in (anna.root, *anna.root.rglob("*")):
                os.chown(path, 65534, 65534)

        def prepare():
            if isRoot:
                os.setgroups([])
                os.setgid(65534)
                os.setuid(65534)
            os.umask(umask)

        def done(*arguments, status=0):
            result = anna.run(*arguments, preexec_fn=prepare)
            self.assertEqual(status, result.returncode, (arguments, result.stderr))
            return result

        done("id")
        done("peers", "add", "--pubkey", random_key(), "--ip", "127.0.0.1", "--port", "9", "--name", "phone")
        done("send", str(file), status=1)  # nobody is there, and the journal knows
        done("share", str(file))
        service = self.running(anna, "serve", "--port", "0", "--json", preexec_fn=prepare)
        service.events.wait_for("outbox_waiting")
        done("outbox", "retry")
        done("peers", "remove", "phone")
        names = set()
        for path in anna.data.rglob("*"):
            names.add(path.name)
            self.assertEqual("0o700" if path.is_dir() else "0o600", oct(path.stat().st_mode & 0o777), path)
        self.assertLessEqual({"noise_static.bin", "peer.json", "peer.json.lock", "inflight.json", "removed.json",
                              "service.lock", "service.sock", "service.sock.lock", "peers.json", "manifest.json",
                              file.name}, names)
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(), service.stderr)


class UnusableRecords(ProgramTest):
    def test_a_record_is_checked_before_it_is_used_and_the_fault_is_named(self):
        good = json.loads(self.mac.peer_file.read_text())
        for changes, text in (
            ({"peer_port": 0}, "the record of 'phone' has port 0, which is not from 1 to 65535"),
            ({"peer_port": -1}, "the record of 'phone' has port -1, which is not from 1 to 65535"),
            ({"peer_port": 65536}, "the record of 'phone' has port 65536, which is not from 1 to 65535"),
            ({"peer_ip": ""}, "the record of 'phone' has no address: peer_ip is empty"),
            ({"peer_ip": " "}, "the record of 'phone' has no address: peer_ip is empty"),
            ({"peer_pubkey": "AAAA"},
             "the record of 'phone' has no usable key: peer_pubkey is not the Base64 of 32 bytes"),
            ({"peer_pubkey": "?"},
             "the record of 'phone' has no usable key: peer_pubkey is not the Base64 of 32 bytes"),
            ({"peer_pubkey": self.mac.key}, "the record of 'phone' has this computer's own key"),
        ):
            self.mac.peer_file.write_text(json.dumps({"peers": [{**good["peers"][0], **changes}]}))
            commands = [["send", "--to", "phone", str(self.file("a", b"a"))],
                        ["clip", "--to", "phone", "--text", "a"]]
            if "peer_pubkey" in changes:  # to receive, and to leave something in the outbox, takes the key alone
                commands += [["receive", "--from", "phone", "--port", "0"],
                             ["share", "--to", "phone", str(self.file("a", b"a"))]]
            for arguments in commands:
                with self.subTest(changes=changes, command=arguments[0]):
                    result = self.mac.run(*arguments)
                    self.assertEqual(1, result.returncode)
                    self.assert_one_line_error(result.stderr, text)

    def test_what_a_command_does_not_use_does_not_stop_it(self):
        record = json.loads(self.mac.peer_file.read_text())["peers"][0]

        def change(**fields):
            self.mac.peer_file.write_text(json.dumps({"peers": [{**record, **fields}]}))

        change(peer_port=0, peer_ip="")
        received = self.mac.run("receive", "--from", "phone", "--port", "0", "--timeout", "0.1")
        self.assert_one_line_error(received.stderr, "timed out")
        self.assertEqual(0, self.mac.run("share", "--to", "phone", str(self.file("a", b"a"))).returncode)
        change(peer_port=-1, peer_ip="", peer_pubkey="AAAA", peer_fcm_token=TOKEN)
        woken = self.mac.run("wake", "phone")
        self.assertRegex(woken.stderr, "^orlinth: service account JSON missing at ")


if __name__ == "__main__":
    side_by_side.main()
