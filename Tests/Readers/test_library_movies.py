"""Movies that only the library took part in, as independent readers see them."""

import os
import tempfile
import unittest

import readers

FRAME = 64 * 36 * 2  # bytes of the small frames

# Sample forms in the order of the tracks: bytes per sample, ffprobe's name of the codec, the version 1 data format.
PCM = [(1, "pcm_u8", "raw "), (1, "pcm_s8", "raw "), (2, "pcm_s16le", "sowt"), (3, "pcm_s24le", "in24"),
       (4, "pcm_s32le", "in32"), (4, "pcm_f32le", "fl32"), (8, "pcm_f64le", "fl64"), (2, "pcm_s16be", "twos"),
       (3, "pcm_s24be", "in24"), (4, "pcm_s32be", "in32"), (4, "pcm_f32be", "fl32")]

# Per movie: its length in seconds, the kinds of its tracks in order, and what was handed in for each track that has a
# pattern, as the size of every packet (a list) or of all of them (a number, for sound, which readers regroup).
MOVIES = {
    "pcm-version1": (0.1, ["soun"] * 11, {i: 4800 * 2 * form[0] for i, form in enumerate(PCM)}),
    "pcm-version2": (0.1, ["soun"] * 11, {i: 9600 * 2 * form[0] for i, form in enumerate(PCM)}),
    "channels": (0.1, ["soun"] * 6, {i: 4800 * 2 * channels for i, channels in enumerate([6, 4, 4, 2, 1, 1])}),
    "aperture": (0.1001, ["vide"], {0: [720 * 480 * 2] * 3}),
    "timecode-24": (0.5, ["vide", "tmcd"], {0: [FRAME] * 12}),
    "timecode-25": (0.48, ["vide", "tmcd"], {0: [FRAME] * 12}),
    "timecode-2997-drop": (0.4004, ["vide", "tmcd"], {0: [FRAME] * 12}),
    "timecode-2997-nondrop": (0.4004, ["vide", "tmcd"], {0: [FRAME] * 12}),
    "text": (4, ["vide", "text"], {0: [FRAME] * 100}),
    "trim-in": (2, ["vide", "soun"], {0: [FRAME] * 50, 1: 72000 * 2}),
    "many-samples": (250, ["vide"], {0: [1 + i % 16 for i in range(150000)]}),
    "many-chunks": (680000 / 48000, ["soun"], {0: 680000}),
    "empty-track": (0.4, ["vide", "soun"], {0: [FRAME] * 10, 1: 19200 * 2}),
}


def pattern(seed, size):
    """What a track was filled with; the seed is the track's number when it was created, from 1."""
    return bytes((k * 167 + (k >> 8) * 13 + seed) & 0xFF for k in range(size))


