"""Makes the seeds of the fuzzer out of movies that the library wrote.

usage: make_corpus.py FOLDER-OF-MOVIES CORPUS

A seed keeps 'ftyp', 'moov' and the first bytes of 'mdat'; chunk offsets move along. Movies whose 'moov' is too large
for a seed are left out.
"""

import pathlib
import struct
import sys

MAX_MOVIE_ATOM = 4096
MEDIA = 48  # bytes that a seed keeps

CONTAINERS = {b"moov", b"trak", b"mdia", b"minf", b"stbl"}


def atoms(data, begin, end):
    """Offset, size and type of the atoms in a range."""
    while begin + 8 <= end:
        size, kind = struct.unpack_from(">I4s", data, begin)
        if size == 1:
            size = struct.unpack_from(">Q", data, begin + 8)[0]
        yield begin, size, kind
        begin += size


def shift_chunks(movie, begin, end, distance):
    """Moves the chunk offsets of a 'moov' in place."""
    for offset, size, kind in atoms(movie, begin, end):
        if kind in CONTAINERS:
            shift_chunks(movie, offset + 8, offset + size, distance)
        elif kind == b"stco":
            for entry in range(offset + 16, offset + size, 4):
                struct.pack_into(">I", movie, entry, struct.unpack_from(">I", movie, entry)[0] + distance)


def seed(data):
    top = {kind: (offset, size) for offset, size, kind in atoms(data, 0, len(data))}
    if top[b"moov"][1] > MAX_MOVIE_ATOM:
        return None
    head, movie = (bytearray(data[offset:offset + size]) for offset, size in (top[b"ftyp"], top[b"moov"]))
    old_media = top[b"mdat"][0] + 8
    media = data[old_media:old_media + MEDIA]
    shift_chunks(movie, 0, len(movie), len(head) + len(movie) + 8 - old_media)
    return bytes(head + movie) + struct.pack(">I4s", 8 + len(media), b"mdat") + media


def main(source, corpus):
    for path in sorted(pathlib.Path(source).glob("*.mov")):
        content = seed(path.read_bytes())
        if content:
            (pathlib.Path(corpus) / path.stem).write_bytes(content)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
