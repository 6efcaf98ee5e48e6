"""Phones that sleep: `send`, `clip` and `wake` against a push project on this machine, over real TLS."""

import json
import pathlib
import re
import signal
import socket
import time
import unittest

import https_server
import side_by_side
from harness import SANITIZED, ProgramTest, SleepingPort, UnansweredPort, seeded
from https_server import Answer, PushServer

TOKEN = "a-push-token:that_nobody-may-see"
# What a send needs for a phone that sleeps, and what it never needs.
SELDOM_NEEDED = {"libcurl", "libavahi-client", "libavahi-common", "libdbus-1", "libsystemd"}
TEXT = "a text that is nobody else's business"
PUSH_URLS = ("ORLINTH_FCM_BASE_URL", "SSL_CERT_FILE", "CURL_CA_BUNDLE")
PROXIES = ("http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "no_proxy", "NO_PROXY")


# The system's errors in a session of another language.
GERMAN = r"""
#include <errno.h>
#include <stdio.h>

static char* german(int number) {
    return number == ECONNREFUSED ? "Verbindungsaufbau abgelehnt" : "Fehler";
}

char* strerror(int number) {
    return german(number);
}

char* strerror_r(int number, char* text, size_t size) {
    (void)text;
    (void)size;
    return german(number);
}
"""


# A computer on which the library that pushes are sent with is not installed.
NO_LIBCURL = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>

void* dlopen(const char* name, int flags) {
    void* (*next)(const char*, int) = dlsym(RTLD_NEXT, "dlopen");
    return next(name && strstr(name, "libcurl") ? "libcurl-that-is-missing.so" : name, flags);
}
"""


class WakeTest(ProgramTest):
    """With a push project of its own, whose pushes reach the phone that `phone_wakes` describes."""

    def setUp(self):
        super().setUp()
        self.server = PushServer(self.folder / "push")
        self.addCleanup(self.server.close)
        self.key_file = self.mac.data / "Orlinth" / "firebase-service-account.json"
        self.server.write_service_account(self.key_file)
        for name in (*PUSH_URLS, *PROXIES):
            self.mac.environment.pop(name, None)
        self.mac.environment.update(self.server.environment)
        self.port = SleepingPort().__enter__()
        self.addCleanup(self.port.__exit__)
        self.mac.record(self.phone, self.port.port, token=TOKEN)
        self.woken = []  # what the push has started, or the exception of trying to

    def phone_wakes(self, start):
        """`start` begins to listen on the phone's port when the push comes, before the push is answered."""
        def on_push(_):
            try:
                self.woken.append(start())
            except Exception as error:  # on a thread of the server; told by `the_phone`
                self.woken.append(error)

        self.server.on_push = on_push

    def the_phone(self):
        [phone] = self.woken
        if isinstance(phone, Exception):
            raise phone
        return phone

    def assert_no_secret(self, *outputs):
        private_key = self.server.rsa_key.read_text().splitlines()[1]
        for output in outputs:
            for secret in (TOKEN, private_key, TEXT, *self.server.minted):
                self.assertNotIn(secret, output)

    def assert_pushed(self, times=1):
        self.assertEqual([], self.server.problems)
        pushes = self.server.requests("push")
        self.assertEqual([TOKEN] * times, [json.loads(push.body)["message"]["token"] for push in pushes])


class Sending(WakeTest):
    def send(self, *arguments, content=b"content", **options):
        self.sent_file = self.file("a.bin", content)
        return self.running(self.mac, "send", "--json", *arguments, str(self.sent_file), **options)

    def assert_delivered_to_the_woken_phone(self, sender):
        status = sender.wait()
        requests = [kind for kind in ("token", "push") for _ in self.server.requests(kind)]
        self.assertEqual(0, status, (sender.stderr, sender.events.all, self.woken, requests))
        self.assert_delivered(self.sent_file, sender, self.the_phone())

    def test_a_sleeping_phone_is_woken_and_gets_the_file(self):
        self.phone_wakes(lambda: self.receiver(port=str(self.port.port)))
        sender = self.send(content=seeded(self).randbytes(3_000_000))
        self.assert_delivered_to_the_woken_phone(sender)
        self.assertEqual(["file", "waking", "connected", "handshake", "progress", "complete"], sender.events.names())
        self.assertEqual({"event": "waking", "file": str(self.sent_file), "to": "phone"}, sender.events.find("waking"))
        self.assert_pushed()
        self.assert_no_secret(json.dumps(sender.events.all), sender.stderr)

    def libraries_of_a_send(self):
        """Sends a file, and returns the libraries that the program has loaded by its end, without versions."""
        self.mac.environment.update(LD_DEBUG="files", LD_DEBUG_OUTPUT=str(self.folder / "linker"))
        sender = self.send()
        self.assertEqual(0, sender.wait(), sender.stderr)
        said = (self.folder / f"linker.{sender.process.pid}").read_text(encoding="utf-8")
        return {pathlib.Path(path).name.split(".so")[0] for path in re.findall(r"calling init: (\S+)", said)}

    def test_a_phone_that_is_awake_gets_its_file_without_the_libraries_of_other_work(self):
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port, token=TOKEN)
        loaded = self.libraries_of_a_send()
        self.assertEqual(0, receiver.wait())
        self.assertIn("libcrypto", loaded)
        for library in SELDOM_NEEDED:
            self.assertNotIn(library, loaded)

    def test_the_library_of_the_push_is_loaded_for_a_phone_that_sleeps(self):
        self.phone_wakes(lambda: self.receiver(port=str(self.port.port)))
        loaded = self.libraries_of_a_send()
        self.assertEqual(0, self.the_phone().wait())
        self.assertEqual({"libcurl"}, loaded & SELDOM_NEEDED)

    @unittest.skipIf(SANITIZED, "the sanitizer's own dlopen comes first")
    def test_without_the_library_of_the_push_the_error_names_it(self):
        self.mac.environment["LD_PRELOAD"] = str(self.shim("no_libcurl", NO_LIBCURL))
        sender = self.send()
        self.assertEqual(1, sender.wait())
        self.assertIn("cannot load libcurl-that-is-missing.so: cannot open shared object file", sender.stderr)
        self.assertEqual([], self.server.requests("push"))

    def test_people_read_that_it_is_being_woken(self):
        self.phone_wakes(lambda: self.receiver(port=str(self.port.port)))
        result = self.mac.run("send", str(self.file("a.bin", b"content")))
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("\nwaking phone\n", result.stderr)
        self.assertEqual(0, self.the_phone().wait())

    def test_a_sleeping_phone_is_woken_in_a_session_of_another_language(self):
        self.mac.environment["LD_PRELOAD"] = str(self.shim("german", GERMAN))
        sender = self.send("--wake-timeout", "0.2")
        self.assertEqual(1, sender.wait())
        if not SANITIZED:  # whose own strerror comes first
            self.assert_one_line_error(sender.stderr, "network: Verbindungsaufbau abgelehnt")
        self.assertIn("Orlinth is not open on it", sender.stderr)
        self.assertEqual(["file", "waking", "error"], sender.events.names())
        self.phone_wakes(lambda: self.receiver(port=str(self.port.port)))
        self.assert_delivered_to_the_woken_phone(self.send())
        self.assert_pushed(2)

    def test_a_phone_that_does_not_answer_at_all_is_woken_too(self):
        with UnansweredPort() as dead:
            self.mac.record(self.phone, dead.port, token=TOKEN)
            sender = self.send("--warm-timeout", "0.2", "--wake-timeout", "0.2", "--attempt-timeout", "0.2")
            self.assertEqual(1, sender.wait())
        self.assert_one_line_error(sender.stderr, "network: connect timed out")
        self.assertEqual(["file", "waking", "error"], sender.events.names())
        self.assert_pushed()

    def test_a_phone_that_stays_dead_is_given_up_with_the_last_attempts_error(self):
        sender = self.send("--wake-timeout", "0.5", "--retry-interval", "0.1")
        self.assertEqual(1, sender.wait())
        self.assert_one_line_error(sender.stderr, "network: Connection refused")
        self.assertEqual(["file", "waking", "error"], sender.events.names())
        self.assert_pushed()
        self.assertEqual(1, len(self.mac.journal()), "so that the next attempt resumes")

    def test_a_window_of_nothing_makes_no_attempt(self):
        self.phone_wakes(lambda: self.receiver(port=str(self.port.port)))
        sender = self.send("--wake-timeout", "0")
        self.assertEqual(1, sender.wait())
        self.assert_one_line_error(sender.stderr, "network: connect timed out after wake")
        self.assertIsNone(self.the_phone().process.poll(), "nobody has called")
        self.assert_pushed()

    def test_a_refused_push_is_told_and_not_tried_again(self):
        body = json.dumps({"error": {"code": 404, "status": "NOT_FOUND", "token": TOKEN}}, indent=2)
        self.server.script("push", Answer(404, body.encode()))
        sender = self.send()
        self.assertEqual(1, sender.wait())
        self.assertEqual(1, len(self.server.requests("push")))
        message = sender.events.find("error")["message"]
        self.assertTrue(message.startswith("network: FCM wake failed: FCM HTTP 404: {"), message)
        first, second = sender.stderr.splitlines()[-2:]
        self.assertTrue(first.startswith('orlinth: network: FCM wake failed: FCM HTTP 404: { "error": {'), first)
        self.assertIn("Pair the phone again", second)
        self.assertEqual(["file", "error"], sender.events.names())
        self.assert_no_secret(json.dumps(sender.events.all), sender.stderr)

    def test_a_push_service_that_breaks_off_is_tried_three_times(self):
        self.server.script("push", *[Answer(drop=True)] * 3)
        sender = self.send()
        self.assertEqual(1, sender.wait())
        self.assertEqual(3, len(self.server.requests("push")))
        message = sender.events.find("error")["message"]
        self.assertTrue(message.startswith(
            "network: FCM wake failed: FCM transport: FCM transport (after retries): "), message)
        times = [push.at for push in self.server.requests("push")]
        self.assertGreater(times[1] - times[0], 0.19)
        self.assertGreater(times[2] - times[1], 0.49)

    def test_a_push_that_fails_in_passing_still_wakes(self):
        self.server.script("push", Answer(drop=True), Answer(reset=True))
        self.phone_wakes_at(3, lambda: self.receiver(port=str(self.port.port)))
        sender = self.send()
        self.assert_delivered_to_the_woken_phone(sender)
        self.assert_pushed(3)

    def phone_wakes_at(self, count, start):
        self.phone_wakes(start)
        wake = self.server.on_push
        self.server.on_push = lambda push: wake(push) if len(self.server.requests("push")) == count else None

    def test_a_push_service_that_is_not_there(self):
        with SleepingPort() as nobody:
            self.mac.environment["ORLINTH_FCM_BASE_URL"] = f"https://127.0.0.1:{nobody.port}"
            sender = self.send()
            self.assertEqual(1, sender.wait())
        message = sender.events.find("error")["message"]
        self.assertTrue(message.startswith(
            "network: FCM wake failed: FCM transport: FCM transport (after retries): "), message)

    def test_a_push_service_without_a_certificate_that_we_trust_is_told_nothing(self):
        for variable in ("SSL_CERT_FILE", "CURL_CA_BUNDLE"):
            self.mac.environment.pop(variable, None)
        sender = self.send()
        self.assertEqual(1, sender.wait())
        self.assertTrue(sender.events.find("error")["message"].startswith("network: FCM wake failed: "))
        self.assertEqual([], self.server.requests())

    def test_a_phone_without_a_push_token_is_not_woken(self):
        self.mac.record(self.phone, self.port.port)
        sender = self.send()
        self.assertEqual(1, sender.wait())
        self.assert_one_line_error(sender.stderr, "network: Connection refused")
        self.assertEqual(["file", "error"], sender.events.names())
        self.assertEqual([], self.server.requests())

    def test_a_phone_that_is_awake_is_not_woken(self):
        receiver = self.receiver(port=str(self.port.port))
        sender = self.send()
        self.assert_delivered(self.sent_file, sender, receiver)
        self.assertNotIn("waking", sender.events.names())
        self.assertEqual([], self.server.requests())

    def test_other_failures_than_sleep_do_not_wake(self):
        self.mac.record(self.phone, 9, ip="fe80::1", token=TOKEN)  # of no interface: an address of no use
        sender = self.send()
        self.assertEqual(1, sender.wait())
        self.assertEqual(["file", "error"], sender.events.names())
        self.assertEqual([], self.server.requests())

    def test_without_a_key_file_the_second_line_says_where_it_belongs_and_how_to_get_one(self):
        self.key_file.unlink()
        path = str(self.key_file)
        for arguments, prefix in ((["send", str(self.file("a", b"a"))], "network: FCM wake failed: "),
                                  (["clip", "--text", TEXT], "network: FCM wake failed: "), (["wake", "phone"], "")):
            with self.subTest(arguments[0]):
                result = self.mac.run(*arguments)
                self.assertEqual(1, result.returncode)
                self.assert_one_line_error(result.stderr, f"{prefix}service account JSON missing at {path}")
                hint = result.stderr.splitlines()[-1]
                for words in (path, "Generate new private key", "docs/wake.md"):
                    self.assertIn(words, hint)
                self.assertEqual([], self.server.requests())

    def test_an_interrupt_during_each_step_of_waking(self):
        for number, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
            for step in ("token", "push"):
                with self.subTest(number, step=step):
                    before = len(self.server.requests(step))
                    self.server.script(step, Answer(stall=True))
                    sender = self.send()
                    self.server.wait_for(step, before + 1)
                    sender.signal(number)
                    self.assertEqual(status, sender.wait())
                    self.assert_one_line_error(sender.stderr, "interrupted by " + number.name)
            with self.subTest(number, step="between attempts"):
                sender = self.send("--retry-interval", "60", "--wake-timeout", "60")
                sender.events.wait_for("waking")
                sender.signal(number)
                self.assertEqual(status, sender.wait())
                self.assertEqual("error", sender.events.all[-1]["event"])


