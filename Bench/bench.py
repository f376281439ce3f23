#!/usr/bin/env python3
"""Measures the writer beside its peers and the machine's limits, and prints the result as Markdown.

    Bench/bench.py [--quick] [--rounds N] [--folder DIR] [--json FILE] [--readme]

Scripts/bench builds the programs first. In each round the contestants take turns in another order, each behind an empty
folder, a synced disk and memory that was just in use; those that lie close together take several turns. A figure is the
median of all turns. Two contestants are held against each other by the median of the ratios within a turn, so that what
changes slowly on the machine touches both. Exit status: 0 everything ran, whatever came of it; 1 not.
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
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
README = PROJECT / "README.md"
README_MARKS = ("<!-- Scripts/bench --readme -->\n", "<!-- end of Scripts/bench -->\n")

PROGRAMS = {
    "reelmill": "BenchReelmill", "journaled": "BenchReelmill",
    "libavformat": "BenchLibavformat", "libquicktime": "BenchLibquicktime", "qtmux": "BenchQtmux",
    "direct": "BenchFloors", "copy-direct": "BenchFloors", "copy": "BenchFloors",
    "records": "BenchFloors", "tables": "BenchFloors", "records-to-tables": "BenchFloors",
}
PEERS = ("libavformat", "libquicktime", "qtmux")
NAMES = {
    "reelmill": "**Reelmill**", "journaled": "Reelmill with its journal", "qtmux": "GStreamer qtmux",
    "direct": "*direct 20 MiB writes alone*", "copy-direct": "*copy, then direct writes*", "copy": "*copy alone*",
    "records": "*32 bytes a sample, appended*", "tables": "*one write of the tables' bytes*",
    "records-to-tables": "*32-byte records read, tables stored in new memory, one write*",
}

CONTESTANTS = {  # of each load, in the order of its table
    "editorial": ("reelmill", "journaled", *PEERS, "copy-direct", "direct", "copy"),
    "tiny": ("reelmill", "journaled", *PEERS, "copy", "records"),
    "tiny-varying": ("reelmill", "journaled", *PEERS, "copy", "records"),
    "many": ("reelmill", "journaled", *PEERS, "tables", "records-to-tables"),
    "growth": ("reelmill", "libavformat", "libquicktime"),
    "small": ("reelmill", "journaled", *PEERS),
    "chunks": ("reelmill", "journaled", *PEERS),
}
CLOSE = ("reelmill", "journaled", "copy-direct")  # So close together that one turn a round tells little.
CLOSE_TURNS = 3
JOURNALED = [load for load, contestants in CONTESTANTS.items() if "journaled" in contestants]
GROWTH = (10_000, 100_000, 1_000_000, 10_000_000)
SLOW = {"qtmux": 100_000}  # Samples that a contestant gets where the load has more and they are small.
QUICK = {"editorial": 1440}  # Samples of the quick form; 20 000 of the others.
QUICK_GROWTH = (1000, 10_000)

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


class Bench:
    def __init__(self, options):
        self.options = options
        self.programs = Path(options.build) / "Bench"
        self.growth = QUICK_GROWTH if options.quick else GROWTH
        self.lines = []  # As the programs printed them, with the round and the turn in it.

    def samples(self, contestant, load):
        """None: the load's own number."""
        if self.options.quick:
            return QUICK.get(load, 20_000)
        return SLOW.get(contestant) if load != "editorial" else None

    def plan(self):
        """(contestants, load, samples) of each group, as often as it takes turns in a round."""
        for load, contestants in CONTESTANTS.items():
            if load == "growth":
                for count in self.growth:
                    yield [(name, load, count) for name in contestants]
                continue
            group = [(name, load, self.samples(name, load)) for name in contestants]
            yield group
            if not self.options.quick:
                yield from [[one for one in group if one[0] in CLOSE]] * (CLOSE_TURNS - 1)

    def run(self, folder):
        for number in range(self.options.rounds):
            for turn, group in enumerate(self.plan()):
                print(f"round {number + 1} of {self.options.rounds}: {group[0][1]}", file=sys.stderr, flush=True)
                place = (number + turn) % len(group)
                order = group[place:] + group[:place]
                for one in order if number % 2 == 0 else order[::-1]:
                    self.lines.append({"round": number + 1, "turn": turn, **self.measure(folder, *one)})

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

    def ratio(self, contestant, load, value):
        """Of a contestant's figure to the writer's: the median over the turns that both took."""
        def figures(name):
            return {(line["round"], line["turn"]): value(line) for line in self.cell(name, load).turns}

        its, ours = figures(contestant), figures("reelmill")
        return statistics.median(its[turn] / ours[turn] for turn in its.keys() & ours.keys())

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
             "" if "tables" in name else nanoseconds(cell.cpu_each),
             "" if "tables" in name else f"{cell.peak_each:.1f} B") for name, cell in bench.cells("many").items()])


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


