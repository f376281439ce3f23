"""The options of `reelmill wrap` that describe tracks, as other readers see their effect.

REELMILL names the command under test; ffmpeg makes the sources.
"""

import json
import re
import tempfile
import unittest
from pathlib import Path

from readers import exiftool, mediainfo, packets, program, qtinfo, run


def ffprobe_stream(path, stream="v:0"):
    return json.loads(run("ffprobe", "-v", "error", "-select_streams", stream, "-show_streams", "-of", "json", path))[
        "streams"][0]


def sound_hash(path, *options):
    """Digest of decoded sound."""
    return run("ffmpeg", "-v", "error", "-i", path, *options, "-c:a", "pcm_s16le", "-f", "hash", "-")


def packet_places(path):
    """(stream, position, size) of all packets in the order of the file."""
    found = json.loads(run("ffprobe", "-v", "error", "-show_packets", "-show_entries", "packet=stream_index,pos,size",
                           "-of", "json", path))["packets"]
    return sorted((int(packet["pos"]), int(packet["size"]), packet["stream_index"]) for packet in found)


def chunk_counts(path):
    """The number of chunks of each track: the entries of its 'stco' atom."""
    movie = Path(path).read_bytes()[:1 << 20]
    return [int.from_bytes(movie[found.end():found.end() + 4], "big")
            for found in re.finditer(rb"stco\0\0\0\0", movie)]


class OptionsCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="reelmill-options-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name)
        cls.reelmill = program("REELMILL")
        cls.video = cls.make("video.mov", "-f", "lavfi", "-i", "testsrc2=s=720x480:r=30000/1001:d=1", "-c:v", "v210")
        cls.surround = cls.make("surround.wav", *cls.tones(6, "5.1"), "-c:a", "pcm_s24le")

    @classmethod
    def make(cls, name, *arguments):
        path = str(cls.folder / name)
        run("ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y", *arguments, "file:" + path)
        return path

    @staticmethod
    def tones(count, layout, seconds=1):
        # Every channel has its own pitch, so that swapped channels are told apart.
        pitches = "|".join(f"0.4*sin({220 * (index + 1)}*2*PI*t)" for index in range(count))
        return ["-f", "lavfi", "-i", f"aevalsrc={pitches}:s=48000:d={seconds}:c={layout}"]

    def wrap(self, *arguments):
        movie = str(self.folder / "out.mov")
        self.summary = run(self.reelmill, "wrap", *arguments, "-o", movie, "-y")
        return movie


class AudioTest(OptionsCase):
    def layouts(self, movie):
        return [track["ChannelLayout"] for track in mediainfo(movie) if track["@type"] == "Audio"]

    def test_labels(self):
        cases = {"L,R,C,LFE,Ls,Rs": "L R C LFE Ls Rs",
                 "R,L,Lsd,Rsd,C,LFE": "R L Lsd Rsd C LFE",
                 "Lc,Rc,Cs,Lw,Rw,LFE2": "Lc Rc Cb Lw Rw LFE2",  # MediaInfo says "back".
                 "Lt,Rt,L,discrete,R,discrete": "Lt Rt L Discrete-3 R Discrete-5",
                 "discrete": " ".join(f"Discrete-{index}" for index in range(6)),
                 "discrete:9": " ".join(f"Discrete-{index}" for index in range(9, 15))}
        for labels, layout in cases.items():
            with self.subTest(labels):
                movie = self.wrap("--audio", f"{self.surround}:labels={labels}")
                self.assertEqual([layout], self.layouts(movie))
                self.assertEqual(sound_hash(self.surround), sound_hash(movie))
        self.assertEqual("5.1", ffprobe_stream(self.wrap("--audio", f"{self.surround}:labels=L,R,C,LFE,Ls,Rs"), "a:0")
                         ["channel_layout"])

    def test_a_source_without_a_layout_gets_discrete_labels_and_a_note(self):
        source = self.make("plain.nut", *self.tones(3, "3c"), "-c:a", "pcm_s16le")
        self.assertEqual(["Discrete-0 Discrete-1 Discrete-2"], self.layouts(self.wrap(source)))
        self.assertIn("does not say what its 3 channels are for", self.summary)
        self.assertEqual(["L R C"], self.layouts(self.wrap("--audio", f"{source}:labels=L,R,C")))
        self.assertNotIn("note", self.summary)

    def test_several_tracks(self):
        stereo = self.make("stereo.wav", *self.tones(2, "stereo"), "-c:a", "pcm_s16le")
        movie = self.wrap(self.video, self.surround, "--audio", f"{stereo}:labels=Lt,Rt", "--audio",
                          f"{self.surround}:labels=discrete:2")
        self.assertEqual(["Discrete-2 Discrete-3 Discrete-4 Discrete-5 Discrete-6 Discrete-7", "Lt Rt"],
                         self.layouts(movie))
        self.assertEqual(sound_hash(self.surround), sound_hash(movie, "-map", "0:a:0"))
        self.assertEqual(sound_hash(stereo), sound_hash(movie, "-map", "0:a:1"))

    def test_split_audio(self):
        for options, layouts in (([], ["L", "R", "C", "LFE", "Ls", "Rs"]),
                                 (["--audio", f"{self.surround}:labels=discrete:9"],
                                  [f"Discrete-{index}" for index in range(9, 15)])):
            with self.subTest(options):
                movie = self.wrap(self.surround, "--split-audio", *options)
                self.assertEqual(layouts, self.layouts(movie))
                for channel in range(6):
                    self.assertEqual(1, ffprobe_stream(movie, f"a:{channel}")["channels"])
                    self.assertEqual(sound_hash(self.surround, "-af", f"pan=mono|c0=c{channel}"),
                                     sound_hash(movie, "-map", f"0:a:{channel}"))