class Clipping(WakeTest):
    def clip(self, *arguments, **options):
        return self.mac.run("clip", "--json", *arguments, "--text", TEXT, **options)

    def test_a_sleeping_phone_is_woken_and_gets_the_text(self):
        self.phone_wakes(lambda: self.clip_phone("close", self.port.port))
        result = self.clip()
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual('{"event":"complete","to":"phone"}\n', result.stdout)
        self.assertEqual("waking phone\n", result.stderr)
        self.assertEqual(TEXT, self.the_phone().events.wait_for("message")["text"])
        self.assert_pushed()
        self.assert_no_secret(result.stdout, result.stderr)

    def test_the_attempt_after_the_wake_lasts_as_long_as_it_may(self):
        result = self.clip("--wake-timeout", "1.5")
        ended = time.monotonic()
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "network: connect timed out")
        self.assert_pushed()
        [push] = self.server.requests("push")
        self.assertGreater(ended - push.at, 2.0, "half a second to wake up, and then the attempt")

    def test_a_phone_without_a_push_token_is_not_woken(self):
        self.mac.record(self.phone, self.port.port)
        result = self.clip()
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "network: Connection refused")
        self.assertEqual([], self.server.requests())

    def test_a_refused_push_is_told_once(self):
        self.server.script("push", Answer(404, b"gone"))
        result = self.clip()
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "network: FCM wake failed: FCM HTTP 404: gone")
        self.assertEqual(1, len(self.server.requests("push")))
        self.assert_no_secret(result.stdout, result.stderr)

    def test_a_text_that_is_too_large_wakes_nobody(self):
        result = self.mac.run("clip", "-", input="x" * 16 * 1024 * 1024)
        self.assertEqual(1, result.returncode)
        self.assertIn("plaintext frame too large", result.stderr)
        self.assertEqual([], self.server.requests())

    def test_an_interrupt_while_the_push_is_under_way(self):
        self.server.script("push", Answer(stall=True))
        program = self.running(self.mac, "clip", "--json", "--text", TEXT)
        self.server.wait_for("push")
        program.signal(signal.SIGINT)
        self.assertEqual(130, program.wait())
        self.assertEqual(["error"], program.events.names())
        self.assert_no_secret(json.dumps(program.events.all), program.stderr)


