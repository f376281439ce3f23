"""Replays movies through the library and compares everything with the model: values, reports, trace, file bytes.

REELMILL_REPLAY       the ReelmillReplay program
REELMILL_MOVIES       how many random movies (default 300)
REELMILL_FIRST_SEED   where their seeds start (default 1)
REELMILL_LARGE        not empty: also what passes 2 and 4 GiB (sparse files, but minutes and 4 GiB of memory)
"""

import json
import mmap
import os
import subprocess
import tempfile
import unittest

import movie_model
import random_movies

REPLAY = os.environ.get("REELMILL_REPLAY", "ReelmillReplay")
MOVIES = int(os.environ.get("REELMILL_MOVIES", "300"))
FIRST_SEED = int(os.environ.get("REELMILL_FIRST_SEED", "1"))
LARGE = bool(os.environ.get("REELMILL_LARGE"))
BATCH = 50  # movies that are on disk at the same time

# ---- Where in a file -------------------------------------------------------------------------------------------------

#: Where the children of an atom begin.
CHILDREN = {
    **dict.fromkeys(["moov", "trak", "mdia", "minf", "stbl", "edts", "tref", "udta", "dinf", "gmhd", "tapt"], 8),
    **dict.fromkeys(["stsd", "dref"], 16),
}


def children(content, start, end):
    """(type, start, end) of the atoms from `start` to `end`."""
    while start + 8 <= end:
        size = int.from_bytes(content[start : start + 4], "big")
        kind = bytes(content[start + 4 : start + 8]).decode("latin-1")
        if size == 1:
            size = int.from_bytes(content[start + 8 : start + 16], "big")
        if size < 8:
            return
        yield kind, start, min(start + size, end)
        start += size


def numbered(content, start, end):
    """As `children`, with the type's number from the second of its kind on: trak, trak[2], ..."""
    counts = {}
    for kind, first, last in children(content, start, end):
        counts[kind] = counts.get(kind, 0) + 1
        yield kind if counts[kind] == 1 else f"{kind}[{counts[kind]}]", kind, first, last


def locate(content, offset):
    """The path of the innermost atom around an offset, and the offset in it."""
    path, start, end = [], 0, len(content)
    kind, body = None, 0
    while True:
        for name, kind, first, last in numbered(content, start + body, end):
            if first <= offset < last:
                path.append(name)
                start, end, body = first, last, CHILDREN.get(kind, 0)
                break
        else:
            break
        if not body or offset < start + body:
            break
    return f"{'/'.join(path) or 'file'} + {offset - start}"


def find(content, path):
    """The bytes of an atom, None when it is not there."""
    start, end = 0, len(content)
    body = 0
    for step in path.split("/"):
        for name, kind, first, last in numbered(content, start + body, end):
            if name == step:
                start, end, body = first, last, CHILDREN.get(kind, 0)
                break
        else:
            return None
    return bytes(content[start:end])


# ---- Comparing -------------------------------------------------------------------------------------------------------


def shown(value):
    if isinstance(value, list):
        return "[" + ", ".join(map(shown, value)) + "]"
    return f"{value:#x}" if type(value) is int and value > 0xFFFF else repr(value)


class Content:
    """A file's bytes, mapped."""

    def __init__(self, path):
        self.file = open(path, "rb")
        size = os.fstat(self.file.fileno()).st_size
        self.bytes = mmap.mmap(self.file.fileno(), 0, access=mmap.ACCESS_READ) if size else b""

    def __enter__(self):
        return self.bytes

    def __exit__(self, *_):
        if self.bytes:
            self.bytes.close()
        self.file.close()


def compare_content(content, pieces):
    """The first difference between a file and the pieces that should be in it."""
    offset = 0
    for piece in pieces:
        found = content[offset : offset + len(piece)]
        if found != piece:
            i = next((i for i, (a, b) in enumerate(zip(found, piece)) if a != b), len(found))
            where = locate(b"".join(pieces), offset + i) if sum(map(len, pieces)) < 1 << 28 else "?"
            return (
                f"offset {offset + i} ({where}): "
                f"library {found[i : i + 16].hex(' ') or 'ends'}, model {piece[i : i + 16].hex(' ')}"
            )
        offset += len(piece)
    if len(content) != offset:
        return f"the library's file has {len(content)} bytes, the model's {offset}"
    return None


def compare_reports(script, reported, expected):
    """The first difference between the reports."""
    for i in range(max(len(reported), len(expected))):
        theirs = reported[i] if i < len(reported) else None
        ours = expected[i] if i < len(expected) else None
        if theirs is None or ours is None:
            return f"report {i}: library {theirs}, model {ours}"
        step, kind, *texts = theirs
        wanted_step, report = ours
        matches = all(text is None or text == other for text, other in zip(report, texts))
        if kind != "assert" or step != wanted_step or not matches:
            call = script["calls"][min(step, len(script["calls"]) - 1)]
            return f"report {i}: library {theirs} in {call}, model {ours}"
    return None


