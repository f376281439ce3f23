"""What independent readers say about a movie file.

MediaInfo and GStreamer's discoverer exit with 0 on broken files too: what they say is compared, not that they ran.
"""

import hashlib
import json
import os
import re
import subprocess


def program(variable):
    """The program that an environment variable names."""
    path = os.environ.get(variable)
    if not path:
        raise RuntimeError(f"set {variable} to the built program")
    return path


def run(*command, check=True):
    """Standard output, as text. Standard error is part of the message when the command fails."""
    done = subprocess.run(command, capture_output=True)
    if check and done.returncode != 0:
        raise RuntimeError(f"{command} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    return done.stdout.decode()


def ffprobe(path):
    return json.loads(run("ffprobe", "-v", "quiet", "-show_format", "-show_streams", "-show_chapters", "-of", "json",
                          path))


def ffprobe_chapters(path):
    """Start, end (seconds) and title of each chapter."""
    return [(round(float(c["start_time"]), 4), round(float(c["end_time"]), 4), c["tags"]["title"])
            for c in ffprobe(path)["chapters"]]


def packets(path):
    """Per stream, the packets as the file holds them: (pts, duration, size, SHA-256 of the bytes)."""
    streams = {}
    text = run("ffmpeg", "-v", "quiet", "-i", path, "-map", "0", "-c", "copy",
               "-f", "framehash", "-hash", "sha256", "-")
    for line in text.splitlines():
        if not line.startswith("#"):
            stream, _, pts, duration, size, digest = (field.strip() for field in line.split(","))
            streams.setdefault(int(stream), []).append((int(pts), int(duration), int(size), digest))
    return streams


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def mediainfo(path):
    """The tracks as MediaInfo shows them; the first is the file itself ("General")."""
    return json.loads(run("mediainfo", "--Output=JSON", path))["media"]["track"]


def exiftool(path):
    """Numeric tag values by group: exiftool(path)["Track1"]["ImageWidth"]."""
    groups = {}
    for key, value in json.loads(run("exiftool", "-j", "-n", "-G1", path))[0].items():
        group, _, tag = key.rpartition(":")
        groups.setdefault(group, {})[tag] = value
    return groups


def gstreamer(path):
    """The discoverer's duration in seconds, its streams as (kind, caps, channel positions), and its tags."""
    text = run("gst-discoverer-1.0", "-v", path, check=False)
    found = re.search(r"^  Duration: (\d+):(\d+):(\d+\.\d+)$", text, re.MULTILINE)
    if not found:
        raise RuntimeError(f"the discoverer found no duration in {path}: {text}")
    hours, minutes, seconds = found.groups()
    streams = []
    for block in re.split(r"^    (?=\w+ #\d+: )", text, flags=re.MULTILINE)[1:]:
        kind, caps = re.match(r"(\w+) #\d+: (.*)", block).groups()
        channels = re.search(r"Channels: \d+ \((.*)\)", block)
        streams.append((kind, caps, channels.group(1) if channels else ""))
    tags = dict(re.findall(r"^      ([a-z ]+): (.*)$", text, re.MULTILINE))
    return int(hours) * 3600 + int(minutes) * 60 + float(seconds), streams, tags


def qtinfo(path):
    """libquicktime's report, as lines without indentation."""
    return [line.strip() for line in run("qtinfo", path).splitlines()]


def qtinfo_track_counts(path):
    """The numbers of sound, video and text tracks."""
    text = "\n".join(qtinfo(path))
    return tuple(int(re.search(rf"^(\d+) {kind} tracks\.$", text, re.MULTILINE).group(1))
                 for kind in ("audio", "video", "text"))
