"""SIGKILL of a wrap, and in the middle of the recovery after it."""

import functools
import json
import shutil
import unittest

import movies
from scenes import CHANGING, ROUNDS, SEED, CrashTest, count, kill_at, list_calls, media_blocks, trace


class Kill(CrashTest):
    def killed(self, scene, random):
        """Kills a wrap when its file has reached a size, which may be in the middle of a write."""
        kill_at(scene.wrap_command(self.reference), scene, random.randrange(int(1.02 * self.reference.end)))

    def killed_in_media(self, scene, random):
        """Kills it when some media is in the file."""
        block = random.choice(self.blocks()[2:])
        trace(scene.wrap_command(self.reference), scene, [f"pwrite64:signal=KILL:when={block.ordinal}"])

    @classmethod
    @functools.cache
    def blocks(cls):
        return media_blocks(list_calls(movies.reference(), names=("pwrite64",)))

    def settle_killed(self, scene, path=None):
        """A kill takes nothing from the file: all of its length is media."""
        return self.settle(scene, least=scene.part.stat().st_size if scene.part.exists() else None, path=path)

    def test_at_random_sizes(self):
        def once(scene, random):
            self.killed(scene, random)
            path = random.choice((None, scene.part)) if scene.part.exists() else None
            came_of_it = self.settle_killed(scene, path)
            count(f"SIGKILL of wrap: {came_of_it}")

        self.rounds(ROUNDS, once)

    def test_at_every_call(self):
        """At each call that changes a file."""
        calls = list_calls(self.reference)
        step = max(1, len(calls) // (4 * ROUNDS))

        for call in calls[SEED % step::step]:
            def once(scene, random):
                trace(scene.wrap_command(self.reference), scene, [f"{call.name}:signal=KILL:when={call.ordinal}"])
                came_of_it = self.settle_killed(scene)
                count(f"SIGKILL of wrap in {call.name}: {came_of_it}")
            self.rounds(1, once, name=f"{call.name} {call.ordinal} {call.text}")

    def test_recovery_killed(self):
        """Recovery is killed too, at any call, and run again."""
        def once(scene, random):
            self.killed_in_media(scene, random)
            end = self.reference.whole_end(scene.part)
            saved = movies.Scene()
            try:
                for path in scene.folder.iterdir():
                    shutil.copy(path, saved.folder / path.name)
                done, calls = trace([movies.reelmill(), "recover", str(saved.out)], saved, names=CHANGING)
                self.assertEqual(done.code, 0, done)
                self.assertEqual(saved.names(), ["out.mov"])
                self.reference.check(saved.out, exactly=end)
            finally:
                saved.clear()
            call = random.choice(calls)
            trace([movies.reelmill(), "recover", str(scene.out)], scene,
                  [f"{call.name}:signal=KILL:when={call.ordinal}"])
            where = f"in {call.name} {call.ordinal} of {len(calls)}"
            left = scene.names()
            again = scene.recover()
            self.assertEqual(again.code, 0, f"killed {where}, which left {left}: {again}")
            self.assertEqual(scene.names(), ["out.mov"], f"killed {where}, which left {left}: {again}")
            self.reference.check(scene.out, exactly=end)
            count("SIGKILL of recover: recovered")

        self.rounds(max(1, ROUNDS // 2), once)

    def test_copy_and_dry_run(self):
        def once(scene, random):
            self.killed_in_media(scene, random)
            before = scene.state()
            end = self.reference.whole_end(scene.part)
            path = random.choice((scene.out, scene.part))

            dry = scene.recover("--dry-run", "--json", path=path)
            self.assertEqual(dry.code, 0, dry)
            self.assertEqual(scene.state(), before, "a dry run changed something")

            copy = scene.folder / "copy.mov"
            done = scene.recover("--output", copy, "--json", path=path)
            self.assertEqual(done.code, 0, done)
            after = scene.state()
            self.assertIn("copy.mov", after)
            del after["copy.mov"]
            self.assertEqual(after, before, "the copy's original was changed")
            self.reference.check(copy, exactly=end)
            said, wrote = json.loads(dry.out), json.loads(done.out)
            same = set(said) & set(wrote) - {"file", "movie", "output", "dryRun", "result"}
            self.assertEqual({key: said[key] for key in same}, {key: wrote[key] for key in same})

            refused = scene.recover("--output", copy, path=path)
            self.assertEqual(refused.code, 2, refused)
            copied = copy.read_bytes()
            copy.unlink()
            self.settle(scene)
            self.assertEqual(copied, scene.out.read_bytes(), "in place and in a copy came out differently")
            count("--dry-run, --output and in place: the same")

        self.rounds(max(1, ROUNDS // 8), once)

    @unittest.skipIf(ROUNDS < 8, "long rounds only: --rounds 8")
    def test_killed_behind_the_room(self):
        """The 'moov' does not fit in front of the media."""
        self.reference = movies.many_reference()

        def once(scene, random):
            self.killed(scene, random)
            count(f"SIGKILL of wrap, many samples: {self.settle_killed(scene)}")

        self.rounds(ROUNDS // 8, once)


if __name__ == "__main__":
    unittest.main()
