"""Movies of other writers, as the command verifies and describes them: sound, without exception."""

import json
import os
import subprocess
import tempfile
import unittest

import readers

SECONDS = 2
VIDEO = ["-f", "lavfi", "-i", f"testsrc2=s=160x120:r=25:d={SECONDS}"]
ODD = ["-f", "lavfi", "-i", "testsrc2=s=163x121:r=25:d=0.2"]  # Rows and frames are filled up to whole blocks.
NTSC = ["-f", "lavfi", "-i", f"testsrc2=s=160x120:r=30000/1001:d={SECONDS}"]
SOUND = ["-f", "lavfi", "-i", f"sine=r=48000:d={SECONDS}"]
SURROUND = ["-f", "lavfi", "-i", f"sine=r=48000:d={SECONDS},pan=5.1|" + "|".join(f"c{i}=c0" for i in range(6))]
B_FRAMES = ["-c:v", "libx264", "-bf", "2", "-c:a", "aac"]

CHAPTERS = """;FFMETADATA1
title=Film
[CHAPTER]
TIMEBASE=1/1000
START=0
END=700
title=One
[CHAPTER]
TIMEBASE=1/1000
START=700
END=2000
title=Two
"""
SUBTITLES = "1\n00:00:00,200 --> 00:00:00,900\nHello\n\n2\n00:00:01,000 --> 00:00:01,500\nWorld\n"

PCM = ["pcm_s16le", "pcm_s16be", "pcm_s24le", "pcm_s24be", "pcm_s32le", "pcm_s32be", "pcm_f32le", "pcm_f32be",
       "pcm_f64le", "pcm_f64be", "pcm_u8", "pcm_s8", "pcm_alaw", "pcm_mulaw"]

# Encoded in one go: name of the file and ffmpeg's arguments.
ENCODED = {
    "b-frames.mov": VIDEO + SOUND + B_FRAMES,
    "b-frames.mp4": VIDEO + SOUND + B_FRAMES,
    "silent.mov": VIDEO + ["-c:v", "libx264", "-bf", "2"],
    "negative-composition.mp4": VIDEO + ["-c:v", "libx264", "-bf", "3", "-movflags", "negative_cts_offsets"],
    "hint.mp4": VIDEO + ["-c:v", "libx264", "-movflags", "rtphint"],
    "variable-rate.mp4": VIDEO + ["-vf", r"setpts=if(lt(N\,5)\,N\,N+7)/25/TB", "-fps_mode", "vfr", "-c:v", "libx264"],
    "one-frame.mov": VIDEO + ["-frames:v", "1", "-c:v", "mjpeg"],
    "mjpeg.mov": VIDEO + ["-c:v", "mjpeg"],
    "mjpeg.mp4": VIDEO + ["-c:v", "mjpeg"],
    "prores.mov": VIDEO + ["-c:v", "prores_ks"],
    "prores-alpha.mov": VIDEO + ["-c:v", "prores_ks", "-profile:v", "4", "-pix_fmt", "yuva444p10le"],
    "hevc.mp4": VIDEO + ["-c:v", "libx265"],
    "uncompressed.mov": VIDEO + ["-c:v", "rawvideo", "-pix_fmt", "uyvy422"],
    "v210.mov": VIDEO + ["-c:v", "v210"],
    "animation.mov": VIDEO + ["-c:v", "qtrle"],
    "png.mov": VIDEO + ["-c:v", "png"],
    **{f"raw-{pixels}.mov": ODD + ["-c:v", "rawvideo", "-pix_fmt", pixels]
       for pixels in ("rgb24", "argb", "bgra", "rgb555be", "rgb48be", "gray", "gray16be", "pal8", "monob", "uyvy422",
                      "yuyv422")},
    **{f"{codec}.mov": ODD + ["-c:v", codec]
       for codec in ("v308", "v408", "v410", "r210", "tiff", "targa", "jpeg2000", "libopenjpeg", "mjpeg")},
    "wide-pixels.mov": VIDEO + ["-vf", "setsar=10/11", "-c:v", "prores_ks", "-movflags", "write_colr"],
    "interlaced.mp4": VIDEO + ["-vf", "setsar=10/11", "-c:v", "libx264", "-x264opts", "tff=1"],
    "timecode.mov": VIDEO + ["-timecode", "01:00:00:00", "-c:v", "mpeg4"],
    "timecode.mp4": VIDEO + SOUND + ["-timecode", "01:00:00:00", "-c:v", "mpeg4", "-c:a", "aac"],
    "timecode-drop.mov": NTSC + SOUND + ["-timecode", "01:00:00;02", "-c:v", "prores_ks", "-c:a", "pcm_s16le"],
    "ima4.mov": SOUND + ["-c:a", "adpcm_ima_qt"],
    "ima4-stereo.mov": SOUND + ["-c:a", "adpcm_ima_qt", "-ac", "2"],
    "ms-adpcm.mov": SOUND + ["-c:a", "adpcm_ms"],
    "alac.mov": SOUND + ["-c:a", "alac"],
    "mp3.mov": SOUND + ["-c:a", "libmp3lame"],
    "ac3.mov": SURROUND + ["-c:a", "ac3"],
    "aac-surround.mov": SURROUND + ["-c:a", "aac"],
    "opus.mp4": SOUND + ["-c:a", "libopus"],
    "flac.mp4": SOUND + ["-c:a", "flac", "-strict", "-2"],
    "96-khz.mov": ["-f", "lavfi", "-i", f"sine=r=96000:d={SECONDS}", "-c:a", "pcm_s24le"],
    **{f"{codec}.mov": SOUND + ["-c:a", codec] for codec in PCM},
    **{f"{codec}-stereo.mov": SOUND + ["-c:a", codec, "-ac", "2"] for codec in PCM},
    **{f"{codec}-surround.mov": SURROUND + ["-c:a", codec] for codec in PCM},
}

