"""A second, independent writer of the same movies, kept as simple as the file format's own tables.

`Process.run(script, volume)` takes a script of calls (the same that ReelmillReplay takes, see replay.cpp) and returns
what a correct library does with it: the value of every call, the reports in order, the trace, and every byte of the
file. Speed and memory do not matter here; each builder reads from top to bottom as the atom's table.
"""

import functools
import struct
from dataclasses import dataclass, field
from typing import NamedTuple, Optional

# ---- Results ---------------------------------------------------------------------------------------------------------

OK = 0
UNKNOWN_TRACK_ID = 0xA0810001
UNKNOWN_MEDIA_TYPE = 0xA0810002
NULL_USER_DATA = 0xA0810003
BAD_STATE = 0xA0810004
BAD_ARGUMENT = 0xA0810005
TOO_LARGE = 0xA0810006
FAILED = 0xA00F0001
OUT_OF_MEMORY = 0xA00F0006
SYSTEM_ERROR = 0xA00E0000  # + errno

ENOENT, EISDIR, EILSEQ = 2, 21, 84

#: What `Create` gives for the paths that cannot be created.
PATH_ERRORS = {
    (): SYSTEM_ERROR + ENOENT,
    tuple(b"/"): SYSTEM_ERROR + EISDIR,
    tuple(b"/no/such/folder/movie.mov"): SYSTEM_ERROR + ENOENT,
    (0xD800,): SYSTEM_ERROR + EILSEQ,
}

#: What `NewMovieTrack` leaves in a track ID that it does not write.
UNTOUCHED = 0xDEADBEEF

# ---- Numbers ---------------------------------------------------------------------------------------------------------

VIDEO, SOUND, TIMECODE, CLOSED_CAPTION, TEXT = range(256, 261)


def u8(value):
    return struct.pack(">B", value & 0xFF)


def u16(value):
    return struct.pack(">H", value & 0xFFFF)


def u32(value):
    return struct.pack(">I", value & 0xFFFFFFFF)


def u64(value):
    return struct.pack(">Q", value & 0xFFFFFFFFFFFFFFFF)


def code(text):
    """A four-character code."""
    assert len(text) == 4
    return text.encode("latin-1")


def int32(value):
    """The low 32 bits, signed."""
    value &= 0xFFFFFFFF
    return value - 0x100000000 if value & 0x80000000 else value


def divide(numerator, denominator):
    """Integer division that truncates toward zero."""
    quotient = abs(numerator) // abs(denominator)
    return quotient if (numerator < 0) == (denominator < 0) else -quotient


def atom(kind, *parts):
    """A size, a type, and the parts: fields or complete atoms."""
    body = b"".join(parts)
    return u32(8 + len(body)) + (code(kind) if isinstance(kind, str) else u32(kind)) + body


MAX_ATOM_SIZE = 0x7FFFFFFF
UNITY_MATRIX = struct.pack(">9I", 0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000)
SECONDS_FROM_1904_TO_1970 = 2082844800


