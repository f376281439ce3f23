"""Wraps media of every kind and compares what other readers see in the movie with what they see in the source.

REELMILL names the command under test. ffmpeg makes the sources; ffmpeg, ffprobe, MediaInfo, exiftool, GStreamer and
qtinfo read them and the movies. Readers exit 0 on broken files, so their findings are compared, never their status.
"""

import json
import os
import re
import subprocess
import tempfile
import unittest
from fractions import Fraction
from pathlib import Path

REELMILL = os.environ.get("REELMILL", "reelmill")
NTSC = "30000/1001"


def run(*arguments):
    """The standard output of a program that must succeed."""
    result = subprocess.run([str(argument) for argument in arguments], stdin=subprocess.DEVNULL, capture_output=True)
    if result.returncode != 0:
        raise AssertionError(f"{arguments} ended with {result.returncode}: {result.stderr.decode(errors='replace')}")
    return result.stdout.decode()


def ffmpeg(*arguments):
    return run("ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y", *arguments)


def picture(size="320x240", rate=NTSC, seconds="0.5"):
    return ["-f", "lavfi", "-i", f"testsrc2=s={size}:r={rate}:d={seconds}"]


def tone(rate=48000, seconds="1", layout="stereo"):
    # Every channel has its own pitch, so that swapped channels are told apart.
    count = {"mono": 1, "stereo": 2, "5.1": 6, "5.1(side)": 6, "7.1": 8}[layout]
    pitches = "|".join(f"0.4*sin({220 * (index + 1)}*2*PI*t)" for index in range(count))
    return ["-f", "lavfi", "-i", f"aevalsrc={pitches}:s={rate}:d={seconds}:c={layout}"]


class Frame:
    """A packet or a decoded frame as framehash lists it, its times in seconds."""

    def __init__(self, time, duration, size, digest):
        self.time, self.duration, self.size, self.digest = time, duration, size, digest

    def content(self):
        return self.size, self.digest

    def __eq__(self, other):
        return vars(self) == vars(other)

    def __repr__(self):
        return f"({self.time} +{self.duration} s, {self.size} bytes, {self.digest[:8]})"


COPY = ("-c", "copy")
SOUND = ("-af", "asetnsamples=n=1000:p=0", "-c:a", "pcm_f64le")  # Decoded, in frames of equal length.


def read(*views):
    """The frames of each view (path, stream, options), which one process reads: starting it takes the time. With the
    option "streamhash" they come as a digest of all bytes."""
    with tempfile.TemporaryDirectory() as folder:
        inputs, outputs, results = [], [], []
        for number, (path, stream, *options) in enumerate(views):
            kind = options.pop() if options[-1:] == ["streamhash"] else "framehash"
            inputs += ["-i", path]
            outputs += ["-map", f"{number}:{stream}", *options, "-f", kind, f"{folder}/{number}"]
        ffmpeg(*inputs, *outputs)
        for number, (*_, last) in enumerate(views):
            text = Path(folder, str(number)).read_text()
            results.append(text.split("=")[1] if last == "streamhash" else list_frames(text))
    return results


def list_frames(text):
    time_base = None
    frames = []
    for line in text.splitlines():
        if line.startswith("#tb"):
            time_base = Fraction(line.split(":")[1].strip())
        elif line and not line.startswith("#"):
            _, _, pts, duration, size, digest = (field.strip() for field in line.split(",")[:6])
            frames.append(Frame(int(pts) * time_base, int(duration) * time_base, int(size), digest))
    return frames


def packets(path, stream="v:0"):
    return read((path, stream, *COPY))[0]


def streams(path):
    return json.loads(run("ffprobe", "-v", "error", "-show_streams", "-of", "json", path))["streams"]


class WrapCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="reelmill-wrap-")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def make(self, name, *arguments):
        path = self.folder / name
        ffmpeg(*arguments, path)
        return path

    def wrap(self, *inputs):
        movie = self.folder / "out.mov"
        self.summary = run(REELMILL, "wrap", *inputs, "-o", movie, "-y")
        return movie

    def assertSameVideo(self, source, movie, tick=None):
        """The same packets at the same times, and the same pictures; within `tick` where the source rounds its times."""
        expected, actual, shown, shown_then = read((source, "v:0", *COPY), (movie, "v:0", *COPY), (source, "v:0"),
                                                   (movie, "v:0"))
        self.assertGreater(len(expected), 0)
        self.assertEqual([frame.content() for frame in expected], [frame.content() for frame in actual])
        if tick is None:
            self.assertEqual(expected, actual)
        else:
            for left, right in zip(expected, actual):
                self.assertLessEqual(abs(left.time - right.time), tick)
        self.assertEqual([frame.content() for frame in shown], [frame.content() for frame in shown_then])

    def assertSameSound(self, source, movie, stream=0, target=None, tick=None):
        here, there = (source, f"a:{stream}"), (movie, f"a:{stream if target is None else target}")
        expected, actual, bytes_here, bytes_there = read((*here, *SOUND), (*there, *SOUND), (*here, *COPY, "streamhash"),
                                                         (*there, *COPY, "streamhash"))
        self.assertGreater(len(expected), 0)
        self.assertEqual([frame.content() for frame in expected], [frame.content() for frame in actual])
        self.assertEqual(bytes_here, bytes_there)
        for left, right in zip(expected, actual):
            self.assertLessEqual(abs(left.time - right.time), tick or 0)


