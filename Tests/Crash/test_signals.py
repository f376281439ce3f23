"""SIGINT, SIGTERM and SIGHUP at calls of a wrap: the movie is closed; a second one ends the process at once."""

import signal
import unittest

import movies
from scenes import OLD, ROUNDS, CrashTest, count, list_calls, media_blocks, trace

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Signals(CrashTest):
    @classmethod
    def setUpClass(cls):
        cls.reference = movies.reference()
        cls.calls = list_calls(cls.reference)
        cls.blocks = media_blocks(cls.calls)

    def signalled(self, scene, number, call, when, *more):
        done, _ = trace(scene.wrap_command(self.reference, *more), scene,
                        [f"{call.name}:signal={number.name}:when={when}"])
        return done

    def check_closed(self, scene, done):
        """The movie is in its place, or nothing is there."""
        if done.code == 0:
            self.assertEqual(scene.names(), ["out.mov"])
            self.reference.check(scene.out, exactly=self.reference.end)
            return "too late"
        self.assert_failed(done, scene)
        if not scene.names():
            return "nothing written"
        self.assertEqual(scene.names(), ["out.mov"], done)
        end = self.reference.check(scene.out, early=True)
        return "whole" if end == self.reference.end else "closed"

    def test_once(self):
        def once(scene, random):
            number, call = random.choice(SIGNALS), random.choice((*self.calls, *self.blocks))
            done = self.signalled(scene, number, call, call.ordinal)
            count(f"{number.name}: {self.check_closed(scene, done)}")

        self.rounds(ROUNDS, once)

    def test_does_not_replace(self):
        """With -y the movie that was there stays as it was, unless the new one is complete."""
        def once(scene, random):
            scene.out.write_bytes(OLD)
            number, call = random.choice(SIGNALS), random.choice(self.blocks[:-1])
            done = self.signalled(scene, number, call, call.ordinal, "-y")
            self.assert_failed(done, scene)
            self.assertEqual(scene.out.read_bytes(), OLD)
            self.assertEqual(scene.names(), ["out.mov", "out.mov.part"])
            self.reference.check(scene.part, early=True)
            count(f"{number.name}, -y: closed beside")

        self.rounds(max(2, ROUNDS // 4), once)

    def test_twice(self):
        """The second at the next write or at one soon after."""
        def once(scene, random):
            number, call, gap = random.choice(SIGNALS), random.choice(self.blocks), random.randint(1, 4)
            done = self.signalled(scene, number, call, f"{call.ordinal}..{call.ordinal + gap}+{gap}")
            if done.code in (0, 3):
                count(f"{number.name} twice: {self.check_closed(scene, done)}")
                return
            self.assertEqual(done.code, -number, done)
            count(f"{number.name} twice: {self.settle(scene, early=True)}")

        self.rounds(ROUNDS, once)


if __name__ == "__main__":
    unittest.main()
