"""Scripts of calls for ReelmillReplay and the model: random ones by seed, and hand-picked ones that say themselves what
must come out.

A hand-picked script may hold, beside the calls: `expect`, the value of some calls by their index; `messages`, the
messages of all reports; `traces`, those of the trace; `atoms`, the bytes of some atoms by path ("moov/trak[2]/tkhd"),
None for an atom that must not be there; `bytes`, the bytes of the file at some offsets; `length` of the file.
"""

import random
import struct

from movie_model import CLOSED_CAPTION, SOUND, TEXT, TIMECODE, VIDEO

INT_MAX, INT_MIN, UINT_MAX = 2**31 - 1, -(2**31), 2**32 - 1


def fourcc(text):
    return struct.unpack(">I", text.encode("latin-1"))[0]


def signed_fourcc(text):
    return struct.unpack(">i", text.encode("latin-1"))[0]


def units(text):
    """UTF-16 code units; lone surrogates are kept."""
    raw = text.encode("utf-16-le", "surrogatepass")
    return list(struct.unpack(f"<{len(raw) // 2}H", raw))


class Script:
    """Collects calls."""

    def __init__(self, name, **members):
        self.members = {"name": name, "file": name.replace(" ", "-") + ".mov", "calls": [], "expect": {}, **members}
        self.tracks = 0
        self.descriptions = 0

    def call(self, call, expect=None, **arguments):
        calls = self.members["calls"]
        if expect is not None:
            self.members["expect"][len(calls)] = expect
        calls.append({"call": call, **arguments})

    def describe(self, kind, **arguments):
        self.call(kind, **arguments)
        self.descriptions += 1
        return self.descriptions - 1

    def image(self, **arguments):
        defaults = dict(
            codec=fourcc("apcn"), name=units("Codec"), width=1920, height=1080, depth=24, fieldType=0, aspect=[1, 1]
        )
        return self.describe("ImageDescription", **{**defaults, **arguments})

    def sound(self, channels=2, rate=48000, sampleType=3, labels=(100, 101), discreteChannel=0, discrete=False):
        return self.describe(
            "SoundDescription",
            discreteChannel=discreteChannel,
            channels=channels,
            rate=rate,
            sampleType=sampleType,
            labels=list(labels),
            discrete=discrete,
        )

    def track(self, description, mediaType=VIDEO, timeScale=600, width=0, height=0):
        self.call(
            "NewMovieTrack",
            expect=[0, 256 + self.tracks],
            mediaType=mediaType,
            timeScale=timeScale,
            width=width,
            height=height,
            description=description,
        )
        self.tracks += 1
        return 255 + self.tracks

    def sample(self, track, size=10, count=1, duration=100, seed=1, **arguments):
        self.call("AddMediaSample", track=track, seed=seed, size=size, count=count, duration=duration, **arguments)

    def mark(self, track):
        self.call("EndMediaChunk", track=track)

    def done(self, **expectations):
        self.members.update(expectations)
        return self.members


# ---- Random movies ---------------------------------------------------------------------------------------------------