class VideoTest(WrapCase):
    CODECS = {
        "ProRes 422 HQ": (["-c:v", "prores_ks", "-profile:v", "3"], "mov", "apch"),
        "ProRes 422 Proxy": (["-c:v", "prores_ks", "-profile:v", "0"], "mov", "apco"),
        "ProRes 4444": (["-c:v", "prores_ks", "-profile:v", "4", "-pix_fmt", "yuva444p10le"], "mov", "ap4h"),
        "MJPEG": (["-c:v", "mjpeg", "-pix_fmt", "yuvj422p"], "mov", "jpeg"),
        "MJPEG from AVI": (["-c:v", "mjpeg", "-pix_fmt", "yuvj420p"], "avi", "jpeg"),
        "PNG": (["-c:v", "png", "-pix_fmt", "rgba"], "mov", "png "),
        "JPEG 2000": (["-c:v", "jpeg2000"], "mov", "mjp2"),
        "JPEG 2000 from MXF": (["-c:v", "libopenjpeg", "-format", "j2k"], "mxf", "mjp2"),
        "Hap Q": (["-c:v", "hap", "-format", "hap_q"], "mov", "HapY"),
        "Hap Alpha from AVI": (["-c:v", "hap", "-format", "hap_alpha"], "avi", "Hap5"),
        "CineForm": (["-c:v", "cfhd"], "mov", "CFHD"),
        "v210": (["-c:v", "v210"], "mov", "v210"),
        "v210 from AVI": (["-c:v", "v210"], "avi", "v210"),
        "v410": (["-c:v", "v410"], "mov", "v410"),
        "v308": (["-c:v", "v308"], "mov", "v308"),
        "r210": (["-c:v", "r210"], "mov", "r210"),
        "2vuy": (["-c:v", "rawvideo", "-pix_fmt", "uyvy422"], "mov", "2vuy"),
        "2vuy from AVI": (["-c:v", "rawvideo", "-pix_fmt", "uyvy422"], "avi", "2vuy"),
        "yuvs from AVI": (["-c:v", "rawvideo", "-pix_fmt", "yuyv422"], "avi", "yuvs"),
        "RGB": (["-c:v", "rawvideo", "-pix_fmt", "rgb24"], "mov", "raw "),
        "ARGB": (["-c:v", "rawvideo", "-pix_fmt", "argb"], "mov", "raw "),
        "16-bit RGB": (["-c:v", "rawvideo", "-pix_fmt", "rgb48be"], "mov", "b48r"),
    }

    def test_packets_times_and_pictures(self):
        for name, (options, container, tag) in self.CODECS.items():
            with self.subTest(name):
                source = self.make(f"source.{container}", *picture(), *options)
                movie = self.wrap(source)
                self.assertSameVideo(source, movie)
                self.assertEqual(tag, streams(movie)[0]["codec_tag_string"])

    def test_uncompressed_pixels_of_containers_without_tags(self):
        tags = {"argb": "raw ", "rgb24": "raw ", "bgra": "BGRA", "rgba": "RGBA", "rgb48be": "b48r", "gray16be": "b16g",
                "uyvy422": "2vuy", "rgb555be": "raw "}
        for pixels, tag in tags.items():
            with self.subTest(pixels):
                size = "322x241" if pixels == "uyvy422" else "321x241"  # Odd, so that padded rows would show.
                source = self.make("source.nut", "-f", "lavfi", "-i", f"testsrc=s={size}:r=25:d=0.2", "-c:v",
                                   "rawvideo", "-pix_fmt", pixels)
                movie = self.wrap(source)
                self.assertSameVideo(source, movie)
                self.assertEqual((tag, pixels), tuple(streams(movie)[0][key] for key in ("codec_tag_string", "pix_fmt")))

    def test_dv(self):
        for target, pixels, tag, size in (("ntsc-dv", "yuv411p", "dvc ", (640, 480)), ("pal-dv", "yuv420p", "dvcp", (768, 576)),
                                          ("ntsc-dv50", "yuv422p", "dv5n", (640, 480))):
            rate = "25" if target.startswith("pal") else NTSC
            raw = self.make("source.dv", *picture("720x576" if rate == "25" else "720x480", rate), *tone(seconds="2"),
                            "-target", target, "-frames:v", "10")
            for container in ("dv", "mov", "avi", "mkv", "mxf"):
                with self.subTest(target=target, container=container):
                    source = raw if container == "dv" else self.make(
                        f"source2.{container}", "-i", raw, "-map", "0:v:0", "-map", "0:a:0", "-c", "copy")
                    movie = self.wrap(source)
                    tick = {"mkv": Fraction(1, 1000), "dv": Fraction(1, 25)}.get(container)
                    self.assertSameVideo(source, movie, tick if container == "mkv" else None)
                    self.assertSameSound(source, movie, tick=tick)
                    video = streams(movie)[0]
                    self.assertEqual((tag, pixels), (video["codec_tag_string"], video["pix_fmt"]))
                    self.assertEqual(size, displayed_size(movie))

    def test_dnxhd_and_dnxhr(self):
        for profile, tag, container in (("dnxhd", "AVdn", "mov"), ("dnxhd", "AVdn", "mxf"), ("dnxhr_sq", "AVdh", "mov"),
                                        ("dnxhr_sq", "AVdh", "mxf"), ("dnxhr_sq", "AVdh", "mkv")):
            with self.subTest(profile=profile, container=container):
                options = ["-c:v", "dnxhd", "-profile:v", profile, "-pix_fmt", "yuv422p"]
                options += ["-b:v", "120M"] if profile == "dnxhd" else []
                source = self.make(f"source.{container}", *picture("1920x1080", "25", "0.2"), *options)
                movie = self.wrap(source)
                self.assertSameVideo(source, movie, Fraction(1, 1000) if container == "mkv" else None)
                self.assertEqual(tag, streams(movie)[0]["codec_tag_string"])

    def test_configuration_atoms_of_the_source_are_passed_on(self):
        source = self.make("source.mov", *picture("1920x1080", "25", "0.2"), "-c:v", "dnxhd", "-b:v", "120M", "-pix_fmt",
                           "yuv422p")
        show = ["ffprobe", "-v", "error", "-show_data_hash", "sha256", "-show_entries", "stream=extradata_hash", "-of",
                "csv=p=0"]
        self.assertIn("ACLR", self.wrap(source).read_bytes()[:4096].decode("latin-1"))
        self.assertEqual(run(*show, source), run(*show, self.folder / "out.mov"))

    def test_image_sequences(self):
        for pattern, options, tag in (("frame%04d.png", [], "png "), ("frame-%d.jpg", ["-q:v", "3"], "jpeg"),
                                      ("frame%03d.j2k", ["-c:v", "libopenjpeg", "-format", "j2k"], "mjp2")):
            with self.subTest(pattern):
                source = self.folder / pattern
                ffmpeg(*picture(rate="24", seconds="1"), *options, "-start_number", "1001", source)
                movie = self.folder / "out.mov"
                run(REELMILL, "wrap", source, "--fps", "24000/1001", "-o", movie, "-y")
                files = sorted(self.folder.glob(pattern.replace(re.search("%.*d", pattern)[0], "*")))
                actual = packets(movie)
                self.assertEqual([path.stat().st_size for path in files], [frame.size for frame in actual])
                self.assertEqual([Fraction(1001 * index, 24000) for index in range(24)], [frame.time for frame in actual])
                self.assertEqual(tag, streams(movie)[0]["codec_tag_string"])

    def test_scanning_shape_and_colour(self):
        for order in ("tt", "bb", "tb", "bt", "progressive"):
            with self.subTest(order):
                source = self.make("source.mov", *picture("720x576", "25", "0.2"), "-vf", "setsar=16/15", "-c:v", "v210",
                                   "-field_order", order, "-color_primaries", "bt470bg",
                                   "-color_trc", "bt709", "-colorspace", "smpte170m")
                self.assertEqual(order, streams(source)[0]["field_order"], "ffmpeg did not write what the test needs")
                movie = self.wrap(source)
                video = streams(movie)[0]
                self.assertEqual(order, video["field_order"])
                self.assertEqual("16:15", video["sample_aspect_ratio"])
                self.assertEqual(("bt470bg", "bt709", "smpte170m"),
                                 tuple(video[key] for key in ("color_primaries", "color_transfer", "color_space")))
                self.assertEqual((768, 576), displayed_size(movie))

    def test_matroska_times_return_to_the_frame_rate(self):
        source = self.make("source.mkv", *picture(seconds="4"), *tone(seconds="4"), "-c:v", "mjpeg", "-pix_fmt", "yuvj420p",
                           "-c:a", "pcm_s16le")
        movie = self.wrap(source)
        self.assertSameVideo(source, movie, Fraction(1, 1000))
        self.assertSameSound(source, movie, tick=Fraction(1, 1000))
        self.assertEqual([Fraction(1001 * index, 30000) for index in range(120)],
                         [frame.time for frame in packets(movie)])

    def test_variable_frame_rate_is_kept(self):
        select = "select='not(between(n,10,17))*not(eq(n,40))'"
        for container in ("mov", "mkv"):
            with self.subTest(container):
                source = self.make(f"source.{container}", *picture(seconds="2"), "-vf", select, "-vsync", "vfr", "-c:v",
                                   "mjpeg", "-pix_fmt", "yuvj420p")
                movie = self.wrap(source)
                self.assertSameVideo(source, movie, Fraction(1, 1000) if container == "mkv" else None)
                times = [frame.time for frame in packets(movie)]
                self.assertGreater(times[10] - times[9], Fraction(8, 30))


