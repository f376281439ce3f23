#!/usr/bin/env python3
"""Counts the instructions of the calls that add samples and of Close, which repeat exactly where times do not.

Only the conversion of today's date, in Close, takes a few hundred more or fewer from month to month.

    Bench/instructions.py [--keep] PROGRAM

PROGRAM is the built InstructionCount, which runs under valgrind. Prints a Markdown table beside the figures kept in
Instructions.json. Exit status: 1 when a scenario takes over 5 % more than kept, or could not be counted. --keep makes
the new figures the kept ones.
"""

import argparse
import concurrent.futures
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
from pathlib import Path

KEPT = Path(__file__).with_name("Instructions.json")
TOLERANCE = 0.05
# The same environment everywhere: it lies on the stack, whose alignment counts. Symbols are bound before the count.
ENVIRONMENT = {"PATH": os.environ["PATH"], "LD_BIND_NOW": "1"}


def run(*command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, env=ENVIRONMENT)
    except OSError as error:
        sys.exit(f"{command[0]} cannot be run: {error.strerror}")
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} ended with {done.returncode}: {done.stderr.strip()}")
    return done.stdout


def count(program, scenario):
    """The instructions between the program's requests to start and to stop."""
    with tempfile.TemporaryDirectory() as folder:
        profile = Path(folder) / "profile"
        run("valgrind", "--quiet", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={profile}", program,
            scenario)
        total = re.search(r"^totals: (\d+)$", profile.read_text(), re.MULTILINE)
    if not total or int(total[1]) == 0:
        sys.exit(f"{scenario}: callgrind counted nothing")
    return int(total[1])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--keep", action="store_true", help="make the new figures the kept ones")
    parser.add_argument("program", metavar="PROGRAM", type=Path)
    options = parser.parse_args()

    compiler, *lines = run(options.program).splitlines()
    samples = {name: int(number) for name, number in map(str.split, lines)}
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        counts = dict(zip(samples, pool.map(lambda scenario: count(options.program, scenario), samples)))
    build = f"{compiler} on {platform.machine()}"
    stored = json.loads(KEPT.read_text()) if KEPT.exists() else {"compiler": build, "instructions": {}}
    kept = stored["instructions"]

    print("| scenario | instructions | per sample | kept | change |\n|---|--:|--:|--:|--:|")
    complaints, hints = [], []
    for scenario, counted in counts.items():
        before = kept.get(scenario)
        change = counted / before - 1 if before else None
        print(f"| {scenario} | {counted:,} | {counted / samples[scenario]:.1f} |"
              + (f" {before:,} | {100 * change:+.2f} % |" if before else " | |"))
        if change is None:
            complaints.append(f"{scenario} has no kept figure: run Scripts/instructions --keep.")
        elif change > TOLERANCE:
            complaints.append(f"{scenario} takes {100 * change:.1f} % more instructions than kept: find out why, or "
                              "keep the new figures with Scripts/instructions --keep.")
        elif change < -TOLERANCE:
            hints.append(f"{scenario} takes {-100 * change:.1f} % fewer instructions than kept: keep the new figures "
                         "with Scripts/instructions --keep.")
    complaints += [f"{scenario} has a kept figure but is no scenario any more: run Scripts/instructions --keep."
                   for scenario in kept if scenario not in counts]
    if stored["compiler"] != build:
        hints.append(f"The kept figures are of {stored['compiler']}, these of {build}: the compiler is part of any "
                     "change.")
    sys.stdout.flush()

    if options.keep:
        KEPT.write_text(json.dumps({"compiler": build, "instructions": counts}, indent=2) + "\n")
        return 0
    print(*complaints, *hints, sep="\n", end="\n" if complaints or hints else "", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
