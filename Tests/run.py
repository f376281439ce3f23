#!/usr/bin/env python3
"""Runs one entry of the suite where there is room for it, and keeps what it could not run.

    Tests/run.py --skips FILE [--room MIB] [--first FOLDER] [--last FOLDER] PROGRAM [ARGUMENT...]

PROGRAM is one with GoogleTest, or a Python file with unittest. Its temporary files go to the first of these with the
room: the folder that comes first, the temporary one, the folder that comes last. FILE gets a line for each test that
was skipped and why; without any it goes. Exit status: the program's, and 77 when nothing of it could run.
"""

import argparse
import importlib
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree
from pathlib import Path

SKIPPED = 77


def choose_folder(folders, room):
    """The first that can be written to and has so many MiB; None without."""
    for folder in folders:
        if os.path.isdir(folder) and os.access(folder, os.W_OK) and shutil.disk_usage(folder).free >= room << 20:
            return folder
    return None


def run_google_test(command, folder):
    """Exit status, the tests that were skipped with their reasons, and whether all were."""
    report = Path(folder) / "report.xml"
    status = subprocess.run(command, env={**os.environ, "GTEST_OUTPUT": f"xml:{report}"}).returncode
    if not report.exists():
        return status or 1, [], False
    cases = list(xml.etree.ElementTree.parse(report).iter("testcase"))
    skips = [(f"{case.get('classname')}.{case.get('name')}", skip.get("message").strip().splitlines()[-1])
             for case in cases for skip in case.iter("skipped")]
    return status, skips, len(skips) == len(cases)


def run_unittest(path, arguments):
    """The same of a Python file, by its own `run_tests` if it has one."""
    sys.path.insert(0, str(path.parent))
    module = importlib.import_module(path.stem)
    result = (module.run_tests(arguments) if hasattr(module, "run_tests") else
              unittest.main(module, argv=[path.name, *arguments], exit=False).result)
    skips = [(test.id().removeprefix(f"{path.stem}."), (reason.splitlines() or [""])[0]) for test, reason in result.skipped]
    return 0 if result.wasSuccessful() else 1, skips, len(dict(skips)) >= result.testsRun


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--skips", type=Path, required=True)
    parser.add_argument("--room", type=int, default=0)
    parser.add_argument("--first")
    parser.add_argument("--last")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    options.skips.unlink(missing_ok=True)

    folders = [folder for folder in (options.first, tempfile.gettempdir(), options.last) if folder]
    folder = choose_folder(folders, options.room)
    if not folder:
        status, skips, is_all = 0, [("all of it", f"none of {', '.join(folders)} has {options.room} MiB free")], True
    else:
        with tempfile.TemporaryDirectory(prefix="reelmill-", dir=folder) as own:
            os.environ.update(TMPDIR=own, TEST_TMPDIR=own)
            tempfile.tempdir = None
            if options.command[0].endswith(".py"):
                status, skips, is_all = run_unittest(Path(options.command[0]), options.command[1:])
            else:
                status, skips, is_all = run_google_test(options.command, own)
    if skips:
        options.skips.parent.mkdir(parents=True, exist_ok=True)
        options.skips.write_text("".join(f"{options.skips.name}: {test}: {reason}\n" for test, reason in skips))
    if status < 0:
        print(f"{options.command[0]} was ended by signal {-status}", file=sys.stderr)
    return SKIPPED if skips and is_all and status == 0 else 1 if status < 0 else status


if __name__ == "__main__":
    sys.exit(main())