# Copied out of b-frames.mov; arguments in front of and behind the input.
COPIED = {
    "faststart.mp4": ([], ["-movflags", "faststart"]),
    "faststart.mov": ([], ["-movflags", "faststart"]),
    "reserved.mp4": ([], ["-movflags", "faststart", "-moov_size", "100000"]),
    "fragments.mp4": ([], ["-movflags", "frag_keyframe+empty_moov"]),
    "fragments-after-samples.mp4": ([], ["-movflags", "frag_keyframe"]),
    "fragments-indexed.mp4": ([], ["-movflags", "frag_keyframe+default_base_moof+global_sidx"]),
    "dash.mp4": ([], ["-movflags", "dash"]),
    "smooth.ismv": ([], ["-f", "ismv"]),
    "late-start.mov": (["-ss", "0.7"], []),
    "late-start.mp4": (["-ss", "0.7"], []),
    "part.mov": (["-ss", "0.7", "-t", "0.5"], []),
    "no-edits.mp4": ([], ["-use_editlist", "0"]),
    "other-time-scale.mov": ([], ["-video_track_timescale", "30000"]),
    "encrypted.mp4": ([], ["-encryption_scheme", "cenc-aes-ctr", "-encryption_key", "00112233445566778899aabbccddeeff",
                           "-encryption_kid", "ffeeddccbbaa99887766554433221100"]),
    "phone.3gp": ([], ["-f", "3gp"]),
    "player.m4v": ([], ["-f", "ipod"]),
}

G_VIDEO = "videotestsrc num-buffers=50 ! video/x-raw,width=160,height=120,framerate=25/1 ! "
G_SOUND = "audiotestsrc num-buffers=90 ! audio/x-raw,rate=48000,channels=2 ! "
G_AAC = G_SOUND + "audioconvert ! avenc_aac ! aacparse ! "
# A pad that comes late is linked by name only.
G_COPY = "filesrc location={source} ! qtdemux name=d d.video_0 ! queue ! m.video_0 "