class VideoTest(OptionsCase):
    def test_aspect(self):
        # The shape of a pixel, and the width that the picture is shown at.
        cases = {"4:3": ("8:9", 640), "16:9": ("32:27", 853), "par=10:11": ("10:11", 655), "par=1:1": ("1:1", 720)}
        for aspect, (pixel, width) in cases.items():
            with self.subTest(aspect):
                movie = self.wrap(self.video, "--aspect", aspect)
                self.assertEqual(pixel, ffprobe_stream(movie)["sample_aspect_ratio"])
                shown = exiftool(movie)["Track1"]
                self.assertEqual((width, 480), (shown["ImageWidth"], shown["ImageHeight"]))

    def test_clean_aperture(self):
        movie = self.wrap(self.video, "--clean-aperture", "704x480", "--aspect", "4:3")
        track = exiftool(movie)["Track1"]
        self.assertEqual(("640 480", "654.54546 480", "720 480"),
                         tuple(track[f"{name}Dimensions"] for name in ("CleanAperture", "ProductionAperture",
                                                                       "EncodedPixels")))
        self.assertEqual((640, 480), (track["ImageWidth"], track["ImageHeight"]))
        self.assertEqual("10:11", ffprobe_stream(movie)["sample_aspect_ratio"])
        self.assertEqual("704", mediainfo(movie)[1]["Width_CleanAperture"])
        for aperture, offset in (("704x464", (0, 0)), ("704x464+0+0", (-16, -16)), ("703x464+8+16", (-1, 16))):
            with self.subTest(aperture):  # Twice the distance of the centres, over 2.
                data = Path(self.wrap(self.video, "--clean-aperture", aperture)).read_bytes()[:1 << 20]
                fields = data[data.index(b"clap") + 4:][:32]
                values = [int.from_bytes(fields[4 * index:4 * index + 4], "big", signed=True) for index in range(8)]
                width, height = (int(size) for size in aperture.split("+")[0].split("x"))
                self.assertEqual([width, 1, height, 1, offset[0], 2, offset[1], 2], values)

    def test_color(self):
        cases = {"bt709": ("bt709", "bt709", "bt709"), "bt601-525": ("smpte170m", "bt709", "smpte170m"),
                 "bt601-625": ("bt470bg", "bt709", "smpte170m"), "bt2020": ("bt2020", "bt709", "bt2020nc"),
                 "9,16,9": ("bt2020", "smpte2084", "bt2020nc")}
        source = self.make("bt470.mov", "-i", self.video, "-c", "copy", "-color_primaries", "bt470bg", "-color_trc",
                           "bt709", "-colorspace", "smpte170m")
        for colour, expected in cases.items():
            for path in (self.video, source):
                with self.subTest(colour, source=path):
                    stream = ffprobe_stream(self.wrap(path, "--color", colour))
                    self.assertEqual(expected, tuple(stream[f"color_{name}"] for name in ("primaries", "transfer",
                                                                                          "space")))

    def test_field(self):
        # A reader names the order in which the fields are stored, then the one in which they are shown.
        for source in (self.video, self.make("tt.mov", "-i", self.video, "-c", "copy", "-field_order", "tt")):
            for field, order in {"tff": "bt", "bff": "tb", "progressive": "progressive", "omit": None}.items():
                with self.subTest(field, source=source):
                    movie = self.wrap(source, "--field", field)
                    self.assertEqual(order, ffprobe_stream(movie).get("field_order"))
                    self.assertEqual(0 if field == "omit" else 1, Path(movie).read_bytes()[:1 << 20].count(b"fiel"))

    def test_codec(self):
        movie = self.wrap(self.video, "--vendor", "acme", "--codec-name", "Zehn Bit ä", "--codec-tag", "v21X")
        track = exiftool(movie)["Track1"]
        self.assertEqual(("acme", "Zehn Bit ä", "v21X"),
                         (track["VendorID"], track["CompressorName"], track["CompressorID"]))
        self.assertIn("no codec is known for --codec-tag v21X", self.summary)
        prores = self.make("prores.mov", "-f", "lavfi", "-i", "testsrc2=s=320x240:d=0.2", "-c:v", "prores_ks")
        movie = self.wrap(prores, "--codec-tag", "apcs")
        self.assertEqual("apcs", ffprobe_stream(movie)["codec_tag_string"])
        self.assertEqual("Apple ProRes 422 LT", exiftool(movie)["Track1"]["CompressorName"])
        self.assertTrue(any("apcs" in line for line in qtinfo(movie)))
        self.assertEqual(packets(prores), packets(movie))
        # An input that does not tell the flavour needs the option.
        untold = Path(self.make("untold.mkv", "-i", prores, "-c", "copy"))
        untold.write_bytes(untold.read_bytes().replace(ffprobe_stream(prores)["codec_tag_string"].encode(), b"xxxx"))
        with self.assertRaisesRegex(RuntimeError, "as in --codec-tag apch"):
            self.wrap(str(untold))
        movie = self.wrap(str(untold), "--codec-tag", "apch")
        self.assertEqual("HQ", ffprobe_stream(movie)["profile"])
        self.assertEqual([digest for *_, digest in packets(prores)[0]], [digest for *_, digest in packets(movie)[0]])

    def test_gamma_and_padding(self):
        def stream(movie):
            return {key: value for key, value in ffprobe_stream(movie).items() if key != "tags"}

        plain = stream(self.wrap(self.video))
        sizes = {}
        for name, options in {"plain": [], "gamma": ["--gamma"], "4": ["--padding", "4"],
                              "1000": ["--padding", "1000"], "both": ["--padding", "5", "--gamma"]}.items():
            with self.subTest(name):
                movie = self.wrap(self.video, *options)
                data = Path(movie).read_bytes()[:1 << 20]
                entry = data.index(b"stsd") + 12
                sizes[name] = int.from_bytes(data[entry:entry + 4], "big")
                # 2.2 in units of 1/65536.
                self.assertEqual("--gamma" in options, b"\0\0\0\x0cgama\0\x02\x33\x33" in data)
                self.assertEqual(plain, stream(movie))
                self.assertEqual(packets(self.video), packets(movie))
                self.assertFalse([key for key in exiftool(movie)["ExifTool"] if key in ("Warning", "Error")])
        self.assertEqual([12, 4, 1000, 17], [sizes[name] - sizes["plain"] for name in ("gamma", "4", "1000", "both")])


