#!/usr/bin/env python3
"""Tries on the real command what users lose takes to: crashes, power cuts, full disks, failing devices, interruptions.

    Tests/Crash/crash.py --rounds 200 [--seed N] [kill torn signals faults full_disk.Volumes.test_xfs ...]

Prints what was tried and what came of it. Exit status: 0 what could run held, 1 something did not.
"""

import argparse
import os
import sys
import time
import traceback
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
START = time.monotonic()
NAMES = ("kill", "torn", "signals", "faults", "full_disk")


class Result(unittest.TestResult):
    """Says at once what did not hold, and where."""

    def startTest(self, test):
        super().startTest(test)
        print(f"{test.id()} ({time.monotonic() - START:.0f} s)", flush=True)

    def _tell(self, test, error):
        trace = "" if issubclass(error[0], AssertionError) else "".join(traceback.format_exception(*error))
        print(f"\nFAILED {test.id()}: {trace or error[1]}\n", flush=True)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._tell(test, err)

    def addError(self, test, err):
        super().addError(test, err)
        self._tell(test, err)

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self._tell(subtest, err)


def run_tests(arguments):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("tests", nargs="*", default=NAMES, help=f"which ({', '.join(NAMES)}), or one of their tests")
    parser.add_argument("--rounds", default=os.environ.get("CRASH_ROUNDS", "6"), help="kills, and so much of the rest")
    parser.add_argument("--seed", default=os.environ.get("CRASH_SEED", "1"),
                        help="of the random numbers; 'time' for the time of day")
    parser.add_argument("--seconds", default=os.environ.get("CRASH_SECONDS", "8"), help="of the movie; 21 MB each")
    parser.add_argument("--keep", help="folder for the files of rounds that failed")
    parser.add_argument("--reelmill", default=os.environ.get("REELMILL", HERE.parents[1] / "build/dev/Host/reelmill"),
                        help="the command")
    options = parser.parse_args(arguments)
    seed = int(time.time() if options.seed == "time" else options.seed)
    os.environ.update(CRASH_ROUNDS=options.rounds, CRASH_SEED=str(seed), CRASH_SECONDS=options.seconds,
                      REELMILL=str(options.reelmill))
    if options.keep:
        os.environ["CRASH_KEEP"] = options.keep
    sys.path.insert(0, str(HERE))
    import movies

    names = ["test_" + name.removeprefix("test_") for name in options.tests]
    suite = unittest.defaultTestLoader.loadTestsFromNames(names)
    result = Result()
    suite.run(result)
    print(f"\n{options.rounds} rounds with seed {seed} in {time.monotonic() - START:.0f} s, "
          f"{len(result.failures) + len(result.errors)} failed:")
    for what, number in sorted(movies.figures.items()):
        print(f"  {number:5}  {what}")
    for test, reason in result.skipped:
        print(f"  SKIPPED {test}: {reason}")
    return result


if __name__ == "__main__":
    sys.exit(0 if run_tests(sys.argv[1:]).wasSuccessful() else 1)
