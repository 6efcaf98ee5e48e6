"""What scripts/faults counts: from what was seen of a file to the columns of its table."""

import collections
import pathlib
import sys
import unittest

import own_environment  # noqa: F401 (it is entered by the import)

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "faults"))

import cases  # noqa: E402
from verdicts import AFTER_RETRY, AT_ONCE, NOT_DELIVERED, Seen, judge  # noqa: E402
from wire import frames_there  # noqa: E402

SENT = {"was_called_sent": True, "was_there": True, "came_later": True}
AGAIN = {"was_tried_again": True, "was_again_called_sent": True, "was_there_again": True}


class Verdicts(unittest.TestCase):
    def assert_verdict(self, outcome, faults, **seen):
        verdict = judge(Seen(**seen))
        self.assertEqual((outcome, faults), (verdict.outcome, verdict.faults))
        return verdict

    def test_delivered_at_once(self):
        self.assert_verdict(AT_ONCE, [], **SENT, right=1)

    def test_delivered_by_the_retry(self):
        self.assert_verdict(AFTER_RETRY, [], **AGAIN, right=1)

    def test_called_sent_and_there_a_moment_later_is_believed(self):
        self.assert_verdict(AT_ONCE, ["believed"], was_called_sent=True, came_later=True, right=1)

    def test_called_sent_and_never_there_is_believed_and_lost_whatever_a_second_one_brings(self):
        self.assert_verdict(AFTER_RETRY, ["lost", "believed"], was_called_sent=True, **AGAIN, right=1)

    def test_believed_in_the_window_is_counted_apart(self):
        verdict = self.assert_verdict(AFTER_RETRY, [], was_called_sent=True, was_in_window=True, **AGAIN, right=1)
        self.assertTrue(verdict.is_believed_in_window)

    def test_a_kill_in_the_window_that_nobody_was_told_of_is_no_belief(self):
        self.assertFalse(judge(Seen(was_in_window=True, **AGAIN, right=1)).is_believed_in_window)

    def test_the_window_excuses_nothing_about_the_retry(self):
        self.assert_verdict(NOT_DELIVERED, ["lost", "believed"], was_called_sent=True, was_in_window=True,
                            was_tried_again=True, was_again_called_sent=True)

    def test_two_of_them_are_doubled_and_other_content_is_wrong(self):
        self.assert_verdict(AFTER_RETRY, ["doubled"], **AGAIN, right=2)
        self.assert_verdict(AFTER_RETRY, ["wrong"], **AGAIN, right=1, wrong=1)

    def test_a_retry_that_fails_is_stuck_and_not_lost(self):
        self.assert_verdict(NOT_DELIVERED, ["stuck"], was_tried_again=True)

    def test_a_file_that_was_there_and_went_away_is_lost(self):
        self.assert_verdict(NOT_DELIVERED, ["lost"], **SENT)


class Cases(unittest.TestCase):
    def all_of(self, way="both", count=3000):
        return [cases.make_case(7, index, way) for index in range(count)]

    def test_the_same_seed_and_number_are_the_same_case(self):
        self.assertEqual(self.all_of(count=50), self.all_of(count=50))
        self.assertNotEqual(cases.make_case(7, 1, "both"), cases.make_case(8, 1, "both"))

    def test_every_kind_meets_every_way_and_every_place(self):
        chosen = self.all_of()
        self.assertEqual({(kind, way) for kind in cases.KINDS for way in set(cases.WAYS["both"])},
                         {(case.kind, case.way) for case in chosen})
        relayed = [case for case in chosen if not case.is_direct and case.kind != cases.DISK_FULL]
        places = collections.Counter((case.flow, case.anchor) for case in relayed)
        self.assertEqual(6, len(places), places)
        there = [case for case in relayed if (case.flow, case.anchor) == ("there", "byte")]
        frames = [frames_there(case.name, case.size) for case in there]
        self.assertGreater(sum(case.at < 104 for case in there), 100)                      # the handshake
        self.assertGreater(sum(104 <= c.at < sum(f[:3]) for c, f in zip(there, frames)), 50)   # the offer
        self.assertGreater(sum(case.at > case.total - 36 for case in there), 100)          # Done
        self.assertTrue(any(case.size == 0 for case in chosen))
        self.assertGreater(max(case.size for case in chosen), 4 << 20)

    def test_no_place_lies_behind_the_last_byte(self):
        for case in self.all_of():
            if not case.is_direct and case.kind != cases.DISK_FULL:
                last = case.total if case.kind not in cases.ALTERATIONS else case.total - 1
                self.assertTrue(0 <= case.at <= last, case)

    def test_ways_are_kept_apart_if_that_is_wanted(self):
        self.assertEqual({cases.OUTBOX}, {case.way for case in self.all_of("outbox", 100)})
        self.assertEqual({cases.SERVE, cases.RECEIVE}, {case.way for case in self.all_of("send", 100)})


if __name__ == "__main__":
    unittest.main()
