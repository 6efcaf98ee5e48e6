"""The table of what came of the faults, and the cases that must not be."""

import sys
import time

import cases
from verdicts import AFTER_RETRY, AT_ONCE

COLUMNS = ("faults", "at once", "after retry", "wrong", "lost", "doubled", "believed", "stuck", "in window",
           "believed in window")


class Tally:
    def __init__(self):
        self.counts = dict.fromkeys(COLUMNS, 0)

    def add(self, result):
        verdict = result.verdict
        self.counts["faults"] += 1
        self.counts["at once"] += verdict.outcome == AT_ONCE
        self.counts["after retry"] += verdict.outcome == AFTER_RETRY
        for name in verdict.faults:
            self.counts[name] += 1
        self.counts["in window"] += result.in_window
        self.counts["believed in window"] += verdict.is_believed_in_window

    def row(self, title):
        return f"| {title:<15} | " + " | ".join(f"{self.counts[name]:>{len(name)}}" for name in COLUMNS) + " |"


class Report:
    def __init__(self, options, total):
        self.options = options
        self.total = total
        self.results = []
        self.troubles = []
        self.begin = time.monotonic()
        self.is_live = sys.stderr.isatty()

    def add(self, result):
        self.results.append(result)
        if self.is_live:
            bad = sum(bool(known.verdict.faults) for known in self.results)
            print(f"\r{len(self.results)} of {self.total} faults, {bad} bad, {self.seconds:.0f} s ", end="",
                  file=sys.stderr, flush=True)

    def add_trouble(self, case, text):
        self.troubles.append((case, text))

    @property
    def seconds(self):
        return time.monotonic() - self.begin

    def is_good(self):
        return not self.troubles and not any(result.verdict.faults for result in self.results)

    def print(self):
        if self.is_live:
            print(file=sys.stderr)
        struck = [result for result in self.results if result.has_struck]
        print(f"| {'fault':<15} | " + " | ".join(COLUMNS) + " |")
        print("|---|" + "--:|" * len(COLUMNS))
        self.print_rows([(kind, [r for r in struck if r.case.kind == kind]) for kind in cases.KINDS])
        ways = [(way, [r for r in struck if r.case.way == way]) for way in (cases.SERVE, cases.RECEIVE, cases.OUTBOX)]
        if sum(bool(results) for _, results in ways) > 1:
            self.print_rows(ways)
        self.print_rows([("all", struck)])
        missed = len(self.results) - len(struck)
        left = sum(result.seen.unfinished > 0 for result in struck)
        print(f"\nSeed {self.options.seed}, {self.seconds:.0f} s. Not in the table: {missed} transfers that ended before "
              f"their fault. Partial files left behind: in {left} cases.")
        self.print_bad()

    @staticmethod
    def print_rows(rows):
        for title, results in rows:
            if not results:
                continue
            tally = Tally()
            for result in results:
                tally.add(result)
            print(tally.row(title))

    def print_bad(self):
        bad = sorted((result for result in self.results if result.verdict.faults), key=lambda r: r.case.index)
        limit = self.options.bad_cases
        if bad:
            print("\nFailures. To repeat one: "
                  f"scripts/faults --seed {self.options.seed} --way {self.options.way} --only NUMBER")
        for result in bad[:limit]:
            print(f"{result.case.index:>6}  {result.case}: {', '.join(result.verdict.faults)}")
        if len(bad) > limit:
            print(f"        and {len(bad) - limit} more; --bad-cases N lists more, --log FILE all")
        for case, text in self.troubles[:limit]:
            print(f"\nCase {case.index} could not be run ({case}):\n{text}")


def story(result):
    """All that is known about a single case."""
    case = result.case
    return "\n  ".join([
        f"{case.index}  {case}",
        f"{'struck' if result.has_struck else 'did not strike'}; {result.seconds:.1f} s; {result.verdict.outcome}"
        + "".join(", " + name for name in result.verdict.faults)
        + (", killed in the window" if result.in_window else ""),
        *(line for note in result.notes for line in note.splitlines())])
