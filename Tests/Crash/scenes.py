"""What the tests share: rounds with a seed, faults from strace, and the way out of an interrupted wrap."""

import functools
import os
import random
import re
import shutil
import subprocess
import unittest

import movies
from movies import Scene, figures, run

ROUNDS = int(os.environ.get("CRASH_ROUNDS", "6"))
SEED = int(os.environ.get("CRASH_SEED", "1"))
OLD = b"the movie that was there"
KEEP = os.environ.get("CRASH_KEEP")  # A folder for the journals of rounds that failed.

# Calls that change files. What else the command asks the system for only reads.
CHANGING = ("pwrite64", "write", "ftruncate", "fallocate", "fsync", "fdatasync", "link", "linkat", "rename", "renameat",
            "renameat2", "unlink", "unlinkat", "chmod", "fchmod")
READING = ("openat", "pread64", "read", "close", "newfstatat", "fstat", "statx", "statfs", "fstatfs", "access",
           "faccessat2", "readlink", "lseek", "fcntl")


class CrashTest(unittest.TestCase):
    """A test in rounds: each has a scene and random numbers of its own, and the others go on when one fails."""

    def setUp(self):
        self.reference = movies.reference()

    def rounds(self, count, function, parent=None, name="", cleanup=lambda: None):
        for number in range(count):
            seed = f"{SEED}:{self.id().rpartition('.')[2]}:{number}"
            scene = Scene(parent)
            with self.subTest(name, seed=seed):
                try:
                    function(scene, random.Random(seed))
                except AssertionError as error:
                    note = describe(scene)
                    if KEEP:
                        target = os.path.join(KEEP, seed.replace(":", "-"))
                        shutil.rmtree(target, ignore_errors=True)
                        shutil.copytree(scene.folder, target)
                        note += f"\nkept in {target}"
                    raise AssertionError(f"{error}\n{note}") from None
                finally:
                    scene.clear()
                    cleanup()

    # ---- The way out

    def settle(self, scene, least=None, exact=True, path=None, beside=False, early=False):
        """Recovers what an interrupted wrap left, and holds it against the uninterrupted movie.

        least: what lies in front of this offset is known to have been written
        exact: the journal is whole, so that all that is in the file must be in the movie and nothing else
        early: it was being closed before its end, so that its last captions lie elsewhere
        beside: the movie that it was to replace is there too
        Returns a word for what came of it.
        """
        reference = self.reference
        least = min(least, reference.end) if least is not None else None  # A 'moov' may lie behind.
        before = scene.state()
        if scene.part.exists() and scene.out.exists() and scene.part.samefile(scene.out):
            reference.check(scene.out, least=least, early=early)
            scene.part.unlink()  # A second name of the finished movie.
            before = scene.state()
        if not scene.part.exists():
            if not scene.out.exists():
                self.assertEqual(scene.names(), [], "there is no movie")
                self.assertFalse(reference.has_media(least or 0), "media was written, and is gone")
                self.assertEqual(scene.recover().code, 2)
                self.assertEqual(scene.names(), [])
                return "nothing"
            self.assertEqual(scene.names(), ["out.mov"])
            end = reference.check(scene.out, least=least, early=early)
            again = scene.recover()
            self.assertEqual(again.code, 0, again)
            self.assertEqual(scene.state(), before, "a whole movie was changed")
            return "complete" if end == reference.end else "closed"
        size = scene.part.stat().st_size
        end = reference.whole_end(scene.part)
        known = reference.known_end(scene.part, end)
        if least is not None:
            self.assertGreaterEqual(reference.kept_end(end), reference.kept_end(least),
                                    "media that was written is not in the file")
        done = scene.recover(path=path)
        if done.code == 2:
            self.assertTrue(done.err.count("\n") == 1 and "out.mov" in done.err, done)
            self.assertEqual(scene.state(), before, "it refused, and changed something")
            if exact:
                self.assertFalse(reference.has_media(known), f"there is media in {size} bytes, and it refused: {done}")
            return "refused"
        self.assertEqual(done.code, 0, done)
        result = path if path and path != scene.part else scene.out if path is None else scene.part
        self.assertEqual(scene.names(), ["out.mov", result.name] if beside else [result.name], done)
        if exact and known == end and not early:
            reference.check(result, exactly=end)
        elif exact:
            kept = reference.check(result, least=known, early=early, torn=early)
            self.assertLessEqual(kept, end)
        else:
            kept = reference.check(result)
            self.assertLessEqual(kept, end)
        after = scene.state()
        again = scene.recover(path=result)
        self.assertEqual(again.code, 0, f"the second time: {again}")
        self.assertEqual(scene.state(), after, "the second recovery changed something")
        return "whole" if end == reference.end else "recovered"

    def assert_failed(self, done, scene, codes=(3,)):
        """One sentence that names the file."""
        self.assertIn(done.code, codes, done)
        lines = done.err.strip().splitlines()
        self.assertEqual(len(lines), 1, f"not one sentence: {done}")
        if "nothing was written" in lines[0]:
            self.assertIn(scene.names(), ([], ["out.mov"]), done)
        else:
            self.assertIn("out.mov", lines[0], done)


