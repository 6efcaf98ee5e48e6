"""Runs the tests of a file side by side, each in a process of its own. For files whose tests wait most of their time:
for a daemon, a limit of time, another program.

    if __name__ == "__main__":
        side_by_side.main()

Tests of a class that sets something up for all of them stay together. What a test prints is shown when it has ended.
With tests named on the command line it is unittest.main().
"""

import os
import sys
import tempfile
import time
import unittest


def units(suite):
    """What can run by itself: single tests, or all those of a class that belong together."""
    together = {}
    for test in tests_of(suite):
        kind = type(test)
        has_own = any("setUpClass" in base.__dict__ for base in kind.__mro__ if base is not unittest.TestCase)
        together.setdefault(kind if has_own else test.id(), []).append(test)
    return list(together.values())


def tests_of(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from tests_of(test)
        else:
            yield test


def start(unit, output):
    """The process that runs these tests, and writes there."""
    sys.stdout.flush()
    sys.stderr.flush()
    child = os.fork()
    if child != 0:
        return child
    status = 2
    try:
        os.dup2(output.fileno(), 1)
        os.dup2(output.fileno(), 2)
        result = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(unit))
        status = 0 if result.wasSuccessful() else 1
    finally:
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(status)  # nothing of the parent is to be cleared up here


def finish_one(running):
    """Waits for the next that ends and shows what it has said; the names of its tests if it has failed."""
    child, status = os.waitpid(-1, 0)
    unit, output = running.pop(child)
    output.seek(0)
    sys.stderr.write(output.read().decode(errors="replace"))
    output.close()
    return [test.id() for test in unit] if status != 0 else []


def run(suite, at_once):
    waiting, running, failed = units(suite), {}, []
    while waiting or running:
        while waiting and len(running) < at_once:
            unit, output = waiting.pop(0), tempfile.TemporaryFile()
            running[start(unit, output)] = (unit, output)
        failed += finish_one(running)
    return failed


def main(at_once=4):
    if any(not word.startswith("-") for word in sys.argv[1:]):
        unittest.main()
    begin = time.monotonic()
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    count = suite.countTestCases()
    failed = run(suite, at_once)
    print(f"\n{count} tests in {time.monotonic() - begin:.1f} s; {len(failed)} failed {failed or ''}", file=sys.stderr)
    sys.exit(1 if failed or count == 0 else 0)
