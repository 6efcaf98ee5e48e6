"""What goes wrong on the way: strangers, damage, cuts, full disks, silence. One line each, and nothing false on disk."""

import json
import os
import resource
import socket
import subprocess

import side_by_side
from harness import (FRAMES_BEFORE_DATA, MIB, ORLINTH, Identity, ProgramTest, UnansweredPort, look, random_key,
                     seeded)


class Strangers(ProgramTest):
    def test_a_phone_with_another_key_than_recorded_gets_nothing(self):
        file = self.file("secret.txt", b"secret")
        receiver = self.receiver()
        self.mac.record(self.phone, receiver.port, key=random_key())
        # the record of the phone's true key goes, so that the name means the false one
        self.mac.run("peers", "remove", self.phone.key)
        sent = self.mac.run("send", "--to", "phone", str(file))
        self.assertEqual(1, sent.returncode)
        self.assert_one_line_error(sent.stderr, "remote pubkey ≠ paired peer")
        self.assertEqual(1, receiver.wait())
        self.assertEqual([], os.listdir(self.phone.downloads))

    def test_a_sender_that_is_not_the_expected_one_is_refused(self):
        file = self.file("a.txt", b"a")
        stranger = Identity(self.folder, "stranger")
        self.phone.record(stranger)
        receiver = self.running(self.phone, "receive", "--from", "stranger", "--port", "0", "--json",
                                "--dir", str(self.phone.downloads))
        self.mac.record(self.phone, receiver.events.wait_for("listening")["port"])
        sender = self.mac.run("send", str(file))
        self.assertEqual(1, sender.returncode)
        self.assertIn("ended the connection before it took the file. It may no longer know this computer", sender.stderr)
        self.assertEqual(1, receiver.wait())
        self.assert_one_line_error(receiver.stderr, "remote pubkey ≠ paired peer")
        self.assertEqual("remote pubkey ≠ paired peer", receiver.events.all[-1]["message"])
        self.assertEqual([], os.listdir(self.phone.downloads))

    def test_those_who_only_look_do_not_use_up_a_receiver(self):
        file = self.file("a.txt", b"a")
        receiver = self.receiver()
        for _ in range(3):
            look(receiver.port)
        sender = self.sender(file, receiver.port)
        self.assertEqual(0, sender.wait(), sender.stderr)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        self.assert_delivered(file, sender, receiver)
        self.assertEqual(["listening", "complete"], receiver.events.names())

    def test_what_is_not_a_handshake_is_refused(self):
        receiver = self.receiver()
        with socket.create_connection(("127.0.0.1", receiver.port)) as stranger:
            stranger.sendall(b"\0\0\0\x05hello")
            self.assertEqual(1, receiver.wait())
        self.assertRegex(receiver.stderr, r"(?m)^orlinth: noise handshake failed: .")


class Damage(ProgramTest):
    def test_a_damaged_frame_ends_the_transfer_and_leaves_only_what_was_proved(self):
        random = seeded(self)
        file = self.file("a.bin", random.randbytes(8 * MIB))
        receiver = self.receiver()
        relay = self.relay(receiver.port, flip=random.randrange(2 * MIB, 6 * MIB))
        sender = self.sender(file, relay.port)
        self.assertEqual(1, receiver.wait())
        sender.wait()
        self.assertFalse((self.phone.downloads / "a.bin").exists())
        partial = (self.phone.downloads / "a.bin.partial").read_bytes()
        self.assertEqual(0, len(partial) % MIB)
        self.assertTrue(file.read_bytes().startswith(partial))
        sender, receiver = self.transfer(file)
        self.assert_delivered(file, sender, receiver)

    def test_a_damaged_handshake_is_told_by_who_reads_it(self):
        receiver = self.receiver()
        sender = self.sender(self.file("a.bin", b"a"), self.relay(receiver.port, flip=60).port)
        self.assertEqual(1, sender.wait())
        self.assertEqual(1, receiver.wait())
        self.assertRegex(receiver.stderr, r"(?m)^orlinth: noise handshake failed: .")
        self.assertEqual(1, sender.stderr.count("orlinth: "))
        self.assertEqual(1, receiver.stderr.count("orlinth: "))
        self.assertEqual([], os.listdir(self.phone.downloads))

    def test_a_sender_that_cannot_read_the_answer_may_come_again(self):
        file = self.file("a.bin", b"a")
        receiver = self.receiver()
        sender = self.sender(file, self.relay(receiver.port, answers=True, flip=60).port)
        self.assertEqual(1, sender.wait())
        self.assertRegex(sender.stderr, r"(?m)^orlinth: noise handshake: .")
        self.assertEqual(1, sender.stderr.count("orlinth: "))
        sender = self.sender(file, receiver.port)
        self.assertEqual(0, receiver.wait(), receiver.stderr)
        self.assert_delivered(file, sender, receiver)

    def test_a_connection_cut_before_the_offer_is_one_line(self):
        receiver = self.receiver()
        relay = self.relay(receiver.port, after_frames=FRAMES_BEFORE_DATA - 1)
        sender = self.sender(self.file("a.bin", b"a"), relay.port)
        self.assertEqual(1, sender.wait())
        self.assertEqual(1, receiver.wait())
        self.assertEqual(1, sender.stderr.count("orlinth: "))
        self.assertEqual(1, receiver.stderr.count("orlinth: "))


