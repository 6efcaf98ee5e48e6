"""What scripts and people rely on: exit statuses, one-line errors, help, settings, the output streams."""

import json
import os
import socket
import stat
import subprocess
import unittest

from harness import ORLINTH, ProgramTest, UnansweredPort


class WrongCommandLines(ProgramTest):
    def test_each_ends_with_status_2_one_line_and_where_to_read_on(self):
        file = str(self.file("a", b"a"))
        key = self.phone.key
        add = ["peers", "add", "--pubkey", key, "--ip", "127.0.0.1", "--port", "9", "--name", "x"]
        for arguments in (
            [],
            ["bogus"],
            ["--bogus"],
            ["id", "--bogus"],
            ["id", "superfluous"],
            ["send"],
            ["send", "--to", "", file],
            ["send", ""],
            ["send", "--to", "phone"],
            *(["send", flag, value, file]
              for flag in ("--warm-timeout", "--wake-timeout", "--attempt-timeout", "--retry-interval")
              for value in ("-1", "nan", "inf", "1e300", "", "five", "1 ", "0x10", "1,5")),
            ["share"],
            ["share", ""],
            ["share", "--to", "phone"],
            ["share", "--to", "", file],
            ["outbox", "bogus"],
            ["outbox", "drop"],
            ["outbox", "drop", ""],
            ["outbox", "retry", "A", "B"],
            ["receive"],
            ["receive", "--from", "mac"],
            ["receive", "--port", "0"],
            ["receive", "--from", "", "--port", "0"],
            *(["receive", "--from", "mac", "--port", port] for port in ("-1", "65536", "", "http", "1.5", "+1")),
            ["receive", "--from", "mac", "--port", "0", "--timeout", "-0.1"],
            ["receive", "--from", "mac", "--port", "0", "--dir", ""],
            *(["serve", "--port", port] for port in ("-1", "65536", "", "http", "1.5", "+1")),
            *(["serve", "--accept", answer] for answer in ("", "yes", "Always")),
            ["serve", "--dir", ""],
            ["serve", "a.bin"],
            ["doctor", ""],
            ["doctor", "--bogus"],
            ["wake"],
            ["wake", ""],
            ["wake", "phone", "tablet"],
            ["peers", "bogus"],
            ["peers", "remove"],
            ["peers", "remove", ""],
            ["peers", "add"],
            [*add[:3], "too short", *add[4:]],
            [*add[:3], key[:-1], *add[4:]],
            [*add[:3], key[:-2] + "B=", *add[4:]],  # bits behind the end of the 32 bytes
            [*add[:3], "A" * 44, *add[4:]],
            [*add[:5], "", *add[6:]],
            [*add[:5], "a b", *add[6:]],
            [*add[:7], "0", *add[8:]],
            [*add[:7], "65536", *add[8:]],
            [*add[:9], ""],
            [*add[:9], " "],
        ):
            with self.subTest(arguments):
                result = self.mac.run(*arguments)
                self.assertEqual(2, result.returncode, result.stderr)
                self.assertEqual("", result.stdout)
                lines = result.stderr.splitlines()
                self.assertEqual(2, len(lines), lines)
                self.assertTrue(lines[0].startswith("orlinth: "), lines)
                self.assertRegex(lines[1], r"^`orlinth[a-z ]* --help` ")

    def test_an_unknown_command_is_named(self):
        result = self.mac.run("synchronise")
        self.assertEqual(2, result.returncode)
        self.assertIn("there is no command 'synchronise'", result.stderr)


