"""How the connection of an offered file ends, as the kernel shows it to its sender: an orderly end only behind a delivery."""

import os
import signal
import socket
import subprocess
import threading
import unittest

from harness import FRAMES_BEFORE_DATA, MIB, PATIENCE, ProgramTest, Relay, sha256
from test_serve import ServeTest


class Witness(Relay):
    """A relay that notes how the receiver's program ended the connection: "reset" or "orderly"."""

    def __init__(self, port, **rules):
        self.end = None
        self.has_ended = threading.Event()
        super().__init__(port, **rules)

    def _pump(self, source, sink, ruled):
        if not ruled:  # what the receiver's program sends; nothing else reads from it
            end = "orderly"
            try:
                while piece := source.recv(65536):
                    sink.sendall(piece)
            except OSError:
                end = "reset"
            self.end = self.end or end
            self.has_ended.set()
            self._cut()
            return
        try:
            if self.frames is not None:
                self._forward_frames(source, sink)
                self.reached.set()
                self.closed.wait()
            else:
                while piece := source.recv(65536):
                    try:
                        sink.sendall(piece)
                    except OSError:  # whoever of the two pumps meets the reset first takes it from the socket
                        self.end = "reset"
                        raise
                sink.shutdown(socket.SHUT_WR)
        except OSError:
            self.has_ended.wait(PATIENCE)

    def wait_for_the_end(self):
        if not self.has_ended.wait(PATIENCE):
            raise AssertionError("the connection does not end")
        return self.end


class WitnessTest(ServeTest):
    # Of a disk of 3 MiB: the sidecar takes a part, so the third frame does not fit; and nothing is left unread, which
    # would make the kernel send a reset by itself.
    UNTIL_FULL = {"after_frames": FRAMES_BEFORE_DATA + 3, "then": "hold"}

    def witness(self, port, **rules):
        witness = Witness(port, **rules)
        self.addCleanup(witness.close)
        return witness

    def under_way(self, send, port, file):
        """Two megabytes are at the receiver's, which has written them and waits for more; (witness, sender)."""
        wire = self.witness(port, after_frames=FRAMES_BEFORE_DATA + 2, then="hold")
        sender = send(file, wire.port)
        self.assertTrue(wire.reached.wait(PATIENCE))
        return wire, sender

    def wait_for_two_megabytes(self, folder, file):
        partial = folder / (file.name + ".partial")
        self.wait_until(lambda: partial.exists() and partial.stat().st_size == 2 * MIB, partial)

    def small_disk(self, megabytes):
        folder = self.folder / "disk"
        folder.mkdir()
        if os.geteuid() != 0 or subprocess.run(
                ["mount", "-t", "tmpfs", "-o", f"size={megabytes}m,mode=0777", "tmpfs", str(folder)],
                stderr=subprocess.DEVNULL, check=False).returncode != 0:
            self.skipTest("cannot mount a small disk here")
        self.addCleanup(subprocess.run, ["umount", "-l", str(folder)], check=True)
        return folder


class Receive(WitnessTest):
    def test_is_a_reset_when_it_is_ended_in_the_middle(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            with self.subTest(number):
                file = self.file(f"{number.name}.bin", os.urandom(4 * MIB))
                receiver = self.receiver()
                wire, _ = self.under_way(self.sender, receiver.port, file)
                self.wait_for_two_megabytes(self.phone.downloads, file)
                receiver.signal(number)
                self.assertEqual("reset", wire.wait_for_the_end())
                receiver.wait()

    def test_is_a_reset_when_the_disk_is_full(self):
        receiver = self.receiver("--dir", str(self.small_disk(3)))
        wire = self.witness(receiver.port, **self.UNTIL_FULL)
        self.sender(self.file("large.bin", os.urandom(4 * MIB)), wire.port)
        self.assertEqual("reset", wire.wait_for_the_end())
        self.assertEqual(1, receiver.wait())

    def test_is_orderly_behind_a_delivery(self):
        file = self.file("a.bin", os.urandom(2 * MIB))
        receiver = self.receiver()
        wire = self.witness(receiver.port)
        sender = self.sender(file, wire.port)
        self.assertEqual("orderly", wire.wait_for_the_end())
        self.assert_delivered(file, sender, receiver)


class Serve(WitnessTest):
    def send_here(self, file, port):
        return self.send(self.phone, file, port)

    def test_is_a_reset_when_it_is_ended_in_the_middle(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            with self.subTest(number):
                file = self.file(f"{number.name}.bin", os.urandom(4 * MIB))
                service = self.serve()
                wire, _ = self.under_way(self.send_here, service.port, file)
                self.wait_for_two_megabytes(self.desk.downloads, file)
                service.signal(number)
                self.assertEqual("reset", wire.wait_for_the_end())
                service.wait()

    def test_is_a_reset_when_the_disk_is_full(self):
        service = self.serve("--keep-free", "0", "--dir", str(self.small_disk(3)))
        wire = self.witness(service.port, **self.UNTIL_FULL)
        self.send_here(self.file("large.bin", os.urandom(4 * MIB)), wire.port)
        self.assertEqual("reset", wire.wait_for_the_end())
        self.assertIn("No space left on device", service.events.wait_for("error")["message"])

    def test_is_a_reset_when_a_newer_connection_takes_over(self):
        service = self.serve()
        file = self.file("a.bin", os.urandom(4 * MIB))
        wire, sender = self.under_way(self.send_here, service.port, file)
        self.wait_for_two_megabytes(self.desk.downloads, file)
        sender.kill()  # its end of the service's connection stays open
        self.assertEqual(0, self.send_here(file, service.port).wait())
        self.assertEqual("reset", wire.wait_for_the_end())
        self.assertEqual(sha256(file), sha256(service.events.wait_for("received")["saved_at"]))

    def test_is_orderly_behind_a_delivery_and_a_refusal(self):
        for accept, status in (("always", 0), ("never", 1)):
            with self.subTest(accept):
                service = self.serve("--accept", accept)
                wire = self.witness(service.port)
                sender = self.send_here(self.file(f"{accept}.bin", os.urandom(2 * MIB)), wire.port)
                self.assertEqual("orderly", wire.wait_for_the_end())
                self.assertEqual(status, sender.wait(), sender.stderr)
                self.assert_ends(service)


if __name__ == "__main__":
    unittest.main()