# GStreamer's element with its options, and what flows into it.
GSTREAMER = {
    "g-mjpeg.mov": ("qtmux", [G_VIDEO + "jpegenc ! "]),
    "g-png.mov": ("qtmux", [G_VIDEO + "videoconvert ! pngenc ! "]),
    "g-uncompressed.mov": ("qtmux", [G_VIDEO + "videoconvert ! video/x-raw,format=UYVY ! "]),
    "g-prores.mov": ("qtmux", [G_VIDEO + "videoconvert ! avenc_prores_ks ! "]),
    "g-aac.mov": ("qtmux", [G_VIDEO + "jpegenc ! ", G_AAC]),
    "g-s16le.mov": ("qtmux", [G_VIDEO + "jpegenc ! ", G_SOUND + "audioconvert ! audio/x-raw,format=S16LE ! "]),
    "g-s24be.mov": ("qtmux", [G_SOUND + "audioconvert ! audio/x-raw,format=S24BE ! "]),
    "g-alac.mov": ("qtmux", [G_SOUND + "audioconvert ! avenc_alac ! "]),
    "g-mp3.mov": ("qtmux", [G_SOUND + "audioconvert ! lamemp3enc ! mpegaudioparse ! "]),
    "g-opus.mov": ("qtmux", [G_SOUND + "audioconvert ! opusenc ! "]),
    "g-copy.mov": ("qtmux", [G_COPY, G_AAC]),
    "g-copy.mp4": ("mp4mux", [G_COPY, G_AAC]),
    "g-aac.mp4": ("mp4mux", [G_AAC]),
    "g-faststart.mov": ("qtmux faststart=true", [G_VIDEO + "jpegenc ! ", G_AAC]),
    "g-faststart.mp4": ("mp4mux faststart=true", [G_COPY, G_AAC]),
    "g-fragments.mov": ("qtmux fragment-duration=500", [G_VIDEO + "jpegenc ! ", G_AAC]),
    "g-fragments.mp4": ("mp4mux fragment-duration=500", [G_AAC]),
    "g-finished-fragments.mp4": ("mp4mux fragment-duration=500 fragment-mode=first-moov-then-finalise", [G_AAC]),
    "g-reserved.mov": ("qtmux reserved-max-duration=10000000000 reserved-moov-update-period=100000000",
                       [G_VIDEO + "jpegenc ! ", G_AAC]),
    "g-time-scales.mov": ("qtmux trak-timescale=30000 movie-timescale=600", [G_VIDEO + "jpegenc ! ", G_AAC]),
    "g-subtitles.mov": ("qtmux", [G_VIDEO + "jpegenc ! ", "filesrc location={subtitles} ! subparse ! "]),
}


def ffmpeg(*arguments):
    readers.run("ffmpeg", "-v", "error", "-nostdin", "-y", *arguments)


def make_together(files):
    """Makes files in one process, whose start takes most of the time: (inputs, options, path) each."""
    inputs, outputs, count = [], [], 0
    for sources, options, path in files:
        inputs += sources
        for _ in range(sources.count("-i")):
            outputs += ["-map", str(count)]
            count += 1
        outputs += [*options, path]
    ffmpeg(*inputs, *outputs)


def gstreamer(path, muxer, inputs, **files):
    branches = [branch + ("queue ! m." if branch.endswith("! ") else "") for branch in inputs]
    pipeline = f"{muxer} name=m ! filesink location={{path}} {' '.join(branches)}"
    # Paths are put in last: they may have spaces.
    readers.run("gst-launch-1.0", "-q", *(word.format(path=path, **files) for word in pipeline.split()))