class Disks(ProgramTest):
    def small_disk(self):
        """A folder that takes 3 MiB, and what a receiver must be started with."""
        folder = self.folder / "small"
        folder.mkdir()
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=3m,mode=0777", "tmpfs", str(folder)],
                                 stderr=subprocess.DEVNULL).returncode == 0
        if mounted:
            self.addCleanup(subprocess.run, ["umount", "-l", str(folder)], check=True)
            return folder, {}, "No space left on device"

        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (3 * MIB, resource.RLIM_INFINITY))

        return folder, {"preexec_fn": limit}, "File too large"

    def test_a_full_disk_is_told_and_what_arrived_is_kept_for_a_resume(self):
        file = self.file("a.bin", seeded(self).randbytes(16 * MIB))
        folder, options, reason = self.small_disk()
        receiver = self.receiver("--dir", str(folder), **options)
        sender = self.sender(file, receiver.port)
        self.assertEqual(1, receiver.wait())
        self.assertEqual(1, sender.wait())
        self.assert_one_line_error(receiver.stderr, "file write failed: " + reason)
        self.assertIn(f"Free some space in {folder}, ", receiver.stderr)
        partial = folder / "a.bin.partial"
        self.assertTrue(file.read_bytes().startswith(partial.read_bytes()))
        self.assertFalse((folder / "a.bin").exists())
        # with room again, it goes on there
        for name in os.listdir(folder):
            (self.phone.downloads / name).write_bytes((folder / name).read_bytes())
        sender, receiver = self.transfer(file)
        self.assert_delivered(file, sender, receiver)
        self.assertGreater(receiver.events.find("complete")["resumed_from_offset"], MIB)

    def test_a_folder_without_permission_is_told(self):
        folder = self.folder / "closed"
        folder.mkdir()
        if os.geteuid() == 0 and subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", str(folder)],
                                                stderr=subprocess.DEVNULL).returncode == 0:
            self.addCleanup(subprocess.run, ["umount", "-l", str(folder)], check=True)
            reason = "Read-only file system"
        elif os.geteuid() == 0:
            folder = "/proc/self/fdinfo"  # where not even root may make a file
            reason = ""
        else:
            folder.chmod(0o555)
            reason = "Permission denied"
        for command in (["receive", "--from", "mac"], ["serve"]):
            with self.subTest(command[0]):
                result = self.phone.run(*command, "--port", "0", "--dir", str(folder))
                self.assertEqual((1, ""), (result.returncode, result.stdout))
                first, second = result.stderr.splitlines()[-2:]
                self.assertRegex(
                    first, f"^orlinth: cannot write to the folder for received files, {folder}: .*" + reason)
                self.assertEqual("Make it writable for this account, or choose another folder with `--dir`.", second)

    def test_a_folder_that_cannot_be_made_is_told_before_anybody_connects(self):
        (self.folder / "file").write_text("")
        (self.folder / "link").symlink_to(self.folder / "nowhere")
        for name, reason in (("file", "Not a directory"), ("file/x", "Not a directory"),
                             ("link", f"it is a link to {self.folder}/nowhere, which does not exist")):
            for command in (["receive", "--from", "mac"], ["serve"]):
                with self.subTest(folder=name, command=command[0]):
                    folder = self.folder / name
                    result = self.phone.run(*command, "--port", "0", "--dir", str(folder))
                    self.assertEqual(1, result.returncode)
                    self.assert_one_line_error(
                        result.stderr, f"cannot write to the folder for received files, {folder}: {reason}")

    def test_looking_at_the_folder_leaves_nothing_behind(self):
        before = sorted(self.folder.rglob("*"))
        with socket.create_server(("0.0.0.0", 0)) as taken:
            port = str(taken.getsockname()[1])
            for folder in (self.folder / "new" / "folder", self.phone.downloads):
                received = self.phone.run("receive", "--from", "mac", "--port", port, "--dir", str(folder))
                self.assert_one_line_error(received.stderr, "listener start failed: Address already in use")
                self.assertEqual(before, sorted(self.folder.rglob("*")))

    def test_a_file_that_another_process_is_writing_is_left_to_it(self):
        file = self.file("a.bin", seeded(self).randbytes(16 * MIB))
        first = self.receiver()
        relay = self.relay(first.port, after_frames=FRAMES_BEFORE_DATA + 1, then="hold")
        holding = self.sender(file, relay.port)
        self.assertTrue(relay.reached.wait(30))
        second = self.receiver()
        late = self.sender(file, second.port)
        self.assertEqual(1, second.wait())
        self.assertRegex(second.stderr, r"(?m)^orlinth: file write failed: .")
        self.assertEqual(1, late.wait())
        holding.kill()
        relay.close()
        self.assertEqual(1, first.wait())
        self.assert_delivered(file, *self.transfer(file))