class RandomMovie:
    """One random script. Its nastiness is how often it takes a number that a sane host would not."""

    def __init__(self, seed):
        self.rng = random.Random(seed)
        self.script = Script(f"random {seed}")
        self.nastiness = self.rng.choice([0.0, 0.02, 0.1, 0.5])
        self.kinds = []   # of the descriptions
        self.styles = {}  # of the tracks: how their samples look

    # ---- Numbers

    def chance(self, probability):
        return self.rng.random() < probability

    def pick(self, plain, nasty=()):
        return self.rng.choice(nasty if nasty and self.chance(self.nastiness) else plain)

    def int32(self):
        return self.pick([0, 1, 2, 24, 640], [-1, INT_MAX, INT_MIN, 65536, self.rng.randint(INT_MIN, INT_MAX)])

    def uint32(self):
        return self.pick([0, 1, 2, 480, 1024], [UINT_MAX, 2**31, 65536, self.rng.randint(0, UINT_MAX)])

    def time_scale(self):
        return self.pick([600, 24, 30000, 48000, 90000, 1001], [0, 1, -1, -600, INT_MAX, INT_MIN])

    def duration(self):
        return self.pick([100, 1001, 1001, 1], [0, 0, -1, -1001, INT_MAX, INT_MIN, self.rng.randint(1, 10**6)])

    def track_id(self):
        known = 255 + self.rng.randint(1, max(self.script.tracks, 1))
        return self.pick([known], [255, 0, 256 + self.script.tracks, 2**32 + 256, 2**64 - 1])

    def item_type(self):
        return self.pick(
            [signed_fourcc("name"), signed_fourcc("\xA9nam"), signed_fourcc("\xA9day")],
            [0, -1, INT_MIN, INT_MAX, self.rng.randint(INT_MIN, INT_MAX)],
        )

    def text(self, length):
        characters = "Aé€𝄞 \0中"
        text = units("".join(self.rng.choice(characters) for _ in range(length)))
        for _ in range(self.pick([0], [1, 3])):
            text.insert(self.rng.randint(0, len(text)), self.rng.choice([0xD800, 0xDBFF, 0xDC00, 0xDFFF]))
        return text

    def data(self, largest):
        """A pointer and a size."""
        size = self.rng.randint(0, largest)
        seed = self.rng.randint(0, 250)
        return self.pick([(seed, size)], [(seed, 0), (None, 0), (None, size), (seed, -1), (seed, INT_MIN), (None, -1)])

    # ---- The volume

    def volume(self):
        if self.chance(0.4):
            return None
        size = self.pick(
            [512, 4096, 65536, 2**20, 3 * 2**20, 3000000],
            [0, 0xFFF00001, UINT_MAX, None, 1, 1000, 2**20 - 1, 2**20 + 1],
        )
        kib = self.rng.choice(["1", "3", "4", "8 KiB", "64"])
        settings = self.rng.choice(
            [
                {},
                {"Reelmill.NFSWriteSizeInKBytes": kib},
                {"Reelmill.SMBWriteSizeInKBytes": kib},
                {"Reelmill.NFSWriteSizeInKBytes": self.rng.choice(["0", "many", "", "-1", "4294967296"])},
                {"Reelmill.SMBWriteSizeInKBytes": self.rng.choice(["0", "many", "", "4194304", "4294967298"])},
            ]
        )
        kind = self.rng.choice([1, 2, 3, 4])
        return {"bufferSize": size, "kind": kind, "settings": settings, "cached": self.chance(0.5)}

    # ---- Descriptions

    def describe(self):
        kind = self.rng.choice(["image", "image", "sound", "sound", "text", "timecode", "caption", "host"])
        getattr(self, "describe_" + kind)()
        self.kinds.append(kind)

    def describe_text(self):
        self.script.describe("TextDescription")

    def describe_caption(self):
        self.script.describe("ClosedCaptionDescription")

    def timecode_values(self):
        return dict(
            timeScale=self.time_scale(),
            frameDuration=self.duration(),
            frames=self.pick([24, 25, 30], [300, -1, 256, INT_MIN]),
            dropFrame=self.chance(0.5),
        )

    def describe_timecode(self):
        self.script.describe("TimecodeDescription", **self.timecode_values())

    def describe_host(self):
        entry = self.rng.randbytes(self.rng.choice([1, 16, 16, 33])).hex()
        content, throws = self.pick([(entry, False)], [("", False), (entry, True)])
        self.script.describe("HostDescription", content=content, throws=throws)

    def describe_sound(self):
        channels = self.pick([1, 2, 2, 6, 8], [0, -1, 3, 16, 40, -7])
        odd_labels = [1, 99, 120, 128, 138, UINT_MAX, *range(104, 138)]
        labels = [self.pick([0, 100, 101, 102, 103], odd_labels) for _ in range(max(channels, 0))]
        if channels == 2 and self.chance(0.4):
            labels = self.rng.choice([[100, 101], [101, 100]])
        if self.chance(self.nastiness):
            labels = labels[1:] if self.chance(0.5) else labels + [100]
        self.script.sound(
            channels=channels,
            rate=self.pick([44100, 48000, 96000], [0, 1, 65535, 65536, -1, INT_MAX, INT_MIN]),
            sampleType=self.pick([1, 2, 3, 4, 5, 6, 10, 11, 12, 13, 14], [0, 7, 8, 9, 15, -1, INT_MIN, INT_MAX]),
            labels=labels,
            discreteChannel=self.pick([0, 3], [-1, -65537, INT_MAX, INT_MIN]),
            discrete=self.chance(0.4),
        )

    def describe_image(self):
        index = self.script.image(
            codec=self.uint32(),
            name=self.text(self.rng.choice([0, 1, 5, 9, 14, 40])),
            width=self.pick([720, 1440, 1920], [0, -1, 65535, 70000, INT_MAX, INT_MIN]),
            height=self.pick([480, 1080], [0, -1, 65535, 70000, INT_MAX, INT_MIN]),
            depth=self.pick([24, 32], [-1, 65536 + 24]),
            fieldType=self.pick([0, 1, 2], [3, -1, INT_MIN]),
            aspect=self.rng.choice([[1, 1], [4, 3], [10, 11], [self.uint32(), self.uint32()]]),
        )
        for _ in range(self.rng.choice([0, 1, 3, 8])):
            self.adjust_image(index)

    def adjust_image(self, index):
        script, rng = self.script, self.rng
        change = rng.randint(0, 13)
        if change == 0:
            values = [rng.choice([0, 1, 6, 9, 65535]) for _ in range(3)]
            script.call("SetColorSpaceParameter", description=index, values=values)
        elif change in (1, 2, 3):
            values = []
            for size in ([704, 1440], [480, 1079]):
                values += [self.pick(size, [0, 1, UINT_MAX, 70000]), self.pick([1, 1, 2], [0, 3, UINT_MAX])]
            for _ in ("horizontal offset", "vertical offset"):
                values += [self.int32(), self.uint32()]
            script.call("AddCleanAperture", description=index, values=values)
        elif change == 4:
            script.call("AddGamma", description=index, value=self.pick([-1, 0, 1], [INT_MIN, INT_MAX]))
        elif change == 5:
            name = rng.choice(["SetTemporalQuality", "SetSpatialQuality"])
            script.call(name, description=index, value=self.uint32())
        elif change == 6:
            name = rng.choice(["SetImageDescriptionCodecFourCC", "SetVendorFourCC"])
            script.call(name, description=index, value=self.uint32())
        elif change == 7:
            script.call("SetRevisionLevel", description=index, value=rng.choice([0, 1, -1, -32768, 32767]))
        elif change == 8:
            script.call("SetCodecName", description=index, name=self.text(rng.randint(0, 35)))
        elif change == 9:
            script.call("SetShouldOmitFieldExtension", description=index, value=self.chance(0.7))
        elif change == 10:
            script.call("SetExtraPaddingAmount", description=index, value=rng.choice([0, 4, 5, 1000]))
        elif change in (11, 12):
            seed, size = self.data(40)
            script.call(
                "AddArbitraryImageDescriptionExtension", description=index, type=self.uint32(), seed=seed, size=size
            )
        else:
            for query in ("GetColorSpaceParameter", "GetCleanAperture", "GetGeometry"):
                script.call(query, description=index)

    # ---- The writer

    def new_track(self):
        media_types = {"image": VIDEO, "sound": SOUND, "text": TEXT, "timecode": TIMECODE, "caption": CLOSED_CAPTION}
        description = self.rng.randrange(len(self.kinds))
        usual = media_types.get(self.kinds[description], VIDEO)
        media_type = self.pick([usual], [VIDEO, VIDEO, SOUND, TEXT, TIMECODE, CLOSED_CAPTION, 255, 261, 0, UINT_MAX])
        if self.chance(self.nastiness / 10):
            description = None
        self.script.call(
            "NewMovieTrack",
            mediaType=media_type,
            timeScale=self.time_scale(),
            width=self.pick([0, 720, 1920], [-1, 65535, 65536, INT_MAX, INT_MIN]),
            height=self.pick([0, 480, 1080], [-1, 65535, 65536, INT_MAX, INT_MIN]),
            description=description,
        )
        if VIDEO <= media_type <= TEXT and description is not None:
            self.script.tracks += 1
            self.styles[255 + self.script.tracks] = self.rng.choice(["frames", "equal", "runs", "mixed", "vast"])

    def media_sample(self):
        track = self.track_id()
        style = self.styles.get(track, "frames")
        seed, size = self.data(self.rng.choice([100, 2000, 20000]))
        count = 1
        if style == "equal":
            size = min(size, 64)
        elif style == "runs":  # samples of one size, runs of several lengths
            count = self.rng.choice([0, 1, 2, 2, 512])
            size = 4 * count
        elif style == "mixed":  # runs of samples whose sizes differ
            count = self.rng.choice([0, 1, 2, 3, 3, 7])
        elif style == "vast":  # sums beyond 32 bits
            count = self.rng.choice([1, 1, INT_MAX, 2**30]) if self.chance(self.nastiness) else 1
        count = self.pick([count], [count, count, -1, INT_MIN])
        self.script.sample(
            track,
            seed=seed,
            size=size,
            count=count,
            duration=self.duration(),
            auxValue=self.int32(),
            auxFlag=self.chance(0.5),
        )

    def step(self):
        script, rng = self.script, self.rng
        kind = rng.choices(
            ["sample", "mark", "text", "item", "track item", "reference", "trim", "query", "track", "adjust"],
            [40, 8, 6, 4, 4, 5, 4, 3, 4, 2],
        )[0]
        if kind == "sample":
            for _ in range(rng.choice([1, 1, 2, 5])):
                self.media_sample()
        elif kind == "mark":
            script.mark(self.track_id())
        elif kind == "text":
            text = self.text(rng.choice([0, 1, 5, 30]))
            script.call("AddTextMediaSample", track=self.track_id(), text=text, duration=self.duration())
        elif kind == "item":
            seed, size = self.data(rng.choice([0, 10, 300]))
            script.call("AddUserData", type=self.item_type(), seed=seed, size=size)
        elif kind == "track item":
            seed, size = self.data(rng.choice([0, 10, 300]))
            script.call("AddTrackUserData", track=self.track_id(), type=self.item_type(), seed=seed, size=size)
        elif kind == "reference":
            reference_type = self.pick([256, 257], [0, 255, 258, 2**31, UINT_MAX])
            script.call("AddTrackReference", track=self.track_id(), other=self.track_id(), type=reference_type)
        elif kind == "trim":
            trim_in = self.pick([0, 1, 100, 5000], [-1, -5, INT_MAX, INT_MIN])
            script.call("SetTrackTrimIn", track=self.track_id(), trimIn=trim_in)
        elif kind == "query":
            script.call(rng.choice(["GetMovieDuration", "Flush"]))
        elif kind == "track":
            self.new_track()
        else:
            index = rng.randrange(len(self.kinds))
            if self.kinds[index] == "image":
                self.adjust_image(index)
            elif self.kinds[index] == "timecode":
                script.call("Init", description=index, **self.timecode_values())
            elif self.kinds[index] == "sound":
                script.call("GetAsBinary", description=index)

    def create(self):
        path = self.pick([None], [None, None, None, [], list(b"/"), [0xD800]])
        arguments = {} if path is None else {"path": path}
        self.script.call("Create", timeScale=self.time_scale(), **arguments)

    def build(self):
        script = self.script
        volume = self.volume()
        if volume is not None:
            script.members["volume"] = volume
        if self.chance(0.1):
            script.members["existing"] = {"seed": 9, "size": self.rng.choice([0, 10, 1100000, 1300000])}
        for _ in range(self.rng.randint(1, 6)):
            self.describe()
        early = self.chance(self.nastiness)
        if early:
            for _ in range(3):
                self.step()
            if self.chance(0.5):
                script.call("Close")
            script.tracks = 0
            self.styles.clear()
        self.create()
        for _ in range(self.rng.randint(1, 4)):
            self.new_track()
        for _ in range(self.rng.choice([0, 3, 10, 40])):
            self.step()
        if self.chance(self.nastiness / 4):
            self.create()
        if not self.chance(0.05):
            script.call("Close")
        if self.chance(self.nastiness):
            for _ in range(3):
                self.step()
            script.call("Close")
        return script.done()



