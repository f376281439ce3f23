"""Wraps media with timecode, chapters, texts, captions, delays, metadata and references, and reads each back with
programs that know nothing of the writer. REELMILL names the command under test.
"""

import json
import os
import tempfile
import unittest
from pathlib import Path

from readers import exiftool, ffprobe, ffprobe_chapters, mediainfo, run

REELMILL = os.environ.get("REELMILL", "reelmill")
FFMETADATA = """;FFMETADATA1
[CHAPTER]
TIMEBASE=1/1000
START=500
END=1000
title=One
[CHAPTER]
TIMEBASE=1/1000
START=1000
END=2000
title=Two
"""


def packet_data(path, stream):
    """The bytes of each packet with its time."""
    text = run("ffprobe", "-v", "error", "-select_streams", str(stream), "-show_packets", "-show_data", "-of", "json",
               path)
    packets = []
    for packet in json.loads(text)["packets"]:
        rows = (line.split(": ")[1][:39] for line in packet["data"].strip().splitlines())
        packets.append((round(float(packet["pts_time"]), 4), bytes.fromhex("".join(rows).replace(" ", ""))))
    return packets


class WrapTracksTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="reelmill-tracks-")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def file(self, name, content):
        path = self.folder / name
        path.write_text(content, encoding="utf-8")
        return str(path)

    def media(self, name="in.mov", rate="30000/1001", sound=False, more=()):
        path = str(self.folder / name)
        tone = ["-f", "lavfi", "-i", "sine=r=48000:d=2"] if sound else []
        run("ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", f"testsrc2=s=64x48:r={rate}:d=2", *tone,
            *more, "-c:v", "mjpeg", "-pix_fmt", "yuvj420p", "-c:a", "pcm_s16le", path)
        return path

    def wrap(self, *arguments):
        movie = str(self.folder / "out.mov")
        self.summary = run(REELMILL, "wrap", "-o", movie, "-y", *arguments)
        return movie

    def streams(self, movie, codec):
        return [s for s in ffprobe(movie)["streams"] if s.get("codec_name") == codec or s["codec_tag_string"] == codec]

    def test_timecode(self):
        cases = (("30000/1001", "00:59:59;29", "Yes"), ("30000/1001", "01:00:00:00", "No"), ("25", "10:11:12:24", "No"),
                 ("24000/1001", "01:00:00:23", "No"), ("60000/1001", "00:01:00;04", "Yes"), ("50", "01:00:00:49", "No"))
        for container in ("mov", "mkv", "nut"):
            for rate, timecode, drop in cases:
                with self.subTest(container=container, rate=rate, timecode=timecode):
                    movie = self.wrap(self.media("in." + container, rate), "--timecode", timecode)
                    video = self.streams(movie, "mjpeg")[0]
                    track = self.streams(movie, "tmcd")[0]
                    self.assertEqual(timecode, video["tags"]["timecode"])
                    self.assertEqual(timecode, track["tags"]["timecode"])
                    self.assertEqual("1", track["nb_frames"])
                    self.assertEqual(video["duration"], track["duration"])
                    other = [t for t in mediainfo(movie) if t["@type"] == "Other"][0]
                    self.assertEqual(timecode, other["TimeCode_FirstFrame"])
                    self.assertEqual(drop, "Yes" if ";" in other["TimeCode_FirstFrame"] else "No")

    def test_timecode_of_the_input(self):
        for container in ("mov", "mxf", "mkv"):
            more = ["-timecode", "10:00:00:05"]
            with self.subTest(container=container):
                if container == "mxf":
                    path = str(self.folder / "in.mxf")
                    run("ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=s=64x48:r=25:d=1",
                        "-c:v", "libopenjpeg", "-format", "j2k", *more, path)
                elif container == "mkv":
                    path = self.media("in.mkv", "25", more=["-metadata", "timecode=10:00:00:05"])
                else:
                    path = self.media("in." + container, "25", more=more)
                movie = self.wrap(path)
                self.assertEqual("10:00:00:05", self.streams(movie, "tmcd")[0]["tags"]["timecode"])
                self.assertEqual([], self.streams(self.wrap(path, "--timecode", "none"), "tmcd"))

    def test_chapters(self):
        lines = self.file("lines.txt", "00:00:00.000 Begin\n00:00:01.250 Größe\n")
        for container in ("mov", "nut"):
            with self.subTest(container=container):
                movie = self.wrap(self.media("in." + container, "25", sound=True), "--chapters", lines)
                self.assertEqual([(0.0, 1.25, "Begin"), (1.25, 2.0, "Größe")], ffprobe_chapters(movie))
        movie = self.wrap(self.media(), "--chapters", self.file("c.ff", FFMETADATA))
        self.assertEqual([(0.5, 1.0, "One"), (1.0, 2.0, "Two")],
                         [c for c in ffprobe_chapters(movie) if c[2]])

    def test_chapters_of_the_input(self):
        source = self.media("in.mov", "25", more=["-i", self.file("c.ff", FFMETADATA), "-map", "0:v",
                                                  "-map_chapters", "1"])
        expected = [c for c in ffprobe_chapters(source) if c[2]]
        self.assertEqual(2, len(expected))
        self.assertEqual(expected, [c for c in ffprobe_chapters(self.wrap(source)) if c[2]])
        self.assertEqual([], ffprobe_chapters(self.wrap(source, "--chapters", "none")))

    def test_texts(self):
        srt = self.file("a.srt", "1\n00:00:00,500 --> 00:00:01,500\n<i>Hällo</i>\n\n"
                                 "2\n00:00:01,000 --> 00:00:01,750\nWorld\n")
        vtt = self.file("a.vtt", "WEBVTT\n\n00:00.500 --> 00:01.500\n<i>Hällo</i>\n\n00:01.000 --> 00:01.750\nWorld\n")
        for path in (srt, vtt):
            with self.subTest(path=path):
                movie = self.wrap(self.media(), "--text", path)
                texts = []
                for time, data in packet_data(movie, self.streams(movie, "mov_text")[0]["index"]):
                    size = int.from_bytes(data[:2], "big")
                    texts.append((time, data[2:2 + size].decode("utf-16")))
                self.assertEqual([(0.0, ""), (0.5, "Hällo"), (1.0, "Hällo\nWorld"), (1.5, "World")], texts)
                self.assertIn("formatting", self.summary)

    def test_captions(self):
        scc = self.file("a.scc", "Scenarist_SCC V1.0\n\n01:00:00;10\t9420 9420 c8e9\n\n01:00:01;00\t942c\n")
        expected = {10: b"\x94\x20", 11: b"\x94\x20", 12: b"\xc8\xe9", 30: b"\x94\x2c"}
        for more in (["--start", "01:00:00;00"], ["--timecode", "01:00:00;00"]):
            movie = self.wrap(self.media(), "--captions", scc, *more)
            stream = self.streams(movie, "eia_608")[0]
            self.assertEqual("60", stream["nb_frames"])
            samples = packet_data(movie, stream["index"])
            # The reader puts a byte in front of each pair that says what kind it is: one of field 1.
            self.assertEqual([b"\xfc" + expected.get(frame, b"\x80\x80") for frame in range(60)],
                             [data for _, data in samples])
            self.assertEqual([round(frame * 1001 / 30000, 4) for frame in range(60)], [time for time, _ in samples])
        movie = self.wrap(self.media(rate="24000/1001"), "--captions", scc, "--start", "01:00:00;00")
        samples = packet_data(movie, self.streams(movie, "eia_608")[0]["index"])
        self.assertEqual(48, len(samples))
        pairs = b"".join(data for _, data in samples).replace(b"\xfc", b"").replace(b"\x80\x80", b"")
        self.assertEqual(b"\x94\x20\x94\x20\xc8\xe9\x94\x2c", pairs)

    def test_delays(self):
        source = self.media(rate="25", sound=True)
        movie = self.wrap(source, "--trim-in", "2:500ms", "--timecode", "01:00:00:00")
        starts = [float(s["start_time"]) for s in ffprobe(movie)["streams"]]
        self.assertEqual([0.0, 0.5, 0.0], starts)
        movie = self.wrap(source, "--trim-in", "0.2s", "--timecode", "01:00:00:00")
        starts = [float(s["start_time"]) for s in ffprobe(movie)["streams"]]
        self.assertEqual([0.2, 0.2, 0.2], starts)
        self.assertEqual("01:00:00:00", self.streams(movie, "mjpeg")[0]["tags"]["timecode"])

    def test_delays_of_added_tracks(self):
        # Video, sound, timecode, chapters, text, captions. The delays of timecode and captions add to the video's.
        added = ["--timecode", "01:00:00;00", "--chapters", self.file("c.txt", "00:00:00.000 A\n00:00:01.000 B\n"),
                 "--text", self.file("t.srt", "1\n00:00:00,500 --> 00:00:01,500\nText\n"),
                 "--captions", self.file("a.scc", "Scenarist_SCC V1.0\n\n00:00:00;10\t9420\n")]
        source = self.media(sound=True)
        for trims, starts in (("3:0.5s", (0, 0, 0.5, 0, 0, 0)), ("4:0.5s", (0, 0, 0, 0.5, 0, 0)),
                              ("5:0.5s", (0, 0, 0, 0, 0.5, 0)), ("6:0.5s", (0, 0, 0, 0, 0, 0.5)),
                              ("1:1s", (1, 0, 1, 0, 0, 1)),
                              ("1s 3:0.5s 4:0.5s 6:0.25s", (1, 1, 1.5, 0.5, 1, 1.25))):
            with self.subTest(trims):
                movie = self.wrap(source, *added, *(f"--trim-in={trim}" for trim in trims.split()))
                self.assertEqual(starts, tuple(float(s["start_time"]) for s in ffprobe(movie)["streams"]))
                first, second = ffprobe_chapters(movie)
                self.assertEqual((starts[3], starts[3] + 1, starts[3] + 1), (*first[:2], second[0]))
                run(REELMILL, "verify", "-q", movie)

    def test_timecodes_of_several_inputs(self):
        inputs = [self.media(f"{hour}.mov", "25", more=["-timecode", f"{hour}:00:00:00"]) for hour in (10, 11)]
        movie = self.wrap(*inputs, self.media("12.mov", "24", more=["-timecode", "12:00:00:00"]))
        self.assertEqual(["10:00:00:00", "10:00:00:00", None],
                         [s.get("tags", {}).get("timecode") for s in self.streams(movie, "mjpeg")])
        self.assertEqual(["10:00:00:00"], [s["tags"]["timecode"] for s in self.streams(movie, "tmcd")])

    def test_metadata(self):
        blob = self.file("logo.bin", "blob")
        movie = self.wrap(self.media(), "--meta", "title=Größe", "--meta", "artist=Me", "--meta", "comment=Hm=Hm",
                          "--meta", "©cpy=2026", "--meta", f"LOGO=@{blob}", "--track-meta", "1:name=Camera A")
        tags = ffprobe(movie)["format"]["tags"]
        self.assertEqual(("Größe", "Me", "Hm=Hm", "2026"),
                         (tags["title"], tags["artist"], tags["comment"], tags["copyright"]))
        groups = exiftool(movie)
        self.assertEqual("Größe", groups["UserData"]["Title"])
        self.assertEqual("Me", groups["UserData"]["Artist"])
        self.assertEqual("Camera A", [t for t in mediainfo(movie) if t["@type"] == "Video"][0]["Title"])
        self.assertIn(b"\0\0\0\x0cLOGOblob", Path(movie).read_bytes())

    def test_references(self):
        source = self.media(sound=True)
        tref = b"\0\0\0\x14tref\0\0\0\x0ctmcd\0\0\0\x03"
        movie = self.wrap(source, "--timecode", "01:00:00:00")
        self.assertEqual(1, Path(movie).read_bytes().count(tref))
        movie = self.wrap(source, "--timecode", "01:00:00:00", "--ref", "2:3:timecode", "--ref", "1:3:timecode")
        self.assertEqual(2, Path(movie).read_bytes().count(tref))


if __name__ == "__main__":
    unittest.main()