class Help(ProgramTest):
    def test_every_command_explains_every_flag_with_unit_and_default(self):
        for command, expected in {
            (): ["id", "pair", "join", "peers", "send", "receive", "serve", "share", "outbox", "history", "partials",
                 "clip", "wake", "doctor", "--version", "Exit status"],
            ("share",): ["--to SELECTOR", "FILE", "--json"],
            ("outbox",): ["retry", "drop", "--json"],
            ("partials",): ["--dir DIR", "--remove-older-than DAYS", "--json", "--quiet"],
            ("outbox", "drop"): ["BATCH"],
            ("history",): ["--last N", "--json"],
            ("id",): ["--json"],
            ("pair",): ["--port PORT=28471", "--timeout SECONDS=120", "--interface NAME", "--png FILE", "--no-advertise",
                        "--yes", "--json", "--quiet"],
            ("join",): ["--payload FILE", "--qr PNG", "--code NNNN", "--listen-port PORT", "--timeout SECONDS=30",
                        "--yes", "--json", "--quiet"],
            ("peers",): ["--json", "add", "remove", "rename"],
            ("peers", "add"): ["--pubkey KEY REQUIRED", "--ip", "--port", "--name", "--fcm-token", "1 to 65535"],
            ("peers", "remove"): ["SELECTOR"],
            ("peers", "rename"): ["SELECTOR", "NAME", "replaces it"],
            ("send",): ["--to SELECTOR", "--warm-timeout SECONDS=5", "--wake-timeout SECONDS=30",
                        "--attempt-timeout SECONDS=5", "--retry-interval SECONDS=1", "--json", "--quiet", "FILE"],
            ("receive",): ["--from SELECTOR", "--port PORT", "--dir DIR", "downloads folder", "--timeout SECONDS=0",
                           "for ever", "--json", "--quiet"],
            ("serve",): ["--port PORT=28471", "--dir DIR", "downloads folder", "--accept always|never|ask=always",
                         "two minutes", "--keep-free SIZE=512M", "--max-file SIZE=0", "--no-clipboard", "--history", "--json",
                         "--quiet"],
            ("clip",): ["--to SELECTOR", "--text TEXT", "--mime TYPE=text/plain", "--warm-timeout SECONDS=5",
                        "--wake-timeout SECONDS=10", "--timeout SECONDS=10", "standard input", "--json", "--quiet"],
            ("wake",): ["SELECTOR", "--json", "--quiet"],
            ("doctor",): ["SELECTOR", "--listen", "--push", "--find known|always|never=known", "--verbose", "--json"],
        }.items():
            with self.subTest(command):
                result = self.mac.run(*command, "--help")
                self.assertEqual((0, ""), (result.returncode, result.stderr))
                self.assertIn("Usage: " + " ".join(["orlinth", *command]), result.stdout)
                for text in expected:
                    self.assertIn(text, result.stdout)

    def test_help_and_version_touch_nothing(self):
        self.mac.run("--help")
        result = self.mac.run("--version")
        self.assertEqual(0, result.returncode)
        self.assertRegex(result.stdout, r"^orlinth \d+\.\d+\.\d+\n$")
        fresh = self.phone
        fresh.environment["XDG_DATA_HOME"] = str(self.folder / "fresh")
        fresh.run("--help")
        self.assertFalse((self.folder / "fresh").exists())


class Id(ProgramTest):
    def test_the_identity_is_made_on_first_use_and_stays(self):
        self.mac.environment["XDG_DATA_HOME"] = str(self.folder / "fresh")
        first = json.loads(self.mac.run("id", "--json").stdout)
        self.assertEqual({"event", "self_pubkey", "hostname", "data_dir"}, set(first))
        self.assertEqual("id", first["event"])
        self.assertEqual(socket.gethostname(), first["hostname"])
        self.assertEqual(str(self.folder / "fresh" / "Orlinth"), first["data_dir"])
        key = self.folder / "fresh" / "Orlinth" / "noise_static.bin"
        self.assertEqual(32, key.stat().st_size)
        self.assertEqual(0o600, stat.S_IMODE(key.stat().st_mode))
        self.assertEqual(0o700, stat.S_IMODE(key.parent.stat().st_mode))
        self.assertEqual(first, json.loads(self.mac.run("id", "--json").stdout))
        self.assertIn(first["self_pubkey"], self.mac.run("id").stdout)


