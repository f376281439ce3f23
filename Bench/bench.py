#!/usr/bin/env python3
"""Measures the writer beside its peers and the machine's limits, and prints the result as Markdown.

    Bench/bench.py [--quick] [--minutes N] [--folder DIR] [--json FILE] [--readme]

Scripts/bench builds the programs first. The contestants of a load take turns, each time in another order, each after an
empty folder, a synced disk and memory that was just in use. A figure is the median of all turns. Two contestants are
held against each other by their ratios within a turn, so that what changes slowly on the machine touches both. More
pairs of them are drawn until it is clear on which side of its limit the median of the ratios lies, the minutes are over
or there are as many as may be. Exit status: 0 everything ran, whatever came of it; 1 not.
"""

import argparse
import json
import math
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable

from verdict import LEVEL, of_all, quartiles, verdict

PROJECT = Path(__file__).resolve().parents[1]
README = PROJECT / "README.md"
README_MARKS = ("<!-- Scripts/bench --readme -->\n", "<!-- end of Scripts/bench -->\n")

PROGRAMS = {
    "reelmill": "BenchReelmill", "journaled": "BenchReelmill",
    "libavformat": "BenchLibavformat", "libquicktime": "BenchLibquicktime", "qtmux": "BenchQtmux",
    "direct": "BenchFloors", "copy-direct": "BenchFloors", "copy": "BenchFloors",
    "records": "BenchFloors", "records-to-tables": "BenchFloors",
}
PEERS = ("libavformat", "libquicktime", "qtmux")
NAMES = {
    "reelmill": "**Reelmill**", "journaled": "Reelmill with its journal", "qtmux": "GStreamer qtmux",
    "direct": "*direct 20 MiB writes alone*", "copy-direct": "*copy, then direct writes*", "copy": "*copy alone*",
    "records": "*32 bytes a sample, appended*",
    "records-to-tables": "*32-byte records read, tables stored in new memory, one write*",
}

CONTESTANTS = {  # of each load, in the order of its table
    "editorial": ("reelmill", "journaled", *PEERS, "copy-direct", "direct", "copy"),
    "tiny": ("reelmill", "journaled", *PEERS, "copy", "records"),
    "tiny-varying": ("reelmill", "journaled", *PEERS, "copy", "records"),
    "many": ("reelmill", "journaled", *PEERS, "records-to-tables"),
    "growth": ("reelmill", "libavformat", "libquicktime"),
    "small": ("reelmill", "journaled", *PEERS),
    "chunks": ("reelmill", "journaled", *PEERS),
}
JOURNALED = [load for load, contestants in CONTESTANTS.items() if "journaled" in contestants]
GROWTH = (10_000, 100_000, 1_000_000, 10_000_000)
SLOW = {  # Samples that a contestant gets where the load has more of them.
    ("qtmux", "tiny"): 20_000, ("qtmux", "tiny-varying"): 20_000, ("qtmux", "many"): 100_000,
    ("qtmux", "small"): 20_000, ("qtmux", "chunks"): 20_000,
}
QUICK = {"editorial": 1440}  # Samples of the quick form; 20 000 of the others.
QUICK_GROWTH = (1000, 10_000)

ROUNDS = 3  # In which all contestants take turns.
LEAST_PAIRS = 7  # Of contestants that are held against each other; fewer decide nothing.
MOST_PAIRS = 60
MINUTES = 8  # After which no more pairs are drawn.

BLOCK = 20 << 20  # bytes
RECORD = 32  # bytes that the writer keeps of a sample
LEAST_SPACE = 6 << 30  # bytes; the quick form takes 1 GiB


class Failure(Exception):
    """A sentence for the user."""


# ---- Measuring ------------------------------------------------------------------------------------------------------


class Cell:
    """What one contestant came to on one load: medians."""

    def __init__(self, turns):
        def median(key):
            return statistics.median(line[key] for line in turns)

        self.turns = turns
        self.samples, self.media = turns[0]["samples"], turns[0]["mediaBytes"]
        self.wall, self.cpu, self.close = median("wallSeconds"), median("cpuSeconds"), median("closeCpuSeconds")
        self.peak = median("peakBytes")

    @property
    def cpu_each(self):
        return self.cpu / self.samples

    @property
    def add_each(self):
        return (self.cpu - self.close) / self.samples

    @property
    def close_each(self):
        return self.close / self.samples

    @property
    def peak_each(self):
        return self.peak / self.samples


