#include "Support/EditableMovie.h"
#include "Support/MovieTest.h"
#include "Support/SparseFileSystem.h"

#include <Content.h>
#include <Description.h>
#include <MovieFile.h>
#include <Verify.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <sys/resource.h>

using Inspect::Severity;
using Tolbin::utility::BinaryDataArray;

namespace
{

constexpr Severity kNote = Severity::kNote;
constexpr Severity kWarning = Severity::kWarning;
constexpr Severity kError = Severity::kError;

Inspect::Findings Verify(const Inspect::ByteSource& inSource)
{
    Inspect::Findings findings;
    const Inspect::MovieFile movie(inSource, findings);
    Inspect::VerifyMovie(movie, findings);
    return findings;
}

Inspect::Findings Verify(const std::vector<std::uint8_t>& inBytes)
{
    return Verify(Inspect::MemorySource(inBytes));
}

//! "error stts-count in track 2 at 1234: ..." per line.
std::string Text(const Inspect::Findings& inFindings)
{
    std::string text;
    for (const Inspect::Finding& finding : inFindings.List())
    {
        text += std::to_string(static_cast<int>(finding.severity)) + " " + finding.check + " in track " +
                std::to_string(finding.track) + " at " + std::to_string(finding.offset) + ": " + finding.what + "\n";
    }
    return text;
}

bool Has(const Inspect::Findings& inFindings, Severity inSeverity, const std::string& inCheck)
{
    return std::any_of(inFindings.List().begin(), inFindings.List().end(), [&](const Inspect::Finding& inFinding) {
        return inFinding.severity == inSeverity && inFinding.check == inCheck;
    });
}

//! Some bytes in a file of any size; the rest is zero.
class SparseSource final : public Inspect::ByteSource
{
public:
    explicit SparseSource(std::uint64_t inSize) : mSize(inSize) {}

    void Put(std::uint64_t inOffset, std::vector<std::uint8_t> inBytes) { mParts[inOffset] = std::move(inBytes); }

    std::uint64_t GetSize() const override { return mSize; }

    std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const override
    {
        const std::uint64_t count = std::min<std::uint64_t>(outBytes.size(), mSize - std::min(mSize, inOffset));
        std::fill(outBytes.begin(), outBytes.end(), std::uint8_t{0});
        for (const auto& [offset, bytes] : mParts)
        {
            for (std::uint64_t i = 0; i < bytes.size(); ++i)
            {
                if (offset + i >= inOffset && offset + i - inOffset < count)
                {
                    outBytes[offset + i - inOffset] = bytes[i];
                }
            }
        }
        return count;
    }

private:
    std::uint64_t mSize;
    std::map<std::uint64_t, std::vector<std::uint8_t>> mParts;
};

// ---- One fault each
// --------------------------------------------------------------------------------------------------

// Tracks of the movie that faults are put into.
constexpr std::size_t kVideo = 0;
constexpr std::size_t kMono = 1;     // Version 1 entry with 'wave'.
constexpr std::size_t kSurround = 2; // Version 2 entry with six labels.
constexpr std::size_t kTimecode = 3;
constexpr std::size_t kText = 4;
constexpr std::size_t kCaptions = 5;

//! A movie with every kind of track, 0.4 s long.
class InspectFaults : public MovieTest
{
protected:
    void SetUp() override
    {
        using namespace Quorlan;
        Tolbin::UTF16String name = u"Codec";
        const auto image = QT::CreateImageDescription(Code("apcn"), name, 720, 480, 24, kFieldTypeLowerFirst, {10, 11});
        image->AddCleanAperture(704, 1, 480, 1, 0, 1, 0, 1);
        image->SetColorSpaceParameter(6, 1, 6);
        image->AddGamma(QT::kQTGamma22);
        const AudioChannelLayout mono = {kAudioChannelLabelDiscrete};
        const AudioChannelLayout surround = {kAudioChannelLabelLeft,         kAudioChannelLabelRight,
                                             kAudioChannelLabelCenter,       kAudioChannelLabelLFEScreen,
                                             kAudioChannelLabelLeftSurround, kAudioChannelLabelRightSurround};
        ASSERT_EQ(Create(), 0);
        const QT::TrackID video = NewTrack(QT::kQTMediaTypeVideo, 25, image);
        const QT::TrackID monoSound =
            NewTrack(QT::kQTMediaTypeSound, 1000,
                     QT::CreateSoundDescription(0, 1, 1000, Sambrel::kAudioSampleTypeInt24BE, mono, false));
        const QT::TrackID surroundSound =
            NewTrack(QT::kQTMediaTypeSound, 1000,
                     QT::CreateSoundDescription(0, 6, 1000, Sambrel::kAudioSampleTypeInt16LE, surround, false));
        const QT::TrackID timecode =
            NewTrack(QT::kQTMediaTypeTimecode, 25, QT::CreateTimecodeDescription(25, 1, 25, false));
        const QT::TrackID text = NewTrack(QT::kQTMediaTypeText, 600, QT::CreateTextDescription());
        const QT::TrackID captions = NewTrack(QT::kQTMediaTypeClosedCaption, 25, QT::CreateClosedCaptionDescription());
        ASSERT_EQ(writer->AddTrackReference(video, timecode, QT::kQTTrackReferenceTimecode), 0);
        ASSERT_EQ(writer->AddTrackReference(video, text, QT::kQTTrackReferenceChapter), 0);
        ASSERT_GE(Add(timecode, std::string(4, '\0'), 1, 10), 0);
        ASSERT_GE(writer->AddTextMediaSample(text, u"One", 120), 0);
        ASSERT_GE(writer->AddTextMediaSample(text, u"Second", 120), 0);
        for (int frame = 0; frame < 10; ++frame)
        {
            ASSERT_GE(Add(video, std::string(static_cast<std::size_t>(100 + frame), 'v')), 0);
            ASSERT_GE(Add(captions, std::string(10, 'c')), 0);
            ASSERT_GE(Add(monoSound, std::string(40 * 3, 'm'), 40), 0);
            ASSERT_GE(Add(surroundSound, std::string(40 * 12, 's'), 40), 0);
        }
        ASSERT_EQ(writer->Close(), 0);
    }

