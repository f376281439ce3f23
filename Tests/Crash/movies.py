"""A movie to be interrupted, and what must be left of it.

The oracle is an uninterrupted wrap of the same input as ffprobe sees it: where every packet lies, and what it holds.
How much of that was on disk when something went wrong shows in the file that was left.
"""

import hashlib
import json
import math
import mmap
import os
import shutil
import subprocess
import tempfile
from collections import Counter
from fractions import Fraction
from pathlib import Path

MEDIA_OFFSET = 1 << 20  # of the first sample, on volumes with blocks of up to 1 MiB
BLOCK = 20 << 20  # bytes that the writer collects
RATE = "30000/1001"
PCM = {"sowt": 4, "in24": 3}  # tag of the sound tracks, bytes of a sample
SIDES = ("tmcd", "text", "c608")  # tracks that go along with picture and sound


def reelmill():
    path = os.environ.get("REELMILL")
    if not path:
        raise RuntimeError("set REELMILL to the built command")
    return path


class Done:
    """How a command ended."""

    def __init__(self, command, code, out, err):
        self.command, self.code, self.out, self.err = [str(word) for word in command], code, out, err

    def __str__(self):
        return f"{' '.join(self.command)}\n  ended with {self.code}\n  stdout: {self.out}\n  stderr: {self.err}"


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True)
    return Done(command, done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace"))


def must(*command):
    done = run(*command)
    if done.code != 0:
        raise RuntimeError(str(done))
    return done.out


# ---- Readers --------------------------------------------------------------------------------------------------------


class Stream:
    """A track as ffprobe sees it. A row is a packet: (time, duration, size, offset, digest); of sound, a reader packs
    several samples into one."""

    def __init__(self, tag, scale):
        self.tag, self.scale, self.rows = tag, scale, []

    def count(self):
        unit = PCM.get(self.tag)
        return sum(row[2] for row in self.rows) // unit if unit else len(self.rows)


def read_streams(path):
    """By tag of the format. Complaints of the reader are an error."""
    done = run("ffprobe", "-v", "error", "-show_packets", "-show_data_hash", "md5", "-show_streams", "-show_entries",
               "packet=stream_index,pts,duration,size,pos,data_hash:stream=index,codec_tag_string,time_base",
               "-of", "compact=nk=1", path)
    if done.code != 0 or done.err:
        raise AssertionError(f"ffprobe does not like the movie: {done.err}")
    streams = {}
    packets = {}
    for line in done.out.splitlines():
        kind, *fields = line.split("|")
        if kind == "packet":
            index, *numbers, digest = fields
            packets.setdefault(int(index), []).append((*map(int, numbers), digest))
        elif kind == "stream" and fields[0].isdigit():
            streams[int(fields[0])] = Stream(fields[1], int(fields[2].split("/")[1]))
    for index, rows in packets.items():
        streams[index].rows = rows
    found = {stream.tag: stream for stream in streams.values()}
    if len(found) != len(streams):
        raise AssertionError(f"two streams of one format: {[s.tag for s in streams.values()]}")
    return found


def read_chapters(path):
    """(start, end, title), times in seconds."""
    text = must("ffprobe", "-v", "error", "-show_chapters", "-of", "json", path)
    return [(float(c["start_time"]), float(c["end_time"]), c["tags"]["title"]) for c in json.loads(text)["chapters"]]


def read_samples(path, tag):
    """What ffprobe does not show as the file has it: chapters, which it takes for itself, and captions, which it packs
    anew. (time, duration, size, offset, digest)"""
    tracks = json.loads(must(reelmill(), "info", "--json", path))["tracks"]
    numbers = [track["id"] for track in tracks if track.get("format") == f"'{tag}'"]
    if not numbers:
        return []
    samples = json.loads(must(reelmill(), "info", "--json", "--samples", numbers[0], path))["samples"]
    with open(path, "rb") as file:
        rows = []
        for s in samples:
            file.seek(s["offset"])
            rows.append((s["time"], s["duration"], s["size"], s["offset"],
                         hashlib.md5(file.read(s["size"])).hexdigest()))
        return rows


def verify(path):
    """Bytes of media that belong to no track. Any other finding is an error, be it a note."""
    done = run(reelmill(), "verify", "--json", path)
    found = json.loads(done.out)
    findings = [finding for file in found for finding in file["findings"]]
    unused = [finding for finding in findings if finding["check"] == "media-unused"]
    if done.code != 0 or done.err or len(unused) != len(findings):
        raise AssertionError(f"the movie is not clean: {done}")
    return int(unused[0]["what"].split()[0]) if unused else 0


# ---- Source ---------------------------------------------------------------------------------------------------------


class Source:
    """Media files with two video and two sound tracks, one of which is longer than the pictures, and the files of
    chapters and captions. Black parts and silence are bytes of zero, at ends of frames too, so that a tail of zeros may
    be media or not."""

    def __init__(self, folder, seconds):
        self.folder = Path(folder)
        self.picture = self.folder / "picture.mov"
        self.small = self.folder / "small.mov"
        self.sound = self.folder / "sound.wav"
        self.chapters = self.folder / "chapters.txt"
        self.captions = self.folder / "captions.scc"
        ffmpeg = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
        must(*ffmpeg,
             "-f", "lavfi", "-i", f"testsrc2=s=640x360:r={RATE}:d={seconds},format=rgb24,"
             "drawbox=y=240:h=120:color=black:t=fill:enable='lt(mod(n,7),2)',"
             "drawbox=color=black:t=fill:enable='between(mod(n,150),60,80)'",
             "-f", "lavfi", "-i", f"sine=r=48000:d={seconds},aformat=channel_layouts=stereo,"
             "volume=0:enable='between(t,2,3)'",
             "-c:v", "rawvideo", "-pix_fmt", "rgb24", "-c:a", "pcm_s16le", self.picture)
        must(*ffmpeg, "-f", "lavfi", "-i", f"testsrc2=s=160x90:r={RATE}:d={seconds},noise=alls=30:allf=t",
             "-c:v", "mjpeg", "-pix_fmt", "yuvj420p", self.small)
        must(*ffmpeg, "-f", "lavfi", "-i", f"sine=f=300:r=48000:d={seconds + 2}", "-c:a", "pcm_s24le", self.sound)
        self.chapters.write_text("".join(f"00:00:{second:02}.{second * 7 % 1000:03} Chapter {second}\n"
                                         for second in range(seconds)))
        self.captions.write_text("Scenarist_SCC V1.0\n" + "".join(
            f"\n01:00:{second:02};10\t9420 9420 94d0 94d0 c8e5 ecec ef80 942f 942f\n" for second in range(seconds)))

    def inputs(self):
        return [self.picture, self.small, self.sound, "--timecode", "01:00:00;00", "--chapters", self.chapters,
                "--captions", self.captions, "--meta", "title=To be interrupted"]

    def check(self, movie):
        """The uninterrupted movie holds the packets of the source."""
        for path, tags in ((self.picture, ("raw ", "sowt")), (self.small, ("jpeg",)), (self.sound, ("in24",))):
            def bytes_of(file, kind):
                return must("ffmpeg", "-v", "error", "-i", file, "-map", kind, "-c", "copy", "-f", "md5", "-")
            def packets_of(file, kind):
                return [line.split(",")[2:] for line in
                        must("ffmpeg", "-v", "error", "-i", file, "-map", kind, "-c", "copy",
                             "-f", "framemd5", "-").splitlines() if line[0] != "#"]
            for tag in tags:
                ours = {"raw ": "0:v:0", "jpeg": "0:v:1", "sowt": "0:a:0", "in24": "0:a:1"}[tag]
                kind, read = ("0:a", bytes_of) if tag in PCM else ("0:v", packets_of)
                if read(path, kind) != read(movie, ours):
                    raise AssertionError(f"{movie} does not hold the packets of {path}")


class ManySource:
    """A video track of so many small packets that the 'moov' needs more than the room in front of the media."""

    def __init__(self, folder, loops):
        self.folder = Path(folder)
        first, self.picture = self.folder / "few.mov", self.folder / "many.mov"
        ffmpeg = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
        must(*ffmpeg, "-f", "lavfi", "-i", "testsrc2=s=32x32:r=60:d=50,noise=alls=20:allf=t", "-c:v", "mjpeg",
             "-pix_fmt", "yuvj420p", first)
        must(*ffmpeg, "-stream_loop", loops - 1, "-i", first, "-c", "copy", self.picture)

    def inputs(self):
        return [self.picture, "--chunk", "frames=1"]

    def check(self, movie):
        pass


# ---- Oracle ---------------------------------------------------------------------------------------------------------


class Reference:
    """The uninterrupted movie."""

    def __init__(self, source):
        self.source = source
        self.path = source.folder / "whole.mov"
        done = run(reelmill(), "wrap", *source.inputs(), "-q", "-o", self.path)
        if done.code != 0:
            raise RuntimeError(str(done))
        self.notes = done.err
        source.check(self.path)
        self.streams = self._read(self.path)
        self.chapters = read_chapters(self.path)
        self.end = max(row[3] + row[2] for stream in self.streams.values() for row in stream.rows)

    @staticmethod
    def _read(path):
        streams = read_streams(path)
        for tag in ("text", "c608"):
            if tag in streams:
                streams[tag].rows = read_samples(path, tag)
        return streams

    def whole_end(self, path):
        """Up to which offset a file holds the media of the movie."""
        with open(self.path, "rb") as ours, open(path, "rb") as theirs:
            if os.fstat(theirs.fileno()).st_size <= MEDIA_OFFSET:
                return MEDIA_OFFSET
            with mmap.mmap(ours.fileno(), 0, access=mmap.ACCESS_READ) as a, \
                 mmap.mmap(theirs.fileno(), 0, access=mmap.ACCESS_READ) as b:
                end = min(self.end, len(b))
                step = 1 << 20
                for offset in range(MEDIA_OFFSET, end, step):
                    one, two = a[offset:min(offset + step, end)], b[offset:min(offset + step, end)]
                    if one != two:
                        return offset + next(i for i in range(len(one)) if one[i] != two[i])
                return end

    def has_media(self, end):
        """Whether any sample of picture or sound lies in front of an offset."""
        return any(tag not in SIDES for tag in self.expect(end))

    def kept_end(self, end):
        """Where the last sample of picture or sound ends that lies in front of an offset."""
        return max((stream.rows[-1][3] + stream.rows[-1][2] for tag, stream in self.expect(end).items()
                    if tag not in SIDES), default=0)

    def known_end(self, path, end):
        """Where a file that ends in zeros ends for certain: whether silence was on disk, nobody can tell."""
        in_sound = any(row[3] <= end < row[3] + row[2] for tag in PCM if tag in self.streams
                       for row in self.streams[tag].rows)
        if not in_sound:
            return end
        with open(path, "rb") as file:
            file.seek(MEDIA_OFFSET)
            return min(end, MEDIA_OFFSET + len(file.read().rstrip(b"\0")))

    def expect(self, end):
        """The streams as they are when the media up to an offset is there, without those that have nothing."""
        streams = {}
        for tag, stream in self.streams.items():
            rows = []
            for time, duration, size, offset, digest in stream.rows:
                if offset + size <= end:
                    rows.append((time, duration, size, offset, digest))
                elif tag in PCM and end - offset >= PCM[tag]:
                    count = (end - offset) // PCM[tag]
                    size = count * PCM[tag]
                    with open(self.path, "rb") as file:
                        file.seek(offset)
                        rows.append((time, count, size, offset, "MD5:" + hashlib.md5(file.read(size)).hexdigest()))
                if offset >= end:
                    break
            if rows:
                streams[tag] = Stream(tag, stream.scale)
                streams[tag].rows = rows
        seconds = media_seconds(streams)
        for tag in SIDES:
            if tag in streams and seconds > 0 and end < self.end:
                last = media_seconds({t: s for t, s in streams.items() if t not in PCM}) if tag == "tmcd" else seconds
                fit(streams[tag], nearest((last or seconds) * streams[tag].scale))
        return {tag: stream for tag, stream in streams.items() if stream.rows}

    def check(self, path, least=None, exactly=None, early=False, torn=False):
        """Holds a movie against the uninterrupted one.

        least: whatever lies in front of this offset was on disk, and must be in the movie
        exactly: and no more
        early: the movie was closed before its end, so that its last captions lie elsewhere
        torn: and the last of them may not have been on disk
        Returns the offset up to which the media is in the movie.
        """
        unused = verify(path)
        found = self._read(path)
        ends = [row[3] + row[2] for tag, stream in found.items() if tag != "c608" or not early for row in stream.rows]
        end = exactly if exactly is not None else max(ends, default=0)
        expected = self.expect(end)
        if early and "c608" in self.streams and end < self.end:
            captions = Stream("c608", self.streams["c608"].scale)
            captions.rows = self.streams["c608"].rows
            seconds = media_seconds({"raw ": expected["raw "]}) if "raw " in expected else 0
            fit(captions, nearest(seconds * captions.scale))
            if captions.rows:
                if torn and "c608" in found:
                    captions.rows = captions.rows[:max(len(found["c608"].rows), len(self.expect(least or 0).get(
                        "c608", captions).rows))]
                expected["c608"] = captions
                for stream in (captions, found.get("c608", captions)):
                    stream.rows = [(*row[:3], 0, row[4]) for row in stream.rows]
        if least is not None:
            for tag, stream in self.expect(least).items():
                if tag not in SIDES and (tag not in found or found[tag].count() < stream.count()):
                    raise AssertionError(f"'{tag}' has lost samples that were on disk: it has "
                                         f"{found[tag].count() if tag in found else 0} of {stream.count()}")
        if sorted(found) != sorted(expected):
            raise AssertionError(f"the movie has the tracks {sorted(found)}, and should have {sorted(expected)}")
        for tag in PCM.keys() & expected.keys():
            expected[tag].rows = join(expected[tag].rows, self.path)
            found[tag].rows = join(found[tag].rows, path)
        for tag, stream in expected.items():
            if found[tag].scale != stream.scale:
                raise AssertionError(f"'{tag}' has another time scale: {found[tag].scale}")
            for number, (ours, theirs) in enumerate(zip(stream.rows, found[tag].rows)):
                if ours != theirs:
                    raise AssertionError(f"packet {number} of {len(stream.rows)} of '{tag}' is {theirs}, "
                                         f"and should be {ours}")
            if len(stream.rows) != len(found[tag].rows):
                raise AssertionError(f"'{tag}' has {len(found[tag].rows)} packets and {found[tag].count()} samples, "
                                     f"and should have {len(stream.rows)} and {stream.count()}")
        self._check_chapters(path, expected)
        cut = sum(row[2] for tag in SIDES if tag in self.streams for row in self.streams[tag].rows
                  if row[3] + row[2] <= end) - sum(row[2] for tag in SIDES if tag in found for row in found[tag].rows)
        if exactly is not None and unused != cut:
            raise AssertionError(f"{unused} bytes of media are not used, and {cut} have a reason")
        return end

    def _check_chapters(self, path, expected):
        rows = expected["text"].rows if "text" in expected and media_seconds(expected) > 0 else []
        scale = self.streams["text"].scale if rows else 1
        chapters = [(row[0] / scale, (row[0] + row[1]) / scale, chapter[2])
                    for row, chapter in zip(rows, self.chapters)]
        found = read_chapters(path)
        same = len(chapters) == len(found) and all(
            abs(a[0] - b[0]) < 1e-4 and abs(a[1] - b[1]) < 1e-4 and a[2] == b[2] for a, b in zip(chapters, found))
        if not same:
            raise AssertionError(f"the chapters are {found}, and should be {chapters}")


def nearest(number):
    """Halves go up."""
    return math.floor(number + Fraction(1, 2))


def media_seconds(streams):
    """Where picture and sound end."""
    return max((Fraction(stream.rows[-1][0] + stream.rows[-1][1], stream.scale)
                for tag, stream in streams.items() if tag not in SIDES and stream.rows), default=0)


def fit(stream, end):
    """Cuts a track that goes along with picture and sound to their end; timecode lasts until then."""
    stream.rows = [(time, min(duration, end - time), *rest) for time, duration, *rest in stream.rows if time < end]
    if stream.tag == "tmcd" and stream.rows:
        time, _, *rest = stream.rows[-1]
        stream.rows[-1] = (time, end - time, *rest)


# ---- Scenes ---------------------------------------------------------------------------------------------------------

_shared = {}
figures = Counter()  # What was tried, and what came of it: printed at the end.


def join(rows, path):
    """Sound as it lies in the file, whatever the packets: the reader makes them anew in each chunk, and a movie that ends
    within its first chunk has other chunks."""
    joined = []
    for time, duration, size, offset, _ in rows:
        if joined and time == joined[-1][0] + joined[-1][1] and offset == joined[-1][3] + joined[-1][2]:
            joined[-1][1] += duration
            joined[-1][2] += size
        else:
            joined.append([time, duration, size, offset])
    with open(path, "rb") as file:
        for row in joined:
            file.seek(row[3])
            row.append("MD5:" + hashlib.md5(file.read(row[2])).hexdigest())
    return [tuple(row) for row in joined]


def folder():
    """A folder for the whole run."""
    if "folder" not in _shared:
        _shared["folder"] = tempfile.TemporaryDirectory(prefix="reelmill-crash-")
    return Path(_shared["folder"].name)


def reference():
    if "reference" not in _shared:
        _shared["reference"] = Reference(Source(folder(), int(os.environ.get("CRASH_SECONDS", "8"))))
    return _shared["reference"]


def many_reference():
    if "many" not in _shared:
        path = folder() / "many"
        path.mkdir()
        _shared["many"] = Reference(ManySource(path, 45))
    return _shared["many"]


class Scene:
    """A folder in which one movie is written and finished."""

    def __init__(self, parent=None):
        self.folder = Path(tempfile.mkdtemp(prefix="scene-", dir=parent or folder()))
        self.out = self.folder / "out.mov"
        self.part = self.folder / "out.mov.part"
        self.journal = self.folder / "out.mov.part.journal"

    def part_size(self):
        """-1 when it is not there."""
        try:
            return self.part.stat().st_size
        except FileNotFoundError:
            return -1

    def clear(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def wrap_command(self, ref, *more):
        return [reelmill(), "wrap", *map(str, ref.source.inputs()), "-q", "-o", str(self.out), *more]

    def recover(self, *arguments, path=None):
        return run(reelmill(), "recover", path or self.out, *arguments)

    def names(self):
        return sorted(path.name for path in self.folder.iterdir())

    def state(self):
        """All files, and whether they were written to."""
        return {path.name: (info.st_ino, info.st_size, info.st_mtime_ns)
                for path in sorted(self.folder.iterdir()) for info in [path.stat()]}