class Waking(WakeTest):
    def test_an_accepted_push(self):
        result = self.mac.run("wake", "pho")
        self.assertEqual((0, "push accepted\n", ""), (result.returncode, result.stdout, result.stderr))
        self.assert_pushed()
        result = self.mac.run("wake", "phone", "--json")
        self.assertEqual((0, '{"event":"complete","to":"phone"}\n', ""),
                         (result.returncode, result.stdout, result.stderr))
        self.assert_pushed(2)

    def test_it_does_not_call_the_phone(self):
        with socket.create_server(("127.0.0.1", 0)) as awake:
            self.mac.record(self.phone, awake.getsockname()[1], token=TOKEN)
            self.assertEqual(0, self.mac.run("wake", "phone").returncode)
            awake.setblocking(False)
            with self.assertRaises(BlockingIOError):
                awake.accept()

    def test_either_variable_names_the_certificates_to_trust(self):
        authority = self.mac.environment.pop("SSL_CERT_FILE")
        self.assertEqual(1, self.mac.run("wake", "phone").returncode)
        self.mac.environment["CURL_CA_BUNDLE"] = authority
        result = self.mac.run("wake", "phone")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assert_pushed()

    def test_what_comes_back_is_told(self):
        for endpoint, answer, text in (
            ("push", Answer(404, b"gone"), "FCM HTTP 404: gone"),
            ("push", Answer(503, b""), "FCM HTTP 503: "),
            ("push", Answer(401, b"\xff\xfe"), "FCM HTTP 401: <binary 2 bytes>"),
            ("token", Answer(400, b'{"error": "invalid_grant"}'), 'OAuth2 HTTP 400: {"error": "invalid_grant"}'),
        ):
            with self.subTest(text):
                self.server.script(endpoint, answer)
                before = len(self.server.requests(endpoint))
                result = self.mac.run("wake", "phone", "--json")
                self.assertEqual(1, result.returncode)
                self.assertEqual({"event": "error", "message": text, "to": "phone"}, json.loads(result.stdout))
                self.assertEqual("orlinth: " + text, result.stderr.splitlines()[0])
                self.assertEqual(2, len(result.stderr.splitlines()))
                self.assertEqual(before + 1, len(self.server.requests(endpoint)))
                self.assert_no_secret(result.stdout, result.stderr)

    def test_a_phone_without_a_push_token(self):
        self.mac.record(self.phone, self.port.port)
        result = self.mac.run("wake", "phone")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "no push token is recorded for 'phone'")
        self.assertIn("--fcm-token", result.stderr)
        self.assertEqual([], self.server.requests())

    def test_an_unknown_phone(self):
        result = self.mac.run("wake", "nobody")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "no paired phone matches 'nobody'")

    def test_a_key_file_that_is_none(self):
        for content, text in ((b"no json", "service account JSON malformed: "),
                              (json.dumps(self.server.account(client_email=None)).encode(),
                               "service account JSON malformed: "),
                              (json.dumps(self.server.account(private_key="-----BEGIN\n***\n-----END")).encode(),
                               "RSA private key import failed: PEM body not valid base64")):
            with self.subTest(text):
                self.key_file.write_bytes(content)
                result = self.mac.run("wake", "phone")
                self.assertEqual(1, result.returncode)
                self.assertTrue(result.stderr.startswith("orlinth: " + text), result.stderr)
                self.assertIn("docs/wake.md", result.stderr.splitlines()[1])
                self.assert_no_secret(result.stdout, result.stderr)
        self.assertEqual([], self.server.requests())

    def test_an_interrupt(self):
        self.server.script("token", Answer(stall=True))
        program = self.running(self.mac, "wake", "--json", "phone")
        self.server.wait_for("token")
        program.signal(signal.SIGTERM)
        self.assertEqual(143, program.wait())
        self.assertEqual({"event": "error", "message": "interrupted by SIGTERM", "to": "phone"},
                         program.events.all[-1])

    def test_no_secret_is_in_a_process_or_a_file_that_we_write(self):
        before = {path for path in self.mac.root.rglob("*")}
        self.assertEqual(0, self.mac.run("wake", "phone").returncode)
        self.assertEqual(before, {path for path in self.mac.root.rglob("*")})
        [token] = self.server.minted
        for path in pathlib.Path(self.mac.root).rglob("*"):
            if path.is_file():
                self.assertNotIn(token.encode(), path.read_bytes(), path)


if __name__ == "__main__":
    https_server.account_key()  # one for all of them
    side_by_side.main()