    EditableMovie Good() const { return EditableMovie(Movie()); }
};

struct Fault
{
    std::string name;
    std::string check;
    Severity severity;
    std::function<void(EditableMovie&)> make;
};

EditableAtom NewAtom(const std::string& inType, std::vector<std::uint8_t> inFields = {})
{
    return {inType, std::move(inFields), {}, std::nullopt, false};
}

std::vector<std::uint8_t> Words(std::initializer_list<std::uint32_t> inWords)
{
    EditableAtom atom = NewAtom("", std::vector<std::uint8_t>(4 * inWords.size()));
    std::size_t offset = 0;
    for (const std::uint32_t word : inWords)
    {
        atom.Put(offset, word);
        offset += 4;
    }
    return atom.fields;
}

//! Puts 32 bits into an atom of a track.
std::function<void(EditableMovie&)> Put(std::size_t inTrack, const char* inPath, std::size_t inOffset,
                                        std::uint32_t inValue)
{
    return [=](EditableMovie& ioMovie) { ioMovie.Track(inTrack)[inPath].Put(inOffset, inValue); };
}

std::function<void(EditableMovie&)> Add(std::size_t inTrack, const char* inPath, std::size_t inOffset,
                                        std::int32_t inDifference)
{
    return [=](EditableMovie& ioMovie) {
        EditableAtom& atom = ioMovie.Track(inTrack)[inPath];
        atom.Put(inOffset, atom.Get(inOffset) + static_cast<std::uint32_t>(inDifference));
    };
}

std::function<void(EditableMovie&)> PutHeader(std::size_t inOffset, std::uint32_t inValue)
{
    return [=](EditableMovie& ioMovie) { ioMovie.MooV()["mvhd"].Put(inOffset, inValue); };
}

std::function<void(EditableMovie&)> Resize(std::size_t inTrack, const char* inPath, int inDifference)
{
    return [=](EditableMovie& ioMovie) { ioMovie.Track(inTrack)[inPath].Resize(inDifference); };
}

std::function<void(EditableMovie&)> Remove(std::size_t inTrack, const char* inParent, const char* inType)
{
    return [=](EditableMovie& ioMovie) { ioMovie.Track(inTrack)[inParent].Remove(inType); };
}

std::function<void(EditableMovie&)> Repeat(std::size_t inTrack, const char* inParent, const char* inType)
{
    return [=](EditableMovie& ioMovie) { ioMovie.Track(inTrack)[inParent].Repeat(inType); };
}

std::function<void(EditableMovie&)> StateSize(std::size_t inTrack, const char* inPath, std::uint32_t inSize)
{
    return [=](EditableMovie& ioMovie) { ioMovie.Track(inTrack)[inPath].statedSize = inSize; };
}

//! Adds an atom to a sample table, or anything else.
std::function<void(EditableMovie&)> Append(std::size_t inTrack, const char* inParent, EditableAtom inAtom)
{
    return [=](EditableMovie& ioMovie) { ioMovie.Track(inTrack)[inParent].Add(inAtom); };
}

std::function<void(EditableMovie&)> Tail(std::vector<std::uint8_t> inBytes)
{
    return [=](EditableMovie& ioMovie) { ioMovie.tail = inBytes; };
}

void WidenOffsets(EditableMovie& ioMovie)
{
    EditableAtom& offsets = ioMovie.Track(kVideo)["stco"];
    std::vector<std::uint8_t> wide(offsets.fields.begin(), offsets.fields.begin() + 8);
    for (std::size_t i = 8; i < offsets.fields.size(); i += 4)
    {
        wide.insert(wide.end(), 4, 0);
        wide.insert(wide.end(), offsets.fields.begin() + static_cast<std::ptrdiff_t>(i),
                    offsets.fields.begin() + static_cast<std::ptrdiff_t>(i) + 4);
    }
    offsets.type = "co64";
    offsets.fields = wide;
}

void NestUserData(EditableMovie& ioMovie)
{
    EditableAtom nested = NewAtom("udta");
    for (int i = 0; i < 30; ++i)
    {
        EditableAtom outer = NewAtom("udta");
        outer.Add(nested);
        nested = outer;
    }
    ioMovie.MooV().Add(nested);
}

//! Puts bytes into a sample of the video.
void PutVideo(EditableMovie& ioMovie, std::size_t inSample, std::size_t inOffset, const std::string& inBytes)
{
    const std::size_t begin = ioMovie.TopLevel("ftyp").GetSize() + 8;
    const std::size_t chunk = ioMovie.Track(kVideo)["stco"].Get(8 + 4 * inSample);
    std::copy(inBytes.begin(), inBytes.end(),
              ioMovie.TopLevel("mdat").fields.begin() + static_cast<std::ptrdiff_t>(chunk - begin + inOffset));
}

//! Makes the video TGA pictures, of 720 x 480 pixels but for one, whose head is given.
std::function<void(EditableMovie&)> Pictures(std::string inOther)
{
    return [=](EditableMovie& ioMovie) {
        ioMovie.Track(kVideo)["apcn"].type = "tga ";
        for (std::size_t sample = 0; sample < 10; ++sample)
        {
            PutVideo(ioMovie, sample, 0, std::string("\0\0\x0A\0\0\0\0\0\0\0\0\0\xD0\2\xE0\1\x18\0", 18));
        }
        PutVideo(ioMovie, 9, 0, inOther);
    };
}

//! The type as a number.
std::uint32_t FourCC(const char (&inText)[5])
{
    return Inspect::FourCC(inText);
}

// Offsets count from the first field, behind size and type.
const std::vector<Fault>& Faults()
{
    static const std::vector<Fault> kFaults = {
        // Atoms.
        {"a million empty atoms", "atom-count", kError,
         [](EditableMovie& m) {
             for (int i = 0; i < 1'000'001; ++i)
             {
                 m.tail.insert(m.tail.end(), {0, 0, 0, 8, 'f', 'r', 'e', 'e'});
             }
         }},
        {"atoms nested without end", "atom-depth", kError, NestUserData},
        {"a media header that goes on", "atom-long", kError, Resize(kVideo, "mdhd", 4)},
        {"a track header that goes on", "atom-long", kError, Resize(kVideo, "tkhd", 4)},
        {"a video header that goes on", "atom-long", kError, Resize(kVideo, "vmhd", 2)},
        {"a pixel aspect that goes on", "atom-long", kError, Resize(kVideo, "pasp", 1)},
        {"a production aperture that goes on", "atom-long", kError, Resize(kVideo, "tapt/prof", 4)},
        {"a movie header cut off", "atom-short", kError, [](EditableMovie& m) { m.MooV()["mvhd"].Resize(-4); }},
        {"a track header cut off", "atom-short", kError, Resize(kVideo, "tkhd", -1)},
        {"a media header cut off", "atom-short", kError, Resize(kMono, "mdhd", -2)},
        {"a sound header cut off", "atom-short", kError, Resize(kMono, "smhd", -2)},
        {"a text without its length and language", "user-text", kError,
         [](EditableMovie& m) {
             m.Track(kText).Add(NewAtom("udta"));
             m.Track(kText)["udta"].Add(NewAtom("\xA9nam", {'N', 'a', 'm', 'e', '!'}));
         }},
        {"a handler cut off", "atom-short", kError, [](EditableMovie& m) { m.Track(kMono)["hdlr"].fields.resize(12); }},
        {"a clean aperture cut off", "atom-short", kError, Resize(kVideo, "clap", -4)},
        {"colour cut off", "atom-short", kError, Resize(kVideo, "colr", -2)},
        {"more labels than 'chan' has room for", "atom-short", kError, Put(kSurround, "chan", 12, 7)},
        {"a table without its count", "atom-short", kError,
         [](EditableMovie& m) { m.Track(kVideo)["stts"].fields.resize(4); }},
        {"sizes without their count", "atom-short", kError,
         [](EditableMovie& m) { m.Track(kVideo)["stsz"].fields.resize(8); }},
        {"media longer than the file", "atom-size", kError,
         [](EditableMovie& m) {
             std::rotate(m.atoms.begin() + 1, m.atoms.begin() + 2, m.atoms.end());
             m.TopLevel("mdat").statedSize = 1'000'000;
         }},
        {"an atom longer than the one around it", "atom-size", kError, StateSize(kCaptions, "stco", 0x1000)},
        {"an atom shorter than its header", "atom-size", kError, StateSize(kVideo, "stsc", 7)},
        {"an atom of size 0 inside another", "atom-size", kError, StateSize(kVideo, "mdhd", 0)},
        {"an extension longer than its description", "atom-size", kError, StateSize(kVideo, "fiel", 11'000)},
        {"a 64-bit size that wraps around", "atom-size", kError,
         Tail({0, 0, 0, 1, 'f', 'r', 'e', 'e', 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF8})},
        {"two movie headers", "atom-twice", kError, [](EditableMovie& m) { m.MooV().Repeat("mvhd"); }},
        {"two track headers", "atom-twice", kError,
         [](EditableMovie& m) { m.Track(kText).Repeat("tkhd"); }},
        {"two media headers", "atom-twice", kError, Repeat(kText, "mdia", "mdhd")},
        {"two sample tables", "atom-twice", kError, Repeat(kText, "minf", "stbl")},
        {"two tables of times", "atom-twice", kError, Repeat(kText, "stbl", "stts")},
        {"offsets of both widths", "atom-twice", kError,
         [](EditableMovie& m) {
             const EditableAtom narrow = m.Track(kVideo)["stco"];
             WidenOffsets(m);
             m.Track(kVideo)["stbl"].Add(narrow);
         }},
        {"garbage behind the last atom", "atom-type", kError, Tail({0, 0, 0, 12, 1, 2, 3, 4, 5, 6, 7, 8})},
        {"an unknown version of the movie header", "atom-version", kError, PutHeader(0, 0x02000000)},
        {"an unknown version of the edit list", "atom-version", kError, Put(kVideo, "elst", 0, 0x03000000)},
        {"compact sizes of no known width", "atom-version", kError,
         [](EditableMovie& m) {
             m.Track(kCaptions)["stsz"].type = "stz2";
             m.Track(kCaptions)["stz2"].Put(4, 5);
         }},
        {"more in front of the tables than is read", "payload-limit", kError,
         [](EditableMovie& m) { m.MooV()["mvhd"].Resize(2 << 20); }},
        {"three bytes behind the last atom", "trailing-bytes", kError, Tail({1, 2, 3})},
        {"zeros behind the last atom", "trailing-bytes", kError, Tail(std::vector<std::uint8_t>(100))},
        {"bytes behind the last extension", "trailing-bytes", kError,
         [](EditableMovie& m) {
             EditableAtom rest = NewAtom("xxxx", {1, 2});
             m.Track(kVideo)["stsd/apcn/gama"].fields.insert(m.Track(kVideo)["stsd/apcn/gama"].fields.end(), {1, 2});
             m.Track(kVideo)["stsd/apcn/gama"].statedSize = 12;
         }},

        // The file.
        {"'ftyp' at the end", "ftyp-order", kError,
         [](EditableMovie& m) { std::rotate(m.atoms.begin() + 1, m.atoms.begin() + 2, m.atoms.end());
                                std::rotate(m.atoms.begin(), m.atoms.begin() + 1, m.atoms.begin() + 2); }},
        {"no movie", "no-moov", kError, [](EditableMovie& m) { m.atoms.pop_back(); }},
        {"the file cut off", "no-moov", kError, [](EditableMovie& m) { m.atoms.pop_back();
                                                                       m.TopLevel("mdat").fields.resize(10);
                                                                       m.TopLevel("mdat").statedSize = 5000; }},
        {"a movie that its media swallowed", "moov-in-media", kError,
         [](EditableMovie& m) {
             m.TopLevel("mdat").statedSize =
                 static_cast<std::uint32_t>(m.TopLevel("mdat").GetSize() + m.MooV().GetSize());
         }},
        {"two movies", "moov-twice", kError, [](EditableMovie& m) { m.atoms.push_back(m.MooV()); }},
        {"no media", "no-mdat", kError, [](EditableMovie& m) { m.TopLevel("mdat").type = "free"; }},
        {"media of nobody", "media-unused", kNote, [](EditableMovie& m) { m.TopLevel("mdat").Resize(10); }},
        {"fragments that are not announced", "fragments", kError,
         [](EditableMovie& m) { m.atoms.push_back(NewAtom("moof")); }},
        {"fragments", "fragments", kNote,
         [](EditableMovie& m) {
             m.MooV().Add(NewAtom("mvex"));
             m.atoms.push_back(NewAtom("moof"));
         }},

        // The movie.
        {"no movie header", "no-mvhd", kError, [](EditableMovie& m) { m.MooV().Remove("mvhd"); }},
        {"no tracks", "no-tracks", kNote,
         [](EditableMovie& m) {
             m.MooV().children.resize(1);
             m.MooV()["mvhd"].Put(16, 0);
         }},
        {"a movie time scale of 0", "time-scale", kError, PutHeader(12, 0)},
        {"a media time scale of 0", "time-scale", kError, Put(kMono, "mdhd", 12, 0)},
        {"a movie longer than its tracks", "movie-duration", kError, PutHeader(16, 300)},
        {"a movie shorter than its tracks", "movie-duration", kError, PutHeader(16, 200)},
        {"a next track ID that is taken", "next-track-id", kError, PutHeader(96, 6)},
        {"a next track ID of 0", "next-track-id", kError, PutHeader(96, 0)},
        {"a duration with its top bit set", "duration-width", kWarning, Put(kText, "mdhd", 16, 0x80000000)},

        // Tracks.
        {"no track header", "no-tkhd", kError, [](EditableMovie& m) { m.Track(kText).Remove("tkhd"); }},
        {"no media", "no-mdia", kError, [](EditableMovie& m) { m.Track(kCaptions).Remove("mdia"); }},
        {"no media header", "no-mdhd", kError, Remove(kCaptions, "mdia", "mdhd")},
        {"no handler", "no-hdlr", kError, Remove(kCaptions, "mdia", "hdlr")},
        {"no sample table", "no-stbl", kError, Remove(kCaptions, "minf", "stbl")},
        {"no data reference", "no-dref", kError, Remove(kCaptions, "minf", "dinf")},
        {"more data references than there are", "dref-count", kError, Put(kMono, "dref", 4, 2)},
        {"media at a place that is not listed", "data-reference", kError,
         [](EditableMovie& m) { m.Track(kVideo)["apcn"].Put16(6, 2); }},
        {"media in another file", "external-media", kNote, Put(kMono, "dref/alis", 0, 0)},
        {"two tracks of one ID", "track-id", kError, Put(kText, "tkhd", 12, 1)},
        {"a track of ID 0", "track-id", kError, Put(kText, "tkhd", 12, 0)},
        {"a track longer than its edits", "track-duration", kError, Add(kText, "tkhd", 20, 5)},
        {"a track shorter than its edits", "track-duration", kWarning, Add(kText, "tkhd", 20, -5)},
        {"video shown without a width", "track-size", kWarning, Put(kVideo, "tkhd", 76, 0)},
        {"an unknown kind of media", "handler", kWarning, Put(kText, "hdlr", 8, FourCC("zzzz"))},
        {"video with the header of sound", "media-header", kError,
         [](EditableMovie& m) { m.Track(kVideo)["vmhd"] = m.Track(kMono)["smhd"]; }},
        {"sound that says it is video", "media-header", kError, Put(kMono, "hdlr", 8, FourCC("vide"))},
        {"no media information header", "media-header", kError, Remove(kMono, "minf", "smhd")},
        {"text without a media information header", "media-header", kWarning, Remove(kText, "minf", "gmhd")},
        {"a generic header without 'gmin'", "generic-header", kError, Remove(kCaptions, "gmhd", "gmin")},
        {"a generic header without timecode", "generic-header", kError, Remove(kTimecode, "gmhd", "tmcd")},
        {"a generic header without text", "generic-header", kError, Remove(kText, "gmhd", "text")},
        {"an aperture that is missing", "aperture", kWarning, Remove(kVideo, "tapt", "clef")},
        {"another encoded size", "aperture", kWarning, Put(kVideo, "enof", 4, 640 << 16)},
        {"another clean size", "aperture", kWarning, Put(kVideo, "clef", 4, 700 << 16)},
        {"another production size", "aperture", kWarning, Put(kVideo, "prof", 4, 720 << 16)},

        // Edits and references.
        {"an edit list without edits", "edit-none", kNote,
         [](EditableMovie& m) {
             m.Track(kVideo)["elst"].Put(4, 0);
             m.Track(kVideo)["elst"].Resize(-12);
         }},
        {"an edit longer than its media", "edit-range", kError, Add(kMono, "elst", 8, 30)},
        {"an edit that begins behind its media", "edit-range", kError, Put(kMono, "elst", 12, 500)},
        {"an edit at half the speed", "edit-rate", kNote, Put(kMono, "elst", 16, 0x8000)},
        {"an edit that begins at a negative time", "edit-time", kError, Put(kMono, "elst", 12, 0xFFFFFFFE)},
        {"a reference to a track that does not exist", "reference-track", kError, Put(kVideo, "tref/tmcd", 0, 77)},
        {"a reference to no track", "reference-none", kWarning, Put(kVideo, "tref/chap", 0, 0)},
        {"a reference to the track itself", "reference-self", kWarning, Put(kVideo, "tref/chap", 0, 1)},
        {"a timecode reference to sound", "reference-kind", kError, Put(kVideo, "tref/tmcd", 0, 2)},
        {"a chapter reference to sound", "reference-kind", kError, Put(kVideo, "tref/chap", 0, 2)},
        {"a reference of three bytes", "reference-size", kError, Resize(kVideo, "tref/chap", -1)},

        // Sample tables.
        {"no descriptions", "table-missing", kError, Remove(kCaptions, "stbl", "stsd")},
        {"no times", "table-missing", kError, Remove(kCaptions, "stbl", "stts")},
        {"no samples in chunks", "table-missing", kError, Remove(kCaptions, "stbl", "stsc")},
        {"no sizes", "table-missing", kError, Remove(kCaptions, "stbl", "stsz")},
        {"no offsets", "table-missing", kError, Remove(kCaptions, "stbl", "stco")},
        {"fewer offsets than stated", "table-count", kError, Put(kVideo, "stco", 4, 11)},
        {"more offsets than stated", "table-count", kError, Put(kVideo, "stco", 4, 9)},
        {"an absurd number of times", "table-count", kError, Put(kVideo, "stts", 4, 0xFFFFFFFF)},
        {"fewer edits than stated", "table-count", kError, Put(kVideo, "elst", 4, 2)},
        {"fewer sizes than stated", "table-count", kError, Put(kVideo, "stsz", 8, 11)},
        {"a list behind a uniform size", "table-count", kError, Resize(kMono, "stsz", 4)},
        {"times for another number of samples", "stts-count", kError, Add(kVideo, "stts", 8, 1)},
        {"a number of uniform samples that is too small", "stts-count", kError, Add(kMono, "stsz", 8, -1)},
        {"media that does not last as long as its samples", "media-duration", kError, Add(kVideo, "mdhd", 16, 1)},
        {"samples that last longer than their media", "media-duration", kError, Put(kVideo, "stts", 12, 2)},
        {"more samples in a chunk than there are", "stsc-count", kError, Put(kVideo, "stsc", 12, 2)},
        {"fewer samples in a chunk than there are", "stsc-count", kError, Put(kMono, "stsc", 12, 39)},
        {"chunks that do not begin with the first", "stsc-order", kError, Put(kVideo, "stsc", 8, 2)},
        {"chunks that do not exist", "stsc-order", kError,
         [](EditableMovie& m) {
             EditableAtom& table = m.Track(kVideo)["stsc"];
             table.Put(4, 2);
             const std::vector<std::uint8_t> entry = Words({12, 1, 1});
             table.fields.insert(table.fields.end(), entry.begin(), entry.end());
         }},
        {"chunks without samples", "stsc-empty", kWarning, Put(kCaptions, "stsc", 12, 0)},
        {"chunks of a description that does not exist", "stsc-description", kError, Put(kVideo, "stsc", 16, 2)},
        {"a description without its chunks' description", "stsc-description", kError, Put(kVideo, "stsc", 16, 0)},
        {"more descriptions than there are", "stsd-count", kError, Put(kVideo, "stsd", 4, 2)},
        {"no description", "stsd-none", kError,
         [](EditableMovie& m) {
             m.Track(kCaptions)["stsd"].Put(4, 0);
             m.Track(kCaptions)["stsd"].children.clear();
         }},
        {"sync samples that do not exist", "stss-order", kError,
         Append(kVideo, "stbl", NewAtom("stss", Words({0, 2, 1, 11})))},
        {"sync samples out of order", "stss-order", kError,
         Append(kVideo, "stbl", NewAtom("stss", Words({0, 2, 5, 3})))},
        {"display times for another number of samples", "ctts-count", kError,
         Append(kVideo, "stbl", NewAtom("ctts", Words({0, 1, 9, 0})))},
        {"dependencies of another number of samples", "sdtp-count", kError,
         Append(kVideo, "stbl", NewAtom("sdtp", std::vector<std::uint8_t>(4 + 9)))},
        {"a chunk behind the file", "chunk-outside", kError, Put(kVideo, "stco", 8, 0x7FFFFFFF)},
        {"a chunk in front of the media", "chunk-outside", kError, Put(kVideo, "stco", 8, 8)},
        {"a chunk that leaves the media", "chunk-outside", kError, Add(kSurround, "stco", 8 + 4 * 9, 1)},
        {"chunks of two tracks in one place", "chunk-overlap", kError, Add(kCaptions, "stco", 8, 1)},
        {"two chunks of one track in one place", "chunk-overlap", kError,
         [](EditableMovie& m) { m.Track(kVideo)["stco"].Put(12, m.Track(kVideo)["stco"].Get(8)); }},
        {"a sample that reaches into the next chunk", "chunk-overlap", kError, Add(kVideo, "stsz", 12, 1)},
        {"64-bit offsets without need", "offset-width", kNote, WidenOffsets},

        // Samples.
        {"uncompressed frames with too few bytes", "frame-short", kError,
         [](EditableMovie& m) { m.Track(kVideo)["apcn"].type = "2vuy"; }},
        {"a picture of another size", "picture", kError, Pictures(std::string("\0\0\x0A\0\0\0\0\0\0\0\0\0\xD8\2", 14))},
        {"a picture that is none", "picture", kError, Pictures("\xFF\xFF")},
        {"text on a track of video", "media-kind", kError,
         [](EditableMovie& m) { m.Track(kVideo)["apcn"].type = "text"; }},
        {"a text among frames", "media-kind", kError,
         [](EditableMovie& m) {
             PutVideo(m, 1, 0, std::string("\0\x57", 2));
             PutVideo(m, 1, 89, std::string("\0\0\0\x0C" "encd", 8));
         }},
        {"listed samples that are no whole frames", "sound-size", kError,
         [](EditableMovie& m) {
             EditableAtom& sizes = m.Track(kMono)["stsz"];
             sizes.fields.resize(12 + 4 * 400);
             sizes.Put(4, 0);
             for (std::size_t sample = 0; sample < 400; ++sample)
             {
                 sizes.Put(12 + 4 * sample, sample == 0 ? 2 : sample == 1 ? 4 : 3);
             }
         }},

        // Descriptions.
        {"no data format", "entry-format", kError,
         [](EditableMovie& m) { m.Track(kVideo)["apcn"].type = std::string(4, '\0'); }},
        {"a video description cut off", "entry-short", kError,
         [](EditableMovie& m) {
             m.Track(kVideo)["apcn"].children.clear();
             m.Track(kVideo)["apcn"].Resize(-10);
         }},
        {"a sound description cut off", "entry-short", kError,
         [](EditableMovie& m) {
             m.Track(kSurround)["lpcm"].children.clear();
             m.Track(kSurround)["lpcm"].Resize(-4);
         }},
        {"a timecode description cut off", "entry-short", kError, Resize(kTimecode, "stsd/tmcd", -2)},
        {"a caption description cut off", "entry-short", kError, Resize(kCaptions, "c608", -1)},
        {"video without a width", "video-size", kError, [](EditableMovie& m) { m.Track(kVideo)["apcn"].Put16(24, 0); }},
        {"a pixel aspect with a 0", "pixel-aspect", kWarning, Put(kVideo, "pasp", 4, 0)},
        {"three fields", "field", kError, [](EditableMovie& m) { m.Track(kVideo)["fiel"].Put16(0, 0x0300); }},
        {"a clean aperture that divides by 0", "clean-aperture", kError, Put(kVideo, "clap", 4, 0)},
        {"a clean aperture beyond the frame", "clean-aperture", kError, Put(kVideo, "clap", 0, 721)},
        {"sound without channels", "sound-channels", kError, Put(kSurround, "lpcm", 40, 0)},
        {"sound without a rate", "sound-rate", kWarning, Put(kMono, "in24", 24, 0)},
        {"version 2 frames of another size", "sound-frame", kError, Put(kSurround, "lpcm", 56, 10)},
        {"version 1 frames of another size", "sound-frame", kError, Put(kMono, "in24", 36, 6)},
        {"samples of another size than the frames", "sound-size", kError, Put(kMono, "stsz", 4, 4)},
        {"fewer labels than channels", "sound-labels", kError, Put(kSurround, "chan", 12, 5)},
        {"a layout of another number of channels", "sound-labels", kError, Put(kSurround, "chan", 4, 0x00650002)},
        {"more channels than labels", "sound-labels", kError,
         [](EditableMovie& m) { m.Track(kMono)["in24"].Put16(16, 2); }},
        {"timecode of no rate", "timecode-rate", kError, Put(kTimecode, "stsd/tmcd", 16, 0)},
        {"timecode of another rate", "timecode-rate", kWarning, Put(kTimecode, "stsd/tmcd", 16, 30)},
        {"drop-frame timecode at 25 frames", "timecode-drop", kError, Put(kTimecode, "stsd/tmcd", 12, 1)},
        {"a timecode of two bytes", "timecode-sample", kError, Put(kTimecode, "stsz", 4, 2)},
        {"timecode for half of the video", "timecode-duration", kError,
         [](EditableMovie& m) {
             for (const auto& [path, offset, units] :
                  {std::tuple{"stts", 12, 5U}, {"mdhd", 16, 5U}, {"tkhd", 20, 120U}, {"elst", 8, 120U}})
             {
                 m.Track(kTimecode)[path].Put(static_cast<std::size_t>(offset), units);
             }
         }},
    };
    return kFaults;
}

TEST_F(InspectFaults, NothingIsFoundInTheMovieWithoutFaults)
{
    EXPECT_EQ(Text(Verify(Good().Bytes())), "");
}

TEST_F(InspectFaults, EveryFaultIsFound)
{
    const EditableMovie good = Good();
    for (const Fault& fault : Faults())
    {
        SCOPED_TRACE(fault.name);
        EditableMovie movie = good;
        fault.make(movie);
        const std::vector<std::uint8_t> bytes = movie.Bytes();
        const Inspect::Findings findings = Verify(bytes);
        EXPECT_TRUE(Has(findings, fault.severity, fault.check)) << Text(findings);
        EXPECT_EQ(findings.HasErrors(),
                  std::any_of(findings.List().begin(), findings.List().end(),
                              [](const auto& inFinding) { return inFinding.severity == kError; }));
        for (const Inspect::Finding& finding : findings.List())
        {
            EXPECT_TRUE(finding.check == "chunk-outside" || finding.offset <= bytes.size()) << Text(findings);
        }
    }
}

TEST_F(InspectFaults, EveryCheckIsRepresented)
{
    std::set<std::string> faults;
    for (const Fault& fault : Faults())
    {
        faults.insert(fault.check);
    }
    EXPECT_EQ(faults, std::set<std::string>(Inspect::kChecks.begin(), Inspect::kChecks.end()));
}

// A cut anywhere leaves something that is not sound, and nothing that cannot be read.
TEST_F(InspectFaults, EveryCutIsFound)
{
    std::vector<std::uint8_t> bytes = Good().Bytes();
    while (!bytes.empty())
    {
        bytes.pop_back();
        ASSERT_TRUE(Verify(bytes).HasErrors()) << "cut to " << bytes.size() << " bytes";
    }
}

// Any single byte of 'moov' may be anything; reading must end well.
TEST_F(InspectFaults, AnyByteMayBeWrong)
{
    const std::vector<std::uint8_t> good = Good().Bytes();
    const std::size_t begin = good.size() - Good().MooV().GetSize();
    for (std::size_t i = begin; i < good.size(); ++i)
    {
        for (const int value : {0x00, 0x80, 0xFF})
        {
            std::vector<std::uint8_t> bytes = good;
            bytes[i] = static_cast<std::uint8_t>(value);
            const Inspect::MemorySource source(bytes);
            Inspect::Findings findings;
            const Inspect::MovieFile movie(source, findings);
            Inspect::VerifyMovie(movie, findings);
            EXPECT_FALSE(Inspect::DescribeMovie(movie).is_null());
        }
    }
}

// ---- Reading ---------------------------------------------------------------------------------------------------------

class InspectReading : public InspectFaults
{
};

std::vector<std::uint64_t> SampleSizes(const Inspect::Track& inTrack)
{
    std::vector<std::uint64_t> sizes;
    inTrack.VisitSamples([&sizes](const Inspect::Sample& inSample) {
        sizes.push_back(inSample.size);
        return true;
    });
    return sizes;
}

TEST_F(InspectReading, SamplesLieWhereTheyWereWritten)
{
    const std::vector<std::uint8_t> bytes = Good().Bytes();
    const Inspect::MemorySource source(bytes);
    Inspect::Findings findings;
    const Inspect::MovieFile movie(source, findings);
    ASSERT_EQ(movie.GetTracks().size(), 6u);
    for (const auto& [track, content, count, duration] : {std::tuple{kVideo, 'v', 10U, 1U},
                                                          {kMono, 'm', 400U, 1U},
                                                          {kSurround, 's', 400U, 1U},
                                                          {kCaptions, 'c', 10U, 1U}})
    {
        std::uint64_t visited = 0;
        movie.GetTracks()[track].VisitSamples(
            [&, expected = content, length = duration](const Inspect::Sample& inSample) {
                EXPECT_EQ(inSample.index, visited);
                EXPECT_EQ(inSample.time, visited * length);
                for (std::uint64_t i = 0; i < inSample.size; ++i)
                {
                    EXPECT_EQ(bytes.at(inSample.offset + i), expected);
                }
                ++visited;
                return true;
            });
        EXPECT_EQ(visited, count);
    }
    EXPECT_EQ(SampleSizes(movie.GetTracks()[kVideo]),
              (std::vector<std::uint64_t>{100, 101, 102, 103, 104, 105, 106, 107, 108, 109}));
    EXPECT_EQ(SampleSizes(movie.GetTracks()[kMono]), std::vector<std::uint64_t>(400, 3));
}

TEST_F(InspectReading, DescriptionSaysWhatTheMovieHolds)
{
    const std::vector<std::uint8_t> bytes = Good().Bytes();
    const Inspect::MemorySource source(bytes);
    Inspect::Findings findings;
    const nlohmann::ordered_json movie = Inspect::DescribeMovie(Inspect::MovieFile(source, findings));
    EXPECT_EQ(movie["seconds"], 0.4);
    EXPECT_EQ(movie["moov"]["position"], "end");
    EXPECT_EQ(movie["chapters"][1]["title"], "Second");
    EXPECT_EQ(movie["chapters"][1]["start"], 0.2);
    const auto& video = movie["tracks"][kVideo];
    EXPECT_EQ(video["video"]["color"]["name"], "BT.601 525");
    EXPECT_EQ(video["video"]["pixelAspect"], "10:11");
    EXPECT_EQ(video["references"]["'tmcd'"][0], 4);
    EXPECT_EQ(video["bytes"], 1045);
    EXPECT_EQ(movie["tracks"][kMono]["sound"]["littleEndian"], false);
    EXPECT_EQ(movie["tracks"][kSurround]["sound"]["channelLabels"][3], "LFE");
    EXPECT_EQ(movie["tracks"][kTimecode]["timecode"]["start"], "00:00:00:00");
}

TEST_F(InspectReading, SamplesAreWrittenAsTheyAreVisited)
{
    const std::vector<std::uint8_t> bytes = Good().Bytes();
    const Inspect::MemorySource source(bytes);
    Inspect::Findings findings;
    const Inspect::MovieFile movie(source, findings);
    for (const Inspect::Track& track : movie.GetTracks())
    {
        std::ostringstream written;
        Inspect::WriteSamples(track, written);
        const nlohmann::ordered_json samples = nlohmann::ordered_json::parse(written.str());
        std::size_t next = 0;
        track.VisitSamples([&](const Inspect::Sample& inSample) {
            const nlohmann::ordered_json& sample = samples.at(next++);
            EXPECT_EQ(sample["sample"], inSample.index + 1);
            EXPECT_EQ(sample["offset"], inSample.offset);
            EXPECT_EQ(sample["size"], inSample.size);
            EXPECT_EQ(sample["time"], inSample.time);
            return true;
        });
        EXPECT_EQ(samples.size(), track.sampleCount);
    }
    std::ostringstream failing;
    failing.setstate(std::ios::badbit);
    Inspect::Track endless = movie.GetTracks()[kMono];
    endless.sampleCount = 0xFFFFFFFF;
    endless.sampleToChunk = {{1, 0xFFFFFFFF, 1}};
    Inspect::WriteSamples(endless, failing); // Returns.
}

// Wide sizes, a last atom that ends with the file, unknown atoms, and zeros that end user data, all at once.
TEST_F(InspectReading, AtomsOfEveryForm)
{
    EditableMovie movie = Good();
    movie.Track(kVideo)["stbl"].isWide = true;
    movie.Track(kMono)["stts"].isWide = true;
    EditableAtom unknown = NewAtom("?!?!", {1, 2, 3});
    movie.Track(kVideo).Add(unknown);
    EditableAtom userData = NewAtom("udta", std::vector<std::uint8_t>(4));
    movie.Track(kVideo).Add(userData);
    movie.MooV().isWide = true;
    movie.atoms.insert(movie.atoms.begin() + 1, NewAtom("free"));
    movie.atoms.insert(movie.atoms.begin() + 1, unknown);
    std::swap(movie.atoms[1], movie.atoms[2]);
    const std::uint32_t inserted = 8 + 11;
    for (const std::size_t track : {kVideo, kMono, kSurround, kTimecode, kText, kCaptions})
    {
        EditableAtom& offsets = movie.Track(track)["stco"];
        for (std::size_t entry = 8; entry < offsets.fields.size(); entry += 4)
        {
            offsets.Put(entry, offsets.Get(entry) + inserted);
        }
    }
    std::vector<std::uint8_t> bytes = movie.Bytes();
    EXPECT_EQ(Text(Verify(bytes)), "");

    movie.MooV().isWide = false;
    movie.MooV().statedSize = 0;
    bytes = movie.Bytes();
    EXPECT_EQ(Text(Verify(bytes)), "");
    const Inspect::MemorySource source(bytes);
    Inspect::Findings findings;
    const Inspect::AtomTree tree(source, findings);
    const Inspect::Atom* found = tree.Find(FourCC("?!?!"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->offset, 32u + 8u);
    EXPECT_EQ(found->size, 11u);
    EXPECT_EQ(tree.Find(FourCC("moov"))->GetEnd(), bytes.size());
}

TEST_F(InspectReading, HeadersOfVersion1)
{
    EditableMovie movie = Good();
    // Widens 32-bit values at offsets of version 0, from the last to the first.
    const auto widen = [](EditableAtom& ioAtom, std::initializer_list<std::ptrdiff_t> inOffsets) {
        ioAtom.fields[0] = 1;
        for (const std::ptrdiff_t offset : inOffsets)
        {
            ioAtom.fields.insert(ioAtom.fields.begin() + offset, 4, 0);
        }
    };
    widen(movie.MooV()["mvhd"], {16, 8, 4});
    widen(movie.Track(kVideo)["tkhd"], {20, 8, 4});
    widen(movie.Track(kVideo)["mdhd"], {16, 8, 4});
    widen(movie.Track(kVideo)["elst"], {12, 8});
    EXPECT_EQ(Text(Verify(movie.Bytes())), "");
}

TEST_F(InspectReading, CompactSampleSizes)
{
    for (const std::uint32_t bits : {4U, 8U, 16U})
    {
        EditableMovie movie = Good();
        EditableAtom& table = movie.Track(kCaptions)["stsz"];
        table.type = "stz2";
        table.fields = Words({0, bits, 10});
        const std::vector<std::uint8_t> size =
            bits == 16 ? std::vector<std::uint8_t>{0, 10} : std::vector<std::uint8_t>{10};
        for (int sample = 0; bits != 4 && sample < 10; ++sample)
        {
            table.fields.insert(table.fields.end(), size.begin(), size.end());
        }
        if (bits == 4)
        {
            table.fields.insert(table.fields.end(), 5, 0xAA);
        }
        const std::vector<std::uint8_t> bytes = movie.Bytes();
        EXPECT_EQ(Text(Verify(bytes)), "") << bits;
        const Inspect::MemorySource source(bytes);
        Inspect::Findings findings;
        const Inspect::MovieFile file(source, findings);
        EXPECT_EQ(SampleSizes(file.GetTracks()[kCaptions]), std::vector<std::uint64_t>(10, 10)) << bits;
    }
}

TEST_F(InspectReading, InterleaveIsHowFarSoundAndVideoLieApart)
{
    const auto skew = [](const EditableMovie& inMovie) {
        const std::vector<std::uint8_t> bytes = inMovie.Bytes();
        const Inspect::MemorySource source(bytes);
        Inspect::Findings findings;
        const Inspect::MovieFile movie(source, findings);
        return Inspect::MeasureInterleave(movie, Inspect::ChunksInFileOrder(movie)).longestSkew;
    };
    EditableMovie movie = Good();
    EXPECT_NEAR(skew(movie), 0.04, 1e-9); // One frame.
    // The first track of sound in one chunk, in front of everything.
    EditableAtom& sound = movie.Track(kMono)["stbl"];
    sound["stco"].fields = Words({0, 1, 40});
    sound["stsc"].fields = Words({0, 1, 1, 400, 1});
    EXPECT_NEAR(skew(movie), 0.4, 1e-9);
    // In one chunk behind everything, where it belongs when it is heard after the video.
    const auto end = movie.TopLevel("ftyp").GetSize() + movie.TopLevel("mdat").GetSize();
    sound["stco"].fields = Words({0, 1, static_cast<std::uint32_t>(end - 1)});
    EXPECT_GT(skew(movie), 0.3);
    movie.Track(kMono)["elst"].fields = Words({0, 2, 300, 0xFFFFFFFF, 0x10000, 240, 0, 0x10000});
    EXPECT_NEAR(skew(movie), 0.04, 1e-9);
}

TEST(InspectTimecode, CountsAsItsFormatSays)
{
    const auto text = [](std::uint32_t inFrame, std::uint8_t inRate, std::uint32_t inFlags) {
        Inspect::TimecodeFormat format;
        format.numberOfFrames = inRate;
        format.flags = inFlags;
        return Inspect::FormatTimecode(inFrame, format);
    };
    EXPECT_EQ(text(25 * 3600 + 24, 25, 0), "01:00:00:24");
    EXPECT_EQ(text(1799, 30, 1), "00:00:59;29");
    EXPECT_EQ(text(1800, 30, 1), "00:01:00;02");
    EXPECT_EQ(text(17981, 30, 1), "00:09:59;29");
    EXPECT_EQ(text(17982, 30, 1), "00:10:00;00");
    EXPECT_EQ(text(107892, 30, 1), "01:00:00;00");
    EXPECT_EQ(text(3600, 60, 1), "00:01:00;04");
    EXPECT_EQ(text(24 * 3600 * 25, 25, 0), "00:00:00:00");
    EXPECT_EQ(text(5, 0, 0), "");
}

// ---- Movies as the library writes them
// -------------------------------------------------------------------------------

class InspectMovies : public MovieTest
{
protected:
    //! What is found in the closed movie.
    Inspect::Findings Findings()
    {
        EXPECT_EQ(writer->Close(), 0);
        const BinaryDataArray movie = Movie();
        return Verify(std::vector<std::uint8_t>(movie.begin(), movie.end()));
    }
};

TEST_F(InspectMovies, ANegativeTrimInIsSound)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID track = NewTrack(QT::kQTMediaTypeText);
    ASSERT_GE(Add(track, "text", 1, 600), 0);
    ASSERT_EQ(writer->SetTrackTrimIn(track, -100), 0);
    const Inspect::Findings findings = Findings();
    EXPECT_FALSE(findings.HasErrors()) << Text(findings);
}

TEST_F(InspectMovies, ATrimInIsSoundAtAnyTimeScale)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID track = NewTrack(QT::kQTMediaTypeText, 30000);
    ASSERT_GE(Add(track, "text", 1, 1499), 0);
    ASSERT_EQ(writer->SetTrackTrimIn(track, 1499), 0);
    EXPECT_EQ(Text(Findings()), "");
}

TEST_F(InspectMovies, AReferenceToADroppedTrackIsSound)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID track = NewTrack(QT::kQTMediaTypeText);
    const QT::TrackID dropped = NewTrack(QT::kQTMediaTypeText);
    ASSERT_EQ(writer->AddTrackReference(track, dropped, QT::kQTTrackReferenceChapter), 0);
    ASSERT_GE(Add(track, "text"), 0);
    const Inspect::Findings findings = Findings();
    EXPECT_FALSE(findings.HasErrors()) << Text(findings);
    EXPECT_TRUE(Has(findings, kWarning, "reference-none"));
}

TEST_F(InspectMovies, WritesOfNoSamplesAreSoundWhereTheyMoveNoOther)
{
    struct Row
    {
        std::vector<int> counts;
        bool endsChunks;
        bool isSound;
    };
    for (const Row& row : {Row{{2, 2, 0}, false, true}, Row{{2, 0, 3}, false, true}, Row{{2, 0, 0}, false, true},
                           Row{{0}, false, true}, Row{{0, 2, 2, 0, 3, 0, 0, 1, 0}, true, true},
                           // The chunk of no samples takes those of the next, which then take the ones behind.
                           Row{{0, 2, 2}, false, false}})
    {
        SCOPED_TRACE(testing::PrintToString(row.counts));
        writer = QT::CreateReelmill();
        ASSERT_EQ(Create(), 0);
        const QT::TrackID track = NewTrack(QT::kQTMediaTypeText);
        for (const int count : row.counts)
        {
            ASSERT_GE(Add(track, std::string(static_cast<std::size_t>(8 * count), 't'), count), 0);
            if (row.endsChunks)
            {
                ASSERT_EQ(writer->EndMediaChunk(track), 0);
            }
        }
        const Inspect::Findings findings = Findings();
        EXPECT_EQ(findings.HasErrors(), !row.isSound) << Text(findings);
    }
}

TEST_F(InspectMovies, EmptySamplesAndATrackOfNothingButThemAreSound)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID empty = NewTrack(QT::kQTMediaTypeText);
    const QT::TrackID mixed = NewTrack(QT::kQTMediaTypeText);
    ASSERT_GE(Add(empty, "", 5), 0);
    ASSERT_GE(Add(mixed, "", 2), 0);
    ASSERT_GE(Add(mixed, "text", 2), 0);
    const Inspect::Findings findings = Findings();
    EXPECT_FALSE(findings.HasErrors()) << Text(findings);
}

