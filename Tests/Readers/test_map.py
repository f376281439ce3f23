"""The map of a movie as a browser shows it."""

import os
import pathlib
import re
import struct
import subprocess
import tempfile
import unittest
import zlib

from readers import program

REELMILL = program("REELMILL")

# The colours of the map's legend.
VIDEO, SOUND, MOOV = (0x00, 0x72, 0xB2), (0xE6, 0x9F, 0x00), (0xB9, 0x1C, 0x1C)


def read_png(path):
    """The rows of an 8-bit RGB or RGBA picture, each a list of (red, green, blue)."""
    data = path.read_bytes()
    offset, pixels = 8, b""
    while offset < len(data):
        length, kind = struct.unpack(">I4s", data[offset : offset + 8])
        body = data[offset + 8 : offset + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
        elif kind == b"IDAT":
            pixels += body
        offset += 12 + length
    assert depth == 8 and colour in (2, 6), "not an 8-bit RGB or RGBA picture"
    size = 3 if colour == 2 else 4
    raw, rows, above = zlib.decompress(pixels), [], bytearray(width * size)
    for y in range(height):
        start = y * (width * size + 1)
        kind, row = raw[start], bytearray(raw[start + 1 : start + 1 + width * size])
        for i in range(len(row)):
            left = row[i - size] if i >= size else 0
            up, corner = above[i], above[i - size] if i >= size else 0
            if kind == 1:
                row[i] = (row[i] + left) & 0xFF
            elif kind == 2:
                row[i] = (row[i] + up) & 0xFF
            elif kind == 3:
                row[i] = (row[i] + (left + up) // 2) & 0xFF
            elif kind == 4:
                guess = left + up - corner
                nearest = min((left, up, corner), key=lambda value: abs(guess - value))
                row[i] = (row[i] + nearest) & 0xFF
        rows.append([tuple(row[i : i + 3]) for i in range(0, len(row), size)])
        above = row
    return rows


class Map(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.path = pathlib.Path(cls.folder.name)
        cls.movie, cls.page, cls.picture = cls.path / "demo.mov", cls.path / "map.html", cls.path / "map.png"
        subprocess.run([REELMILL, "demo", "-q", cls.movie], check=True)
        subprocess.run([REELMILL, "map", cls.movie, "-o", cls.page], check=True)
        subprocess.run(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             f"--user-data-dir={cls.path}/profile", "--window-size=1300,1000", f"--screenshot={cls.picture}",
             cls.page.as_uri()],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "HOME": cls.folder.name},
        )  # fmt: skip

    def test_page_needs_nothing_else(self):
        text = self.page.read_text()
        self.assertEqual([], re.findall(r"(?:src|href)=", text))
        self.assertEqual({"http://www.w3.org/2000/svg"}, set(re.findall(r"https?://[^\"' ]+", text)))

    def test_browser_shows_media_by_track(self):
        rows = read_png(self.picture)
        counts = {colour: [row.count(colour) for row in rows] for colour in (VIDEO, SOUND, MOOV)}
        # Video fills nearly the whole width of its row, which is the widest run of its colour.
        self.assertGreater(max(counts[VIDEO]), 800)
        # Sound is a thin stroke for each of its 20 chunks, in a row of its own beneath.
        strokes = max(
            sum(1 for left, right in zip(row, row[1:]) if left != SOUND and right == SOUND) for row in rows
        )
        self.assertGreaterEqual(strokes, 15)
        self.assertGreater(counts[SOUND].index(max(counts[SOUND])), counts[VIDEO].index(max(counts[VIDEO])))
        # 'moov' is a block of its own in the first panel, above the media.
        self.assertGreater(max(counts[MOOV]), 50)
        self.assertLess(counts[MOOV].index(max(counts[MOOV])), counts[VIDEO].index(max(counts[VIDEO])))

    def test_svg_stands_alone_and_an_existing_one_stays(self):
        picture = self.path / "map.svg"
        subprocess.run([REELMILL, "map", self.movie, "-o", picture], check=True)
        before = picture.read_bytes()
        self.assertTrue(before.startswith(b"<svg "))
        self.assertEqual(2, subprocess.run([REELMILL, "map", self.movie, "-o", picture], capture_output=True).returncode)
        self.assertEqual(before, picture.read_bytes())


if __name__ == "__main__":
    unittest.main()
