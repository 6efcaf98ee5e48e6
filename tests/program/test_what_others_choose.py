"""Names and texts that somebody else has chosen: kept apart, short and visible wherever a person or a log sees them."""

import json
import signal
import subprocess
import unicodedata

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from harness import BUILD, ORLINTH, PATIENCE, ProgramTest, random_key
from test_serve import ServeTest, told

MESSAGE_PHONE = str(BUILD / "tests" / "interop" / "message_phone")
# each character takes three bytes on the wire, and eight once it is made visible; a message has up to 64 KiB
OVERRIDE = "\u202e"
LONG_NAME = "invoice.pdf" + OVERRIDE * 21_000 + ".exe"
MOST_BYTES = 4096  # of a line: a thousand columns, four bytes each at most
MOST_OF_A_NAME = 800  # the same for two hundred


def is_fit_for_people(line):
    return all(unicodedata.category(character) not in ("Cc", "Cf", "Zl", "Zp") for character in line)


class SaidByPhones(ServeTest):
    def say(self, identity, port, message):
        """What a phone says to the service over a connection of its own."""
        done = subprocess.run([MESSAGE_PHONE, str(port), self.desk.key], input=json.dumps(message), encoding="utf-8",
                              capture_output=True, env=identity.environment, timeout=PATIENCE, check=False)
        self.assertEqual(0, done.returncode, done.stderr)

    def serve_for_people(self, *arguments):
        service = self.running(self.desk, "serve", "--port", "0", "--dir", str(self.desk.downloads), *arguments)
        self.wait_until(lambda: told(service).endswith("\n"), service)
        service.port = int(told(service).removeprefix("listening on port "))
        return service

    def end(self, service):
        service.signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(), service.stderr)

    def lines_of(self, service, count):
        """The first lines of the result."""
        service.events.wait_until(lambda: len(service.events.not_json) >= count, f"{count} lines")
        lines = [line.decode().removesuffix("\n") for line in service.events.not_json]
        self.assertEqual(count, len(lines), [line[:200] for line in lines])
        return lines

    def assert_fit_for_people(self, text):
        for line in text.splitlines():
            self.assertLess(len(line.encode()), MOST_BYTES)
            self.assertTrue(is_fit_for_people(line), line)

    def names(self):
        lines = self.desk.run("peers", "--json").stdout.splitlines()
        return {record["peer_pubkey"]: record["peer_hostname"] for record in map(json.loads, lines)}

    def test_no_phone_takes_the_name_of_another(self):
        other = self.another_phone("tablet")
        service = self.serve()
        self.say(other, service.port, {"type": "SetName", "name": " PHONE"})
        event = service.events.wait_for("set_name")
        self.assertEqual({"event": "set_name", "from": "tablet", "name": " PHONE", "called": "PHONE (2)"}, event)
        self.say(other, service.port, {"type": "NameUpdate", "name": "pho\u200bne"})
        self.assertEqual("pho\u200bne (2)", service.events.wait_for("name_update")["called"])
        self.assert_ends(service)  # which writes what a phone has said within seconds
        self.assertEqual({self.phone.key: "phone", other.key: "pho\u200bne (2)"}, self.names())
        # what is sent to the name goes to the phone that had it first
        receiver = self.receiver()
        self.desk.record(self.phone, receiver.port)
        sent = self.desk.run("send", "--to", "phone", str(self.file("a.txt", b"for the phone")))
        self.assertEqual(0, sent.returncode, sent.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        self.assertEqual(b"for the phone", (self.phone.downloads / "a.txt").read_bytes())

    def test_a_name_that_is_taken_is_told_once(self):
        other = self.another_phone("tablet")
        service = self.serve_for_people()
        for _ in range(3):
            self.say(other, service.port, {"type": "SetName", "name": "phone"})
        self.say(other, service.port, {"type": "SetName", "name": "Tab"})
        self.assertEqual(["tablet wants to be called 'phone', as another phone is; it is now called phone (2)",
                          "phone (2) is now called Tab"], self.lines_of(service, 2))
        self.end(service)

    def test_what_a_phone_says_is_short_and_visible_to_people(self):
        service = self.serve_for_people("--accept", "never")
        self.say(self.phone, service.port, {"type": "FileOffer", "name": LONG_NAME, "size": 1, "mime": "text/plain",
                                            "transfer_id": "id-1"})
        self.say(self.phone, service.port, {"type": "SetName", "name": LONG_NAME})
        self.say(self.phone, service.port, {"type": "Resume", "transfer_id": LONG_NAME, "accepted_offset": 0})
        declined, renamed = self.lines_of(service, 2)
        self.assertTrue(declined.startswith("declined invoice.pdf\\u{202E}"), declined)
        self.assertTrue(declined.endswith(".exe from phone"), declined)
        self.assertIn("phone wants to be called 'invoice.pdf\\u{202E}", renamed)
        for line in (declined, renamed):
            self.assertLess(len(line), MOST_OF_A_NAME)
            self.assert_fit_for_people(line)
        self.end(service)
        self.assertIn("unexpected", told(service))
        self.assert_fit_for_people(told(service))

    def test_scripts_get_all_of_it_in_ascii(self):
        service = self.serve("--accept", "never")
        self.say(self.phone, service.port, {"type": "FileOffer", "name": LONG_NAME, "size": 1, "mime": "text/plain",
                                            "transfer_id": "id-1"})
        self.assertTrue(service.events.wait_for("declined")["name"] == LONG_NAME)
        self.assert_ends(service)
        # as it was written: another reader than the one that has made values of it
        renamed = subprocess.Popen([ORLINTH, "serve", "--port", "0", "--json"], env=self.desk.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(renamed.stdout.close)
        port = json.loads(renamed.stdout.readline())["port"]
        self.say(self.phone, port, {"type": "SetName", "name": "Gr\u00fc\u00dfe \U0001f600\u202e"})
        line = renamed.stdout.readline()
        renamed.terminate()
        self.assertEqual(0, renamed.wait(PATIENCE))
        self.assertTrue(line.isascii(), line)
        self.assertIn(rb"Gr\u00fc\u00dfe \ud83d\ude00\u202e", line)
        self.assertEqual("Gr\u00fc\u00dfe \U0001f600\u202e", json.loads(line)["name"])


class Recorded(ProgramTest):
    """What stands in the book already, by whatever way."""

    def rewrite(self, change):
        book = json.loads(self.mac.peer_file.read_text())
        change(book["peers"])
        self.mac.peer_file.write_text(json.dumps(book))

    def assert_fit_for_people(self, done, status):
        self.assertEqual(status, done.returncode, done.stderr[:1000])
        for line in (done.stdout + done.stderr).splitlines():
            self.assertLess(len(line.encode()), MOST_BYTES)
            self.assertTrue(is_fit_for_people(line), line)

    def test_a_phone_recorded_by_hand_under_a_name_that_is_taken_gets_a_number(self):
        added = self.mac.run("peers", "add", "--pubkey", random_key(), "--ip", "192.0.2.7", "--port", "9",
                             "--name", "Phone ", "--json")
        self.assertEqual("Phone (2)", json.loads(added.stdout)["peer"]["peer_hostname"])
        again = self.mac.run("peers", "add", "--pubkey", random_key(), "--ip", "192.0.2.8", "--port", "9",
                             "--name", "phone")
        self.assertIn("recorded phone (3) at 192.0.2.8:9", again.stdout)
        self.assertIn("Another phone is called phone. This one is called phone (3) here.", again.stderr)
        shown = self.mac.run("peers", "--json").stdout.splitlines()
        self.assertEqual({"phone", "Phone (2)", "phone (3)"}, {json.loads(line)["peer_hostname"] for line in shown})

    def test_two_phones_whose_names_look_alike_are_not_chosen_by_name(self):
        self.mac.run("peers", "add", "--pubkey", random_key(), "--ip", "192.0.2.7", "--port", "9", "--name", "other")

        def alike(peers):
            peers[1]["peer_hostname"] = "Pho\u200bne"
        self.rewrite(alike)
        done = self.mac.run("send", "--to", "phone", str(self.file("a.txt", b"abc")))
        self.assertEqual(1, done.returncode)
        self.assertIn("is ambiguous: 2 paired phones have this name", done.stderr)

    def test_a_name_that_begins_like_the_key_of_another_phone_is_not_chosen(self):
        key = random_key()
        self.mac.run("peers", "add", "--pubkey", key, "--ip", "192.0.2.7", "--port", "9", "--name", "other")
        self.rewrite(lambda peers: peers[0].update(peer_hostname=key[:12]))
        done = self.mac.run("wake", key[:12])
        self.assertEqual(1, done.returncode)
        self.assertIn("is ambiguous: it begins the name of one phone and the key of another", done.stderr)
        self.assertIn("no push token is recorded for 'other'", self.mac.run("wake", key).stderr)

    def test_records_that_somebody_has_made_are_short_and_visible(self):
        def long(peers):
            peers[0]["peer_hostname"] = LONG_NAME
            peers[0]["peer_ip"] = "fe80::1" + OVERRIDE * 100_000
        self.rewrite(long)
        self.assert_fit_for_people(self.mac.run("peers"), 0)
        self.assert_fit_for_people(self.mac.run("wake", "invoice"), 1)
        self.assert_fit_for_people(self.mac.run("send", "--to", "invoice", "--warm-timeout", "1",
                                                str(self.file("a.txt", b"abc"))), 1)
        self.assert_fit_for_people(self.mac.run("clip", "--to", "invoice", "--text", "x", "--warm-timeout", "1"), 1)
        self.assert_fit_for_people(self.mac.run("share", str(self.file("a.txt", b"abc"))), 0)
        self.assert_fit_for_people(self.mac.run("outbox"), 0)
        self.assert_fit_for_people(self.mac.run("peers", "remove", "invoice"), 0)


if __name__ == "__main__":
    side_by_side.main()