TEST_F(InspectMovies, PaddedDescriptionsAreSound)
{
    Tolbin::UTF16String name = u"Codec";
    ASSERT_EQ(Create(), 0);
    for (const unsigned long padding : {1UL, 4UL, 7UL, 8UL, 12UL, 100000UL})
    {
        const auto image =
            QT::CreateImageDescription(Code("apcn"), name, 64, 48, 24, Quorlan::kFieldTypeProgressive, {1, 1});
        image->SetExtraPaddingAmount(padding);
        ASSERT_GE(Add(NewTrack(QT::kQTMediaTypeVideo, 25, image), "frame"), 0);
    }
    EXPECT_EQ(Text(Findings()), "");
}

TEST_F(InspectMovies, SoundOfEveryKindIsSound)
{
    using namespace Quorlan;
    ASSERT_EQ(Create(), 0);
    for (const int rate : {48000, 96000})
    {
        for (const Sambrel::AudioSampleType type :
             {Sambrel::kAudioSampleTypeUInt8, Sambrel::kAudioSampleTypeInt16LE, Sambrel::kAudioSampleTypeInt24BE,
              Sambrel::kAudioSampleTypeFloat64LE})
        {
            // The stereo tag, labels, and none at all.
            for (const AudioChannelLayout& layout :
                 {AudioChannelLayout{kAudioChannelLabelLeft, kAudioChannelLabelRight},
                  AudioChannelLayout{kAudioChannelLabelRight, kAudioChannelLabelLeft},
                  AudioChannelLayout{kAudioChannelLabelDiscrete, kAudioChannelLabelDiscrete}})
            {
                const int bytes = 480 * 2 *
                                  (type == Sambrel::kAudioSampleTypeUInt8     ? 1
                                   : type == Sambrel::kAudioSampleTypeInt16LE ? 2
                                   : type == Sambrel::kAudioSampleTypeInt24BE ? 3
                                                                              : 8);
                const QT::TrackID track =
                    NewTrack(QT::kQTMediaTypeSound, rate, QT::CreateSoundDescription(0, 2, rate, type, layout, true));
                ASSERT_GE(Add(track, std::string(static_cast<std::size_t>(bytes), 's'), 480), 0);
            }
        }
    }
    EXPECT_EQ(Text(Findings()), "");
}