@dataclass(frozen=True)
class Ratio:
    """Of `value` of the runner `over`, (contestant, samples), to that of `under`; `value` itself without `under`."""

    load: str
    over: tuple
    under: tuple
    value: Callable


@dataclass(frozen=True)
class Limit:
    """What each of the ratios is to be."""

    what: str
    ratios: list
    bound: float
    at_least: bool


class Bench:
    def __init__(self, options):
        self.options = options
        self.programs = Path(options.build) / "Bench"
        self.growth = QUICK_GROWTH if options.quick else GROWTH
        self.lines = []  # As the programs printed them, with the turn in it.
        self.turns = dict.fromkeys(CONTESTANTS, 0)  # Of each load.

    def runner(self, contestant, load):
        """Samples None: the load's own number."""
        quick = QUICK.get(load, 20_000)
        return contestant, quick if self.options.quick else SLOW.get((contestant, load))

    def runners(self, load):
        if load == "growth":
            return [(name, samples) for samples in self.growth for name in CONTESTANTS[load]]
        return [self.runner(name, load) for name in CONTESTANTS[load]]

    def run(self, folder):
        deadline = time.monotonic() + 60 * self.options.minutes
        for _ in range(1 if self.options.quick else ROUNDS):
            for load in CONTESTANTS:
                self.take_turn(folder, load, self.runners(load))
        if not self.options.quick:
            self.draw_pairs(folder, deadline)

    def draw_pairs(self, folder, deadline):
        """First the least number for all; then each load that is not decided gets as much time as the others."""
        spent = dict.fromkeys(CONTESTANTS, 0.0)
        while (undecided := self.undecided()) and (start := time.monotonic()) < deadline:
            early = [load for load in undecided if self.turns[load] < LEAST_PAIRS]
            load = min(early or undecided, key=spent.get)
            self.take_turn(folder, load, [runner for runner in self.runners(load) if runner in undecided[load]])
            spent[load] += time.monotonic() - start

    def undecided(self):
        """The runners of which more pairs may decide something, for each load that has any."""
        found = {}
        for limit in limits(self):
            for ratio in limit.ratios if self.verdict(limit) == "undecided" else ():
                if self.verdict_of(ratio, limit) == "undecided" and len(self.ratios(ratio)) < MOST_PAIRS:
                    found.setdefault(ratio.load, set()).update((ratio.over, ratio.under))
        return found

    def take_turn(self, folder, load, runners):
        """Neighbours change places every time, and who begins every second time."""
        turn = self.turns[load]
        self.turns[load] += 1
        print(f"{load}: turn {turn + 1} of {', '.join(dict.fromkeys(name for name, _ in runners))}", file=sys.stderr,
              flush=True)
        place = turn // 2 % len(runners)
        order = runners[place:] + runners[:place]
        for name, samples in order if turn % 2 == 0 else order[::-1]:
            line = self.measure(folder, name, load, samples)
            self.lines.append({"turn": turn, "runner": (name, samples), **line})

    def measure(self, folder, contestant, load, samples):
        movie = folder / f"{contestant}.mov"
        command = [str(self.programs / PROGRAMS[contestant]), contestant, load, str(movie)]
        command += ["--samples", str(samples)] if samples else []
        os.sync()
        try:
            done = subprocess.run(command, capture_output=True, text=True, timeout=600)
        except OSError as error:
            raise Failure(f"{command[0]} does not start ({error.strerror}); build it with Scripts/bench") from None
        except subprocess.TimeoutExpired:
            raise Failure(f"{contestant} did not come to an end on {load}") from None
        if done.returncode != 0:
            why = done.stderr.strip() or f"status {done.returncode}"
            raise Failure(f"{contestant} failed on {load}: {why}")
        for path in folder.iterdir():
            path.unlink()
        return json.loads(done.stdout)

    def cell(self, contestant, load, samples=None):
        return Cell([line for line in self.lines if line["contestant"] == contestant and line["load"] == load
                     and samples in (None, line["samples"])])

    def cells(self, load):
        return {name: self.cell(name, load) for name in CONTESTANTS[load]}

    def ratios(self, ratio):
        """One for each turn that both took."""
        def figures(runner):
            return {line["turn"]: ratio.value(line) for line in self.lines
                    if line["load"] == ratio.load and line["runner"] == runner}

        over = figures(ratio.over)
        if ratio.under is None:
            return list(over.values())
        under = figures(ratio.under)
        return [over[turn] / under[turn] for turn in sorted(over.keys() & under.keys())]

    def verdict_of(self, ratio, limit):
        return verdict(self.ratios(ratio), limit.bound, limit.at_least)

    def verdict(self, limit):
        return of_all([self.verdict_of(ratio, limit) for ratio in limit.ratios])

    def versions(self):
        return sorted({line["version"] for line in self.lines} - {""})


