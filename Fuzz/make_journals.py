"""Makes the seeds of the fuzzer of journals.

usage: make_journals.py CORPUS

Recovery/JournalRecords.h has the format of a journal, JournalFuzz.cpp that of a seed.
"""

import pathlib
import struct
import sys

VIDEO, SOUND, TIMECODE, TEXT = 256, 257, 258, 260
MOVIE_DATA = (1 << 64) - 1  # "track" of an item of the movie
SAMPLE, TRACK, SIZE, COUNT, DURATION, ZEROS, CHUNK = 0x80, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20
SIZES, TIMES = 0x40, 0x20
TEXT_ENTRY = struct.pack(">I4sQ", 16, b"text", 1)


def number(value):
    """Unsigned LEB128."""
    encoded = b""
    while value >= 0x80:
        encoded += bytes([value & 0x7F | 0x80])
        value >>= 7
    return encoded + bytes([value])


def record(kind, *fields):
    """Numbers, and bytes with their length."""
    return bytes([kind]) + b"".join(
        number(field) if isinstance(field, int) else number(len(field)) + field for field in fields)


def movie(room):
    return record(1, 600, room, 1700000000)


def track(media_type, time_scale, entry=TEXT_ENTRY, geometry=(0,)):
    return record(2, media_type, time_scale, 64, 48, entry, *geometry)


def description(index, entry):
    return record(3, index, entry, 0)


def end_chunk(index):
    return record(4, index)


def trim_in(index, time):
    return record(5, index, time & 0xFFFFFFFF)


def user_data(index, payload):
    return record(6, index, 0x6E616D65, payload)


def reference(index, referenced, kind):
    return record(7, index, referenced, kind)


def probe(offset, content):
    return record(8, offset, len(content), crc32c(content))


REVOCATION = record(9)
CLOSING = record(10)


def sample(index=None, size=None, count=None, duration=None, zeros=None, chunk=0):
    fields = [(TRACK, index), (SIZE, size), (COUNT, count), (DURATION, duration), (ZEROS, zeros)]
    flags = chunk + sum(flag for flag, value in fields if value is not None)
    return record(SAMPLE | flags, *(value for _, value in fields if value is not None))


def sizes(*values):
    return record(SIZES + len(values) - 1, *(2 * size for size in values))


def times(*rows):
    """Rows of size, zeros and duration."""
    fields = [(2 * size + (zeros > 0), *[zeros][:zeros], duration) for size, zeros, duration in rows]
    return record(TIMES + len(rows) - 1, *(field for row in fields for field in row))


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


def seed(room, media, *frames):
    framed = b"".join(bytes([len(records)]) + records for records in frames)
    return struct.pack(">BBH", 0, (room - 8) // 16, len(media)) + media + framed


def raw_seed(media, *frames):
    """The whole journal, and a movie whose 'moov' has no room in front."""
    journal = b"reeljrnl" + struct.pack(">I", 2)
    journal += struct.pack(">I", crc32c(journal))
    for records in frames:
        size = struct.pack(">I", len(records))
        journal += size + struct.pack(">I", crc32c(struct.pack(">Q", len(journal)) + size + records)) + records
    return struct.pack(">BBH", 1, 0, len(media)) + media + journal


def main(corpus):
    media = bytes(range(1, 101))
    large_room = 8 + 16 * 255
    geometry = (1, 64, 48, 10, 11, 1, 60, 1, 48, 1, 0, 1, 0, 1)
    start = 48  # of media, behind a room of 0 bytes
    seeds = {
        "finished": seed(large_room, media, movie(large_room), track(VIDEO, 25, geometry=geometry),
                         probe(start + large_room, media[:20]) + sample(0, 20, 1, 1) + sample() + end_chunk(0),
                         sample() + sample(size=40) + CLOSING),
        "cut": seed(8, media, movie(8), track(SOUND, 48000), sample(0, 40, 10, 3) + end_chunk(0) + sample(),
                    sample() + sample(size=400)),
        "zeros": seed(large_room, media[:50] + bytes(50), movie(large_room), track(VIDEO, 25),
                      sample(0, 30, 1, 1) + sample(zeros=10) + sample(zeros=30)),
        "side-tracks": seed(large_room, media, movie(large_room),
                            track(VIDEO, 25) + track(TIMECODE, 25) + track(TEXT, 1000),
                            sample(1, 4, 1, 90000) + sample(2, 6, 1, 100) + sample(duration=60000) + sample(),
                            sample(0, 20, 1, 1) + sample() + sample() + sample() + sample()),
        "in-turn": seed(large_room, media, movie(large_room), track(VIDEO, 25) + track(SOUND, 48000),
                        sample(0, 10, 1, 1, chunk=CHUNK) + sample(1, 4, 1, 1) + sample(0, 10) + sizes(4, 9, 5, 11, 3),
                        times((4, 0, 2), (9, 1, 1)) + record(11, 2) + sample(chunk=CHUNK) + sizes(*range(1, 20))),
        "all-kinds": seed(large_room, media, movie(large_room), track(VIDEO, 25) + track(TEXT, 25),
                          trim_in(0, 50) + trim_in(1, -1) + user_data(MOVIE_DATA, b"title") + user_data(1, b""),
                          reference(0, 1, 257) + reference(1, 0, 256) + description(1, TEXT_ENTRY + b"more"),
                          sample(0, 30, 3, 2) + REVOCATION + sample(1, 10, 2, 1) + sample(0) + sample()),
        "raw": raw_seed(media, movie(8), track(VIDEO, 25), probe(start + 8, media[:50]) + sample(0, 50, 1, 1)),
    }
    for name, content in seeds.items():
        (pathlib.Path(corpus) / name).write_bytes(content)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