TEST_F(InspectMovies, AMovieOfNothingIsSound)
{
    ASSERT_EQ(Create(), 0);
    const Inspect::Findings findings = Findings();
    EXPECT_FALSE(findings.HasErrors()) << Text(findings);
}

//! A file of the sparse file system.
class MovieSource final : public Inspect::ByteSource
{
public:
    MovieSource(const SparseFileSystem& inFiles, const Tolbin::UTF16String& inPath) : mFiles(inFiles), mPath(inPath) {}

    std::uint64_t GetSize() const override { return static_cast<std::uint64_t>(mFiles.Size(mPath)); }

    std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const override
    {
        const std::size_t count = std::min<std::uint64_t>(outBytes.size(), GetSize() - std::min(GetSize(), inOffset));
        const BinaryDataArray bytes = mFiles.Read(mPath, static_cast<std::int64_t>(inOffset), count);
        std::copy(bytes.begin(), bytes.end(), outBytes.begin());
        return count;
    }

private:
    const SparseFileSystem& mFiles;
    const Tolbin::UTF16String& mPath;
};

TEST_F(InspectMovies, LargeMoviesAreSound)
{
    SparseFileSystem sparse;
    On scope{*this, sparse};
    ASSERT_EQ(Create(), 0);
    const QT::TrackID early = NewTrack(QT::kQTMediaTypeText);
    const QT::TrackID large = NewTrack(QT::kQTMediaTypeText);
    ASSERT_GE(Add(early, "frame"), 0);
    std::string block(256 << 20, 'v');
    for (int i = 0; i < 18; ++i)
    {
        ASSERT_GE(writer->AddMediaSample(large, block.data(), static_cast<int>(block.size()), 1, 1, 0, false), 0);
    }
    std::string item(2 << 20, 'u'); // Sends 'moov' to the end.
    ASSERT_EQ(writer->AddUserData(Code("name"), item.data(), static_cast<int>(item.size())), 0);
    ASSERT_EQ(writer->Close(), 0);
    const Inspect::Findings findings = Verify(MovieSource(sparse, path));
    EXPECT_FALSE(findings.HasErrors()) << Text(findings);
}