def differences(script, outcome, path, process):
    """Everything in which a replayed script is not as the model says."""
    volume = script.get("volume", {})
    buffer_size = outcome.get("bufferSize", volume.get("bufferSize"))
    model = process.run(
        script,
        movie_model.Volume(
            buffer_size=4096 if buffer_size is None else buffer_size,
            created=outcome.get("created", 0),
            kind=volume.get("kind", movie_model.LOCAL),
            settings=volume.get("settings", {}),
        ),
    )
    for call, theirs, ours in zip(script["calls"], outcome["values"], model.values):
        if theirs != ours:
            yield f"{call}: library {shown(theirs)}, model {shown(ours)}"
    if len(outcome["values"]) != len(script["calls"]):
        yield f"{len(outcome['values'])} values for {len(script['calls'])} calls"
    if outcome["traces"] != model.traces:
        yield f"trace: library {outcome['traces']}, model {model.traces}"
    report = compare_reports(script, outcome["reports"], model.reports)
    if report:
        yield report

    if not os.path.exists(path):
        if model.content is not None:
            yield "the library made no file"
        return
    if model.content is None:
        yield "the library made a file"
        return
    with Content(path) as content:
        difference = compare_content(content, model.content)
        if difference:
            yield difference


def unmet(script, outcome, path):
    """What a hand-picked script asks for and did not get."""
    for index, value in script["expect"].items():
        if outcome["values"][index] != value:
            call = script["calls"][index]
            yield f"{call}: expected {shown(value)}, library {shown(outcome['values'][index])}"
    messages = [message for _, _, _, message, _ in outcome["reports"]]
    if "messages" in script and messages != script["messages"]:
        yield f"reports: expected {script['messages']}, library {messages}"
    traces = [message for _, _, message in outcome["traces"]]
    if "traces" in script and traces != script["traces"]:
        yield f"trace: expected {script['traces']}, library {traces}"
    with Content(path) if os.path.exists(path) else Content(os.devnull) as content:
        for atom, value in script.get("atoms", {}).items():
            found = find(content, atom)
            if found != (None if value is None else bytes.fromhex(value)):
                yield f"{atom}: expected {value}, library {found and found.hex(' ')}"
        for offset, value in script.get("bytes", {}).items():
            wanted = bytes.fromhex(value)
            found = content[offset : offset + len(wanted)]
            if found != wanted:
                yield f"offset {offset}: expected {value}, library {found.hex(' ')}"
        if "length" in script and len(content) != script["length"]:
            yield f"length: expected {script['length']}, library {len(content)}"


def run_batch(listing, folder):
    """The outcomes of the scripts that ran, and how the program ended if not well."""
    run = subprocess.run([REPLAY, listing, folder], capture_output=True, check=False)
    errors = run.stderr.decode(errors="replace")[-4000:]
    ending = f"exit code {run.returncode}: {errors}" if run.returncode else ""
    return [json.loads(line) for line in run.stdout.splitlines() if line.endswith(b"}")], ending


def file_time(what, path):
    return subprocess.run(["stat", "-c", what, path], capture_output=True, check=True, text=True).stdout


class ReplayTest(unittest.TestCase):
    def replay(self, scripts):
        """Runs scripts in one process, compares them with the model, and fails with what was found."""
        scripts = list(scripts)
        process = movie_model.Process()
        found = []
        with tempfile.TemporaryDirectory(prefix="reelmill-replay-") as folder:
            listing = os.path.join(folder, "scripts.jsonl")
            with open(listing, "w", encoding="utf-8") as file:
                for script in scripts:
                    file.write(json.dumps(script) + "\n")
            began = int(file_time("%Y", listing))
            outcomes, ending = run_batch(listing, folder)
            if ending or len(outcomes) != len(scripts):
                culprit = scripts[len(outcomes)]["name"] if len(outcomes) < len(scripts) else "the end"
                found.append(f"{culprit}: {ending}")
            for script, outcome in zip(scripts, outcomes):
                path = os.path.join(folder, script["file"])
                problems = list(differences(script, outcome, path, process)) + list(unmet(script, outcome, path))
                problems += self.check_created(outcome, path, began)
                found += [f"{script['name']}: {problem}" for problem in problems[:4]]
        if found:
            self.fail("\n" + "\n".join(found[:40]))

    def check_created(self, outcome, path, began):
        """The creation time that the model is given must itself be right. Seconds are of the file system, whose clock
        may differ from that of this process."""
        if "created" not in outcome:
            return []
        birth, ended = map(int, file_time("%W %Y", path).split())
        created = outcome["created"]
        right = created == birth if birth > 0 else began <= created <= ended
        return [] if right else [f"created at {created}, but the file is of {birth or began}"]


class RandomMovies(ReplayTest):
    def test_random_movies(self):
        seeds = range(FIRST_SEED, FIRST_SEED + MOVIES)
        for start in range(0, len(seeds), BATCH):
            with self.subTest(seeds=seeds[start : start + BATCH]):
                self.replay([random_movies.random_script(seed) for seed in seeds[start : start + BATCH]])


class HandPickedMovies(ReplayTest):
    def test_hand_picked_movies(self):
        self.replay(random_movies.hand_picked())

    def test_silenced_sites(self):
        """A silenced site stays silent for the rest of the process."""
        self.replay(random_movies.silenced())

    @unittest.skipUnless(LARGE, "minutes and 4 GiB of memory: set REELMILL_LARGE")
    def test_movies_beyond_4_gib(self):
        for script in random_movies.large():
            with self.subTest(script["name"]):
                self.replay([script])


if __name__ == "__main__":
    unittest.main()
