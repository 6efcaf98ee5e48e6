"""Either side is killed at random points, thirty times; every file still arrives byte for byte."""

import json
import unittest

from harness import MIB, ProgramTest, Victim, seeded

ROUNDS = 15  # for each side
LARGEST = 14 * MIB
# Of the first file, so that one round at least resumes: a receiver writes a megabyte at a time, and what is left must be
# more than the kernel takes from a sender unread, or else the sender is done.
FIRST_SIZE, FIRST_KILL = 24 * MIB, 10 * MIB
# More than what goes over the wire with each chunk of a megabyte.
FRAME_OVERHEAD = 1024


class KillAndResume(ProgramTest):
    def interrupt(self, file, at, kill_sender, once_written):
        """One attempt that ends with a SIGKILL when `at` bytes have gone over the wire, or have been written as well."""
        victim = Victim()
        receiver = self.receiver()
        enough = self.held() + at // (MIB + FRAME_OVERHEAD) * MIB - MIB if once_written else 0
        relay = self.relay(receiver.port, after_bytes=at, then=victim.kill, buffer=65536,
                           when=lambda: self.held() >= enough or receiver.process.poll() is not None,
                           changed_by=[self.phone.downloads, receiver])
        sender = self.sender(file, relay.port)
        victim.is_(sender if kill_sender else receiver)
        statuses = {"sender": sender.wait(), "receiver": receiver.wait()}
        relay.close()
        if statuses["receiver"] == 0:  # resumed so late that the end came before the kill
            self.assert_delivered(file, sender, receiver)
            return
        if kill_sender:
            # a sender whose last bytes the kernel has already taken is done, whatever becomes of them
            self.assertIn(statuses["sender"], (-9, 0), sender.stderr)
            self.assertEqual(1, statuses["receiver"], receiver.stderr)
        else:
            self.assertEqual(-9, statuses["receiver"], receiver.stderr)
            self.assertIn(statuses["sender"], (0, 1), sender.stderr)
        self.kills += 1

    def held(self):
        """How much of the file the receiver already has under the id that the sender will use again."""
        for meta in self.phone.downloads.glob("*.partial.meta.json"):  # of any name: an earlier one may be taken
            partial = meta.with_name(meta.name.removesuffix(".meta.json"))
            if partial.exists() and json.loads(meta.read_text())["transfer_id"] in self.mac.journal().values():
                return partial.stat().st_size
        return 0

    def rounds(self, kill_sender):
        random = seeded(self)
        self.kills = 0
        for number in range(ROUNDS):
            size = FIRST_SIZE if number == 0 else random.randrange(1, LARGEST)
            file = self.file(f"file {number}.bin", random.randbytes(size))
            with self.subTest(round=number, size=size):
                if number == 0:
                    self.interrupt(file, FIRST_KILL, kill_sender, once_written=True)
                    self.assertGreater(self.held(), 0)
                else:
                    for _ in range(random.randrange(1, 3)):
                        # not more than is certain to pass before the end: the handshake comes on top
                        self.interrupt(file, random.randrange(1, size + 1), kill_sender, random.random() < 0.5)
                held = self.held()
                sender, receiver = self.transfer(file)
                self.assert_delivered(file, sender, receiver)
                complete = receiver.events.find("complete")
                if not complete.get("already_here"):  # else the kill hit behind the delivery
                    self.assertEqual(held, complete["resumed_from_offset"])
        self.assertGreaterEqual(self.kills, ROUNDS)
        self.assertEqual({}, self.mac.journal())

    def test_the_receiver_is_killed(self):
        self.rounds(kill_sender=False)

    def test_the_sender_is_killed(self):
        self.rounds(kill_sender=True)


if __name__ == "__main__":
    unittest.main()