// ---- Hostile files
// ---------------------------------------------------------------------------------------------------

//! Bytes of memory that the process has taken at most so far.
std::uint64_t PeakMemory()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
}

class InspectHostile : public InspectFaults
{
};

TEST_F(InspectHostile, CountsOfBillionsOfSamplesCostNothing)
{
    EditableMovie movie = Good();
    // All samples empty and in one chunk after the other.
    EditableAtom& table = movie.Track(kVideo)["stbl"];
    table["stsz"].fields = Words({0, 0, 0xFFFFFFFF});
    table["stts"].fields = Words({0, 2, 0, 1, 0xFFFFFFFF, 0xFFFFFFFF});
    table["stsc"].fields = Words({0, 1, 1, 0xFFFFFFFF, 1});
    // All of one byte.
    movie.Track(kCaptions)["stsz"].fields = Words({0, 1, 0xFFFFFFFF});
    movie.Track(kCaptions)["stsc"].fields = Words({0, 1, 1, 0x10000000, 1});
    // Frames whose size the description says.
    movie.Track(kSurround)["stsz"].fields = Words({0, 1, 0xFFFFFFFF});
    movie.Track(kSurround)["lpcm"].Put(56, 0xFFFFFFFF);
    const std::vector<std::uint8_t> bytes = movie.Bytes();
    const Inspect::MemorySource source(bytes);
    Inspect::Findings findings;
    const Inspect::MovieFile file(source, findings);
    const std::uint64_t before = PeakMemory();
    Inspect::VerifyMovie(file, findings);
    EXPECT_TRUE(findings.HasErrors());
    EXPECT_EQ(Inspect::DescribeMovie(file)["tracks"][0]["samples"], 0xFFFFFFFF);
    EXPECT_LT(PeakMemory() - before, 64u << 20);
}

