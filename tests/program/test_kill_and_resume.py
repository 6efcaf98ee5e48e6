"""Either side is killed at random points, thirty times; every file still arrives byte for byte."""

import json
import unittest

from harness import MIB, ProgramTest, Victim, seeded

ROUNDS = 15  # for each side


class KillAndResume(ProgramTest):
    def interrupt(self, file, at, kill_sender):
        """One attempt that ends with a SIGKILL when `at` bytes have gone over the wire."""
        victim = Victim()
        receiver = self.receiver()
        relay = self.relay(receiver.port, after_bytes=at, then=victim.kill, buffer=65536)
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
        self.kills = resumed = 0
        for number in range(ROUNDS):
            size = random.randrange(1, 14 * MIB)
            file = self.file(f"file {number}.bin", random.randbytes(size))
            with self.subTest(round=number, size=size):
                for _ in range(random.randrange(1, 3)):
                    # not more than is certain to pass before the end: the handshake comes on top
                    self.interrupt(file, random.randrange(1, size + 1), kill_sender)
                held = self.held()
                sender, receiver = self.transfer(file)
                self.assert_delivered(file, sender, receiver)
                self.assertEqual(held, receiver.events.find("complete")["resumed_from_offset"])
                resumed += held > 0
        self.assertGreaterEqual(self.kills, ROUNDS)
        self.assertGreater(resumed, 0, "no round has resumed: nothing was tested")
        self.assertEqual({}, self.mac.journal())

    def test_the_receiver_is_killed(self):
        self.rounds(kill_sender=False)

    def test_the_sender_is_killed(self):
        self.rounds(kill_sender=True)


if __name__ == "__main__":
    unittest.main()
