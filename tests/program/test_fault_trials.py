"""What scripts/faults says about programs that do well, and about such that lie: a count that is always 0 proves
nothing."""

import os
import pathlib
import shutil
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "faults"))

import cases  # noqa: E402
import side_by_side  # noqa: E402
import trials  # noqa: E402
import worlds  # noqa: E402
from harness import ORLINTH  # noqa: E402
from verdicts import AFTER_RETRY, AT_ONCE, NOT_DELIVERED  # noqa: E402

SAY = """echo '{"event":"complete"}'"""
DOWNLOADS = '"$HOME"/../phone/downloads'


class Trials(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="orlinth-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.addCleanup(setattr, worlds, "ORLINTH", worlds.ORLINTH)
        self.addCleanup(setattr, trials, "PATIENCE", trials.PATIENCE)

    def sends_with(self, script):
        """From now on `orlinth send` is this; "$@" are its arguments, `real` is the program."""
        path = self.folder / "orlinth"
        path.write_text(f'#!/bin/sh\nreal() {{ "{ORLINTH}" "$@"; }}\n[ "$1" = send ] || exec "{ORLINTH}" "$@"\n{script}\n')
        path.chmod(0o755)
        worlds.ORLINTH = str(path)

    @staticmethod
    def case(kind=cases.STALL, way=cases.SERVE, **fields):
        """By itself one that costs nothing but a moment."""
        fields = {"size": 5000, "at": 36, "total": 5323, "seconds": 0.01} | fields
        return cases.Case(index=1, kind=kind, way=way, name="film-1.bin", content_seed=1, **fields)

    def verdict(self, script=None, **fields):
        world = worlds.World(self.folder / "world", can_mount=False)
        try:
            if script is not None:
                self.sends_with(script)
            result = trials.run_case(world, self.case(**fields))
        finally:
            world.close()
        return result.verdict.outcome, result.verdict.faults, result

    def assert_verdict(self, outcome, faults, *arguments, **fields):
        *verdict, result = self.verdict(*arguments, **fields)
        self.assertEqual([outcome, faults], verdict, result.notes)
        return result

    def test_a_transfer_that_goes_well_is_delivered_at_once(self):
        for way in (cases.SERVE, cases.RECEIVE, cases.OUTBOX):
            with self.subTest(way):
                result = self.assert_verdict(AT_ONCE, [], way=way)
                self.assertTrue(result.has_struck)

    def test_a_transfer_that_is_broken_is_delivered_by_the_retry(self):
        for way in (cases.SERVE, cases.RECEIVE, cases.OUTBOX):
            with self.subTest(way):
                result = self.assert_verdict(AFTER_RETRY, [], kind=cases.RESET, way=way, at=50)
                self.assertTrue(result.has_struck)

    def test_a_fault_that_comes_too_late_has_not_struck(self):
        self.assertFalse(self.assert_verdict(AT_ONCE, [], kind=cases.RESET, at=10**6).has_struck)

    def test_killed_programs_are_started_again(self):
        for kind in cases.PROCESS:
            for way in (cases.SERVE, cases.RECEIVE, cases.OUTBOX):
                with self.subTest(kind, way=way):
                    outcome, _, result = self.verdict(kind=kind, way=way, at=50, seconds=0)
                    self.assertTrue(result.has_struck)
                    # a program that is asked to end may finish what it is doing
                    self.assertIn(outcome, (AFTER_RETRY, AT_ONCE) if "ended" in kind else (AFTER_RETRY,), result.notes)

    def test_a_sender_that_lies_is_believed_and_the_file_is_lost(self):
        self.assert_verdict(NOT_DELIVERED, ["lost", "believed"], SAY)

    def test_a_sender_that_speaks_too_soon_is_believed(self):
        self.assert_verdict(AT_ONCE, ["believed"], f'{SAY}; sleep 0.3; real "$@" >"$HOME"/log')

    def test_a_sender_that_sends_twice_has_doubled_the_file(self):
        self.assert_verdict(AT_ONCE, ["doubled"], f'cp "$5" "$HOME"; real "$@" >"$HOME"/log; touch "$5"; '
                            f'cp {DOWNLOADS}/film-1.bin {DOWNLOADS}/"film-1 2.bin"; {SAY}')

    def test_other_content_is_wrong(self):
        self.assert_verdict(NOT_DELIVERED, ["wrong", "lost", "believed"],
                            f'real "$@" >"$HOME"/log; echo >>{DOWNLOADS}/film-1.bin; {SAY}')

    def test_a_sender_that_never_succeeds_is_stuck(self):
        self.assert_verdict(NOT_DELIVERED, ["stuck"], "exit 1")

    def test_a_sender_that_hangs_is_interrupted(self):
        trials.PATIENCE = 3
        self.assert_verdict(NOT_DELIVERED, ["stuck"], "exec sleep 60")


if __name__ == "__main__":
    side_by_side.main()