TEST_F(InspectHostile, TextsThatShareTheirBytesStayFew)
{
    EditableMovie movie = Good();
    constexpr std::uint32_t kChunks = 5000;
    movie.TopLevel("mdat").fields.assign(100000, 'x');
    EditableAtom& table = movie.Track(kText)["stbl"];
    table["stsz"].fields = Words({0, 60000, kChunks});
    table["stco"].fields = Words({0, kChunks});
    for (std::uint32_t i = 0; i < kChunks; ++i)
    {
        const std::vector<std::uint8_t> offset = Words({40});
        table["stco"].fields.insert(table["stco"].fields.end(), offset.begin(), offset.end());
    }
    const std::vector<std::uint8_t> bytes = movie.Bytes();
    const Inspect::MemorySource source(bytes);
    Inspect::Findings findings;
    const Inspect::MovieFile file(source, findings);
    std::size_t total = 0;
    for (const Inspect::TextSample& text : Inspect::ReadTexts(file, file.GetTracks()[kText], kChunks))
    {
        total += text.text.size();
    }
    EXPECT_GT(total, 1u << 20);
    EXPECT_LT(total, 20u << 20);
}

TEST_F(InspectHostile, SparseTablesAreNotReadBeyondALimit)
{
    // Behind the media, tracks whose tables take 4 GiB of zeros each.
    EditableMovie movie = Good();
    constexpr std::uint64_t kHole = std::uint64_t{1} << 32;
    constexpr int kTracks = 20;
    const auto header = [](const char* inType, std::uint64_t inSize) {
        std::vector<std::uint8_t> bytes =
            Words({1, 0, static_cast<std::uint32_t>(inSize >> 32), static_cast<std::uint32_t>(inSize)});
        std::copy_n(inType, 4, bytes.begin() + 4);
        return bytes;
    };
    const std::uint64_t trackSize = kHole + 5 * 16;
    std::vector<std::uint8_t> head;
    movie.TopLevel("ftyp").Write(head);
    const std::uint64_t begin = head.size();
    const std::uint64_t end = begin + 16 + kTracks * trackSize;
    SparseSource source(end);
    source.Put(0, head);
    source.Put(begin, header("moov", end - begin));
    for (int i = 0; i < kTracks; ++i)
    {
        std::uint64_t offset = begin + 16 + static_cast<std::uint64_t>(i) * trackSize;
        std::uint64_t size = trackSize;
        for (const char* type : {"trak", "mdia", "minf", "stbl", i % 2 == 0 ? "stco" : "stsz"})
        {
            source.Put(offset, header(type, size));
            offset += 16;
            size -= 16;
        }
        source.Put(offset, Words({0, i % 2 == 0 ? 0x3FFFFF00U : 0, 0x3FFFFF00}));
    }
    Inspect::Findings findings;
    const Inspect::MovieFile file(source, findings);
    EXPECT_TRUE(Has(findings, kError, "payload-limit")) << Text(findings);
}