# ---- The machine ----------------------------------------------------------------------------------------------------


def machine(options, folder):
    lines = Path("/proc/cpuinfo").read_text().splitlines()
    models = [line.partition(":")[2].strip() for line in lines if line.startswith("model name")]
    cache = (Path(options.build) / "CMakeCache.txt").read_text().splitlines()
    compilers = [line.partition("=")[2] for line in cache if line.startswith("CMAKE_CXX_COMPILER:")]
    compiler = subprocess.run([compilers[0], "--version"], capture_output=True, text=True, check=True).stdout
    mounts = [line.split()[1:3] for line in Path("/proc/self/mounts").read_text().splitlines()]
    parents = [str(path) for path in (folder, *folder.parents)]
    volume = max((mount for mount in mounts if mount[0] in parents), key=lambda mount: len(mount[0]))
    return (f"{models[0] if models else os.uname().machine}, {os.cpu_count()} cores, Linux {os.uname().release}, "
            f"{volume[1]}, {compiler.splitlines()[0]}")


# ---- Tables ---------------------------------------------------------------------------------------------------------


def seconds(value):
    return f"{value:.2f} s" if value >= 0.1 else f"{value * 1e3:.1f} ms"


def nanoseconds(value):
    return f"{value * 1e9:,.0f} ns".replace(",", " ") if value >= 1e-7 else f"{value * 1e9:.1f} ns"


def count(value):
    return f"{value:,}".replace(",", " ")


def size(value):
    return f"{value / (1 << 30):.1f} GiB" if value >= 1 << 30 else f"{value / (1 << 20):.1f} MiB"


def power(value):
    """Of ten, as Markdown."""
    return f"10<sup>{len(str(value)) - 1}</sup>"