def random_script(seed):
    return RandomMovie(seed).build()


# ---- Hand-picked movies ----------------------------------------------------------------------------------------------

MEDIA_START = 1048576  # with any disk-buffer size that divides 1 MiB
OVERFLOW_TAIL = "  Do not ignore this problem.  The file is being written in an invalid state.\n"
SAMPLE_OVERFLOW = "Signed 32-bit overflow in PrivateReelmill::AddMediaSample." + OVERFLOW_TAIL
RESCALE_OVERFLOW = "Signed 32-bit overflow in ConvertSrcTimeToDestTimescale." + OVERFLOW_TAIL

UNKNOWN_TRACK_ID, UNKNOWN_MEDIA_TYPE, NULL_USER_DATA = 0xA0810001, 0xA0810002, 0xA0810003
BAD_STATE, BAD_ARGUMENT, TOO_LARGE = 0xA0810004, 0xA0810005, 0xA0810006
FAILED, OUT_OF_MEMORY = 0xA00F0001, 0xA00F0006

VOLUME = {"bufferSize": 4096}


def be(*values):
    """32-bit big-endian values as hexadecimal digits."""
    return struct.pack(f">{len(values)}I", *(value & UINT_MAX for value in values)).hex()


def text_hex(text):
    return text.encode("latin-1").hex()