class SoundTest(WrapCase):
    def test_every_form_of_pcm(self):
        forms = {"u8": "wav", "s8": "aiff", "s16le": "wav", "s24le": "wav", "s32le": "wav", "f32le": "wav", "f64le": "wav",
                 "s16be": "aiff", "s24be": "aiff", "s32be": "aiff", "f32be": "aiff"}
        # The compact entry, and the one for more channels and higher rates.
        shapes = (("mono", 44100), ("stereo", 48000), ("5.1", 48000), ("stereo", 96000))
        tones = [word for layout, rate in shapes for word in tone(rate, "1.3", layout)]
        for form, container in forms.items():
            sources = [self.folder / f"{number}.{container}" for number in range(len(shapes))]
            ffmpeg(*tones, *(word for number, source in enumerate(sources)
                             for word in ("-map", number, "-c:a", f"pcm_{form}", source)))
            movie = self.wrap(*sources)
            self.assertEqual([f"pcm_{form}"] * len(shapes), [stream["codec_name"] for stream in streams(movie)])
            for number, source in enumerate(sources):
                with self.subTest(form=form, shape=shapes[number]):
                    self.assertSameSound(source, movie, 0, number)

    def test_channel_layouts(self):
        for layout in ("stereo", "5.1", "5.1(side)", "7.1"):
            with self.subTest(layout):
                source = self.make("source.wav", *tone(layout=layout), "-c:a", "pcm_s24le")
                self.assertEqual(layout, streams(source)[0]["channel_layout"])
                self.assertEqual(layout, streams(self.wrap(source))[0]["channel_layout"])

    def test_unknown_layout_is_not_guessed(self):
        source = self.make("source.wav", *tone(layout="5.1"), "-af", "channelmap=map=0|1|2|3", "-c:a", "pcm_s16le")
        data = bytearray(source.read_bytes())
        mask = data.index(b"fmt ") + 28
        data[mask:mask + 4] = bytes(4)  # Four channels, no positions.
        source.write_bytes(data)
        movie = self.wrap(source)
        self.assertIn("does not say what its 4 channels are for", self.summary)
        self.assertSameSound(source, movie)
        channels = movie.read_bytes()
        labels = channels[channels.index(b"chan") + 20:]
        self.assertEqual([0x10000 + index for index in range(4)],
                         [int.from_bytes(labels[20 * index:20 * index + 4], "big") for index in range(4)])

    def test_a_gap_keeps_what_follows_in_sync(self):
        source = self.make("source.mkv", *tone(seconds="2"), "-af",
                           "asetnsamples=480,aselect='not(between(t,0.995,1.493))'", "-c:a", "pcm_s16le")
        movie = self.wrap(source)
        self.assertIn("1 gaps, 24000 samples", self.summary)
        self.assertEqual(*read((source, "a:0", *COPY, "streamhash"), (movie, "a:0", *COPY, "streamhash")))
        self.assertEqual(2 * 48000, int(streams(movie)[0]["duration_ts"]))
        self.assertIn(Fraction(3, 2), [frame.time for frame in packets(source, "a:0")])
        self.assertIn(Fraction(3, 2), [frame.time for frame in packets(movie, "a:0")])


