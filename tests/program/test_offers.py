"""Files that wait for somebody's yes (`serve --accept ask`): who may give it, and by which way."""

import json
import os
import socket
import subprocess

import own_root  # noqa: F401 (it is entered by the import)
import side_by_side
from harness import ORLINTH, PATIENCE, Events
from outbox_world import OutboxTest
from private_bus import BusTestMixin
from service_client import NAME, ROOT, BusError, ServiceClient
from terminal import Terminal

NOBODY = "there is nobody to ask whether to take files, so they are declined"


class Offers(BusTestMixin, OutboxTest):
    def setUp(self):
        super().setUp()
        self.on_usual_folder(self.mac)
        self.mac.record(self.phone)
        self.phone.record(self.mac)

    def asking(self, **options):
        service = self.serve(self.mac, "--accept", "ask", **options)
        self.phone.record(self.mac, service.port)
        return service

    def offer(self, name="film.bin", content=b"content"):
        """The phone offers a file; its `send` is still running."""
        return self.running(self.phone, "send", "--to", "mac", "--json", str(self.file(name, content)))

    def client(self):
        client = ServiceClient(self.address)
        self.addCleanup(client.close)
        return client

    def watcher(self):
        watcher = self.running(self.mac, "status", "--watch", "--json")
        watcher.events.wait_for("current")
        return watcher

    def open_offer(self, watcher, name="film.bin"):
        return watcher.events.wait_until(
            lambda: next((event for event in watcher.events.all
                          if event["event"] == "offer" and event["name"] == name and "expires_epoch_ms" in event), None),
            f"offer of {name}")

    def gone(self, watcher, number):
        watcher.events.wait_until(lambda: {"event": "offer_gone", "offer": number} in watcher.events.all, "its end")

    def request(self, **fields):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(PATIENCE)
            # the path may be too long for a socket
            folder = os.open(self.mac.data / "Orlinth", os.O_PATH)
            try:
                connection.connect(f"/proc/self/fd/{folder}/service.sock")
            finally:
                os.close(folder)
            connection.sendall(json.dumps(fields).encode() + b"\n")
            return json.loads(connection.makefile().readline())

    def assert_taken(self, sending, content=b"content", name="film.bin"):
        self.assertEqual(0, sending.wait(), sending.stderr)
        self.assertEqual(content, (self.mac.downloads / name).read_bytes())

    def assert_declined(self, sending, name="film.bin"):
        self.assertEqual(1, sending.wait(), sending.stderr)
        self.assertIn("declined", sending.stderr)
        self.assertFalse((self.mac.downloads / name).exists())

    def test_a_program_on_the_bus_takes_and_declines(self):
        service = self.asking()
        watcher, client = self.watcher(), self.client()
        sending = self.offer()
        number = self.open_offer(watcher)["offer"]
        path = f"{ROOT}/offers/{number}"
        [offer] = client.call(path, "org.freedesktop.DBus.Properties", "GetAll", "s", f"{NAME}.Offer")
        self.assertEqual(("film.bin", 7), (offer["Name"], offer["Size"]))
        [managed] = client.call(ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
        self.assertEqual(offer, managed[path][f"{NAME}.Offer"])
        self.assertEqual(self.phone.key, managed[offer["Phone"]][f"{NAME}.Phone"]["PublicKey"])
        client.call(path, f"{NAME}.Offer", "Accept")
        self.assert_taken(sending)
        self.gone(watcher, number)
        with self.assertRaises(BusError):
            client.call(path, f"{NAME}.Offer", "Decline")
        sending = self.offer("other.bin")
        number = self.open_offer(watcher, "other.bin")["offer"]
        client.call(f"{ROOT}/offers/{number}", f"{NAME}.Offer", "Decline")
        self.assert_declined(sending, "other.bin")
        self.end(service)

    def test_a_program_at_the_socket_and_the_command_line_take_and_decline(self):
        service = self.asking()
        watcher = self.watcher()
        sending = self.offer()
        offer = self.open_offer(watcher)
        self.assertEqual({"event": "offer", "offer": 1, "peer_pubkey": self.phone.key, "phone": "phone",
                          "name": "film.bin", "size": 7, "expires_epoch_ms": offer["expires_epoch_ms"]}, offer)
        self.assertIn("To be accepted:\n  1  film.bin (7 bytes) from phone, ", self.mac.run("status").stdout)
        self.assertEqual({"found": True}, self.request(request="accept", offer=1))
        self.assert_taken(sending)
        self.assertEqual({"found": False}, self.request(request="decline", offer=1))
        for name, command, end in (("b.bin", "accept", self.assert_taken), ("c.bin", "decline", self.assert_declined)):
            sending = self.offer(name)
            number = self.open_offer(watcher, name)["offer"]
            result = self.mac.run(command, str(number))
            self.assertEqual(0, result.returncode, result.stderr)
            self.assertIn(f"ed file {number}\n", result.stdout)
            end(sending, name=name)
        result = self.mac.run("accept", "99")
        self.assertEqual(1, result.returncode)
        self.assert_one_line_error(result.stderr, "no file 99 waits for an answer")
        self.assertEqual(2, self.mac.run("decline", "x").returncode)
        self.end(service)
        self.assert_one_line_error(self.mac.run("accept", "1").stderr,
                                   "the service does not run, so that no phone offers anything")

    def test_without_anybody_it_is_declined_at_once_and_a_program_that_shows_all_objects_is_somebody(self):
        service = self.asking()
        self.assert_declined(self.offer())
        self.assertIn(NOBODY, service.stderr)
        client = self.client()
        client.call(ROOT, "org.freedesktop.DBus.Properties", "GetAll", "s", f"{NAME}.Service")
        self.assert_declined(self.offer("other.bin"), "other.bin")

        def offers():
            [managed] = client.call(ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
            return [path for path in managed if path.startswith(f"{ROOT}/offers/")]

        self.assertEqual([], offers())
        client.follow()
        sending = self.offer()
        path = client.wait_for_signal("InterfacesAdded", lambda values: values[0].startswith(f"{ROOT}/offers/"))[0]
        client.call(path, f"{NAME}.Offer", "Accept")
        self.assert_taken(sending)
        client.close()
        self.end(service)

    def test_the_question_goes_when_the_phone_hangs_up(self):
        service = self.asking()
        watcher, client = self.watcher(), self.client()
        sending = self.offer()
        number = self.open_offer(watcher)["offer"]
        sending.kill()
        self.gone(watcher, number)
        with self.assertRaises(BusError):
            client.call(f"{ROOT}/offers/{number}", f"{NAME}.Offer", "Accept")
        self.assertFalse((self.mac.downloads / "film.bin").exists())
        self.end(service)

    def test_the_first_answer_counts_on_a_terminal_too(self):
        terminal = Terminal(120)
        process = subprocess.Popen(
            ["setsid", "--ctty", "--wait", ORLINTH, "serve", "--port", "0", "--dir", str(self.mac.downloads), "--json",
             "--no-clipboard", "--accept", "ask"], stdin=terminal.end, stdout=subprocess.PIPE, stderr=terminal.end,
            env=self.mac.environment)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        events = Events(process.stdout)
        self.phone.record(self.mac, events.wait_for("listening")["port"])
        watcher = self.watcher()
        sending = self.offer()
        terminal.wait_for("phone wants to send film.bin (7 bytes). Take it? [y/N] ")
        self.assertEqual(0, self.mac.run("accept", str(self.open_offer(watcher)["offer"])).returncode)
        terminal.wait_for("The question was answered elsewhere.")
        self.assert_taken(sending)
        sending = self.offer("b.bin")
        terminal.wait_for("phone wants to send b.bin (7 bytes). Take it? [y/N] ")
        number = self.open_offer(watcher, "b.bin")["offer"]
        terminal.type("y\n")
        self.assert_taken(sending, name="b.bin")
        self.assertEqual(1, self.mac.run("decline", str(number)).returncode)
        process.terminate()
        self.assertEqual(0, process.wait(PATIENCE))
        watcher.wait()
        terminal.text()


if __name__ == "__main__":
    side_by_side.main()
