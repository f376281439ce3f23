"""Every call of a wrap on its files fails, once and from then on: strace answers in the system's place."""

import random
import unittest

import movies
from scenes import (CHANGING, OLD, READING, ROUNDS, SEED, CrashTest, count, list_calls, media_blocks, trace,
                    written_end)

FAULTS = {
    "pwrite64": ("ENOSPC", "EIO", "EDQUOT", "EFBIG", "EROFS"),
    "fsync": ("EIO", "ENOSPC", "EDQUOT"),
    "fdatasync": ("EIO", "ENOSPC", "EDQUOT"),
    "ftruncate": ("EIO", "EFBIG", "EPERM"),
    "link": ("EPERM", "EIO", "ENOSPC", "EMLINK"),
    "rename": ("EIO", "EACCES", "ENOSPC"),
    "unlink": ("EIO", "EACCES", "EROFS"),
    "chmod": ("EPERM",),
    "openat": ("EMFILE", "EACCES", "EIO", "ENOSPC"),
    "close": ("EIO",),
    "pread64": ("EIO",),
    "read": ("EIO",),
    "newfstatat": ("EIO", "EACCES"),
    "fstat": ("EIO",),
    "fstatfs": ("EIO",),
}


class Faults(CrashTest):
    @classmethod
    def setUpClass(cls):
        cls.points = {more: cls.list_points(more) for more in ((), ("-y",))}

    @classmethod
    def list_points(cls, more):
        """Every call with every fault that it may meet."""
        calls = list_calls(movies.reference(), *more, names=CHANGING + READING)
        unknown = {call.name for call in calls} - set(FAULTS)
        if unknown & set(CHANGING):
            raise AssertionError(f"there are no faults for {unknown & set(CHANGING)}")
        return cls.faults_of(calls)

    @staticmethod
    def faults_of(calls):
        return [(call, fault, again) for call in calls if " = -1 " not in call.text
                for fault in FAULTS.get(call.name, ()) for again in ("", "+")]

    def one(self, scene, call, fault, again, more=()):
        old = OLD if more else None
        if old:
            scene.out.write_bytes(old)
        done, calls = trace(scene.wrap_command(self.reference, *more), scene,
                            [f"{call.name}:error={fault}:when={call.ordinal}{again}"])
        if not any("(INJECTED)" in line.text for line in calls):
            count(f"{call.name}: not met")
            return
        count("faults tried")
        if done.code == 0:
            # A hard link may be missing; a question may stay without an answer. The movie must be what it should.
            self.assertTrue(call.name in READING or call.name == "link", f"{call.text}: success: {done}")
            self.assertEqual(scene.names(), ["out.mov"])
            self.reference.check(scene.out, exactly=self.reference.end)
            count(f"{call.name}: whole all the same")
            return
        self.assert_failed(done, scene, codes=(2, 3) if call.name in READING else (3,))
        least = written_end(calls)
        if old and scene.out.exists() and scene.out.stat().st_size == len(old):
            self.assertEqual(scene.out.read_bytes(), old)
            if scene.journal.exists():
                came_of_it = self.settle(scene, least=least, path=scene.part, beside=True)
            elif scene.part.exists():
                self.reference.check(scene.part, least=least)
                came_of_it = "finished beside"
            else:
                self.assertFalse(self.reference.has_media(least), f"media was written, and is gone: {done}")
                came_of_it = "nothing"
        else:
            came_of_it = self.settle(scene, least=least)
        count(f"{call.name} fails: {came_of_it}")

    def try_points(self, points, more=()):
        """Some of the points, spread over calls and faults; all of them in a long round."""
        step = max(1, len(points) // (4 * ROUNDS))
        for call, fault, again in points[SEED % step::step]:
            self.rounds(1, lambda scene, random: self.one(scene, call, fault, again, more),
                        name=f"{call.name} {call.ordinal} fails with {fault}{again} {call.text}")

    def test_changing(self):
        self.try_points([point for point in self.points[()] if point[0].name in CHANGING])

    def test_reading(self):
        points = [point for point in self.points[()] if point[0].name in READING]
        random.Random(SEED).shuffle(points)
        self.try_points(points[:2 * ROUNDS])

    def test_replacing(self):
        """With -y, of a movie that is there: the last calls differ."""
        points = [point for point in self.points[("-y",)] if point[0].name in CHANGING]
        self.try_points(points[-2 * ROUNDS:], ("-y",))

    def test_recover(self):
        """The same on the recovery: it may be run again."""
        killed = movies.Scene()
        self.addCleanup(killed.clear)
        blocks = media_blocks(list_calls(self.reference, names=("pwrite64",)))
        trace(killed.wrap_command(self.reference), killed, [f"pwrite64:signal=KILL:when={blocks[2].ordinal}"])
        end = self.reference.whole_end(killed.part)

        def copy(scene):
            for path in killed.folder.iterdir():
                (scene.folder / path.name).write_bytes(path.read_bytes())
            return [movies.reelmill(), "recover", str(scene.out)]

        scene = movies.Scene()
        done, calls = trace(copy(scene), scene)
        scene.clear()
        self.assertEqual(done.code, 0, done)
        points = [point for point in self.faults_of(calls) if point[0].name in CHANGING]

        def once(scene, call, fault, again):
            done, calls = trace(copy(scene), scene, [f"{call.name}:error={fault}:when={call.ordinal}{again}"])
            self.assertTrue(any("(INJECTED)" in line.text for line in calls))
            count("faults tried")
            if done.code == 0:
                # It says which name the movie has.
                self.assertTrue(call.name == "rename" and str(scene.part) in done.out, done)
                self.reference.check(scene.part, exactly=end)
            else:
                self.assert_failed(done, scene)
            left = scene.names()
            recovered = scene.recover()
            self.assertEqual(recovered.code, 0, f"{done} left {left}; the second time: {recovered}")
            self.assertEqual(scene.names(), ["out.mov"], f"{done} left {left}; the second time: {recovered}")
            self.reference.check(scene.out, exactly=end)
            count(f"recover, {call.name} fails: recovered the second time")

        step = max(1, len(points) // (2 * ROUNDS))
        for point in points[SEED % step::step]:
            call, fault, again = point
            self.rounds(1, lambda scene, random: once(scene, *point),
                        name=f"{call.name} {call.ordinal} fails with {fault}{again} {call.text}")


if __name__ == "__main__":
    unittest.main()