class SeveralTest(WrapCase):
    def test_tracks_of_several_inputs_start_together(self):
        video = self.make("video.mov", *picture(), *tone(layout="mono"), "-c:v", "prores_ks", "-c:a", "pcm_s24le")
        left = self.make("left.wav", *tone(44100, "1.5"), "-c:a", "pcm_f32le")
        right = self.make("right.aiff", *tone(48000, "0.7", "5.1"), "-c:a", "pcm_s16be")
        movie = self.wrap(video, left, right)
        self.assertEqual(["prores", "pcm_s24le", "pcm_f32le", "pcm_s16be"],
                         [stream["codec_name"] for stream in streams(movie)])
        self.assertSameVideo(video, movie)
        self.assertSameSound(video, movie)
        self.assertSameSound(left, movie, 0, 1)
        self.assertSameSound(right, movie, 0, 2)

    def test_a_late_stream_stays_late(self):
        source = self.make("source.mov", *picture(), "-itsoffset", "0.25", *tone(), "-c:v", "mjpeg", "-pix_fmt", "yuvj420p",
                           "-c:a", "pcm_s16le")
        movie = self.wrap(source)
        self.assertEqual(Fraction(1, 4), packets(movie, "a:0")[0].time)
        self.assertEqual(0, packets(movie)[0].time)
        self.assertSameVideo(source, movie)
        self.assertIn("starts at 0:00:00.250", self.summary)

    def test_edits_of_the_source_are_kept(self):
        whole = self.make("whole.mov", *picture(rate="25", seconds="3"), *tone(seconds="3"), "-c:v", "prores_ks", "-c:a",
                          "pcm_s16le")
        # The cut falls inside a packet of sound, which the source keeps whole behind an edit list.
        source = self.make("cut.mov", "-ss", "0.73", "-t", "1.5", "-i", whole, "-c", "copy")
        movie = self.wrap(source)
        expected, actual, heard, heard_then = read((source, "v:0"), (movie, "v:0"), (source, "a:0", *SOUND),
                                                   (movie, "a:0", *SOUND))
        self.assertEqual([(frame.time, *frame.content()) for frame in expected],
                         [(frame.time, *frame.content()) for frame in actual])
        self.assertEqual(heard, heard_then)
        self.assertIn("samples that the input's edit list leaves out", self.summary)

    def test_chunks_alternate_every_half_second(self):
        source = self.make("source.mov", *picture(rate="25", seconds="3"), *tone(seconds="3"), "-c:v", "mjpeg", "-pix_fmt",
                           "yuvj420p", "-c:a", "pcm_s16le")
        movie = self.wrap(source).read_bytes()
        counts = [int.from_bytes(movie[found.start() + 12:found.start() + 16], "big")
                  for found in re.finditer(rb"\0\0..stco\0\0\0\0", movie[:1 << 20], re.DOTALL)]
        self.assertEqual([6, 6], counts)


