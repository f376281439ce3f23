"""SIGINT, SIGTERM and SIGHUP during a wrap: the movie is closed; a second one ends the process at once."""

import signal
import unittest

import movies
from scenes import ROUNDS, CrashTest, count, kill_later, time_of

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Signals(CrashTest):
    @classmethod
    def setUpClass(cls):
        cls.reference = movies.reference()
        cls.seconds = min(time_of(lambda scene: scene.wrap_command(cls.reference)) for _ in range(2))

    def check_closed(self, scene, done):
        """The movie is in its place, or nothing is there."""
        if done.code < 0:
            self.assertEqual(scene.names(), [], "it ended before it listened")
            return "too early"
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
            number = random.choice(SIGNALS)
            done = kill_later(scene.wrap_command(self.reference), random.uniform(0, 1.02) * self.seconds, number)
            count(f"{number.name}: {self.check_closed(scene, done)}")

        self.rounds(ROUNDS, once)

    def test_does_not_replace(self):
        """With -y the movie that was there stays as it was, unless the new one is complete."""
        def once(scene, random):
            scene.out.write_bytes(b"the movie that was there")
            number = random.choice(SIGNALS)
            done = kill_later(scene.wrap_command(self.reference, "-y"), random.uniform(0.3, 0.9) * self.seconds, number)
            if done.code == 0:
                return
            self.assert_failed(done, scene)
            self.assertEqual(scene.out.read_bytes(), b"the movie that was there")
            self.assertFalse(scene.journal.exists())
            if scene.part.exists():
                self.reference.check(scene.part, early=True)
            count(f"{number.name}, -y: {'closed beside' if scene.part.exists() else 'nothing written'}")

        self.rounds(max(2, ROUNDS // 4), once)

    def test_twice(self):
        def once(scene, random):
            number = random.choice(SIGNALS)
            done = kill_later(scene.wrap_command(self.reference), random.uniform(0.2, 0.95) * self.seconds, number,
                              again=random.choice((0, random.uniform(0, 0.05))))
            if done.code in (0, 3):
                count(f"{number.name} twice: {self.check_closed(scene, done)}")
                return
            self.assertEqual(done.code, -number, done)
            count(f"{number.name} twice: {self.settle(scene, early=True)}")

        self.rounds(ROUNDS, once)


if __name__ == "__main__":
    unittest.main()
