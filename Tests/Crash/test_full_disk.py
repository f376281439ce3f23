"""Volumes that fill up, and a limit on the size of files."""

import os
import subprocess
import unittest
from contextlib import contextmanager

import movies
from movies import run
from scenes import OLD, ROUNDS, CrashTest, count, trace, written_end

MIB = 1 << 20
IMAGE = 400 * MIB  # What the greediest of the file systems wants at least, and the movie.


@contextmanager
def volume(kind):
    """A mounted volume of its own; skips where the machine does not allow it."""
    where = movies.folder() / f"volume-{kind}"
    image = movies.folder() / f"{kind}.img"
    where.mkdir(exist_ok=True)
    if kind == "tmpfs":
        command = ["mount", "-t", "tmpfs", "-o", f"size={IMAGE}", "tmpfs", where]
    else:
        with open(image, "wb") as file:
            file.truncate(IMAGE)
        try:
            made = run(f"mkfs.{kind}", "-q", image)
        except FileNotFoundError:
            raise unittest.SkipTest(f"mkfs.{kind} is not installed") from None
        if made.code != 0:
            raise unittest.SkipTest(f"no {kind} volume could be made here: {made.err.strip()}")
        command = ["mount", "-t", kind, "-o", "loop", image, where]
    mounted = run(*command)
    if mounted.code != 0:
        reason = mounted.err.splitlines()[0].rpartition(": ")[2]
        raise unittest.SkipTest(f"no {kind} volume can be mounted here: {reason}")
    try:
        yield where
    finally:
        subprocess.run(["umount", "--lazy", where], check=True)
        image.unlink(missing_ok=True)


def free(where):
    info = os.statvfs(where)
    return info.f_bavail * info.f_frsize


def fill(where, rest):
    """Leaves so many bytes free."""
    filler = where / "filler"
    filler.unlink(missing_ok=True)
    os.sync()
    with open(filler, "wb") as file:
        amount = free(where) - rest
        while amount > 0:
            try:
                os.posix_fallocate(file.fileno(), 0, amount)
                break
            except OSError:
                # The volume does not know how much fits: less.
                os.ftruncate(file.fileno(), 0)
                amount -= 8 * MIB


class FullTest(CrashTest):
    def once(self, scene, more=(), prefix=(), make_room=None):
        """Wraps onto what is there, until it is full. The movie is finished in place, or where the volume has no room
        even for that, once it has.
        """
        old = OLD if more else None
        done, calls = trace([*prefix, *scene.wrap_command(self.reference, *more)], scene, names=("pwrite64",))
        if done.code == 0:
            self.reference.check(scene.out, exactly=self.reference.end)
            return "enough room"
        self.assert_failed(done, scene)
        least = written_end(calls)
        if not scene.part.exists() and (not scene.out.exists() or old == scene.out.read_bytes()):
            self.assertFalse(self.reference.has_media(least), f"media was written, and is gone: {done}")
            self.assertEqual(scene.names(), ["out.mov"] if old else [])
            return "nothing written"
        if scene.journal.exists() and make_room:
            make_room()
            return self.settle(scene, least=least, path=scene.part if old else None, beside=bool(old)) + " later"
        self.assertFalse(scene.journal.exists(), f"not finished in place: {done}")
        if old:
            self.assertEqual(old, scene.out.read_bytes())
        self.assertEqual(scene.names(), ["out.mov", "out.mov.part"] if old else ["out.mov"], done)
        result = scene.part if old else scene.out
        self.reference.check(result, least=least)
        self.assertRegex(done.err, r"\d+:\d\d:\d\d|\d s", f"it does not say how much is left: {done}")
        return "finished in place"


class Volumes(FullTest):
    def on_volume(self, kind):
        with volume(kind) as where:
            def once(scene, random):
                rest = random.choice((random.randrange(0, 4 * MIB), random.randrange(0, int(1.1 * self.reference.end))))
                more = random.choice(((), (), ("-y",)))
                if more:
                    scene.out.write_bytes(OLD)
                fill(where, rest)
                # There, what is written anew needs room of its own.
                make_room = (where / "filler").unlink if kind == "btrfs" else None
                came_of_it = self.once(scene, more, make_room=make_room)
                count(f"full {kind}{' with -y' if more else ''}: {came_of_it}")

            self.rounds(ROUNDS, once, parent=where, cleanup=lambda: (where / "filler").unlink(missing_ok=True))

    def test_tmpfs(self):
        self.on_volume("tmpfs")

    def test_ext4(self):
        self.on_volume("ext4")

    def test_xfs(self):
        self.on_volume("xfs")

    def test_btrfs(self):
        self.on_volume("btrfs")

    @unittest.skipIf(ROUNDS < 8, "long rounds only: --rounds 8")
    def test_no_room_to_finish(self):
        """The 'moov' does not fit in front of the media, and the volume is full: it waits for room, or for the word
        that some may be left out at the end."""
        self.reference = movies.many_reference()
        with volume("tmpfs") as where:
            def once(scene, random):
                fill(where, random.randrange(20 * MIB, 60 * MIB))
                done, calls = trace(scene.wrap_command(self.reference), scene, names=("pwrite64",))
                self.assert_failed(done, scene)
                least = written_end(calls)
                if not scene.part.exists():
                    end = self.reference.check(scene.out)  # It had to leave some out.
                    self.assertLess(least - end, 8 * MIB)
                    count("no room to finish: finished with less")
                    return
                self.assertTrue(scene.journal.exists(), done)
                end = self.reference.whole_end(scene.part)
                refused = scene.recover()
                if refused.code != 0:
                    self.assert_failed(refused, scene)
                    self.assertEqual(self.reference.whole_end(scene.part), end, "media is gone")
                    self.assertTrue(scene.journal.exists())
                    if random.random() < 0.5:
                        done = scene.recover("--drop-for-space")
                        self.assertEqual(done.code, 0, done)
                        kept = self.reference.check(scene.out)
                        self.assertLess(end - kept, 8 * MIB)
                        count("no room to finish: left some out")
                        return
                    fill(where, 20 * MIB)
                    refused = scene.recover()
                self.assertEqual(refused.code, 0, refused)
                self.reference.check(scene.out, exactly=end)
                count("no room to finish: finished when there was")

            self.rounds(ROUNDS // 4, once, parent=where)


class Limit(FullTest):
    def test_file_size_limit(self):
        def once(scene, random):
            limit = random.choice((random.randrange(1, 2 * MIB), random.randrange(1, self.reference.end)))
            came_of_it = self.once(scene, prefix=["prlimit", f"--fsize={limit}", "--"])
            count(f"file-size limit: {came_of_it}")

        self.rounds(ROUNDS, once)


if __name__ == "__main__":
    unittest.main()
