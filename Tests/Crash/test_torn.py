"""Movies and journals that lost their tails: cut, or zeroed, as a power cut leaves them."""

import os
import shutil
import unittest

import movies
from scenes import ROUNDS, CrashTest, count, list_calls, media_blocks, trace


class Torn(CrashTest):
    """Each round begins with the files of a wrap that was killed late."""

    @classmethod
    def setUpClass(cls):
        cls.reference = movies.reference()
        cls.killed, cls.closing = movies.Scene(), movies.Scene()
        blocks = media_blocks(list_calls(cls.reference, names=("pwrite64",)))
        # Before the last block is written, and when all of the media is there.
        for scene, ordinal in ((cls.killed, blocks[-1].ordinal), (cls.closing, blocks[-1].ordinal + 1)):
            trace(scene.wrap_command(cls.reference), scene, [f"pwrite64:signal=KILL:when={ordinal}"])
            assert scene.names() == ["out.mov.part", "out.mov.part.journal"], scene.names()

    @classmethod
    def tearDownClass(cls):
        cls.killed.clear()
        cls.closing.clear()

    def copy(self, scene, origin=None):
        for path in (origin or self.killed).folder.iterdir():
            shutil.copy(path, scene.folder / path.name)

    def cut_place(self, random, size):
        """Anywhere, or near the end of a packet."""
        stream = random.choice(list(self.reference.streams.values()))
        row = random.choice(stream.rows)
        near = row[3] + row[2] + random.randint(-2, 2)
        return random.choice((random.randrange(size), random.randrange(movies.MEDIA_OFFSET, size), min(near, size - 1)))

    @staticmethod
    def cut(path, place):
        os.truncate(path, place)

    @staticmethod
    def zero(path, place):
        size = path.stat().st_size
        os.truncate(path, place)
        os.truncate(path, size)

    @staticmethod
    def spoil(path, place, random):
        size = path.stat().st_size
        with open(path, "r+b") as file:
            file.seek(place)
            file.write(random.randbytes(min(size - place, 4096)))

    def test_movie(self):
        def once(scene, random):
            self.copy(scene)
            place = self.cut_place(random, scene.part.stat().st_size)
            how = random.choice((self.cut, self.zero))
            how(scene.part, place)
            came_of_it = self.settle(scene)
            count(f"movie {how.__name__}: {came_of_it}")

        self.rounds(ROUNDS, once)

    def test_journal(self):
        def once(scene, random):
            self.copy(scene)
            size = scene.journal.stat().st_size
            how = random.choice((self.cut, self.zero, self.spoil))
            how(scene.journal, random.randrange(size), *((random,) if how == self.spoil else ()))
            came_of_it = self.settle(scene, exact=False)
            count(f"journal {how.__name__}: {came_of_it}")

        self.rounds(ROUNDS, once)

    def test_both(self):
        def once(scene, random):
            self.copy(scene)
            random.choice((self.cut, self.zero))(scene.part, self.cut_place(random, scene.part.stat().st_size))
            random.choice((self.cut, self.zero))(scene.journal, random.randrange(scene.journal.stat().st_size))
            count(f"movie and journal: {self.settle(scene, exact=False)}")

        self.rounds(ROUNDS, once)

    def test_longer_movie(self):
        """Something stands behind the media that the journal tells of."""
        def once(scene, random):
            self.copy(scene, self.closing)
            with open(scene.part, "ab") as file:
                file.write(random.choice((random.randbytes(random.randrange(1, 1 << 20)),
                                          bytes(random.randrange(1, 1 << 22)))))
            count(f"movie longer: {self.settle(scene)}")

        self.rounds(max(2, ROUNDS // 4), once)

    def test_journal_of_another_movie(self):
        def once(scene, random):
            self.copy(scene)
            size = scene.part.stat().st_size
            with open(scene.part, "r+b") as file:
                file.seek(movies.MEDIA_OFFSET)
                file.write(random.randbytes(movies.BLOCK))
            before = scene.state()
            done = scene.recover()
            self.assert_failed(done, scene, codes=(2,))
            self.assertEqual(scene.state(), before)
            count("journal of another movie: refused")

        self.rounds(1, once)

    def test_no_journal(self):
        def once(scene, random):
            self.copy(scene)
            scene.journal.unlink()
            before = scene.state()
            self.assert_failed(scene.recover(), scene, codes=(2,))
            self.assertEqual(scene.state(), before)
            count("no journal: refused")

        self.rounds(1, once)


if __name__ == "__main__":
    unittest.main()
