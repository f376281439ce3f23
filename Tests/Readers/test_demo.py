"""The demo movie as independent readers see it."""

import array
import json
import os
import re
import subprocess
import tempfile
import unittest

import readers

FRAMES = 300
FRAME_SIZE = 640 * 360 * 2
SECONDS = FRAMES * 1001 / 30000
TITLE = "Colour bars and tone"
SOFTWARE = "reelmill demo"


class Demo(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.movie = os.path.join(cls.folder.name, "demo.mov")
        readers.run(readers.program("REELMILL"), "demo", cls.movie)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_ffprobe(self):
        found = readers.ffprobe(self.movie)
        video, sound, timecode, text, captions = found["streams"]

        self.assertEqual([s["codec_tag_string"] for s in found["streams"]], ["2vuy", "sowt", "tmcd", "text", "c608"])
        self.assertEqual([round(float(s["duration"]), 6) for s in found["streams"]], [SECONDS] * 5)
        self.assertEqual([s["nb_frames"] for s in found["streams"]], ["300", "480480", "1", "3", "300"])
        self.assertEqual((video["width"], video["height"], video["r_frame_rate"], video["sample_aspect_ratio"]),
                         (640, 360, "30000/1001", "1:1"))
        self.assertEqual((video["color_primaries"], video["color_transfer"], video["color_space"]), ("bt709",) * 3)
        self.assertEqual(video["field_order"], "progressive")
        self.assertEqual((sound["sample_rate"], sound["channel_layout"]), ("48000", "stereo"))
        self.assertEqual(video["tags"]["timecode"], "01:00:00;00")
        self.assertEqual(timecode["tags"]["timecode"], "01:00:00;00")
        self.assertEqual(captions["codec_name"], "eia_608")
        self.assertEqual(found["format"]["tags"]["title"], TITLE)
        self.assertEqual(found["format"]["tags"]["encoder"], SOFTWARE)
        self.assertIn("75 % colour bars", found["format"]["tags"]["comment"])
        self.assertRegex(found["format"]["tags"]["date"], r"^\d{4}-\d\d-\d\d$")
        self.assertEqual(readers.ffprobe_chapters(self.movie),
                         [(0, 3.003, "Bars and tone"), (3.003, 6.5065, "Captions"), (6.5065, 10.01, "Farewell")])

    def test_mediainfo(self):
        general, video, sound, captions, timecode, menu = readers.mediainfo(self.movie)

        self.assertEqual([t["@type"] for t in (general, video, sound, captions, timecode, menu)],
                         ["General", "Video", "Audio", "Text", "Other", "Menu"])
        self.assertEqual((general["Title"], general["Encoded_Application"]), (TITLE, SOFTWARE))
        self.assertEqual([t["Title"] for t in (video, timecode, menu, captions)],
                         ["Colour bars", "Timecode", "Chapters", "Captions"])
        self.assertEqual((video["FrameCount"], video["FrameRate_Num"], video["FrameRate_Den"]),
                         ("300", "30000", "1001"))
        self.assertEqual((video["Width"], video["Height"], video["ScanType"]), ("640", "360", "Progressive"))
        self.assertEqual([video[key] for key in ("colour_primaries", "transfer_characteristics",
                                                 "matrix_coefficients")], ["BT.709"] * 3)
        self.assertEqual(video["extra"]["Gamma"], "2.200")
        self.assertEqual((sound["ChannelLayout"], sound["BitDepth"]), ("L R", "16"))
        self.assertEqual((timecode["TimeCode_FirstFrame"], timecode["TimeCode_LastFrame"]),
                         ("01:00:00;00", "01:00:09;29"))
        self.assertEqual(menu["extra"]["Menu_For"], "1,2")
        self.assertEqual(captions["Format"], "EIA-608")
        self.assertEqual([captions[key] for key in ("Events_Total", "Events_PopOn", "Lines_Count",
                                                    "FirstDisplay_Delay_Frames")], ["3", "3", "6", "45"])

    def test_exiftool(self):
        found = readers.exiftool(self.movie)

        self.assertEqual(found["QuickTime"]["NextTrackID"], 6)
        self.assertEqual([found[f"Track{n}"]["TrackDuration"] for n in range(1, 6)], [SECONDS] * 5)
        self.assertEqual([found["Track1"][tag] for tag in ("ImageWidth", "ImageHeight", "TimeCode",
                                                           "ChapterListTrackID")], [640, 360, 3, 4])
        self.assertEqual(found["Track2"]["ChapterListTrackID"], 4)
        self.assertEqual([found["Track1"][tag] for tag in ("ColorPrimaries", "TransferCharacteristics",
                                                           "MatrixCoefficients", "Gamma")], [1, 1, 1, 2.2])
        self.assertEqual([found["Track1"][tag] for tag in ("CleanApertureWidth", "CleanApertureHeight",
                                                           "CleanApertureOffsetX", "CleanApertureOffsetY")],
                         [640, 360, 0, 0])
        self.assertEqual(found["UserData"]["Title"], TITLE)
        self.assertEqual(found["UserData"]["SoftwareVersion"], SOFTWARE)

    def test_gstreamer(self):
        duration, streams, tags = readers.gstreamer(self.movie)

        self.assertAlmostEqual(duration, SECONDS, places=6)
        self.assertEqual([kind for kind, _, _ in streams], ["video", "audio", "subtitles"])
        (_, video, _), (_, sound, positions), (_, captions, _) = streams
        for part in ("format=(string)UYVY", "width=(int)640", "height=(int)360", "framerate=(fraction)30000/1001"):
            self.assertIn(part, video)
        self.assertIn("S16LE", sound)
        self.assertEqual(positions, "front-left, front-right")
        self.assertIn("closedcaption/x-cea-608", captions)
        self.assertEqual((tags["title"], tags["application name"]), (TITLE, SOFTWARE))

    def test_qtinfo(self):
        lines = readers.qtinfo(self.movie)

        self.assertEqual(readers.qtinfo_track_counts(self.movie), (1, 1, 1))
        for line in ("2 channels, 16 bits, sample rate 48000, length 480480 samples, compressor sowt.",
                     "Channel setup: Front Left, Front Right",
                     "640x360, depth 24",
                     "rate 29.970030 [30000:1001] constant",
                     "length 300 frames",
                     "Interlace mode:     None (Progressive)",
                     "Timecodes available (flags: 00000001, rate: 30)",
                     "timescale: 30000, length: 3, language: eng, type: Chapters"):
            self.assertIn(line, lines)

    def test_captions_are_shown_when_they_should_be(self):
        subtitles = readers.run("ffmpeg", "-v", "error", "-i", self.movie, "-map", "0:s", "-f", "srt", "-")
        shown = [(times, re.sub(r"<[^>]*>|\{[^}]*\}|\\h", "", text).splitlines())
                 for times, text in re.findall(r"(\S+ --> \S+)\n(.*?)\n\n", subtitles, re.DOTALL)]

        def times(first, end):
            seconds = [round(number * 1001 / 30000, 3) for number in (first, end)]
            return " --> ".join(f"00:00:{s:06.3f}".replace(".", ",") for s in seconds)

        self.assertEqual(shown, [(times(45, 100), ["Colour bars and tone,", "made by the library alone."]),
                                 (times(145, 200), ["These captions are CEA-608,", "one pair of bytes a frame."]),
                                 (times(240, 290), ["That is all.", "Goodbye!"])])

    def test_tone(self):
        raw = subprocess.run(["ffmpeg", "-v", "error", "-i", self.movie, "-map", "0:a", "-f", "s16le", "-"],
                                     capture_output=True, check=True).stdout
        samples = array.array("h", raw)
        left, right = samples[0::2], samples[1::2]
        self.assertEqual(len(left), 480480)
        # Each tone repeats exactly, across every chunk: 48 samples of 1 kHz, 120 of 400 Hz; -20 dBFS is a tenth.
        for channel, period in ((left, 48), (right, 120)):
            self.assertEqual(channel[period:], channel[:-period])
            self.assertGreater(len(set(channel[:period])), period // 5)
            self.assertEqual((min(channel), max(channel)), (-3277, 3277))

    def test_picture(self):
        def frame(number):
            return subprocess.run(["ffmpeg", "-v", "error", "-i", self.movie, "-vf", f"select=eq(n\\,{number})",
                                   "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "uyvy422", "-"],
                                  capture_output=True, check=True).stdout

        first, second, last = frame(0), frame(1), frame(FRAMES - 1)
        self.assertEqual(len(last), FRAME_SIZE)
        pair = lambda x, y: tuple(first[(y * 640 + x) * 2:][:4])
        # Cb Y Cr Y of the bars, as the standards table them for BT.709 at 75 %.
        for x, expected in ((110, (128, 180, 128, 180)), (180, (44, 168, 136, 168)), (250, (147, 145, 44, 145)),
                            (320, (63, 133, 52, 133)), (386, (193, 63, 204, 63)), (454, (109, 51, 212, 51)),
                            (524, (212, 28, 120, 28))):
            self.assertEqual(pair(x, 20), expected)
        # Only the box with the timecode changes from frame to frame.
        changed = [i for i in range(FRAME_SIZE) if first[i] != second[i]]
        self.assertTrue(changed)
        for i in changed:
            y, x = divmod(i // 2, 640)
            self.assertTrue(176 <= x < 464 and 76 <= y < 164, (x, y))

    def test_samples_lie_where_the_listing_says(self):
        reelmill = readers.program("REELMILL")
        for stream, track in (("v:0", "1"), ("d:0", "3")):
            listed = json.loads(readers.run(reelmill, "info", "--json", "--samples", track, self.movie))
            self.assertEqual((self.movie, []), (listed["file"], listed["findings"]))
            found = json.loads(readers.run("ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                                           "packet=pos,size,dts,duration", "-of", "json", self.movie))["packets"]
            self.assertEqual([(int(p["pos"]), int(p["size"]), p["dts"], p["duration"]) for p in found],
                             [(s["offset"], s["size"], s["time"], s["duration"]) for s in listed["samples"]])


class DemoOutput(unittest.TestCase):
    def test_an_existing_file_is_left_alone_unless_overwriting_was_asked_for(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "mine.mov")
            with open(path, "wb") as file:
                file.write(b"mine")
            refused = subprocess.run([readers.program("REELMILL"), "demo", path], capture_output=True)
            self.assertEqual(refused.returncode, 2)
            self.assertIn(b"mine.mov", refused.stderr)
            with open(path, "rb") as file:
                self.assertEqual(file.read(), b"mine")
            self.assertEqual(os.listdir(folder), ["mine.mov"])

            readers.run(readers.program("REELMILL"), "demo", "-y", path)
            self.assertGreater(os.path.getsize(path), FRAMES * FRAME_SIZE)
            self.assertEqual(os.listdir(folder), ["mine.mov"])


if __name__ == "__main__":
    unittest.main()