def table(title, head, rows):
    lines = [f"### {title}", "", "| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def row(name, *values):
    return (NAMES.get(name, name), *values)


def editorial_table(bench):
    cells = bench.cells("editorial")
    return table(
        f"Editorial: {count(cells['reelmill'].samples // 2)} frames of 64 KiB, each with 800 stereo 16-bit samples of "
        f"sound; {size(cells['reelmill'].media)}",
        ("contestant", "wall, on the device", "CPU", "memory"),
        [row(name, "" if name == "copy" else seconds(cell.wall), seconds(cell.cpu), size(cell.peak))
         for name, cell in cells.items()])


def tiny_table(bench):
    same, varying = bench.cells("tiny"), bench.cells("tiny-varying")
    return table(
        "Tiny: samples of 16 bytes; of 16 and 20 bytes in turn",
        ("contestant", "samples", "CPU a sample", "memory a sample", "varying: CPU a sample", "memory a sample"),
        [row(name, count(same[name].samples), nanoseconds(same[name].cpu_each), f"{same[name].peak_each:.1f} B",
             nanoseconds(varying[name].cpu_each), f"{varying[name].peak_each:.1f} B") for name in same])


def many_table(bench):
    return table(
        "Many: small samples of varying size on 4 tracks in turn, each a chunk of its own",
        ("contestant", "samples", "`Close`, CPU", "`Close`, CPU a sample", "CPU a sample, all in", "memory a sample"),
        [row(name, count(cell.samples), seconds(cell.close), nanoseconds(cell.close_each),
             "" if name == "records-to-tables" else nanoseconds(cell.cpu_each),
             "" if name == "records-to-tables" else f"{cell.peak_each:.1f} B")
         for name, cell in bench.cells("many").items()])


def growth_table(bench):
    def figures(name, samples):
        cell = bench.cell(name, "growth", samples)
        return f"{nanoseconds(cell.cpu_each)}, {cell.peak_each:.0f} B"

    return table(
        "Growth: CPU and memory a sample of 16 or 20 bytes, as the samples become more",
        ("contestant", *(power(samples) for samples in bench.growth)),
        [row(name, *(figures(name, samples) for samples in bench.growth)) for name in CONTESTANTS["growth"]])


def pieces_table(bench):
    small, chunks = bench.cells("small"), bench.cells("chunks")
    return table(
        "Small: samples of 1 to 64 bytes. Chunks: two stereo tracks, 32 samples a call, chunks of half a second",
        ("contestant", "calls", "small: CPU a call", "memory a call", "chunks: CPU a call", "memory a call"),
        [row(name, count(small[name].samples), nanoseconds(small[name].cpu_each), f"{small[name].peak_each:.1f} B",
             nanoseconds(chunks[name].cpu_each), f"{chunks[name].peak_each:.1f} B") for name in small])


def wall(line):
    return line["wallSeconds"]


def cpu(line):
    return line["cpuSeconds"]


def closing(line):
    return line["closeCpuSeconds"]


def adding(line):
    return cpu(line) - closing(line)


def each(value):
    """A figure a sample."""
    return lambda line: value(line) / line["samples"]


def peak(line):
    return line["peakBytes"]


def record_room(line):
    """Memory, of the writer's records and nothing else."""
    return (line["peakBytes"] - BLOCK) / (RECORD * line["samples"])


def journal_ratio(bench, load, value):
    return Ratio(load, bench.runner("journaled", load), bench.runner("reelmill", load), value)


def limits(bench):
    """The bar."""
    def peers(load, value, names=PEERS):
        return [Ratio(load, bench.runner(name, load), bench.runner("reelmill", load), value) for name in names]

    def ours(load, value, names):
        return [Ratio(load, bench.runner("reelmill", load), bench.runner(name, load), value) for name in names]

    yield Limit("editorial: speed, of copy and direct writes", peers("editorial", wall, ["copy-direct"]), 0.95, True)
    yield Limit("editorial: speed, of the best peer's", peers("editorial", wall), 1.3, True)
    yield Limit("editorial: CPU, of the best peer's", ours("editorial", cpu, PEERS), 0.4, False)
    for load in ("tiny", "tiny-varying"):
        yield Limit(f"{load}: the best peer's CPU a sample, of ours", peers(load, each(cpu)), 3, True)
        yield Limit(f"{load}: memory, of 32 bytes a sample",
                    [Ratio(load, bench.runner("reelmill", load), None, record_room)], 1.3, False)
    equals = [name for name in PEERS if (name, "many") not in SLOW]
    yield Limit("many: the best peer's `Close` CPU with as many samples, of ours", peers("many", closing, equals), 2.5,
                True)
    yield Limit("many: any peer's `Close` CPU a sample, of ours", peers("many", each(closing)), 2.5, True)
    yield Limit("many: `Close` CPU, of records read, stored as tables and written",
                ours("many", closing, ["records-to-tables"]), 2, False)
    before, last = bench.growth[-2:]
    for what, value in (("CPU", cpu), ("memory", peak)):
        yield Limit(f"growth: {what} a sample with {power(last)} samples, of {power(before)}",
                    [Ratio("growth", ("reelmill", last), ("reelmill", before), each(value))], 1.25, False)
    for load in JOURNALED:
        yield Limit(f"{load}: CPU of adding with the journal, of without", [journal_ratio(bench, load, adding)], 1.1,
                    False)


def journal_table(bench):
    def figures(load):
        def more(value):
            lower, median, upper = (f"{100 * (ratio - 1):+.1f}"
                                    for ratio in quartiles(bench.ratios(journal_ratio(bench, load, value))))
            return f"{median} % ({lower} to {upper})"

        return (load, nanoseconds(bench.cell("reelmill", load).add_each),
                nanoseconds(bench.cell("journaled", load).add_each), more(adding), more(cpu), more(wall))

    return table(
        "The journal: medians of each figure, and of how much more it is within a turn, with the quartiles",
        ("load", "adding, CPU a sample: plain", "journaled", "more", "with `Close`: more", "wall: more"),
        [figures(load) for load in JOURNALED])


def bar_table(bench):
    def figures(limit):
        """Of the worst ratio of those that the verdict comes from; rounded so that nothing looks better."""
        met = bench.verdict(limit)
        deciding = [bench.ratios(ratio) for ratio in limit.ratios if bench.verdict_of(ratio, limit) == met]
        ratios = (min if limit.at_least else max)(deciding, key=statistics.median)
        rounded = math.floor if limit.at_least else math.ceil
        lower, median, upper = (f"{rounded(ratio * 100) / 100:.2f}" for ratio in quartiles(ratios))
        return (limit.what, median, f"{lower} to {upper}", str(len(ratios)),
                f"at {'least' if limit.at_least else 'most'} {limit.bound}", met)

    return table("The bar", ("what", "median", "quartiles", "turns", "limit", "met"),
                 [figures(limit) for limit in limits(bench)])


def report(bench, options, folder):
    kind = "Each figure is from one round of small loads, which shows no more than that everything runs."
    if not options.quick:
        kind = (f"Figures are medians of {ROUNDS} turns or more. CPU: user and system time of all threads. Memory: how "
                "far resident memory rises. In italics what the machine itself asks for the same bytes. What two "
                "contestants are to each other is the median of their ratios within a turn, with the quartiles of "
                f"these ratios. A limit is met, or not, where the {100 * LEVEL:.0f} % confidence interval of the median "
                f"lies wholly on one side of it. Up to {MOST_PAIRS} pairs are drawn for that, for {options.minutes:g} "
                "minutes; what is open then is undecided.")
    tables = [editorial_table, tiny_table, many_table, growth_table, pieces_table, journal_table]
    tables += [] if options.quick else [bar_table]
    return "\n".join([f"{machine(options, folder)}; {', '.join(bench.versions())}. {kind}\n",
                      *(make(bench) for make in tables)])


def put_into_readme(text):
    head, tail = README_MARKS
    readme = README.read_text()
    if readme.count(head) != 1 or readme.count(tail) != 1:
        raise Failure(f"{README} does not hold the lines {head.strip()} and {tail.strip()} once each; restore them")
    before, _, rest = readme.partition(head)
    README.write_text(f"{before}{head}\n{text}\n{tail}{rest.partition(tail)[2]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="one round of small loads: shows that everything runs")
    parser.add_argument("--minutes", type=float, default=MINUTES,
                        help=f"after which no more pairs are drawn than those of {ROUNDS} rounds (%(default)s)")
    parser.add_argument("--folder", type=Path, default=PROJECT / "build/bench",
                        help="where the movies go (%(default)s)")
    parser.add_argument("--json", type=Path, help="file for every single measurement")
    parser.add_argument("--readme", action="store_true", help="also put the tables into README.md")
    parser.add_argument("--build", default=PROJECT / "build/bench", help="where the programs are (%(default)s)")
    options = parser.parse_args()
    if options.quick and options.readme:
        parser.error("a quick run is none for the README")

    bench = Bench(options)
    try:
        with tempfile.TemporaryDirectory(prefix="movies-", dir=options.folder) as name:
            folder = Path(name).resolve()
            least = LEAST_SPACE if not options.quick else 1 << 30
            if shutil.disk_usage(folder).free < least:
                raise Failure(f"{options.folder} has less than {size(least)} free; name another with --folder")
            bench.run(folder)
            text = report(bench, options, folder)
        print(text)
        if options.json:
            options.json.write_text(json.dumps(bench.lines, indent=1) + "\n")
        if options.readme:
            put_into_readme(text)
    except Failure as error:
        print(f"bench.py: {error}", file=sys.stderr)
        return 1
    except OSError as error:
        print(f"bench.py: {error.filename or options.folder}: {error.strerror}; free or name another place",
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