class Resuming(ProgramTest):
    def test_a_partial_that_is_longer_than_the_file_is_to_be_deleted(self):
        file = self.file("a.bin", b"short")
        self.mac.record(self.phone)
        self.assertEqual(1, self.mac.run("send", str(file)).returncode)  # nobody is there: only the id is made
        [transfer_id] = self.mac.journal().values()
        partial, meta = (self.phone.downloads / name for name in ("a.bin.partial", "a.bin.partial.meta.json"))
        partial.write_bytes(b"longer than that")
        meta.write_text(json.dumps({"transfer_id": transfer_id, "advertised_size": 20, "started_at_epoch_ms": 1}))
        for _ in range(2):  # no attempt can help
            sender, receiver = self.transfer(file)
            self.assertEqual((1, 1), (sender.wait(), receiver.wait()))
            self.assert_one_line_error(sender.stderr, "malformed Resume: accepted_offset out of range: 16/5")
            self.assertIn('has more of this file than there is. Delete the file\'s ".partial" and '
                          '".partial.meta.json" there, and send it again.', sender.stderr)
        partial.unlink()
        meta.unlink()
        self.assert_delivered(file, *self.transfer(file))


class Silence(ProgramTest):
    def test_a_refused_connection_is_told_at_once_with_what_to_do(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            self.mac.record(self.phone, closed.getsockname()[1])
            sent = self.mac.run("send", str(self.file("a.bin", b"a")))
        self.assertEqual(1, sent.returncode)
        self.assert_one_line_error(sent.stderr, "network: Connection refused")
        hint = sent.stderr.splitlines()[-1]
        self.assertIn("is on this network, but Orlinth is not open on it.", hint)
        self.assertTrue(hint.endswith("` looks further."), hint)

    def test_a_phone_that_does_not_answer_is_given_up_after_the_warm_timeout(self):
        with UnansweredPort() as port:
            self.mac.record(self.phone, port.port)
            sent = self.mac.run("send", "--warm-timeout", "0.3", str(self.file("a.bin", b"a")))
        self.assertEqual(1, sent.returncode)
        self.assert_one_line_error(sent.stderr, "network: connect timed out")

    def test_a_receiver_gives_up_when_nobody_connects(self):
        receiver = self.receiver("--timeout", "0.2")
        self.assertEqual(1, receiver.wait())
        self.assert_one_line_error(receiver.stderr, "timed out")
        self.assertEqual(["listening", "error"], receiver.events.names())

    def test_a_taken_port_is_told(self):
        first = self.receiver()
        second = self.phone.run("receive", "--from", "mac", "--port", str(first.port))
        self.assertEqual(1, second.returncode)
        self.assert_one_line_error(second.stderr, "listener start failed: Address already in use")
        self.assertEqual(f"Another program is using port {first.port}; `ss -ltnp` shows which. Choose another port "
                         "(`--port 0`: any free one), or stop that program.", second.stderr.splitlines()[-1])

    def test_a_port_that_the_own_service_has_is_told(self):
        service = self.running(self.phone, "serve", "--port", "0", "--json")
        port = service.events.wait_for("listening")["port"]
        received = self.phone.run("receive", "--from", "mac", "--port", str(port))
        self.assertEqual(1, received.returncode)
        self.assert_one_line_error(received.stderr, "listener start failed: Address already in use")
        self.assertEqual(f"The Orlinth service is using port {port} and receives from every paired phone. Choose "
                         "another port (`--port 0`: any free one), or stop the service first.",
                         received.stderr.splitlines()[-1])

    def test_a_port_that_this_account_may_not_open_is_told(self):
        # in a network of its own, where nobody but root has the ports below 1024, and root is not asked
        drop = ["unshare", "--net", "setpriv", "--inh-caps=-all", "--ambient-caps=-all", "--bounding-set=-all"]
        if os.geteuid() != 0:
            drop = []
        for command in (["serve"], ["receive", "--from", "mac"]):
            with self.subTest(command[0]):
                program = self.running_program([*drop, ORLINTH, *command, "--port", "80", "--json"], self.phone)
                self.assertEqual(1, program.wait())
                self.assert_one_line_error(program.stderr, "listener start failed: Permission denied")
                self.assertEqual("This account may not open port 80; ports below 1024 are usually reserved. Choose a "
                                 "higher one with `--port`.", program.stderr.splitlines()[-1])


if __name__ == "__main__":
    side_by_side.main()