class MovieTest(OptionsCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.both = cls.make("both.mov", "-f", "lavfi", "-i", "testsrc2=s=320x240:r=25:d=4", *cls.tones(2, "stereo", 4),
                            "-c:v", "mjpeg", "-pix_fmt", "yuvj420p", "-c:a", "pcm_s16le")

    def test_movie_time_scale(self):
        for scale in (24000, 600, 1000000):
            with self.subTest(scale):
                movie = self.wrap(self.both, "--movie-timescale", str(scale))
                found = exiftool(movie)
                self.assertEqual(scale, found["QuickTime"]["TimeScale"])
                self.assertEqual(4, found["QuickTime"]["Duration"])
                self.assertEqual("1/12800", ffprobe_stream(movie)["time_base"])  # The track's own, as in the source.
                self.assertEqual(packets(self.both)[0], packets(movie)[0])

    def test_chunks_by_frames_and_time(self):
        # In the order of the file, the chunks of the two tracks take turns.
        for chunk, count in {"frames=1": 100, "frames=3": 34, "500ms": 8, "1s": 4, "40ms": 100, "3600s": 1}.items():
            with self.subTest(chunk):
                movie = self.wrap(self.both, "--chunk", chunk)
                self.assertEqual([count, count], chunk_counts(movie))
                tracks = [stream for _, _, stream in packet_places(movie)]
                turns = [stream for index, stream in enumerate(tracks) if index == 0 or tracks[index - 1] != stream]
                self.assertEqual([0, 1] * count, turns)
                self.assertEqual(packets(self.both)[0], packets(movie)[0])
                self.assertEqual(sound_hash(self.both), sound_hash(movie))
                if chunk.startswith("frames"):
                    frames = int(chunk[7:])
                    self.assertEqual([min(frames, 100 - start) for start in range(0, 100, frames)],
                                     [len(run) for run in re.findall("0+", "".join(map(str, tracks)))])

    def test_chunks_by_size(self):
        for chunk, limit in {"64KiB": 1 << 16, "1MiB": 1 << 20}.items():
            with self.subTest(chunk):
                movie = self.wrap(self.both, "--chunk", chunk)
                self.assertEqual(packets(self.both)[0], packets(movie)[0])
                self.assertEqual(sound_hash(self.both), sound_hash(movie))
                # Chunks are filled with packets as long as those fit.
                expected = []
                for stream in (0, 1):
                    count, filled = 0, limit
                    for size in (packet[2] for packet in packets(self.both)[stream]):
                        count, filled = (count, filled + size) if filled + size <= limit else (count + 1, size)
                    expected.append(count)
                self.assertEqual(expected, chunk_counts(movie))

    def test_trace(self):
        movie = str(self.folder / "out.mov")
        for options, expected in (([], False), (["-v"], True)):
            command = f'exec "{self.reelmill}" wrap "{self.both}" -o "{movie}" -y -q {" ".join(options)} 2>&1'
            self.assertEqual(expected, "blocksize" in run("sh", "-c", command))


if __name__ == "__main__":
    unittest.main()