@functools.lru_cache(maxsize=16)
def data_bytes(seed, size):
    """The bytes that scripts hand over: byte i is (seed + i) modulo 251; all zero for a seed below 0."""
    if seed < 0:
        return bytes(size)
    start = seed % 251
    return (bytes(range(251)) * ((start + size) // 251 + 1))[start : start + size]


# ---- Reports ---------------------------------------------------------------------------------------------------------


class Report(NamedTuple):
    """An assertion report. A field of None may hold anything."""

    expression: Optional[str]
    message: Optional[str]
    function: Optional[str] = None


class Process:
    """What outlives a movie: the sites that a handler has silenced."""

    def __init__(self):
        self.silenced = set()

    def run(self, script, volume):
        return Movie(self, script, volume).run()


class Reporter:
    def __init__(self, process):
        self.process = process
        self.reports = []  # of (step, Report)
        self.step = 0
        self.silences = False

    def report(self, site, expression, message="", function=None):
        if site in self.process.silenced:
            return
        self.reports.append((self.step, Report(expression, message, function)))
        if self.silences:
            self.process.silenced.add(site)


class AssemblyFailed(Exception):
    """Ends the assembly of the movie atom with a result."""

    def __init__(self, result):
        super().__init__(result)
        self.result = result


# ---- Time ------------------------------------------------------------------------------------------------------------

OVERFLOW = (
    "Signed 32-bit overflow in %s.  Do not ignore this problem.  "
    "The file is being written in an invalid state.\n"
)


def rescale(reporter, time, from_scale, to_scale):
    if from_scale == 0:
        reporter.report("rescale zero", "inSrcTimeScale != 0")
        return 0
    result = divide(time * to_scale, from_scale)
    if not 0 <= result <= 0x7FFFFFFF:
        reporter.report(
            "rescale overflow",
            "(result & 0xFFFFFFFF80000000LL) == 0",
            OVERFLOW % "ConvertSrcTimeToDestTimescale",
        )
    return int32(result)


# ---- Sample descriptions ---------------------------------------------------------------------------------------------


def entry_header(kind):
    return [
        kind,       #  4 data format
        bytes(6),   #  8 reserved
        u16(1),     # 14 data reference index
    ]


def sized(parts):
    """An entry: its own size in front of everything else."""
    body = b"".join(parts)
    return u32(4 + len(body)) + body


class Description:
    """What every sample description answers."""

    is_image = False

    def entry(self, _reporter):
        raise NotImplementedError


class TextDescription(Description):
    def entry(self, _reporter):
        return sized(
            entry_header(code("text"))
            + [
                u32(0),                             # 16 display flags
                u32(0),                             # 20 justification
                u16(0), u16(0), u16(0),             # 24 background colour
                u16(0), u16(0), u16(0), u16(0),     # 30 default text box
                u32(0),                             # 38 start character
                u16(16),                            # 42 line height
                u16(13),                            # 44 ascent
                u16(0),                             # 46 font number
                u16(0),                             # 48 face
                u16(12),                            # 50 font size
                u16(0), u16(0), u16(0),             # 52 foreground colour
                u8(0),                              # 58 font name, empty
            ]
        )


class ClosedCaptionDescription(Description):
    def entry(self, _reporter):
        return sized(entry_header(code("c608")))


@dataclass
class TimecodeDescription(Description):
    time_scale: int
    frame_duration: int
    frames: int
    drop_frame: bool

    def entry(self, _reporter):
        return sized(
            entry_header(code("tmcd"))
            + [
                u32(0),                             # 16 reserved
                u32(1 if self.drop_frame else 0),   # 20 flags
                u32(self.time_scale),               # 24
                u32(self.frame_duration),           # 28
                u8(self.frames),                    # 32
                u8(0),                              # 33 reserved
            ]
        )


@dataclass
class HostDescription(Description):
    """The host's own class: any bytes, or an exception."""

    content: bytes
    throws: bool = False

    def entry(self, _reporter):
        if self.throws:
            raise MemoryError
        return self.content


def utf8(units):
    """UTF-8 of UTF-16 code units; a lone surrogate becomes U+FFFD."""
    text = ""
    i = 0
    while i < len(units):
        unit = units[i]
        i += 1
        if 0xD800 <= unit <= 0xDBFF and i < len(units) and 0xDC00 <= units[i] <= 0xDFFF:
            text += chr(0x10000 + ((unit - 0xD800) << 10) + (units[i] - 0xDC00))
            i += 1
        elif 0xD800 <= unit <= 0xDFFF:
            text += "\uFFFD"
        else:
            text += chr(unit)
    return text.encode("utf-8")


#: Field count and field detail by field type; any other type is progressive.
FIELDS = {1: (2, 9), 2: (2, 14)}


@dataclass
class ImageDescription(Description):
    codec: int
    name: list
    width: int
    height: int
    depth: int
    field_type: int
    aspect: tuple
    temporal_quality: int = 0
    spatial_quality: int = 1024
    color: Optional[tuple] = None
    clean_aperture: Optional[tuple] = None
    gamma: int = -1
    vendor: int = 0x6170706C
    revision: int = 0
    omits_field: bool = False
    padding: int = 0
    extensions: list = field(default_factory=list)

    is_image = True

    def entry(self, _reporter):
        name = utf8(self.name)[:31]
        parts = entry_header(u32(self.codec)) + [
            u16(1),                     # 16 version
            u16(self.revision),         # 18
            u32(self.vendor),           # 20
            u32(self.temporal_quality), # 24
            u32(self.spatial_quality),  # 28
            u16(self.width),            # 32
            u16(self.height),           # 34
            u32(0x00480000),            # 36 horizontal resolution, 72 dpi
            u32(0x00480000),            # 40 vertical resolution
            u32(0),                     # 44 data size
            u16(1),                     # 48 frame count
            u8(len(name)),              # 50
            name.ljust(31, b"\0"),      # 51 compressor name
            u16(self.depth),            # 82
            u16(0xFFFF),                # 84 no colour table
        ]
        for kind, payload in self.extensions:
            parts.append(atom(kind, payload))
        if self.color is not None:
            parts.append(atom("colr", code("nclc"), *map(u16, self.color)))
        if not self.omits_field:
            parts.append(atom("fiel", *map(u8, FIELDS.get(self.field_type, (1, 0)))))
        parts.append(atom("pasp", *map(u32, self.aspect)))
        if self.clean_aperture is not None:
            parts.append(atom("clap", *map(u32, self.clean_aperture)))
        if self.gamma != -1:
            parts.append(atom("gama", u32(0x00023333)))
        if self.padding > MAX_ATOM_SIZE:
            raise MemoryError
        parts.append(bytes(self.padding))
        return sized(parts)


class SampleType(NamedTuple):
    code: str
    bits: int
    flags: int              # version 2: 1 float, 2 big-endian, 4 signed integer, 8 packed
    little: Optional[int]   # 'enda' of the 'wave' atom; None: no 'wave'


SAMPLE_TYPES = {
    1: SampleType("raw ", 8, 8, None),
    2: SampleType("raw ", 8, 12, None),
    3: SampleType("sowt", 16, 12, None),
    4: SampleType("in24", 24, 12, 1),
    5: SampleType("in32", 32, 12, 1),
    6: SampleType("fl32", 32, 1, 1),
    10: SampleType("fl64", 64, 1, 1),
    11: SampleType("twos", 16, 14, 0),
    12: SampleType("in24", 24, 14, 0),
    13: SampleType("in32", 32, 14, 0),
    14: SampleType("fl32", 32, 3, 0),
}
UNSUPPORTED = SampleType("\0\0\0\0", -1, 12, 0)

#: File labels of the host's labels, without label 0.
CHANNEL_LABELS = {
    100: 1, 101: 2, 102: 3, 103: 4, 104: 5, 105: 6, 106: 9, 107: 7, 108: 8, 109: 10,
    110: 11, 111: 12, 112: 13, 113: 15, 114: 14, 115: 16, 116: 18, 117: 17, 118: 35, 119: 36,
    129: 33, 130: 34, 131: 37, 132: 38, 133: 39, 134: 200, 135: 201, 136: 202, 137: 203,
}
MONO, DISCRETE, UNKNOWN_LABEL = 42, 0x10000, 0xFFFFFFFF
STEREO_TAG = 0x00650002


@dataclass
class SoundDescription(Description):
    discrete_channel: int
    channels: int
    rate: int
    sample_type: int
    labels: list
    discrete: bool

    def code_of_type(self, reporter):
        if self.sample_type not in SAMPLE_TYPES:
            reporter.report(
                "sound code", "0", "",
                "std::uint32_t (anonymous namespace)::AudioSampleTypeToQTAudioFourCC(Sambrel::AudioSampleType)",
            )
        return code(SAMPLE_TYPES.get(self.sample_type, UNSUPPORTED).code)

    def bits(self, reporter):
        if self.sample_type not in SAMPLE_TYPES:
            reporter.report(
                "sound bits", "0", "",
                "std::int16_t (anonymous namespace)::AudioSampleTypeToBitsPerSample(Sambrel::AudioSampleType)",
            )
        return SAMPLE_TYPES.get(self.sample_type, UNSUPPORTED).bits

    def file_label(self, reporter, label, channel, single):
        if single and not self.discrete:
            return MONO
        if label == 0:
            return DISCRETE + channel if self.discrete else MONO
        if label not in CHANNEL_LABELS:
            reporter.report(
                "sound label", "0", "Unknown channel label!\n",
                "qtn_AudioChannelLabel (anonymous namespace)::MakeQTAudioChannelLabel(Quorlan::AudioChannelLabel, "
                "int, bool, bool)",
            )
        return CHANNEL_LABELS.get(label, UNKNOWN_LABEL)

    def channel_layout(self, reporter):
        if len(self.labels) != self.channels:
            reporter.report(
                "sound layout", "0", "Audio layout size doesn't match the number of channels\n",
                "void (anonymous namespace)::MakeAudioChannelLayoutAtom(Tolbin::utility::BinaryDataArray &, int, int, "
                "Quorlan::AudioChannelLayout &, bool)",
            )
            return b""
        stereo = self.labels == [100, 101]
        descriptions = []
        if stereo:
            descriptions.append(bytes(2 * 20))  # unused room
        else:
            for channel, label in enumerate(self.labels):
                single = self.channels == 1
                number = self.discrete_channel if single else channel
                descriptions.append(u32(self.file_label(reporter, label, number, single)))
                descriptions.append(bytes(16))  # flags and coordinates
        return atom(
            "chan",
            u32(0),                                 #  8 version and flags
            u32(STEREO_TAG if stereo else 0),       # 12 layout tag
            u32(0),                                 # 16 bitmap
            u32(0 if stereo else self.channels),    # 20 number of descriptions
            *descriptions,                          # 24
        )

    def version_1(self, reporter):
        kind = self.code_of_type(reporter)
        bits = self.bits(reporter)
        bytes_per_sample = divide(self.bits(reporter), 8)
        parts = entry_header(kind) + [
            u16(1),                                 # 16 version
            u16(0),                                 # 18 revision level
            u32(0x20202020),                        # 20 vendor
            u16(self.channels),                     # 24
            u16(bits),                              # 26 sample size
            u16(0xFFFF),                            # 28 compression ID
            u16(0),                                 # 30 packet size
            u32(self.rate << 16),                   # 32
            u32(1),                                 # 36 samples per packet
            u32(bytes_per_sample),                  # 40 bytes per packet
            u32(self.channels * bytes_per_sample),  # 44 bytes per frame
            u32(bytes_per_sample),                  # 48 bytes per sample
        ]
        little = SAMPLE_TYPES.get(self.sample_type, UNSUPPORTED).little
        if little is not None:
            parts.append(
                atom("wave", atom("frma", self.code_of_type(reporter)), atom("enda", u16(little)), atom(0))
            )
        return parts

    def version_2(self, reporter):
        bits = self.bits(reporter)
        return entry_header(code("lpcm")) + [
            u16(2),                                                             # 16 version
            u16(0),                                                             # 18 revision level
            u32(0x20202020),                                                    # 20 vendor
            u16(3),                                                             # 24 always
            u16(16),                                                            # 26 always
            u16(0xFFFE),                                                        # 28 always
            u16(0),                                                             # 30 always
            u32(0x00010000),                                                    # 32 always
            u32(72),                                                            # 36 size of this structure
            struct.pack(">d", self.rate),                                       # 40
            u32(self.channels),                                                 # 48
            u32(0x7F000000),                                                    # 52 always
            u32(bits),                                                          # 56 bits per channel
            u32(SAMPLE_TYPES.get(self.sample_type, UNSUPPORTED).flags),         # 60
            u32(divide(self.bits(reporter) * self.channels, 8)),                # 64 bytes per packet
            u32(1),                                                             # 68 frames per packet
        ]

    def entry(self, reporter):
        if self.channels <= 2 and 0 <= self.rate <= 65535:
            parts = self.version_1(reporter)
        else:
            parts = self.version_2(reporter)
        return sized(parts + [self.channel_layout(reporter)])


# ---- Tracks ----------------------------------------------------------------------------------------------------------


@dataclass
class Sample:
    offset: int
    count: int
    duration: int
    size: int
    ends_chunk: bool = False


@dataclass
class Track:
    track_id: int
    media_type: int
    time_scale: int
    width: int
    height: int
    description: Description
    duration: int = 0
    trim_in: int = 0
    references: dict = field(default_factory=dict)
    user_data: dict = field(default_factory=dict)
    samples: list = field(default_factory=list)
    explicit_chunking: bool = False


# ---- Header atoms ----------------------------------------------------------------------------------------------------


def movie_header(time_scale, duration, track_count, created):
    return atom(
        "mvhd",
        u32(0),                             #   8 version and flags
        u32(created),                       #  12 creation time
        u32(created),                       #  16 modification time
        u32(time_scale),                    #  20
        u32(duration),                      #  24
        u32(0x00010000),                    #  28 preferred rate
        u16(0x0100),                        #  32 preferred volume
        bytes(10),                          #  34 reserved
        UNITY_MATRIX,                       #  44
        u32(0),                             #  80 preview time
        u32(0),                             #  84 preview duration
        u32(0),                             #  88 poster time
        u32(0),                             #  92 selection time
        u32(0),                             #  96 selection duration
        u32(0),                             # 100 current time
        u32(track_count + 1),               # 104 next track ID
    )


TRACK_FLAGS = {VIDEO: 0xF, SOUND: 0x3, TIMECODE: 0x3, CLOSED_CAPTION: 0xF, TEXT: 0xF}


def track_header(reporter, movie_scale, track, number, created):
    duration = rescale(reporter, int32(track.duration + track.trim_in), track.time_scale, movie_scale)
    return atom(
        "tkhd",
        u32(TRACK_FLAGS[track.media_type]),                 #  8 version and flags
        u32(created),                                       # 12 creation time
        u32(created),                                       # 16 modification time
        u32(number),                                        # 20 track ID
        u32(0),                                             # 24 reserved
        u32(duration),                                      # 28
        bytes(8),                                           # 32 reserved
        u16(0),                                             # 40 layer
        u16(0),                                             # 42 alternate group
        u16(0x0100 if track.media_type == SOUND else 0),    # 44 volume
        u16(0),                                             # 46 reserved
        UNITY_MATRIX,                                       # 48
        u32(track.width << 16),                             # 84
        u32(track.height << 16),                            # 88
    )


def media_header(track, created):
    return atom(
        "mdhd",
        u32(0),                 #  8 version and flags
        u32(created),           # 12 creation time
        u32(created),           # 16 modification time
        u32(track.time_scale),  # 20
        u32(track.duration),    # 24
        u16(0),                 # 28 language
        u16(0),                 # 30 quality
    )


def edits(reporter, movie_scale, track):
    entries = []
    if track.trim_in > 0:
        entries.append((rescale(reporter, track.trim_in, track.time_scale, movie_scale), -1))
    entries.append((rescale(reporter, track.duration, track.time_scale, movie_scale), 0))
    table = [u32(duration) + u32(start) + u32(0x00010000) for duration, start in entries]
    return atom("edts", atom("elst", u32(0), u32(len(entries)), *table))


# ---- Handlers and media information ----------------------------------------------------------------------------------

#: Subtype, manufacturer, flags, flags mask, name.
HANDLERS = {
    VIDEO: ("vide", "appl", 0x00000001, 0x00000001, "Apple Video Media Handler"),
    SOUND: ("soun", "appl", 0x00000001, 0x00000001, "Apple Sound Media Handler"),
    TIMECODE: ("tmcd", "appl", 0x00000001, 0x00000001, "Time Code Media Handler"),
    CLOSED_CAPTION: ("clcp", "appl", 0x00000001, 0x00000001, "Apple Closed Caption Media Handler"),
    TEXT: ("text", "app2", 0x80000001, 0x00010029, "Apple Text Media Handler"),
}


def handler(component, subtype, manufacturer, flags, mask, name):
    return atom(
        "hdlr",
        u32(0),             #  8 version and flags
        code(component),    # 12
        code(subtype),      # 16
        code(manufacturer), # 20
        u32(flags),         # 24
        u32(mask),          # 28
        u8(len(name)),      # 32
        name.encode(),      # 33
    )


DATA_HANDLER = handler("dhlr", "alis", "appl", 0x00000001, 0x0001002E, "Apple Alias Data Handler")
DATA_INFORMATION = atom("dinf", atom("dref", u32(0), u32(1), atom("alis", u32(0x000001))))

GRAPHICS_MODE = u16(0x0040) + u16(0x8000) + u16(0x8000) + u16(0x8000)
GENERIC_INFORMATION = atom("gmin", u32(0), GRAPHICS_MODE, u16(0), u16(0))
TIMECODE_INFORMATION = atom(
    "tmcd",
    atom(
        "tcmi",
        u32(0),                         # version and flags
        u16(0),                         # text font
        u16(0),                         # text face
        u16(12),                        # text size
        u16(0),                         # reserved
        bytes(6),                       # text colour
        bytes.fromhex("0000FFFFFFFF"),  # background colour
        u8(6),
        b"System",                      # font name
    ),
)
MEDIA_INFORMATION_HEADERS = {
    VIDEO: atom("vmhd", u32(0x000001), GRAPHICS_MODE),
    SOUND: atom("smhd", u32(0), u16(0), u16(0)),
    TIMECODE: atom("gmhd", GENERIC_INFORMATION, TIMECODE_INFORMATION),
    CLOSED_CAPTION: atom("gmhd", GENERIC_INFORMATION),
    TEXT: atom("gmhd", GENERIC_INFORMATION, atom("text", UNITY_MATRIX)),
}


def fixed(value):
    """16.16 of a number, rounded halves up, saturated."""
    return max(-0x80000000, min(0x7FFFFFFF, int(value * 65536.0 + 0.5)))


def track_aperture(track):
    """'tapt', or nothing."""
    image = track.description
    if track.media_type != VIDEO or not image.is_image or image.clean_aperture is None:
        return b""
    width_n, width_d, height_n, height_d = image.clean_aperture[:4]
    numerator, denominator = image.aspect
    if numerator == denominator or 0 in (numerator, denominator, width_d, height_d):
        return b""

    def dimensions(kind, width, height):
        return atom(kind, u32(0), u32(width), u32(height))

    return atom(
        "tapt",
        dimensions(
            "clef",
            fixed(float(width_n) * float(numerator) / float(width_d) / float(denominator)),
            (height_n // height_d) << 16,
        ),
        dimensions(
            "prof",
            fixed(float(image.width) * float(numerator) / float(denominator)),
            image.height << 16,
        ),
        dimensions("enof", image.width << 16, image.height << 16),
    )


LOAD_SETTINGS = atom("load", u32(0), u32(0), u32(0), u32(0x00000100))

# ---- References and user data ----------------------------------------------------------------------------------------

REFERENCE_CODES = {256: 0x746D6364, 257: 0x63686170}  # 'tmcd', 'chap'


def track_references(reporter, track, numbers):
    entries = []
    for kind, track_ids in sorted(track.references.items()):
        if kind not in REFERENCE_CODES:
            reporter.report("reference type", "0")
        entries.append(
            atom(REFERENCE_CODES.get(kind, 0xFFFFFFFF), *(u32(numbers.get(other, 0)) for other in track_ids))
        )
    return atom("tref", *entries)


def user_data(items):
    """Items by type, as signed 32-bit numbers."""
    return atom("udta", *(atom(kind, payload) for kind, payload in sorted(items.items())))


# ---- Sample tables ---------------------------------------------------------------------------------------------------


def table_atom(kind, fields, entries):
    """An atom whose last part is a table."""
    size = 8 + sum(map(len, fields)) + sum(map(len, entries))
    if size > MAX_ATOM_SIZE:
        raise AssemblyFailed(TOO_LARGE)
    return atom(kind, *fields, *entries)


def sample_sizes(samples):
    """'stsz': one size for all, or one entry per sample. A record without samples has no part in it."""
    sizes = [(divide(sample.size, sample.count), sample.count) for sample in samples if sample.count]
    total = sum(count for _, count in sizes)
    if len({size for size, _ in sizes}) <= 1:
        return atom("stsz", u32(0), u32(sizes[0][0] if sizes else 0), u32(total))
    if 20 + 4 * total > MAX_ATOM_SIZE:
        raise AssemblyFailed(TOO_LARGE)
    entries = [u32(size) * count for size, count in sizes]
    return table_atom("stsz", [u32(0), u32(0), u32(total)], entries)


def time_to_sample(samples):
    """'stts'. A run of duration 0 has none yet: the next record gives it its own."""
    entries = []
    count, duration = 0, 0
    for sample in samples:
        if duration == 0:
            duration = sample.duration
            count = int32(count + sample.count)
        elif sample.duration == duration:
            count = int32(count + sample.count)
        else:
            entries.append((count, duration))
            count, duration = sample.count, sample.duration
    if count != 0:
        entries.append((count, duration))
    return table_atom("stts", [u32(0), u32(len(entries))], [u32(n) + u32(d) for n, d in entries])


def chunk_per_record(samples):
    """Chunk offsets and 'stsc' entries when the host marked no chunk."""
    runs = []
    first, per_chunk = 1, 0
    for number, sample in enumerate(samples, 1):
        if per_chunk == 0:
            per_chunk = sample.count
        elif sample.count != per_chunk:
            runs.append((first, per_chunk))
            first, per_chunk = number, sample.count
    runs.append((first, per_chunk))
    return [sample.offset for sample in samples], runs


def merged_chunks(samples):
    """Chunk offsets and 'stsc' entries when the host marked chunks. A chunk is open while it has samples."""
    chunks = []  # total, offset, followed by a gap
    total = start = expected = 0
    marked = False
    for sample in samples:
        contiguous = sample.offset == expected
        if total != 0 and contiguous and not marked:
            total = int32(total + sample.count)
            expected += sample.size
        else:
            if total != 0:
                chunks.append((total, start, not contiguous))
            total, start, expected = sample.count, sample.offset, sample.offset + sample.size
        marked = sample.ends_chunk
    if samples:
        chunks.append((total, start, False))  # also one that a last record without samples has begun

    runs = []
    for number, (total, _, gap) in enumerate(chunks, 1):
        if not runs or runs[-1][1] != total or gap:
            runs.append((number, total))
    return [start for _, start, _ in chunks], runs


def chunk_tables(reporter, track):
    """'stsc' and 'stco' or 'co64'."""
    form = merged_chunks if track.explicit_chunking else chunk_per_record
    offsets, runs = form(track.samples)
    if not offsets:
        reporter.report("chunk offsets", "chunkOffsets.size()")
    if not runs:
        reporter.report("sample to chunk", "sampleToChunkTable.size()")
    wide = any(sample.offset > 0xFFFFFFFF for sample in track.samples)
    return [
        table_atom("stsc", [u32(0), u32(len(runs))], [u32(first) + u32(n) + u32(1) for first, n in runs]),
        table_atom(
            "co64" if wide else "stco",
            [u32(0), u32(len(offsets))],
            [u64(offset) if wide else u32(offset) for offset in offsets],
        ),
    ]


def sample_table(reporter, track):
    entry = track.description.entry(reporter)
    if not entry:
        reporter.report(
            "empty description", "false", f"Empty Sample Description Table for Track: {track.track_id}\n"
        )
        raise AssemblyFailed(FAILED)
    sizes = sample_sizes(track.samples)
    times = time_to_sample(track.samples)
    chunks, offsets = chunk_tables(reporter, track)
    return atom("stbl", atom("stsd", u32(0), u32(1), entry), times, chunks, sizes, offsets)


# ---- The movie -------------------------------------------------------------------------------------------------------

FILE_TYPE = atom("ftyp", code("qt  "), u32(0x20050300), code("qt  "), bytes(12))
HEAD_SIZE = 48
MEDIA_START = 0x100000
DEFAULT_BLOCK_SIZE = 20 * 1024 * 1024
LOCAL, NFS, SMB = 1, 2, 3


@dataclass
class Volume:
    """What the volume and the clock decided: read back from the replay."""

    buffer_size: int
    created: int = 0  # seconds since 1970
    kind: int = LOCAL
    settings: dict = field(default_factory=dict)

    def usable(self):
        return 0 < self.buffer_size <= 0xFFF00000

    def block_size(self):
        if self.kind not in (NFS, SMB):
            return DEFAULT_BLOCK_SIZE
        key, default = {
            NFS: ("Reelmill.NFSWriteSizeInKBytes", 32),
            SMB: ("Reelmill.SMBWriteSizeInKBytes", 0),
        }[self.kind]
        kib = default
        if key in self.settings:
            digits = ""
            for character in self.settings[key]:
                if character not in "0123456789":
                    break
                digits += character
            kib = int(digits or "0") & 0xFFFFFFFF
            if kib * 1024 > 0xFFFFFFFF:
                kib = default
        return kib * 1024 or DEFAULT_BLOCK_SIZE


@dataclass
class Outcome:
    values: list
    reports: list
    traces: list
    content: Optional[list]  # of the file, in pieces; None: there is no file


class Movie:
    """One writer, from its creation to its destruction."""

    def __init__(self, process, script, volume):
        self.script = script
        self.volume = volume
        self.reporter = Reporter(process)
        self.state = "constructed"
        self.time_scale = 0
        self.tracks = {}
        self.user_data = {}
        self.media = []  # pieces
        self.media_size = 0
        self.descriptions = []
        self.traces = []
        self.content = [data_bytes(**script["existing"])] if "existing" in script else None

    def run(self):
        values = []
        for step, call in enumerate(self.script["calls"]):
            self.reporter.step = step
            arguments = {name: value for name, value in call.items() if name != "call"}
            values.append(getattr(self, call["call"])(**arguments))
        if self.state == "streaming":
            self.content = self.unfinished_content()
        return Outcome(values, self.reporter.reports, self.traces, self.content)

    # ---- Listening

    def SilenceReports(self, on):
        self.reporter.silences = on

    # ---- Descriptions

    def TextDescription(self):
        self.descriptions.append(TextDescription())

    def ClosedCaptionDescription(self):
        self.descriptions.append(ClosedCaptionDescription())

    def TimecodeDescription(self, timeScale, frameDuration, frames, dropFrame):
        self.descriptions.append(TimecodeDescription(timeScale, frameDuration, frames, dropFrame))

    def Init(self, description, timeScale, frameDuration, frames, dropFrame):
        timecode = self.descriptions[description]
        timecode.time_scale, timecode.frame_duration = timeScale, frameDuration
        timecode.frames, timecode.drop_frame = frames, dropFrame

    def HostDescription(self, content, throws=False):
        self.descriptions.append(HostDescription(bytes.fromhex(content), throws))

    def SoundDescription(self, discreteChannel, channels, rate, sampleType, labels, discrete):
        self.descriptions.append(SoundDescription(discreteChannel, channels, rate, sampleType, labels, discrete))

    def ImageDescription(self, codec, name, width, height, depth, fieldType, aspect):
        self.descriptions.append(ImageDescription(codec, name, width, height, depth, fieldType, tuple(aspect)))

    def SetColorSpaceParameter(self, description, values):
        self.descriptions[description].color = tuple(values)

    def AddCleanAperture(self, description, values):
        self.descriptions[description].clean_aperture = tuple(values)

    def AddGamma(self, description, value):
        self.descriptions[description].gamma = value

    def SetTemporalQuality(self, description, value):
        self.descriptions[description].temporal_quality = value

    def SetSpatialQuality(self, description, value):
        self.descriptions[description].spatial_quality = value

    def SetImageDescriptionCodecFourCC(self, description, value):
        self.descriptions[description].codec = value

    def SetVendorFourCC(self, description, value):
        self.descriptions[description].vendor = value

    def SetRevisionLevel(self, description, value):
        self.descriptions[description].revision = value

    def SetCodecName(self, description, name):
        self.descriptions[description].name = name

    def SetShouldOmitFieldExtension(self, description, value):
        self.descriptions[description].omits_field = value

    def SetExtraPaddingAmount(self, description, value):
        self.descriptions[description].padding = value

    def AddArbitraryImageDescriptionExtension(self, description, type, seed, size):
        if size < 0 or (seed is None and size > 0):
            self.reporter.report("extension", None, None)
            return
        payload = data_bytes(seed, size) if size else b""
        self.descriptions[description].extensions.append((type, payload))

    def GetColorSpaceParameter(self, description):
        color = self.descriptions[description].color
        return [True, *color] if color is not None else [False, 7, 7, 7]

    def GetCleanAperture(self, description):
        aperture = self.descriptions[description].clean_aperture
        return [True, *aperture] if aperture is not None else [False] + [7] * 8

    def GetGeometry(self, description):
        image = self.descriptions[description]
        return [*image.aspect, image.width, image.height]

    def GetAsBinary(self, description):
        return self.descriptions[description].entry(self.reporter).hex()

    # ---- Checks, in their order: state, track ID, arguments

    def track(self, track_id):
        if track_id not in self.tracks:
            self.reporter.report("track ID", "false", f"Unknown TrackID: {track_id}\n")
            return None
        return self.tracks[track_id]

    # ---- The writer

    def Create(self, timeScale, path=None):
        if self.state != "constructed":
            return BAD_STATE
        self.state = "finished"
        if path is not None:
            return PATH_ERRORS[tuple(path)]
        self.content = []
        if not self.volume.usable():
            return BAD_ARGUMENT
        self.state = "streaming"
        self.time_scale = timeScale
        unit = self.volume.buffer_size
        self.media_offset = (MEDIA_START + unit - 1) // unit * unit
        self.placeholder_size = self.media_offset - HEAD_SIZE
        self.block_size = self.volume.block_size()
        self.traces.append([1, "UnbufferedWriter::OpenExisting()", f"blocksize {self.block_size}\n"])
        return OK

    @staticmethod
    def placeholder(size):
        return atom("skip", bytes(size - 8))

    def unfinished_content(self):
        """What reached the file of a movie that was not closed: the head and the blocks that were full."""
        rest = self.media_size // self.block_size * self.block_size
        blocks = []
        for piece in self.media:
            blocks.append(piece[:rest])
            rest -= len(blocks[-1])
        return [FILE_TYPE, self.placeholder(self.placeholder_size), atom("wide"), atom("mdat"), *blocks]

    def NewMovieTrack(self, mediaType, timeScale, width, height, description):
        if self.state != "streaming":
            return [BAD_STATE, UNTOUCHED]
        if mediaType not in HANDLERS:
            self.reporter.report("media type", "false", f"Unknown MediaType: {mediaType}\n")
            return [UNKNOWN_MEDIA_TYPE, UNTOUCHED]
        if description is None:
            return [BAD_ARGUMENT, UNTOUCHED]
        track_id = 256 + len(self.tracks)
        self.tracks[track_id] = Track(
            track_id, mediaType, timeScale, width, height, self.descriptions[description]
        )
        return [OK, track_id]

    def AddMediaSample(self, track, seed, size, count, duration, auxValue=0, auxFlag=False):
        if self.state != "streaming":
            return BAD_STATE
        record = self.track(track)
        if record is None:
            return UNKNOWN_TRACK_ID
        if size < 0 or count < 0 or (seed is None and size > 0):
            return BAD_ARGUMENT
        return self.append(record, data_bytes(seed, size) if size else b"", count, duration)

    def append(self, track, data, count, duration):
        track.samples.append(Sample(self.media_offset + self.media_size, count, duration, len(data)))
        self.media.append(data)
        self.media_size += len(data)
        total = track.duration + count * duration
        if not 0 <= total <= 0x7FFFFFFF:
            self.reporter.report(
                "duration overflow",
                "(newDuration & 0xFFFFFFFF80000000LL) == 0",
                OVERFLOW % "PrivateReelmill::AddMediaSample",
            )
        track.duration = int32(total)
        return OK

    def EndMediaChunk(self, track):
        if self.state != "streaming":
            return BAD_STATE
        record = self.track(track)
        if record is None:
            return UNKNOWN_TRACK_ID
        if record.samples:
            record.explicit_chunking = True
            record.samples[-1].ends_chunk = True
        return OK

    def AddTextMediaSample(self, track, text, duration):
        if self.state != "streaming":
            return BAD_STATE
        record = self.track(track)
        if record is None:
            return UNKNOWN_TRACK_ID
        if 2 * len(text) + 2 > 0xFFFF:
            return BAD_ARGUMENT
        sample = b"".join(
            [
                u16(2 * len(text) + 2),                         # length of what follows up to 'encd'
                b"\xFF\xFE",                                    # byte-order mark, little-endian
                struct.pack(f"<{len(text)}H", *text),
                atom("encd", u32(0x00000100)),
            ]
        )
        return self.append(record, sample, 1, duration)

    def AddTrackUserData(self, track, type, seed, size):
        if self.state != "streaming":
            return BAD_STATE
        record = self.track(track)
        if record is None:
            return UNKNOWN_TRACK_ID
        return self.add_item(record.user_data, type, seed, size)

    def AddUserData(self, type, seed, size):
        if self.state != "streaming":
            return BAD_STATE
        return self.add_item(self.user_data, type, seed, size)

    @staticmethod
    def add_item(items, kind, seed, size):
        if seed is None:
            return NULL_USER_DATA
        if size < 0:
            return BAD_ARGUMENT
        others = sum(8 + len(payload) for other, payload in items.items() if other != kind)
        if 8 + others + 8 + size > MAX_ATOM_SIZE:
            return TOO_LARGE
        items[kind] = data_bytes(seed, size)
        return OK

    def AddTrackReference(self, track, other, type):
        if self.state != "streaming":
            return BAD_STATE
        record = self.track(track)
        if record is None or self.track(other) is None:
            return UNKNOWN_TRACK_ID
        record.references.setdefault(type, []).append(other)
        return OK

    def SetTrackTrimIn(self, track, trimIn):
        if self.state != "streaming":
            return BAD_STATE
        record = self.track(track)
        if record is None:
            return UNKNOWN_TRACK_ID
        record.trim_in = trimIn
        return OK

    def Flush(self):
        return OK if self.state == "streaming" else BAD_STATE

    def GetMovieDuration(self):
        if self.state != "streaming":
            return 0
        return self.movie_duration()

    def movie_duration(self):
        duration = 0
        for track in self.tracks.values():
            duration = max(duration, rescale(self.reporter, track.duration, track.time_scale, self.time_scale))
        return duration

    def Close(self):
        if self.state != "streaming":
            return BAD_STATE
        self.state = "finished"

        size = self.media_size
        if size + 8 <= 0xFFFFFFFF:
            media_header_bytes = atom("wide") + u32(size + 8) + code("mdat")
        else:
            media_header_bytes = u32(1) + code("mdat") + u64(size + 16)
        room = self.placeholder_size
        self.content = [FILE_TYPE, self.placeholder(room), media_header_bytes, *self.media]

        try:
            movie_atom = self.movie_atom()
        except AssemblyFailed as failure:
            return failure.result
        except MemoryError:
            self.reporter.report("assembly", "0")
            return OUT_OF_MEMORY

        if len(movie_atom) + 8 <= room:
            self.content[1:2] = [movie_atom, self.placeholder(room - len(movie_atom))]
        else:
            self.content.append(movie_atom)
        return OK

    def movie_atom(self):
        self.tracks = {track_id: track for track_id, track in self.tracks.items() if track.samples}
        numbers = {track_id: number for number, track_id in enumerate(self.tracks, 1)}
        created = self.volume.created + SECONDS_FROM_1904_TO_1970
        children = [movie_header(self.time_scale, self.movie_duration(), len(self.tracks), created)]
        for track_id, track in self.tracks.items():
            children.append(self.track_atom(track, numbers, numbers[track_id], created))
        if self.user_data:
            children.append(user_data(self.user_data))
        return atom("moov", *children)

    def track_atom(self, track, numbers, number, created):
        # Built from the inside out, which is the order of the reports.
        media = atom(
            "mdia",
            media_header(track, created),
            handler("mhlr", *HANDLERS[track.media_type]),
            atom(
                "minf",
                MEDIA_INFORMATION_HEADERS[track.media_type],
                DATA_HANDLER,
                DATA_INFORMATION,
                sample_table(self.reporter, track),
            ),
        )
        header = track_header(self.reporter, self.time_scale, track, number, created)
        edit_list = edits(self.reporter, self.time_scale, track)
        references = track_references(self.reporter, track, numbers) if track.references else b""
        return atom(
            "trak",
            header,
            track_aperture(track),
            LOAD_SETTINGS if track.media_type == VIDEO else b"",
            edit_list,
            references,
            media,
            user_data(track.user_data) if track.user_data else b"",
        )