def journal_table(bench):
    def figures(load):
        def more(value):
            return f"{100 * (bench.ratio('journaled', load, value) - 1):+.1f} %"

        return (load, nanoseconds(bench.cell("reelmill", load).add_each),
                nanoseconds(bench.cell("journaled", load).add_each), more(adding), more(cpu), more(wall))

    return table(
        "The journal: medians of each figure, and of how much more it is within a turn",
        ("load", "adding, CPU a sample: plain", "journaled", "more", "with `Close`: more", "wall: more"),
        [figures(load) for load in JOURNALED])


def bar_table(bench):
    rows = []  # Rounded to the side where nothing looks better than it is.

    def at_least(what, value, limit):
        shown = math.floor(value * 100) / 100
        rows.append((what, f"{shown:.2f}", f"at least {limit}", "yes" if value >= limit else "no"))

    def at_most(what, value, limit):
        shown = math.ceil(value * 100) / 100
        rows.append((what, f"{shown:.2f}", f"at most {limit}", "yes" if value <= limit else "no"))

    def best_peer(load, value, peers=PEERS):
        return min(bench.ratio(name, load, value) for name in peers)

    at_least("editorial: speed, of copy and direct writes", bench.ratio("copy-direct", "editorial", wall), 0.95)
    at_least("editorial: speed, of the best peer's", best_peer("editorial", wall), 1.3)
    at_most("editorial: CPU, of the best peer's", 1 / best_peer("editorial", cpu), 0.4)
    for load in ("tiny", "tiny-varying"):
        ours = bench.cell("reelmill", load)
        at_least(f"{load}: the best peer's CPU a sample, of ours", best_peer(load, each(cpu)), 3)
        at_most(f"{load}: memory, of 32 bytes a sample", (ours.peak - BLOCK) / (RECORD * ours.samples), 1.3)
    cells = bench.cells("many")
    equals = [name for name in PEERS if cells[name].samples == cells["reelmill"].samples]
    at_least("many: the best peer's `Close` CPU with as many samples, of ours", best_peer("many", closing, equals), 2.5)
    at_least("many: any peer's `Close` CPU a sample, of ours", best_peer("many", each(closing)), 2.5)
    at_most("many: `Close` CPU, of records read, stored as tables and written",
            1 / bench.ratio("records-to-tables", "many", closing), 2)
    at_most("many: `Close` CPU, of one write of the tables' bytes", 1 / bench.ratio("tables", "many", closing), 2)
    before, last = (bench.cell("reelmill", "growth", samples) for samples in bench.growth[-2:])
    times = f"{power(last.samples)} samples, of {power(before.samples)}"
    at_most(f"growth: CPU a sample with {times}", last.cpu_each / before.cpu_each, 1.25)
    at_most(f"growth: memory a sample with {times}", last.peak_each / before.peak_each, 1.25)
    for load in JOURNALED:
        at_most(f"{load}: CPU of adding with the journal, of without", bench.ratio("journaled", load, adding), 1.1)
    return table("The bar", ("what", "measured", "limit", "met"), rows)


def report(bench, options, folder):
    kind = "Each figure is from one round of small loads, which shows no more than that everything runs."
    if not options.quick:
        kind = (f"Medians of {options.rounds} round{'s' * (options.rounds > 1)}. But for growth, the writer takes "
                f"{CLOSE_TURNS} turns a round, with its journal and without, and so does copy with direct writes. CPU: "
                "user and system time of all threads. Memory: how far resident memory rises. In italics what the "
                "machine itself asks for the same bytes. What two contestants are to each other is the median of their "
                "ratios within a turn.")
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
    parser.add_argument("--rounds", type=int, help="how often all take turns (5)")
    parser.add_argument("--folder", type=Path, default=PROJECT / "build/bench",
                        help="where the movies go (%(default)s)")
    parser.add_argument("--json", type=Path, help="file for every single measurement")
    parser.add_argument("--readme", action="store_true", help="also put the tables into README.md")
    parser.add_argument("--build", default=PROJECT / "build/bench", help="where the programs are (%(default)s)")
    options = parser.parse_args()
    if options.rounds is None:
        options.rounds = 1 if options.quick else 5
    if options.rounds < 1 or (options.quick and options.readme):
        parser.error("--rounds takes 1 or more, and a quick run is none for the README")

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