class LibraryMovies(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        readers.run(readers.program("SAMPLE_MOVIES"), cls.folder.name)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def path(self, name):
        return os.path.join(self.folder.name, name + ".mov")

    def test_every_movie_is_in_the_table(self):
        self.assertEqual(sorted(os.listdir(self.folder.name)), sorted(name + ".mov" for name in MOVIES))

    def test_readers_agree_on_tracks_and_length(self):
        for name, (seconds, kinds, _) in MOVIES.items():
            with self.subTest(name):
                sounds, videos, texts = (kinds.count(kind) for kind in ("soun", "vide", "text"))

                found = readers.ffprobe(self.path(name))
                ffprobe_kinds = {"soun": "audio", "vide": "video", "tmcd": "data", "text": "data"}
                self.assertEqual([s["codec_type"] for s in found["streams"]], [ffprobe_kinds[kind] for kind in kinds])
                self.assertAlmostEqual(float(found["format"]["duration"]), seconds, places=5)

                general, *tracks = readers.mediainfo(self.path(name))
                mediainfo_kinds = {"soun": "Audio", "vide": "Video", "tmcd": "Other", "text": "Menu"}
                self.assertCountEqual([t["@type"] for t in tracks], [mediainfo_kinds[kind] for kind in kinds])
                self.assertAlmostEqual(float(general["Duration"]), seconds, delta=0.001)

                tags = readers.exiftool(self.path(name))
                self.assertAlmostEqual(tags["QuickTime"]["Duration"], seconds, delta=0.002)  # whole movie units
                self.assertEqual(tags["QuickTime"]["NextTrackID"], len(kinds) + 1)
                self.assertEqual([tags[f"Track{i + 1}"]["TrackID"] for i in range(len(kinds))],
                                 list(range(1, len(kinds) + 1)))
                self.assertNotIn(f"Track{len(kinds) + 1}", tags)

                self.assertEqual(readers.qtinfo_track_counts(self.path(name)), (sounds, videos, texts))

                if name == "many-samples":
                    continue  # the discoverer decodes before it tells anything, and there is nothing to decode here
                duration, streams, _ = readers.gstreamer(self.path(name))
                self.assertAlmostEqual(duration, seconds, places=6)
                self.assertEqual([kind for kind, _, _ in streams], ["audio"] * sounds if sounds == len(kinds) else
                                 ["video"] * videos + ["audio"] * sounds)

    def test_every_byte_comes_back(self):
        for name, (_, _, tracks) in MOVIES.items():
            packets = readers.packets(self.path(name))
            for index, sizes in tracks.items():
                with self.subTest(movie=name, stream=index):
                    # The track that got no samples had the number 2.
                    seed = index + 2 if name == "empty-track" and index > 0 else index + 1
                    total = sizes if isinstance(sizes, int) else sum(sizes)
                    expected = pattern(seed, total)
                    if not isinstance(sizes, int):
                        self.assertEqual([size for _, _, size, _ in packets[index]], sizes)
                    offset = 0
                    time = packets[index][0][0]
                    for pts, duration, size, digest in packets[index]:
                        self.assertEqual(pts, time)
                        self.assertEqual(digest, readers.sha256(expected[offset:offset + size]), f"at byte {offset}")
                        offset += size
                        time += duration
                    self.assertEqual(offset, total)

    def test_pcm_version_1(self):
        path = self.path("pcm-version1")
        streams = readers.ffprobe(path)["streams"]
        # The 'raw ' entry has no sign: everybody takes it as unsigned.
        codecs = ["pcm_u8" if name == "pcm_s8" else name for _, name, _ in PCM]
        self.assertEqual([s["codec_name"] for s in streams], codecs)
        self.assertEqual([s["codec_tag_string"] for s in streams], [tag for _, _, tag in PCM])
        self.assertEqual({(s["sample_rate"], s["channel_layout"]) for s in streams}, {("48000", "stereo")})

        sounds = readers.mediainfo(path)[1:]
        self.assertEqual([(t["CodecID"], int(t["BitDepth"])) for t in sounds],
                         [(tag, size * 8) for size, _, tag in PCM])
        self.assertEqual([t["Format_Settings_Endianness"] for t in sounds], ["Little"] * 7 + ["Big"] * 4)
        self.assertEqual({(t["ChannelLayout"], t["SamplingRate"]) for t in sounds}, {("L R", "48000")})

        tags = readers.exiftool(path)
        entries = [tags[f"Track{i}"] for i in range(1, 12)]
        self.assertEqual([(e["AudioFormat"], e["AudioBitsPerSample"]) for e in entries],
                         [(tag, size * 8) for size, _, tag in PCM])
        self.assertEqual({(e["AudioSampleRate"], e["AudioChannels"], e["LayoutFlags"]) for e in entries},
                         {(48000, 2, 101)})

        # GStreamer heeds the byte order of 'in24' only and takes the wider forms as big-endian.
        caps = [caps for _, caps, _ in readers.gstreamer(path)[1]]
        for text, form in zip(caps, ["U8", "U8", "S16LE", "S24LE", "S32BE", "F32BE", "F64BE", "S16BE", "S24BE", "S32BE",
                                     "F32BE"]):
            self.assertIn(f"format=(string){form}, layout=(string)interleaved, rate=(int)48000, channels=(int)2", text)

        lines = readers.qtinfo(path)
        self.assertEqual([line for line in lines if "compressor" in line],
                         [f"2 channels, {size * 8} bits, sample rate 48000, length 4800 samples, compressor {tag}."
                          for size, _, tag in PCM])

    def test_pcm_version_2(self):
        path = self.path("pcm-version2")
        streams = readers.ffprobe(path)["streams"]
        self.assertEqual([s["codec_name"] for s in streams], [name for _, name, _ in PCM])
        self.assertEqual({(s["codec_tag_string"], s["sample_rate"], s["channel_layout"]) for s in streams},
                         {("lpcm", "96000", "stereo")})

        sounds = readers.mediainfo(path)[1:]
        self.assertEqual([int(t["BitDepth"]) for t in sounds], [size * 8 for size, _, _ in PCM])
        # MediaInfo tells the byte order of integers only.
        self.assertEqual([t.get("Format_Settings_Endianness") for t in sounds],
                         ["Little"] * 5 + [None] * 2 + ["Big"] * 3 + [None])
        self.assertEqual([t["Format_Settings_Sign"] for t in sounds], ["Unsigned"] + ["Signed"] * 10)

        caps = [caps for _, caps, _ in readers.gstreamer(path)[1]]
        for text, form in zip(caps, ["U8", "S8", "S16LE", "S24LE", "S32LE", "F32LE", "F64LE", "S16BE", "S24BE", "S32BE",
                                     "F32BE"]):
            self.assertIn(f"format=(string){form}, layout=(string)interleaved, rate=(int)96000, channels=(int)2", text)

        lines = readers.qtinfo(path)
        self.assertEqual([line for line in lines if "compressor" in line],
                         [f"2 channels, {size * 8} bits, sample rate 96000, length 9600 samples, compressor lpcm."
                          for size, _, _ in PCM])
        # qtinfo knows no 8-bit 'lpcm'; it reads all integers above 16 bits into 32.
        self.assertEqual([line for line in lines if "Sample format" in line][2:],
                         [f"Sample format: {text}." for text in
                          ("16 bit signed", "32 bit signed", "32 bit signed", "Floating point", "Double precision",
                           "16 bit signed", "32 bit signed", "32 bit signed", "Floating point")])

    def test_channel_labels(self):
        path = self.path("channels")
        sounds = readers.mediainfo(path)[1:]
        self.assertEqual([t["ChannelLayout"] for t in sounds],
                         ["L R C LFE Ls Rs", "Discrete-0 Discrete-1 Discrete-2 Discrete-3", "W X Y Z", "L R", "M",
                          "Discrete-3"])
        streams = readers.ffprobe(path)["streams"]
        self.assertEqual([s["channels"] for s in streams], [6, 4, 4, 2, 1, 1])
        # ffprobe names layouts of speakers only.
        self.assertEqual([s.get("channel_layout") for s in streams], ["5.1", None, None, "stereo", None, None])

        tags = readers.exiftool(path)
        self.assertEqual([tags[f"Track{i}"]["LayoutFlags"] for i in range(1, 7)], [0, 0, 0, 101, 0, 0])

        setups = [line for line in readers.qtinfo(path) if line.startswith("Channel setup: ")]
        self.assertEqual([line.removeprefix("Channel setup: ") for line in setups],
                         ["Front Left, Front Right, Front Center, LFE, Back Left, Back Right",
                          "Unknown, Unknown, Unknown, Unknown", "Unknown, Unknown, Unknown, Unknown",
                          "Front Left, Front Right", "Unknown", "Unknown"])

        # GStreamer takes the number of channels, and positions for two of them only.
        for (_, caps, _), channels in zip(readers.gstreamer(path)[1], [6, 4, 4, 2, 1, 1]):
            self.assertIn(f"channels=(int){channels}", caps)

    def test_aperture_and_colour(self):
        path = self.path("aperture")
        track = readers.exiftool(path)["Track1"]
        expected = {"ImageWidth": 640, "ImageHeight": 480,
                    "CleanApertureDimensions": "640 480", "ProductionApertureDimensions": "654.54546 480",
                    "EncodedPixelsDimensions": "720 480",
                    "CleanApertureWidth": 704, "CleanApertureHeight": 480,
                    "CleanApertureOffsetX": 0, "CleanApertureOffsetY": 0,
                    "SourceImageWidth": 720, "SourceImageHeight": 480, "PixelAspectRatio": "10:11",
                    "ColorProfiles": "nclc", "ColorPrimaries": 6, "TransferCharacteristics": 1, "MatrixCoefficients": 6,
                    "Gamma": 2.2, "VideoFieldOrder": "2 9", "BitDepth": 24, "CompressorID": "2vuy",
                    "CompressorName": "Uncompressed 4:2:2"}
        self.assertEqual({tag: track[tag] for tag in expected}, expected)

        stream = readers.ffprobe(path)["streams"][0]
        expected = {"width": 720, "height": 480, "sample_aspect_ratio": "10:11", "color_primaries": "smpte170m",
                    "color_transfer": "bt709", "color_space": "smpte170m", "field_order": "tb"}
        self.assertEqual({key: stream[key] for key in expected}, expected)

        video = readers.mediainfo(path)[1]
        expected = {"Width": "720", "Width_CleanAperture": "704", "Height": "480", "PixelAspectRatio": "0.909",
                    "ScanType": "Interlaced", "colour_primaries": "BT.601 NTSC", "transfer_characteristics": "BT.709",
                    "matrix_coefficients": "BT.601"}
        self.assertEqual({key: video[key] for key in expected}, expected)
        self.assertEqual(video["extra"]["Gamma"], "2.200")

        lines = readers.qtinfo(path)
        self.assertIn("720x480, depth 24", lines)
        self.assertIn("Pixel aspect ratio: 10:11", lines)

        # GStreamer derives the shape of a pixel from the track's size and the frame's: 640 / 720.
        caps = readers.gstreamer(path)[1][0][1]
        for part in ("width=(int)720", "height=(int)480", "pixel-aspect-ratio=(fraction)8/9"):
            self.assertIn(part, caps)

    def test_timecode(self):
        for name, first, last, drop, rate, count in (
                ("timecode-24", "10:00:00:00", "10:00:00:11", False, (24, 1), 24),
                ("timecode-25", "10:00:00:00", "10:00:00:11", False, (25, 1), 25),
                ("timecode-2997-drop", "01:00:00;00", "01:00:00;11", True, (30000, 1001), 30),
                ("timecode-2997-nondrop", "01:00:00:00", "01:00:00:11", False, (30000, 1001), 30)):
            with self.subTest(name):
                path = self.path(name)
                self.assertEqual([s["tags"]["timecode"] for s in readers.ffprobe(path)["streams"]], [first, first])

                _, video, timecode = readers.mediainfo(path)
                self.assertEqual((timecode["TimeCode_FirstFrame"], timecode["TimeCode_LastFrame"]), (first, last))
                self.assertEqual(video["Delay_DropFrame"], "Yes" if drop else "No")
                self.assertEqual((int(video["FrameRate_Num"]), int(video["FrameRate_Den"])), rate)

                tags = readers.exiftool(path)
                self.assertEqual(tags["Track1"]["TimeCode"], 2)
                self.assertAlmostEqual(tags["Track2"]["PlaybackFrameRate"], rate[0] / rate[1], places=6)

                self.assertIn(f"Timecodes available (flags: {int(drop):08}, rate: {count})", readers.qtinfo(path))
                self.assertIn("framerate=(fraction)%d/%d" % rate, readers.gstreamer(path)[1][0][1])

    def test_chapters(self):
        path = self.path("text")
        self.assertEqual(readers.ffprobe_chapters(path), [(0, 1, "Prologue"), (1, 2, "\u00c9t\u00e9"),
                                                          (2, 3, "\u65e5\u672c\u8a9e"), (3, 4, "Film \U0001F3AC")])
        self.assertEqual(readers.mediainfo(path)[2]["extra"]["Menu_For"], "1")
        self.assertEqual(readers.exiftool(path)["Track1"]["ChapterListTrackID"], 2)
        self.assertIn("timescale: 600, length: 4, language: eng, type: Chapters", readers.qtinfo(path))

    def test_trim_in(self):
        path = self.path("trim-in")
        video, sound = readers.ffprobe(path)["streams"]
        self.assertEqual([float(s["start_time"]) for s in (video, sound)], [0, 0.5])
        self.assertEqual([float(s["duration"]) for s in (video, sound)], [2, 1.5])

        sound = readers.mediainfo(path)[2]
        self.assertEqual((sound["Source_Duration"], sound["Duration"], sound["extra"]["Source_Delay"]),
                         ("1.500", "2.000", "500"))

        track = readers.exiftool(path)["Track2"]
        self.assertEqual((track["TrackDuration"], track["MediaDuration"]), (2, 1.5))

        lines = readers.qtinfo(path)
        self.assertIn("1 channels, 16 bits, sample rate 48000, length 72000 samples, compressor twos.", lines)
        self.assertIn("length 50 frames", lines)

    def test_movie_atom_behind_the_media(self):
        for name, count in (("many-samples", 150000), ("many-chunks", 680000)):
            with self.subTest(name):
                path = self.path(name)
                self.assertEqual(int(readers.ffprobe(path)["streams"][0]["nb_frames"]), count)
                general = readers.mediainfo(path)[0]
                self.assertEqual(general["IsStreamable"], "No")
                parts = [int(general[key]) for key in ("HeaderSize", "DataSize", "FooterSize")]
                self.assertGreater(parts[2], 1 << 20)
                self.assertEqual(sum(parts), os.path.getsize(path))
        self.assertIn("length 150000 frames", readers.qtinfo(self.path("many-samples")))
        self.assertIn("1 channels, 8 bits, sample rate 48000, length 680000 samples, compressor raw .",
                      readers.qtinfo(self.path("many-chunks")))

    def test_track_without_samples_is_left_out(self):
        path = self.path("empty-track")
        tags = readers.exiftool(path)
        self.assertEqual([tags[f"Track{i}"]["TrackDuration"] for i in (1, 2)], [0.4, 0.4])
        self.assertEqual(tags["Track1"]["ChapterListTrackID"], 0)
        self.assertEqual([s["id"] for s in readers.ffprobe(path)["streams"]], ["0x1", "0x2"])
        self.assertEqual(readers.ffprobe(path)["chapters"], [])


if __name__ == "__main__":
    unittest.main()