class Settings(ProgramTest):
    def write(self, text):
        file = self.mac.config / "orlinth" / "config.toml"
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def test_the_settings_file_gives_defaults_and_a_flag_wins(self):
        self.write("# mine\n[send]\nwarm-timeout = 0.2\njson = true\n\n[receive]\nport = 0\nfrom = 'phone'\n"
                   "timeout = 0.1\n")
        self.assertIn("--warm-timeout SECONDS=0.2", self.mac.run("send", "--help").stdout)
        file = str(self.file("a", b"a"))
        with UnansweredPort() as port:
            self.mac.record(self.phone, port.port)
            sent = self.mac.run("send", file)
            self.assertEqual(1, sent.returncode)
            self.assertEqual("network: connect timed out", json.loads(sent.stdout.splitlines()[-1])["message"])
            slow = self.running(self.mac, "send", "--warm-timeout", "0", file)
            slow.events.wait_for("file")
            with self.assertRaises(subprocess.TimeoutExpired):
                slow.process.wait(1)
        received = self.mac.run("receive")
        self.assertEqual(1, received.returncode)
        self.assert_one_line_error(received.stderr, "timed out")

    def test_a_broken_settings_file_is_told_whatever_the_command(self):
        for text in ("[send]\nwarm-timeout = fast\n", "[send]\nwarm-timeout = -1\n", "[send]\nbogus = 1\n",
                     "[bogus]\nx = 1\n", "complete nonsense\n", "[clip]\nto = 'phone'\n", "[receive]\nport = 70000\n",
                     "[peers.add]\nname = 'x'\nbogus = 2\n", "[serve]\ndir = 'here'\n", "x = " + "[" * 9000,
                     "[" + "a." * 9000 + "a]\n"):
            with self.subTest(text):
                self.write(text)
                result = self.mac.run("id")
                self.assertEqual((2, ""), (result.returncode, result.stdout))
                self.assertRegex(result.stderr, r"^orlinth: settings file .*config\.toml, line \d+, column \d+: .*\n.*\n$")

    def test_a_mark_of_a_comment_in_a_text_is_part_of_the_text(self):
        self.write('[receive]\ndir = "/srv/a#b" # here\n[partials]\ndir = "~/in"\n')
        self.assertIn("--dir DIR=/srv/a#b", self.mac.run("receive", "--help").stdout)
        self.assertIn(f"--dir DIR={self.mac.environment['HOME']}/in", self.mac.run("partials", "--help").stdout)

    def test_a_settings_file_that_cannot_be_read_is_told(self):
        (self.mac.config / "orlinth" / "config.toml").mkdir(parents=True)
        result = self.mac.run("id")
        self.assertEqual(2, result.returncode)
        self.assertIn("config.toml: Is a directory", result.stderr)


class Streams(ProgramTest):
    def test_a_standard_output_that_takes_nothing_is_no_success(self):
        reader, writer = os.pipe()
        os.close(reader)
        with open("/dev/full", "wb") as full, open(writer, "wb") as unread:
            for target, reason in ((full, "No space left on device"), (unread, "Broken pipe")):
                for arguments in (["id"], ["id", "--json"], ["peers"], ["--help"]):
                    result = self.mac.run(*arguments, stdout=target)
                    self.assertEqual(1, result.returncode)
                    self.assert_one_line_error(result.stderr, "standard output: " + reason)

    def test_a_closed_standard_output_is_no_success_and_no_file_takes_its_place(self):
        result = subprocess.run([ORLINTH, "id"], env=self.mac.environment, stderr=subprocess.PIPE,
                                preexec_fn=lambda: os.close(1))
        self.assertEqual(1, result.returncode)
        self.assertIn(b"orlinth: standard output: Bad file descriptor", result.stderr)
        result = subprocess.run([ORLINTH, "send", str(self.file("a", b"a"))], env=self.mac.environment,
                                preexec_fn=lambda: os.closerange(0, 3))
        self.assertEqual(1, result.returncode)

    def test_a_transfer_goes_on_when_nobody_reads_about_it_any_more(self):
        file = self.file("a.bin", b"a" * 100_000)
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port)
        with open("/dev/full", "wb") as full:
            sent = self.mac.run("send", "--json", str(file), stdout=full)
        self.assertEqual(1, sent.returncode)
        self.assertEqual(0, receiver.wait())
        self.assertEqual(file.read_bytes(), (self.phone.downloads / "a.bin").read_bytes())

    def test_quiet_leaves_only_results_and_failures(self):
        file = self.file("a.bin", b"a" * 100_000)
        receiver = self.receiver("--quiet")
        self.mac.record(self.phone, receiver.port)
        sent = self.mac.run("send", "-q", str(file), "/nowhere")
        self.assertEqual(1, sent.returncode)
        self.assertEqual(0, receiver.wait())
        self.assertEqual("", receiver.stderr)
        self.assertEqual("orlinth: file missing: /nowhere", sent.stderr.splitlines()[0])
        self.assertEqual(2, len(sent.stderr.splitlines()))

    def test_json_carries_failures_too_and_nothing_else(self):
        sent = self.mac.run("send", "--json", "--to", "nobody", str(self.file("a", b"a")))
        self.assertEqual(1, sent.returncode)
        self.assertEqual([{"event": "error", "message": "no paired phone matches 'nobody'"}],
                         [json.loads(line) for line in sent.stdout.splitlines()])
        self.assert_one_line_error(sent.stderr, "no paired phone matches 'nobody'")


if __name__ == "__main__":
    unittest.main()