def describe(scene):
    sizes = {path.name: path.stat().st_size for path in sorted(scene.folder.iterdir())}
    return f"left: {sizes}"


# ---- Kills ----------------------------------------------------------------------------------------------------------


def kill_at(command, scene, size):
    """Starts a command and kills it once the movie in the making has so many bytes."""
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        while process.poll() is None and scene.part_size() < size:
            os.sched_yield()
    finally:
        process.kill()
        out, err = process.communicate()
    return movies.Done(command, process.returncode, out.decode(errors="replace"), err.decode(errors="replace"))


# ---- strace ---------------------------------------------------------------------------------------------------------


class Call:
    """A system call on one of the scene's files."""

    def __init__(self, name, ordinal, text):
        self.name, self.ordinal, self.text = name, ordinal, text  # The n-th of its name in the process, from 1.

    def written(self):
        """(first offset, end) of what a pwrite64 wrote."""
        found = re.search(r", (\d+)\)\s+= (\d+)$", self.text)
        return (int(found.group(1)), int(found.group(1)) + int(found.group(2))) if found else (0, 0)


@functools.cache
def why_untraced():
    """What keeps strace from its work; nothing where it can."""
    try:
        done = run("strace", "-o", os.devnull, "true")
    except FileNotFoundError:
        return "strace is not installed"
    return f"strace may not trace here: {done.err.strip()}" if done.code != 0 else ""


def trace(command, scene, inject=(), names=CHANGING + READING):
    """Runs a command under strace. Returns how it ended and its calls that concern the scene's files."""
    if why_untraced():
        raise unittest.SkipTest(why_untraced())
    log = movies.folder() / "strace.log"
    words = ["strace", "-f", "-y", "-s", "0", "-o", log, "-e", "trace=" + ",".join(names),
             "-e", "signal=none"]
    for fault in inject:
        words += ["-e", "inject=" + fault]
    done = run(*words, "--", *command)
    calls, counts = [], {}
    for line in log.read_text(errors="replace").splitlines():
        found = re.match(r"\d+\s+(\w+)\((.*)$", line)
        if found:
            name, text = found.groups()
            counts[name] = counts.get(name, 0) + 1
            if str(scene.folder) in text:
                calls.append(Call(name, counts[name], text))
    return done, calls


def list_calls(reference, *more, names=CHANGING):
    """The calls on its files of a wrap that goes through; with -y, of one that replaces a movie."""
    scene = Scene()
    if "-y" in more:
        scene.out.write_bytes(OLD)
    done, calls = trace(scene.wrap_command(reference, *more), scene, names=names)
    scene.clear()
    assert done.code == 0, done
    return calls


def media_blocks(calls):
    """Those of the calls that write media, which all but the last do while samples are added."""
    return [call for call in calls if call.name == "pwrite64" and "out.mov.part>" in call.text
            and call.written()[0] >= movies.MEDIA_OFFSET]


def written_end(calls):
    """Up to which offset the movie's media was written before a write failed, as the calls say."""
    end = movies.MEDIA_OFFSET
    for call in calls:
        if call.name == "pwrite64" and " = -1 " in call.text:
            break
        if call.name == "pwrite64" and "out.mov.part>" in call.text:
            start, stop = call.written()
            end = stop if start <= end < stop else end
    return end


def count(what, amount=1):
    figures[what] += amount