def sized_hex(kind, *parts):
    body = text_hex(kind) + "".join(parts)
    return be(4 + len(body) // 2) + body


def started(name, timeScale=600, **members):
    script = Script(name, **{"volume": VOLUME, **members})
    script.call("Create", expect=0, timeScale=timeScale)
    return script


def captions(name, timeScale=600, mediaTimeScale=600, **members):
    """A movie with one closed-caption track."""
    script = started(name, timeScale, **members)
    return script, script.track(script.describe("ClosedCaptionDescription"), CLOSED_CAPTION, mediaTimeScale)


def lifecycle_scripts():
    head = {
        0: "00 00 00 20 66 74 79 70 71 74 20 20 20 05 03 00 71 74 20 20" + 12 * "00",
        32: be(1048528) + text_hex("skip"),
        1048560: be(8) + text_hex("wide"),
    }

    script = started("destroyed without close")
    script.sample(script.track(script.describe("ClosedCaptionDescription"), CLOSED_CAPTION), size=100)
    script.call("Flush", expect=0)
    yield script.done(bytes={**head, 1048568: be(8) + text_hex("mdat")}, length=MEDIA_START)

    script, track = captions("small movie")
    script.sample(track, size=100)
    script.call("Close", expect=0)
    yield script.done(
        bytes={36: text_hex("moov"), 1048560: be(8) + text_hex("wide"), 1048568: be(108) + text_hex("mdat")},
        length=MEDIA_START + 100,
    )

    script, track = captions("buffer of 3 MiB", volume={"bufferSize": 3 << 20})
    script.sample(track, size=1)
    script.call("Close", expect=0)
    yield script.done(bytes={3145720: be(9) + text_hex("mdat")}, length=3145729)

    script = started("no track with samples")
    script.track(script.describe("HostDescription", content=""), VIDEO)
    script.call("AddUserData", type=signed_fourcc("name"), seed=65, size=2)
    script.call("Close", expect=0)
    yield script.done(
        atoms={"moov/trak": None, "moov/udta": be(18) + text_hex("udta") + be(10) + text_hex("name") + "4142"},
        length=MEDIA_START,
    )

    script = Script("existing file", existing={"seed": 1, "size": 2000000}, volume=VOLUME)
    script.call("Create", expect=0, timeScale=600)
    script.call("Close", expect=0)
    yield script.done(length=MEDIA_START)

    script = Script("path beyond ASCII", file="mövie-𝄞.mov")
    script.call("Create", expect=0, timeScale=600)
    script.call("Close", expect=0)
    yield script.done()

    for size in (0, 0xFFF00001, UINT_MAX):
        script = Script(f"buffer of {size}", volume={"bufferSize": size})
        script.call("Create", expect=BAD_ARGUMENT, timeScale=600)
        script.call("Create", expect=BAD_STATE, timeScale=600)
        script.call("Close", expect=BAD_STATE)
        yield script.done()

    for name, path, error in (("empty", [], 2), ("folder", list(b"/"), 21), ("lone surrogate", [0xD800], 84)):
        script = Script(f"path is {name}")
        script.call("Create", expect=0xA00E0000 + error, timeScale=600, path=path)
        script.call("Flush", expect=BAD_STATE)
        yield script.done()

    script = Script("out of order", volume=VOLUME)
    script.describe("ClosedCaptionDescription")

    def everything(name_of_create):
        script.call(
            "NewMovieTrack", [BAD_STATE, 0xDEADBEEF], mediaType=1, timeScale=1, width=0, height=0, description=None
        )
        script.call("AddMediaSample", BAD_STATE, track=256, seed=None, size=-1, count=-1, duration=1)
        script.call("EndMediaChunk", BAD_STATE, track=256)
        script.call("AddTextMediaSample", BAD_STATE, track=256, text=[65], duration=1)
        script.call("AddTrackUserData", BAD_STATE, track=256, type=1, seed=None, size=0)
        script.call("AddUserData", BAD_STATE, type=1, seed=None, size=0)
        script.call("AddTrackReference", BAD_STATE, track=256, other=256, type=256)
        script.call("SetTrackTrimIn", BAD_STATE, track=256, trimIn=1)
        script.call("Flush", BAD_STATE)
        script.call("GetMovieDuration", 0)
        script.call(name_of_create, BAD_STATE, **({"timeScale": 1} if name_of_create == "Create" else {}))

    everything("Close")
    script.call("Create", 0, timeScale=600)
    script.call("Create", BAD_STATE, timeScale=30)
    script.sample(script.track(0, CLOSED_CAPTION))
    script.call("Close", 0)
    script.call("Close", BAD_STATE)
    everything("Create")
    yield script.done(messages=[])

    # Empty 'moov': header and 'mvhd', 116 bytes; an item adds 8 for 'udta' and 8 for itself.
    for size, fits in ((1048528 - 8 - 132, True), (1048528 - 7 - 132, False)):
        script = started(f"moov {'just fits' if fits else 'just does not fit'}")
        script.call("AddUserData", 0, type=1, seed=1, size=size)
        script.call("Close", 0)
        length = MEDIA_START if fits else MEDIA_START + 132 + size
        yield script.done(
            bytes={32: be(size + 132) + text_hex("moov"), 1048552: be(8) + text_hex("skip")}
            if fits
            else {32: be(1048528) + text_hex("skip"), MEDIA_START: be(size + 132) + text_hex("moov")},
            length=length,
        )

    # 20 MiB blocks: a call that fills one exactly, and one that passes several.
    for sizes in ([20971520], [20971519, 2], [1, 45000000, 7]):
        for closes in (True, False):
            script, track = captions(f"blocks of 20 MiB from {sizes} {'closed' if closes else 'left'}")
            for size in sizes:
                script.sample(track, size=size, count=size)
            if closes:
                script.call("Close", 0)
            yield script.done(length=MEDIA_START + (sum(sizes) if closes else sum(sizes) // 20971520 * 20971520))

    # Blocks that unbuffered writes take, on volumes of every kind.
    nfs, smb = "Reelmill.NFSWriteSizeInKBytes", "Reelmill.SMBWriteSizeInKBytes"
    for kind, settings, block in (
        (1, {nfs: "4", smb: "4"}, 20971520),
        (2, {}, 32768),
        (2, {nfs: "8"}, 8192),
        (2, {nfs: "0"}, 20971520),
        (2, {nfs: "none"}, 20971520),
        (2, {nfs: "4194304"}, 32768),
        (2, {nfs: "4294967300"}, 4096),
        (3, {}, 20971520),
        (3, {smb: "64 and more"}, 65536),
        (3, {smb: "4194304"}, 20971520),
    ):
        script, track = captions(
            f"volume {kind} with {list(settings.values())}",
            volume={"bufferSize": 4096, "kind": kind, "settings": settings},
        )
        for size in (1, block, 0, 4095, 3 * 32768):
            script.sample(track, size=min(size, 200000))
        script.call("Close", 0)
        yield script.done(traces=[f"blocksize {block}\n"])

    # A block size that unbuffered writes may not take, and a start that is no multiple of a sector.
    for name, volume in (
        ("odd block", {"bufferSize": 512, "kind": 2, "settings": {nfs: "3"}}),
        ("odd start", {"bufferSize": 3000000, "kind": 2, "settings": {nfs: "4"}}),
        ("odd everything", {"bufferSize": 1048577, "kind": 2, "settings": {nfs: "1"}}),
    ):
        script, track = captions(name, volume=volume)
        for _ in range(5):
            script.call("AddMediaSample", 0, track=track, seed=3, size=5000, count=1, duration=1)
        script.call("Close", 0)
        yield script.done()


def track_scripts():
    script = started("media types")
    caption = script.describe("ClosedCaptionDescription")
    for media_type in (255, 261, 0, UINT_MAX):
        script.call(
            "NewMovieTrack",
            [UNKNOWN_MEDIA_TYPE, 0xDEADBEEF],
            mediaType=media_type,
            timeScale=600,
            width=0,
            height=0,
            description=caption,
        )
    script.call(
        "NewMovieTrack", [BAD_ARGUMENT, 0xDEADBEEF], mediaType=TEXT, timeScale=1, width=0, height=0, description=None
    )
    script.call(
        "NewMovieTrack",
        [UNKNOWN_MEDIA_TYPE, 0xDEADBEEF],
        mediaType=255,
        timeScale=1,
        width=0,
        height=0,
        description=None,
    )
    for media_type in range(VIDEO, TEXT + 1):
        script.sample(script.track(caption, media_type))
    script.call("Close", 0)
    flags = be(1, 1)
    unity = be(0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000)
    generic = be(24) + text_hex("gmin") + be(0) + "0040 8000 8000 8000 0000 0000".replace(" ", "")
    timecode = be(47) + text_hex("tmcd") + be(39) + text_hex("tcmi") + be(0) + "0000 0000 000C 0000" + 6 * "00"
    timecode += "0000FFFFFFFF 06" + text_hex("System")
    handler = "moov/trak%s/mdia/hdlr"
    yield script.done(
        messages=[f"Unknown MediaType: {value}\n" for value in (255, 261, 0, UINT_MAX, 255)],
        atoms={
            handler % "": be(58) + text_hex("hdlr") + be(0) + text_hex("mhlrvideappl") + flags + "19"
            + text_hex("Apple Video Media Handler"),
            handler % "[2]": be(58) + text_hex("hdlr") + be(0) + text_hex("mhlrsounappl") + flags + "19"
            + text_hex("Apple Sound Media Handler"),
            handler % "[3]": be(56) + text_hex("hdlr") + be(0) + text_hex("mhlrtmcdappl") + flags + "17"
            + text_hex("Time Code Media Handler"),
            handler % "[4]": be(67) + text_hex("hdlr") + be(0) + text_hex("mhlrclcpappl") + flags + "22"
            + text_hex("Apple Closed Caption Media Handler"),
            handler % "[5]": be(57) + text_hex("hdlr") + be(0) + text_hex("mhlrtextapp2") + be(0x80000001, 0x10029)
            + "18" + text_hex("Apple Text Media Handler"),
            "moov/trak/load": be(24) + text_hex("load") + be(0, 0, 0, 0x100),
            "moov/trak[2]/load": None,
            "moov/trak/mdia/minf/vmhd": be(20) + text_hex("vmhd") + be(1) + "0040800080008000",
            "moov/trak[2]/mdia/minf/smhd": be(16) + text_hex("smhd") + be(0, 0),
            "moov/trak[3]/mdia/minf/gmhd": be(79) + text_hex("gmhd") + generic + timecode,
            "moov/trak[4]/mdia/minf/gmhd": be(32) + text_hex("gmhd") + generic,
            "moov/trak[5]/mdia/minf/gmhd": be(76) + text_hex("gmhd") + generic + be(44) + text_hex("text") + unity,
            "moov/trak[5]/mdia/minf/dinf": be(36) + text_hex("dinf") + be(28) + text_hex("dref") + be(0, 1, 12)
            + text_hex("alis") + be(1),
            "moov/trak[5]/mdia/minf/hdlr": be(57) + text_hex("hdlr") + be(0) + text_hex("dhlralisappl")
            + be(1, 0x1002E) + "18" + text_hex("Apple Alias Data Handler"),
        },
    )

    script, track = captions("unknown tracks")
    for unknown in (255, 257, 0, 2**64 - 1):
        script.call("AddMediaSample", UNKNOWN_TRACK_ID, track=unknown, seed=None, size=-1, count=-1, duration=1)
        script.call("AddTrackUserData", UNKNOWN_TRACK_ID, track=unknown, type=1, seed=None, size=1)
        script.call("AddTrackReference", UNKNOWN_TRACK_ID, track=track, other=unknown, type=256)
        script.call("AddTextMediaSample", UNKNOWN_TRACK_ID, track=unknown, text=[65] * 32767, duration=1)
    script.call("AddTrackReference", UNKNOWN_TRACK_ID, track=9, other=10, type=256)
    script.sample(track)
    script.call("Close", 0)
    yield script.done(
        messages=[f"Unknown TrackID: {value}\n" for value in (255, 257, 0, 2**64 - 1) for _ in range(4)]
        + ["Unknown TrackID: 9\n"],
        atoms={"moov/trak/tref": None, "moov/trak/udta": None},
    )

    script, track = captions("refused samples")
    script.call("AddMediaSample", BAD_ARGUMENT, track=track, seed=1, size=-1, count=1, duration=1)
    script.call("AddMediaSample", BAD_ARGUMENT, track=track, seed=1, size=1, count=-1, duration=1)
    script.call("AddMediaSample", BAD_ARGUMENT, track=track, seed=None, size=1, count=1, duration=1)
    script.call("AddTextMediaSample", BAD_ARGUMENT, track=track, text=[65] * 32767, duration=1)
    script.call("AddTextMediaSample", 0, track=track, text=[0xD8FF] * 32766, duration=1)
    script.call("AddMediaSample", 0, track=track, seed=None, size=0, count=1, duration=0)
    script.call("Close", 0)
    yield script.done(messages=[], length=MEDIA_START + 2 * 32766 + 16, bytes={MEDIA_START: "FFFE FFFE FFD8"})

    script, track = captions("text samples")
    script.call("AddTextMediaSample", 0, track=track, text=[], duration=1)
    script.call("AddTextMediaSample", 0, track=track, text=[0x48, 0x69], duration=1)
    script.call("Close", 0)
    yield script.done(
        bytes={
            MEDIA_START: "00 02 FF FE 00 00 00 0C 65 6E 63 64 00 00 01 00"
            " 00 06 FF FE 48 00 69 00 00 00 00 0C 65 6E 63 64 00 00 01 00"
        },
        length=MEDIA_START + 36,
    )

    script, track = captions("duration overflows")
    script.sample(track, count=1, duration=INT_MAX)
    script.sample(track, count=1, duration=1)
    script.call("GetMovieDuration", 0)
    script.sample(track, count=INT_MAX, duration=INT_MIN)
    script.call("Close")
    yield script.done()

    script = started("movie duration")
    caption = script.describe("ClosedCaptionDescription")
    script.sample(script.track(caption, CLOSED_CAPTION, 600), count=2, duration=600)
    script.sample(script.track(caption, CLOSED_CAPTION, 48000), count=96, duration=1000)
    script.call("SetTrackTrimIn", 0, track=256, trimIn=99999)
    script.call("GetMovieDuration", 1200)
    script.call("Close", 0)
    yield script.done(messages=[])


def time_scripts():
    edit_path = "moov/trak/edts"
    for name, movie_scale, media_scale, duration, movie_duration, messages in (
        ("exact", 30000, 600, 600, 30000, []),
        ("truncated", 1000, 30000, 1001, 33, []),
        ("below one", 1, 3, 1, 0, []),
        ("below one and negative", 1, 3, -1, 0, [SAMPLE_OVERFLOW]),
        ("negative", 1, 1, -3, -3, [SAMPLE_OVERFLOW] + 3 * [RESCALE_OVERFLOW]),
        ("too long", 2, 1, INT_MAX, -2, 3 * [RESCALE_OVERFLOW]),
        ("without scale", 600, 0, 100, 0, ["", "", ""]),
        ("without movie scale", 0, 600, 100, 0, []),
        ("smallest over minus one", INT_MIN, -1, INT_MIN, 0, [SAMPLE_OVERFLOW] + 3 * [RESCALE_OVERFLOW]),
    ):
        script, track = captions(f"rescaling {name}", movie_scale, media_scale)
        script.sample(track, duration=duration)
        script.call("Close", 0)
        edit_list = be(28) + text_hex("elst") + be(0, 1, movie_duration, 0, 0x10000)
        yield script.done(messages=messages, atoms={edit_path: be(36) + text_hex("edts") + edit_list})

    for trim_in in (0, -5, 1, 1499, INT_MAX, INT_MIN):
        script, track = captions(f"trim-in {trim_in}", 600, 30000)
        script.sample(track, duration=1499)
        script.call("SetTrackTrimIn", 0, track=track, trimIn=77)
        script.call("SetTrackTrimIn", 0, track=track, trimIn=trim_in)
        script.call("Close", 0)
        atoms = {}
        if trim_in in (0, -5):
            atoms[edit_path] = be(36) + text_hex("edts") + be(28) + text_hex("elst") + be(0, 1, 29, 0, 0x10000)
        if trim_in == 1499:
            atoms[edit_path] = (
                be(48) + text_hex("edts") + be(40) + text_hex("elst") + be(0, 2, 29, -1, 0x10000, 29, 0, 0x10000)
            )
        yield script.done(atoms=atoms)


def sample_table_scripts():
    tables = "moov/trak/mdia/minf/stbl/"

    def movie(name, *steps, **expected):
        """Steps are (count, duration, size), "mark", or "other" for bytes of another track."""
        script, track = captions(name)
        other = script.track(0, CLOSED_CAPTION)
        for step in steps:
            if step == "mark":
                script.mark(track)
            elif step == "other":
                script.sample(other, size=3)
            else:
                count, duration, size = step
                script.sample(track, count=count, duration=duration, size=size)
        script.call("Close", 0)
        atoms = {}
        for kind, values in expected.items():
            atoms[tables + kind] = None if values is None else sized_hex(kind, be(0, *values))
        return script.done(atoms=atoms, messages=[])

    D = MEDIA_START
    yield movie("equal samples", *3 * [(1024, 1, 4096)], stsz=[4, 3072], stts=[1, 3072, 1], stsc=[1, 1, 1024, 1])
    yield movie("frames", *[(1, 1, size) for size in (5, 6, 7)], stsz=[0, 3, 5, 6, 7], stco=[3, D, D + 5, D + 11])
    yield movie(
        "runs of differing sizes", (2, 1, 10), (3, 1, 9), (0, 1, 4), stsz=[0, 5, 5, 5, 3, 3, 3], stts=[1, 5, 1]
    )
    yield movie("sizes that do not divide", (3, 1, 10), (3, 1, 11), stsz=[3, 6])
    yield movie("durations", *[(1, d, 1) for d in (1001, 1001, 1001, 2002)], stts=[2, 3, 1001, 1, 2002])
    yield movie("duration 0 first", (1, 0, 1), (1, 1001, 1), stts=[1, 2, 1001])
    yield movie("duration 0 within", (1, 7, 1), (1, 0, 1), (1, 7, 1), stts=[2, 1, 7, 2, 7])
    yield movie("no samples in a run", (0, 7, 1), (1, 8, 1), (0, 9, 1), stts=[2, 0, 7, 1, 8])
    yield movie(
        "chunk per call", *[(n, 1, n) for n in (1, 1, 2)], stsc=[2, 1, 1, 1, 3, 2, 1], stco=[3, D, D + 1, D + 2]
    )
    yield movie("chunk without samples", *[(n, 1, 4) for n in (0, 2, 0, 2)], stsc=[2, 1, 2, 1, 3, 2, 1])
    yield movie(
        "marks with equal totals", (1, 1, 4), (1, 1, 4), "mark", (2, 1, 8), stsc=[1, 1, 2, 1], stco=[2, D, D + 8]
    )
    yield movie("three calls and a mark", *3 * [(1, 1, 5)], "mark", stsc=[1, 1, 3, 1], stco=[1, D])
    yield movie(
        "gap", (1, 1, 4), "mark", (1, 1, 4), "other", (1, 1, 4), (1, 1, 4), "other", (2, 1, 4), "mark",
        stsc=[3, 1, 1, 1, 2, 1, 1, 3, 2, 1], stco=[4, D, D + 4, D + 11, D + 22],
    )
    yield movie("mark before samples", "mark", (1, 1, 4), (1, 1, 4), stsc=[1, 1, 1, 1], stco=[2, D, D + 4])
    yield movie(
        "no samples before a chunk", (1, 1, 4), "mark", (0, 1, 4), (2, 1, 4), stsc=[2, 1, 1, 1, 2, 2, 1],
        stco=[2, D, D + 8],
    )
    yield movie("nothing but a size", (1, 0, 0), stsz=[0, 1], stts=[1, 1, 0], stsc=[1, 1, 1, 1], stco=[1, D], co64=None)

    # A chunk that ends without ever having had a sample.
    script, track = captions("last chunk without samples")
    script.sample(track, count=2)
    script.mark(track)
    script.sample(track, count=0, size=4)
    script.call("Close", 0)
    yield script.done()

    # Tables beyond what an atom can hold, although their sums wrap to something small.
    for counts in ([INT_MAX, 1], [INT_MAX, INT_MAX, 2, 5], [2**30, 1]):
        script, track = captions(f"vast {counts}")
        for count in counts:
            script.sample(track, count=count, size=4 if count < 100 else 0, duration=0)
        script.call("Close", TOO_LARGE)
        yield script.done(length=MEDIA_START + sum(4 for count in counts if count < 100))
    script, track = captions("vast and equal")
    for count in (INT_MAX, INT_MAX, 5):
        script.sample(track, count=count, size=0, duration=0)
    script.call("Close", 0)
    yield script.done(atoms={tables + "stsz": sized_hex("stsz", be(0, 0, 2 * INT_MAX + 5))})


def description_scripts():
    def binary(name, describe, value, messages=()):
        script = Script(name)
        describe(script)
        script.call("GetAsBinary", value.replace(" ", "").lower(), description=0)
        script.call("GetAsBinary", value.replace(" ", "").lower(), description=0)
        return script.done(messages=2 * list(messages))

    yield binary(
        "text description",
        lambda script: script.describe("TextDescription"),
        "00 00 00 3B 74 65 78 74" + 6 * "00" + "00 01" + 26 * "00" + "00 10 00 0D" + 4 * "00" + "00 0C" + 7 * "00",
    )
    yield binary(
        "caption description",
        lambda script: script.describe("ClosedCaptionDescription"),
        "00 00 00 10" + text_hex("c608") + 6 * "00" + "00 01",
    )

    def timecode(values, first=(1, 1, 1, True)):
        def describe(script):
            names = ("timeScale", "frameDuration", "frames", "dropFrame")
            script.describe("TimecodeDescription", **dict(zip(names, first)))
            script.call("Init", description=0, **dict(zip(names, values)))

        return describe

    start = "00 00 00 22" + text_hex("tmcd") + 6 * "00" + "00 01 00 00 00 00"
    yield binary(
        "timecode description",
        timecode((30000, 1001, 30, True)),
        start + "00 00 00 01 00 00 75 30 00 00 03 E9 1E 00",
    )
    yield binary("timecode description with low bits", timecode((-1, -2, 300, False)), start + be(0, -1, -2) + "2C 00")

    plain = "00 01 00 00" + text_hex("appl") + be(0, 1024) + "0780 0438" + be(0x480000, 0x480000, 0) + "0001"
    image_start = text_hex("apcn") + 6 * "00" + "00 01" + plain
    codec = "05" + text_hex("Codec") + 26 * "00" + "0018 FFFF"
    progressive = be(10) + text_hex("fiel") + "01 00"
    square = be(16) + text_hex("pasp") + be(1, 1)
    plain_image = be(112) + image_start + codec + progressive + square
    yield binary("image description", lambda script: script.image(), plain_image)
    for field_type, fields in ((1, "02 09"), (2, "02 0E"), (3, "01 00"), (-1, "01 00")):
        yield binary(
            f"image of field type {field_type}",
            lambda script: script.image(fieldType=field_type),
            be(112) + image_start + codec + be(10) + text_hex("fiel") + fields + square,
        )

    def full(script):
        script.image()
        script.call("AddArbitraryImageDescriptionExtension", description=0, type=fourcc("one "), seed=0, size=30)
        script.call("AddArbitraryImageDescriptionExtension", description=0, type=fourcc("two "), seed=0, size=12)
        script.call("AddArbitraryImageDescriptionExtension", description=0, type=fourcc("nil "), seed=None, size=0)
        script.call("GetColorSpaceParameter", [False, 7, 7, 7], description=0)
        script.call("SetColorSpaceParameter", description=0, values=[9, 16, 65535])
        script.call("GetColorSpaceParameter", [True, 9, 16, 65535], description=0)
        script.call("SetShouldOmitFieldExtension", description=0, value=True)
        script.call("GetCleanAperture", [False] + 8 * [7], description=0)
        script.call("AddCleanAperture", description=0, values=[1, 2, 3, 4, 5, 6, 7, 8])
        script.call("AddCleanAperture", description=0, values=[1888, 1, 1062, 1, 0, 1, -2, 1])
        script.call("GetCleanAperture", [True, 1888, 1, 1062, 1, 0, 1, -2, 1], description=0)
        script.call("AddGamma", description=0, value=5)
        script.call("SetExtraPaddingAmount", description=0, value=4)

    parts = [
        be(38) + text_hex("one ") + bytes(range(30)).hex(),
        be(20) + text_hex("two ") + bytes(range(12)).hex(),
        be(8) + text_hex("nil "),
        be(18) + text_hex("colrnclc") + "0009 0010 FFFF",
        square,
        be(40) + text_hex("clap") + be(1888, 1, 1062, 1, 0, 1, -2, 1),
        be(12) + text_hex("gama") + "00 02 33 33",
        be(0),
    ]
    size = 86 + 38 + 20 + 8 + 18 + 16 + 40 + 12 + 4
    yield binary("full image", full, be(size) + image_start + codec + "".join(parts))

    for name, written in (
        (units(40 * "x"), 31 * b"x"),
        (units(30 * "x" + "é"), 30 * b"x" + b"\xC3"),
        (units("𝄞") + [0xD834], b"\xF0\x9D\x84\x9E\xEF\xBF\xBD"),
        ([0xDD1E, 0xD834], b"\xEF\xBF\xBD\xEF\xBF\xBD"),
        ([65, 0, 66], b"A\0B"),
        ([], b""),
    ):
        yield binary(
            f"codec name {len(written)} {written.hex()[:20]}",
            lambda script: script.image(name=name),
            be(112) + image_start + f"{len(written):02x}" + written.ljust(31, b"\0").hex() + "0018 FFFF"
            + progressive + square,
        )

    script = Script("wide image")
    script.image(width=70000, height=-1, aspect=[0, UINT_MAX])
    script.call("GetGeometry", [0, UINT_MAX, 70000, -1], description=0)
    script.call("GetAsBinary", description=0)
    yield script.done()

    script = Script("refused extensions")
    script.image()
    script.call("AddArbitraryImageDescriptionExtension", description=0, type=1, seed=1, size=-1)
    script.call("AddArbitraryImageDescriptionExtension", description=0, type=1, seed=None, size=5)
    script.call("GetAsBinary", plain_image.replace(" ", "").lower(), description=0)
    yield script.done()

    # Sound: the whole entry, by its data format.
    def sound(name, size, contains, messages=(), **arguments):
        script = started("sound " + name)
        script.sample(script.track(script.sound(**arguments), SOUND, 48000), size=48, count=12)
        script.call("Close", 0)
        ((kind, value),) = contains.items()
        return script.done(
            messages=list(messages), atoms={"moov/trak/mdia/minf/stbl/stsd/" + kind: be(size) + text_hex(kind) + value}
        )

    v1 = 6 * "00" + "0001 0001 0000 20202020"
    v2 = 6 * "00" + "0001 0002 0000 20202020 0003 0010 FFFE 0000 00010000 00000048"
    stereo = be(64) + text_hex("chan") + be(0, 0x00650002, 0, 0) + 40 * "00"

    def layout(*labels):
        return be(24 + 20 * len(labels)) + text_hex("chan") + be(0, 0, 0, len(labels)) + "".join(
            be(label, 0, 0, 0, 0) for label in labels
        )

    def wave(kind, little):
        form = be(12) + text_hex("frma" + kind)
        return be(38) + text_hex("wave") + form + be(10) + text_hex("enda") + little + be(8, 0)

    yield sound(
        "stereo of 16 bits, big-endian", 154, sampleType=11,
        contains={"twos": v1 + "0002 0010 FFFF 0000 BB800000" + be(1, 2, 4, 2) + wave("twos", "0000") + stereo},
    )
    yield sound(
        "stereo of 16 bits, little-endian", 116, sampleType=3,
        contains={"sowt": v1 + "0002 0010 FFFF 0000 BB800000" + be(1, 2, 4, 2) + stereo},
    )
    yield sound(
        "mono of 24 bits", 134, sampleType=4, channels=1, rate=44100, labels=[0],
        contains={"in24": v1 + "0001 0018 FFFF 0000 AC440000" + be(1, 3, 3, 3) + wave("in24", "0001") + layout(42)},
    )
    yield sound(
        "discrete mono", 134, sampleType=4, channels=1, rate=44100, labels=[0], discrete=True, discreteChannel=3,
        contains={
            "in24": v1 + "0001 0018 FFFF 0000 AC440000" + be(1, 3, 3, 3) + wave("in24", "0001") + layout(0x10003)
        },
    )
    yield sound(
        "six channels of floats", 216, sampleType=6, channels=6, labels=range(100, 106),
        contains={
            "lpcm": v2 + "40E7700000000000" + be(6, 0x7F000000, 32, 1, 24, 1) + layout(1, 2, 3, 4, 5, 6)
        },
    )
    yield sound(
        "stereo of 96 kHz", 136, sampleType=5, rate=96000,
        contains={"lpcm": v2 + struct.pack(">d", 96000).hex() + be(2, 0x7F000000, 32, 12, 8, 1) + stereo},
    )
    yield sound(
        "swapped stereo", 116, labels=[101, 100],
        contains={"sowt": v1 + "0002 0010 FFFF 0000 BB800000" + be(1, 2, 4, 2) + layout(2, 1)},
    )
    yield sound(
        "layout that does not match", 72, channels=3, sampleType=3,
        contains={"lpcm": v2 + "40E7700000000000" + be(3, 0x7F000000, 16, 12, 6, 1)},
        messages=["Audio layout size doesn't match the number of channels\n"],
    )
    yield sound(
        "unsupported type", 52 + 38 + 64, sampleType=7,
        contains={"\0\0\0\0": v1 + "0002 FFFF FFFF 0000 BB800000" + be(1, 0, 0, 0) + wave("\0\0\0\0", "0000") + stereo},
        messages=["", "", "", ""],
    )
    yield sound(
        "unsupported type of 16 channels", 72 + 24 + 320, sampleType=15, channels=16, labels=16 * [0],
        contains={"lpcm": v2 + "40E7700000000000" + be(16, 0x7F000000, -1, 12, -2, 1) + layout(*16 * [42])},
        messages=["", ""],
    )
    everything = list(range(0, 140)) + [UINT_MAX]
    known = {0, *range(100, 120), *range(129, 138)}
    script = started("sound of every label")
    script.sound(channels=len(everything), labels=everything, discrete=True)
    script.call("GetAsBinary", description=0)
    yield script.done(messages=["Unknown channel label!\n" for label in everything if label not in known])
    for sample_type in range(-1, 17):
        script = Script(f"sound of type {sample_type}")
        for rate, channels in ((65535, 2), (0, 1), (65536, 2), (-1, 1), (8000, 0), (8000, -1), (8000, 3)):
            index = script.sound(
                rate=rate, channels=channels, labels=max(channels, 0) * [100], sampleType=sample_type
            )
            script.call("GetAsBinary", description=index)
        yield script.done()

    # What reaches the file is what the description says when the movie is closed.
    script = started("description changed late")
    image = script.image()
    timecode_index = script.describe("TimecodeDescription", timeScale=1, frameDuration=1, frames=1, dropFrame=True)
    for track in (script.track(image), script.track(image), script.track(timecode_index, TIMECODE)):
        script.sample(track)
    script.call("AddGamma", description=image, value=0)
    script.call("Init", description=timecode_index, timeScale=2, frameDuration=3, frames=4, dropFrame=False)
    script.call("Close", 0)
    yield script.done(
        atoms={"moov/trak[3]/mdia/minf/stbl/stsd/tmcd": (start + be(0, 2, 3)).replace(" ", "") + "0400"}
    )

    script = started("host descriptions")
    for content in ("", "00", bytes(range(200)).hex()):
        script.describe("HostDescription", content=content)
    for description, samples in ((0, False), (1, True), (2, True)):
        track = script.track(description, VIDEO)
        if samples:
            script.sample(track)
    script.call("Close", 0)
    yield script.done(
        messages=[],
        atoms={"moov/trak/mdia/minf/stbl/stsd": be(17) + text_hex("stsd") + be(0, 1) + "00", "moov/trak/tapt": None},
    )
    script = started("host description without bytes")
    script.track(script.describe("ClosedCaptionDescription"), CLOSED_CAPTION)
    script.track(script.describe("HostDescription", content=""), TEXT)
    script.sample(257, size=5)
    script.call("Close", FAILED)
    script.call("Close", BAD_STATE)
    yield script.done(
        messages=["Empty Sample Description Table for Track: 257\n"],
        bytes={32: be(1048528) + text_hex("skip"), 1048568: be(13) + text_hex("mdat")},
        length=MEDIA_START + 5,
    )
    script = started("host description that throws")
    script.track(script.describe("HostDescription", content="", throws=True), TEXT)
    script.sample(256, size=5)
    script.call("Close", OUT_OF_MEMORY)
    yield script.done(messages=[""], bytes={32: be(1048528) + text_hex("skip")}, length=MEDIA_START + 5)


    for padding in (2**64 - 1, 2**63, 2**46):  # The last fits the address space, if no memory.
        script = started(f"padding of {padding} bytes")
        script.sample(script.track(script.image()), size=5)
        script.call("SetExtraPaddingAmount", description=0, value=padding)
        script.call("Close", OUT_OF_MEMORY)
        yield script.done(messages=[""], length=MEDIA_START + 5)


def aperture_scripts():
    def movie(name, aperture, value, mediaType=VIDEO, **image):
        script = started("aperture of " + name)
        index = script.image(**image)
        if aperture is not None:
            script.call("AddCleanAperture", description=index, values=[*aperture, 0, 1, 0, 1])
        script.sample(script.track(index, mediaType, width=1920, height=1080))
        script.call("Close", 0)
        expected = None
        if value is not None:
            sizes = zip(("clef", "prof", "enof"), (value[:2], value[2:4], value[4:]))
            expected = be(68) + text_hex("tapt") + "".join(be(20) + text_hex(k) + be(0, *v) for k, v in sizes)
        return script.done(atoms={"moov/trak/tapt": expected})

    hd = (1440, 1, 1080, 1)
    wide = dict(width=1440, height=1080, aspect=[4, 3])
    full = [1920 << 16, 1080 << 16]
    yield movie("HDV", hd, full + full + [1440 << 16, 1080 << 16], **wide)
    yield movie(
        "NTSC", (704, 1, 480, 1), [0x02800000, 480 << 16, 0x028E8BA3, 480 << 16, 720 << 16, 480 << 16],
        width=720, height=480, aspect=[10, 11],
    )
    yield movie("half lines", (1440, 1, 1079, 2), [1920 << 16, 539 << 16] + full + [1440 << 16, 1080 << 16], **wide)
    yield movie("square pixels", hd, None, width=1440, height=1080, aspect=[1, 1])
    yield movie("equal terms", hd, None, width=1440, height=1080, aspect=[7, 7])
    yield movie("nothing", None, None, **wide)
    yield movie("sound", hd, None, mediaType=SOUND, **wide)
    for name, aspect, aperture in (
        ("no numerator", [0, 3], hd),
        ("no denominator", [4, 0], hd),
        ("no width denominator", [4, 3], (1440, 0, 1080, 1)),
        ("no height denominator", [4, 3], (1440, 1, 1080, 0)),
    ):
        yield movie(name, aperture, None, width=1440, height=1080, aspect=aspect)
    yield movie(
        "extremes", (UINT_MAX, 1, 32767, 1), [INT_MAX, 32767 << 16, INT_MIN, 1 << 16, INT_MIN, 1 << 16],
        width=-32768, height=1, aspect=[UINT_MAX, 1],
    )


def reference_scripts():
    script = started("references")
    caption = script.describe("ClosedCaptionDescription")
    tracks = [script.track(caption, CLOSED_CAPTION) for _ in range(5)]
    for track in (tracks[0], *tracks[2:]):  # the second is dropped: 1, -, 2, 3, 4
        script.sample(track)
    script.call("AddTrackReference", 0, track=tracks[0], other=tracks[3], type=257)
    script.call("AddTrackReference", 0, track=tracks[0], other=tracks[2], type=257)
    script.call("AddTrackReference", 0, track=tracks[0], other=tracks[4], type=256)
    script.call("AddTrackReference", 0, track=tracks[2], other=tracks[1], type=257)
    script.call("AddTrackReference", 0, track=tracks[2], other=tracks[2], type=257)
    script.call("AddTrackReference", 0, track=tracks[2], other=tracks[2], type=257)
    script.call("AddTrackReference", 0, track=tracks[3], other=tracks[0], type=UINT_MAX)
    script.call("AddTrackReference", 0, track=tracks[3], other=tracks[0], type=0)
    script.call("AddTrackReference", 0, track=tracks[1], other=tracks[0], type=0)
    script.call("Close", 0)
    yield script.done(
        messages=["", ""],
        atoms={
            "moov/trak/tref": "00 00 00 24" + text_hex("tref") + "00 00 00 0C" + text_hex("tmcd") + be(4)
            + "00 00 00 10" + text_hex("chap") + be(3, 2),
            "moov/trak[2]/tref": be(28) + text_hex("tref") + be(20) + text_hex("chap") + be(0, 2, 2),
            "moov/trak[3]/tref": be(32) + text_hex("tref") + be(12, UINT_MAX, 1) + be(12, UINT_MAX, 1),
            "moov/trak[4]/tref": None,
        },
    )

    script, track = captions("user data")
    for owner in ({}, {"track": track}):
        call = "AddTrackUserData" if owner else "AddUserData"
        for kind, seed, size, value in (
            (signed_fourcc("name"), 1, 3, 0),
            (signed_fourcc("name"), 65, 2, 0),
            (signed_fourcc("\xA9nam"), 66, 0, 0),
            (signed_fourcc("name"), None, 5, NULL_USER_DATA),
            (signed_fourcc("name"), None, 0, NULL_USER_DATA),
            (signed_fourcc("name"), 1, -1, BAD_ARGUMENT),
        ):
            script.call(call, value, type=kind, seed=seed, size=size, **owner)
    script.sample(track)
    script.call("Close", 0)
    items = be(26) + text_hex("udta") + be(8) + text_hex("\xA9nam") + be(10) + text_hex("name") + "4142"
    yield script.done(messages=[], atoms={"moov/udta": items, "moov/trak/udta": items})


def hand_picked():
    """Movies at the edges of everything that a host can reach."""
    scripts = [
        script
        for scripts in (
            lifecycle_scripts,
            track_scripts,
            time_scripts,
            sample_table_scripts,
            description_scripts,
            aperture_scripts,
            reference_scripts,
        )
        for script in scripts()
    ]
    for number, script in enumerate(scripts):
        if script["file"].isascii():
            script["file"] = f"{number}.mov"
    return scripts


def silenced():
    """Movies for one process, in which more and more sites fall silent."""

    def noise(script, silence):
        if silence:
            script.call("SilenceReports", on=True)
        caption = script.describe("ClosedCaptionDescription")
        script.describe("HostDescription", content="")
        script.call("NewMovieTrack", mediaType=5, timeScale=0, width=0, height=0, description=caption)
        script.call("NewMovieTrack", mediaType=6, timeScale=0, width=0, height=0, description=caption)
        script.call("Flush")
        script.mark(999)
        if silence:
            script.call("SilenceReports", on=False)
        script.mark(999)
        script.sound(sampleType=7, channels=3)
        script.sound(channels=2, labels=[1, 2])
        script.sample(script.track(caption, CLOSED_CAPTION, 0))
        script.sample(script.track(script.describe("ClosedCaptionDescription"), CLOSED_CAPTION, 1), duration=-1)
        script.call("AddTrackReference", track=256, other=256, type=9)
        script.call("AddTrackReference", track=256, other=256, type=8)

    for number in range(3):
        script = started(f"silenced {number}")
        noise(script, silence=number > 0)
        script.call("GetMovieDuration")
        for description in (2, 3):
            if number == 2:
                script.call("SilenceReports", on=True)
            script.call("GetAsBinary", description=description)
        script.sample(script.track(2, SOUND))
        script.sample(script.track(3, SOUND))
        script.call("Close")
        yield script.done()
    script = started("silenced at last")
    script.call("SilenceReports", on=True)
    noise(script, silence=False)
    script.sample(script.track(1, TEXT))
    script.call("Close", FAILED)
    yield script.done()
    script = started("silent")
    noise(script, silence=False)
    script.sample(script.track(1, TEXT))
    script.sample(script.track(2, SOUND))
    script.call("GetAsBinary", description=2)
    script.call("GetAsBinary", description=3)
    script.call("Close", FAILED)
    yield script.done(messages=[])


def large():
    """Movies with more media than 32 bits count. Zeros cost nothing on the disk."""
    volume = {"bufferSize": 4096, "sparse": True}
    call = 1 << 28
    for media, wide in ((2**32 - 9, False), (2**32 - 8, True)):
        script, track = captions(f"{media} bytes of media", volume=volume)
        rest = media
        while rest:
            size = min(rest, call)
            script.call("AddMediaSample", 0, track=track, seed=-1, size=size, count=1, duration=1)
            rest -= size
        script.call("Close", 0)
        yield script.done(
            bytes={1048560: be(1) + text_hex("mdat") + be(0x1, 0x00000008)}
            if wide
            else {1048568: be(UINT_MAX) + text_hex("mdat")},
            length=MEDIA_START + media,
        )
    for marked in (False, True):
        script, track = captions(f"offsets beyond 32 bits {'within a chunk' if marked else ''}", volume=volume)
        last = script.track(0, CLOSED_CAPTION)
        for _ in range(16):
            script.sample(track, seed=-1, size=call)
        if marked:
            script.mark(track)
        script.sample(last, seed=1, size=20)
        script.call("Close", 0)
        yield script.done()

    script = started("user data beyond 2 GiB")
    half = 1 << 30
    for kind, size, value in (
        (1, half, 0),
        (2, half - 25, 0),
        (3, 0, TOO_LARGE),
        (2, half - 24, TOO_LARGE),
        (1, 5, 0),
        (2, half, 0),
        (2, 7, 0),
    ):
        script.call("AddUserData", value, type=kind, seed=-1, size=size)
    script.call("Close", 0)
    yield script.done(length=MEDIA_START)