class Foreign(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.source = cls.path("b-frames.mov")
        encoded = []
        for name, arguments in ENCODED.items():
            options = len(arguments) - arguments[::-1].index("-i") + 1
            encoded.append((arguments[:options], arguments[options:], cls.path(name)))
        for first in range(0, len(encoded), 16):
            make_together(encoded[first:first + 16])
        make_together([([*front, "-i", cls.source], ["-c", "copy", *behind], cls.path(name))
                       for name, (front, behind) in COPIED.items()])
        cls.add_side_tracks()
        for name, (muxer, inputs) in GSTREAMER.items():
            gstreamer(cls.path(name), muxer, inputs, source=cls.path("silent.mov"), subtitles=cls.path("titles.srt"))

    @classmethod
    def add_side_tracks(cls):
        """Chapters, subtitles, a picture, and sound that begins half a second late."""
        for name, text in (("chapters.txt", CHAPTERS), ("titles.srt", SUBTITLES)):
            with open(cls.path(name), "w", encoding="ascii") as file:
                file.write(text)
        ffmpeg("-f", "lavfi", "-i", "color=red:s=64x64", "-frames:v", "1", cls.path("cover.png"))
        for kind in ("mov", "mp4"):
            ffmpeg("-i", cls.source, "-i", cls.path("chapters.txt"), "-map_metadata", "1", "-map_chapters", "1",
                   "-c", "copy", cls.path("chapters." + kind))
            ffmpeg("-i", cls.source, "-i", cls.path("titles.srt"), "-map", "0", "-map", "1", "-c", "copy",
                   "-c:s", "mov_text", cls.path("subtitles." + kind))
        ffmpeg("-i", cls.path("chapters.mov"), "-c", "copy", "-movflags", "use_metadata_tags",
               cls.path("metadata-keys.mov"))
        ffmpeg("-i", cls.source, "-i", cls.path("cover.png"), "-map", "0", "-map", "1", "-c", "copy",
               "-disposition:v:1", "attached_pic", cls.path("picture.mp4"))
        ffmpeg("-itsoffset", "0.5", "-i", cls.source, "-i", cls.source, "-map", "1:v", "-map", "0:a", "-c", "copy",
               cls.path("late-sound.mov"))
        ffmpeg("-ss", "0.5", "-i", cls.path("timecode-drop.mov"), "-map", "0:v", "-map", "0:a", "-c", "copy",
               cls.path("timecode-part.mov"))

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @classmethod
    def path(cls, name):
        return os.path.join(cls.folder.name, name)

    def movies(self):
        suffixes = (".mov", ".mp4", ".m4v", ".3gp", ".ismv")
        return sorted(name for name in os.listdir(self.folder.name) if name.endswith(suffixes))

    def test_all_are_sound(self):
        paths = [self.path(name) for name in self.movies()]
        self.assertGreaterEqual(len(paths), len(ENCODED) + len(COPIED) + len(GSTREAMER))
        done = subprocess.run([readers.program("REELMILL"), "verify", "--json", *paths], capture_output=True)
        results = json.loads(done.stdout)
        self.assertEqual([result["file"] for result in results], paths)
        for result in results:
            with self.subTest(os.path.basename(result["file"])):
                errors = [finding for finding in result["findings"] if finding["severity"] == "error"]
                self.assertEqual((result["sound"], errors), (True, []))
        self.assertEqual(done.returncode, 0)

    def test_frames_of_two_sizes_are_not_sound(self):
        movie = self.path("sizes.bin")
        for codec in ("png", "mjpeg"):
            with self.subTest(codec):
                for index, size in enumerate(("160x120", "160x120", "120x160")):
                    ffmpeg("-f", "lavfi", "-i", f"testsrc2=s={size}:d=1", "-frames:v", "1", "-c:v", codec,
                           "-f", "image2", self.path(f"size{index}.{codec[:4]}"))
                ffmpeg("-f", "image2", "-c:v", codec, "-i", self.path(f"size%d.{codec[:4]}"), "-c", "copy",
                       "-f", "mov", movie)
                done = subprocess.run([readers.program("REELMILL"), "verify", "--json", movie], capture_output=True)
                self.assertEqual(["picture"], [found["check"] for found in json.loads(done.stdout)[0]["findings"]
                                               if found["severity"] == "error"])
                self.assertEqual(done.returncode, 4)

    def test_descriptions_agree_with_ffprobe(self):
        for name in self.movies():
            with self.subTest(name):
                described = json.loads(readers.run(readers.program("REELMILL"), "info", "--json", self.path(name)))
                tracks = {track["id"]: track for track in described["tracks"]}
                compared = 0
                for stream in readers.ffprobe(self.path(name))["streams"]:
                    track = tracks.get(int(stream.get("id", "0"), 0))
                    if track and track["kind"] in ("video", "sound"):
                        self.compare(track, stream)
                        compared += 1
                self.assertGreater(compared, 0)

    def compare(self, track, stream):
        self.assertEqual(track["kind"], {"video": "video", "audio": "sound"}[stream["codec_type"]])
        self.assertEqual(track["timeScale"], int(stream["time_base"].split("/")[1]))
        if track["kind"] == "video":
            self.assertEqual((track["video"]["width"], track["video"]["height"]), (stream["width"], stream["height"]))
            # It does not say what lies in fragments.
            if "nb_frames" in stream:
                self.assertEqual(track["samples"], int(stream["nb_frames"]))
        elif stream["codec_name"] in PCM:
            self.assertEqual(track["sound"]["channels"], stream["channels"])
            self.assertEqual(track["sound"]["sampleRate"], int(stream["sample_rate"]))


if __name__ == "__main__":
    unittest.main()