TEST_F(InspectHostile, NarrowOffsetsInAFileThatIsTooLargeForThemAreFound)
{
    EditableMovie movie = Good();
    movie.TopLevel("mdat").isWide = true;
    std::vector<std::uint8_t> head;
    movie.TopLevel("ftyp").Write(head);
    std::vector<std::uint8_t> mooV;
    movie.MooV().Write(mooV);
    constexpr std::uint64_t kMedia = std::uint64_t{5} << 30;
    SparseSource source(head.size() + 16 + kMedia + mooV.size());
    source.Put(0, head);
    source.Put(head.size(), Words({1, FourCC("mdat"), static_cast<std::uint32_t>((16 + kMedia) >> 32),
                                   static_cast<std::uint32_t>(16 + kMedia)}));
    source.Put(head.size() + 16 + kMedia, mooV);
    EXPECT_TRUE(Has(Verify(source), kError, "offset-width"));
}

TEST_F(InspectHostile, ManyTracksAndChunksTakeTimeInProportion)
{
    // Chunks times pieces of media, tracks times tracks, references times tracks: each would be 10^9 and more.
    EditableMovie movie = Good();
    constexpr std::uint32_t kTracks = 30000;
    for (std::uint32_t i = 0; i < kTracks; ++i)
    {
        EditableAtom track = NewAtom("trak");
        track.Add(NewAtom("tkhd", std::vector<std::uint8_t>(84)));
        track["tkhd"].Put(12, 100 + i);
        movie.MooV().Add(track);
    }
    EditableAtom reference = NewAtom("chap");
    for (std::uint32_t i = 0; i < 100000; ++i)
    {
        const std::vector<std::uint8_t> id = Words({200000 + i});
        reference.fields.insert(reference.fields.end(), id.begin(), id.end());
    }
    movie.Track(kText).Add(NewAtom("tref"));
    movie.Track(kText)["tref"].Add(reference);
    for (int i = 0; i < 100000; ++i)
    {
        movie.tail.insert(movie.tail.end(), {0, 0, 0, 8, 'm', 'd', 'a', 't'});
    }
    EditableAtom& offsets = movie.Track(kVideo)["stco"];
    offsets.Put(4, 200000);
    offsets.fields.resize(8 + 4 * 200000);
    movie.Track(kVideo)["stsz"].fields = Words({0, 1, 200000});
    const Inspect::Findings findings = Verify(movie.Bytes());
    EXPECT_TRUE(Has(findings, kError, "reference-track"));
    EXPECT_GT(findings.GetOmittedCount(), 100000u);
    EXPECT_LT(findings.List().size(), 100 * Inspect::kChecks.size());
}

TEST(InspectFiles, WhatIsNoFileIsRefusedAtOnce)
{
    const TempDirectory directory;
    EXPECT_THROW(Inspect::FileSource(directory.Path("missing.mov")), std::system_error);
    EXPECT_THROW(Inspect::FileSource(directory.Path("")), std::system_error);
    EXPECT_THROW(Inspect::FileSource("/dev/null"), std::system_error);
}

} // namespace