class ReaderTest(WrapCase):
    """MediaInfo, exiftool, GStreamer and qtinfo show the tracks, sizes and lengths that the source has."""

    def setUp(self):
        super().setUp()
        self.source = self.make("source.mov", *picture("640x360", "25", "2"), *tone(seconds="2"), *tone(48000, "2", "5.1"),
                                "-map", "0", "-map", "1", "-map", "2", "-c:v", "png", "-c:a", "pcm_s16le")
        self.movie = self.wrap(self.source)

    def test_mediainfo(self):
        tracks = json.loads(run("mediainfo", "--Output=JSON", self.movie))["media"]["track"]
        general, video, stereo, surround = tracks
        self.assertEqual(("QuickTime", "2.000"), (general.get("Format_Profile"), general["Duration"]))
        self.assertEqual(("640", "360", "50", "25.000", "2.000"),
                         tuple(video[key] for key in ("Width", "Height", "FrameCount", "FrameRate", "Duration")))
        self.assertEqual(("PCM", "2", "48000", "96000"),
                         tuple(stereo[key] for key in ("Format", "Channels", "SamplingRate", "SamplingCount")))
        self.assertEqual(("PCM", "6", "48000", "2.000"),
                         tuple(surround[key] for key in ("Format", "Channels", "SamplingRate", "Duration")))

    def test_exiftool(self):
        found = json.loads(run("exiftool", "-json", "-n", "-G1", "-a", self.movie))[0]
        self.assertEqual(2, found["QuickTime:Duration"])
        self.assertEqual([2, 2, 2], [found[f"Track{number}:TrackDuration"] for number in (1, 2, 3)])
        self.assertEqual((640, 360), (found["Track1:ImageWidth"], found["Track1:ImageHeight"]))
        self.assertEqual(25, found["Track1:VideoFrameRate"])
        self.assertEqual((2, 48000), (found["Track2:AudioChannels"], found["Track2:AudioSampleRate"]))
        self.assertFalse([key for key in found if key.endswith((":Warning", ":Error"))])

    def test_gstreamer(self):
        found = run("gst-discoverer-1.0", "-v", self.movie)
        self.assertIn("Duration: 0:00:02.000000000", found)
        self.assertEqual(["640"], re.findall(r"^\s*Width: (\d+)", found, re.MULTILINE))
        self.assertEqual(["360"], re.findall(r"^\s*Height: (\d+)", found, re.MULTILINE))
        self.assertEqual(["2", "6"], re.findall(r"^\s*Channels: (\d+)", found, re.MULTILINE))
        self.assertEqual(["48000", "48000"], re.findall(r"^\s*Sample rate: (\d+)", found, re.MULTILINE))

    def test_qtinfo(self):
        found = run("qtinfo", self.movie)
        self.assertIn("2 channels, 16 bits, sample rate 48000, length 96000 samples, compressor sowt.", found)
        self.assertIn("6 channels, 16 bits, sample rate 48000, length 96000 samples, compressor lpcm.", found)
        self.assertIn("640x360, depth 24", found)
        self.assertRegex(found, r"rate 25.000000 \[\d+:\d+\] constant\s+length 50 frames\s+compressor png ")


def displayed_size(movie):
    """Width and height in the header of the movie's first track."""
    header = movie.read_bytes()[:1 << 20]
    size = header[header.index(b"tkhd") + 80:][:8]
    return int.from_bytes(size[:4], "big") >> 16, int.from_bytes(size[4:], "big") >> 16


if __name__ == "__main__":
    unittest.main()
