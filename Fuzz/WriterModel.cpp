#include "WriterModel.h"

#include <ByteSource.h>
#include <MovieFile.h>
#include <Verify.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

namespace WriterModel
{

namespace
{

using Inspect::FourCC;

constexpr std::uint64_t kMaxAtomSize = 0x7FFFFFFF;
constexpr std::uint64_t kFileTypeSize = 32;
constexpr std::uint64_t kWideAndHeaderSize = 16; //!< 'wide' and the header of 'mdat', behind the room for 'moov'.

//! What a 32-bit field keeps.
std::int32_t Wrap(std::int64_t inValue)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(inValue));
}

//! Media units in movie units, truncated to 32 bits; reported where these lose anything, and where there is no unit.
std::int32_t ToMovieTime(std::int32_t inTime, std::int32_t inFrom, std::int32_t inTo, bool& ioIsReported)
{
    const std::int64_t time = inFrom != 0 ? std::int64_t{inTime} * inTo / inFrom : 0;
    ioIsReported = ioIsReported || inFrom == 0 || time < 0 || time > INT32_MAX;
    return Wrap(time);
}

int SampleSize(const Record& inRecord)
{
    return inRecord.count != 0 ? inRecord.size / inRecord.count : 0;
}

std::uint64_t CountSamples(const Track& inTrack)
{
    std::uint64_t count = 0;
    for (const Record& record : inTrack.records)
    {
        count += static_cast<std::uint64_t>(record.count);
    }
    return count;
}

bool IsUniform(const Track& inTrack)
{
    return std::all_of(inTrack.records.begin(), inTrack.records.end(), [&](const Record& inRecord) {
        return SampleSize(inRecord) == SampleSize(inTrack.records.front());
    });
}

//! Whether each record is one or more samples of equal size, as the tables have it.
bool IsRegular(const Track& inTrack)
{
    return CountSamples(inTrack) <= UINT32_MAX &&
           std::all_of(inTrack.records.begin(), inTrack.records.end(), [](const Record& inRecord) {
               return inRecord.count > 0 && inRecord.size % inRecord.count == 0;
           });
}

//! Whether readers take the size of the samples from the description: 'stsz' says 1, which for sound means a frame.
bool HasFrames(const Track& inTrack)
{
    return inTrack.mediaType == QT::kQTMediaTypeSound && IsUniform(inTrack) && SampleSize(inTrack.records.front()) == 1;
}

bool HasSaneTimes(const Movie& inMovie, const Track& inTrack)
{
    if (inTrack.timeScale <= 0 || inTrack.hasWrapped)
    {
        return false;
    }
    const std::int64_t shown = std::int64_t{inTrack.duration} + inTrack.trimIn;
    bool isReported = shown < 0 || shown > INT32_MAX;
    for (const std::int32_t time : {inTrack.duration, Wrap(shown), std::max(inTrack.trimIn, 0)})
    {
        ToMovieTime(time, inTrack.timeScale, inMovie.timeScale, isReported);
    }
    // A duration of 0 takes on the one that follows.
    return !isReported && std::all_of(inTrack.records.begin(), inTrack.records.end(),
                                      [](const Record& inRecord) { return inRecord.duration > 0; });
}

bool IsAtomWithChildren(int inType)
{
    static constexpr std::uint32_t kTypes[] = {
        FourCC("moov"), FourCC("trak"), FourCC("edts"), FourCC("mdia"), FourCC("minf"), FourCC("dinf"), FourCC("stbl"),
        FourCC("tref"), FourCC("udta"), FourCC("tapt"), FourCC("gmhd"), FourCC("mvex"), FourCC("moof"), FourCC("traf"),
        FourCC("wave"), FourCC("ilst"), FourCC("dref"), FourCC("stsd"), FourCC("meta")};
    return std::find(std::begin(kTypes), std::end(kTypes), static_cast<std::uint32_t>(inType)) != std::end(kTypes);
}

bool HasOddItems(const std::map<int, Bytes>& inUserData)
{
    return std::any_of(inUserData.begin(), inUserData.end(),
                       [](const auto& inItem) { return IsAtomWithChildren(inItem.first); });
}

std::uint32_t HandlerType(QT::MediaType inMediaType)
{
    switch (inMediaType)
    {
    case QT::kQTMediaTypeVideo:
        return FourCC("vide");
    case QT::kQTMediaTypeSound:
        return FourCC("soun");
    case QT::kQTMediaTypeTimecode:
        return FourCC("tmcd");
    case QT::kQTMediaTypeClosedCaption:
        return FourCC("clcp");
    default:
        return FourCC("text");
    }
}

std::uint32_t ReferenceType(std::uint32_t inType)
{
    switch (inType)
    {
    case QT::kQTTrackReferenceTimecode:
        return FourCC("tmcd");
    case QT::kQTTrackReferenceChapter:
        return FourCC("chap");
    default:
        return 0xFFFFFFFF;
    }
}

Bytes Slice(const Bytes& inFile, std::uint64_t inOffset, std::uint64_t inSize)
{
    Require(inOffset <= inFile.size() && inSize <= inFile.size() - inOffset, "the file holds what its atoms claim");
    const auto begin = inFile.begin() + static_cast<std::ptrdiff_t>(inOffset);
    return {begin, begin + static_cast<std::ptrdiff_t>(inSize)};
}

Bytes Payload(const Bytes& inFile, const Inspect::Atom& inAtom)
{
    return Slice(inFile, inAtom.GetPayloadOffset(), inAtom.GetPayloadSize());
}

void CheckUserData(const std::map<int, Bytes>& inItems, const Inspect::Atom& inParent, const Bytes& inFile)
{
    const Inspect::Atom* atom = inParent.Find(FourCC("udta"));
    Require((atom != nullptr) == !inItems.empty(), "there is user data where some was added, and nowhere else");
    if (atom == nullptr)
    {
        return;
    }
    Require(atom->children.size() == inItems.size(), "all user data items are there");
    auto child = atom->children.begin();
    for (const auto& [type, payload] : inItems)
    {
        Require(child->type == static_cast<std::uint32_t>(type), "user data items stand in the order of their types");
        Require(Payload(inFile, *child) == payload, "a user data item has its bytes");
        ++child;
    }
}

//! Where the chunks of a track begin. Merged chunks have no place for calls without samples.
std::vector<std::uint64_t> ExpectChunks(const Movie& inMovie, const Track& inTrack)
{
    std::vector<std::uint64_t> offsets;
    const Record* previous = nullptr;
    for (const Record& record : inTrack.records)
    {
        const bool isBehind =
            previous != nullptr && previous->offset + static_cast<std::uint64_t>(previous->size) == record.offset;
        if (!inTrack.isChunkedByHand || !isBehind || previous->endsChunk)
        {
            offsets.push_back(inMovie.mediaOffset + record.offset);
        }
        previous = &record;
    }
    return offsets;
}

void CheckSamples(const Movie& inMovie, const Track& inTrack, const Inspect::Track& inFound, const Bytes& inFile)
{
    constexpr std::uint64_t kMaxVisited = 5000; // Of samples alike there can be 2^31.
    const bool hasDurations = std::all_of(inTrack.records.begin(), inTrack.records.end(),
                                          [](const Record& inRecord) { return inRecord.duration != 0; });
    auto record = inTrack.records.begin();
    int index = 0; // In the record.
    std::uint64_t visited = 0;
    inFound.VisitSamples([&](const Inspect::Sample& inSample) {
        Require(record != inTrack.records.end(), "the tables have no samples too many");
        const auto size = static_cast<std::uint64_t>(SampleSize(*record));
        const std::uint64_t offset = record->offset + static_cast<std::uint64_t>(index) * size;
        Require(inSample.size == size, "a sample has its size");
        Require(inSample.offset == inMovie.mediaOffset + offset, "a sample lies in its place");
        Require(Slice(inFile, inSample.offset, size) == Slice(inMovie.media, offset, size), "a sample has its bytes");
        Require(!hasDurations || inSample.duration == static_cast<std::uint32_t>(record->duration),
                "a sample has its duration");
        if (++index == record->count)
        {
            ++record;
            index = 0;
        }
        return ++visited < kMaxVisited;
    });
    Require(visited == std::min(kMaxVisited, CountSamples(inTrack)), "the tables have all samples");
}

void CheckTrack(const Movie& inMovie, const Track& inTrack, const std::map<QT::TrackID, std::uint32_t>& inNumbers,
                const Inspect::Track& inFound, const Bytes& inFile)
{
    Require(inFound.handlerType == HandlerType(inTrack.mediaType), "a track has its media type");
    Require(inFound.mediaTimeScale == static_cast<std::uint32_t>(inTrack.timeScale), "a track has its time scale");
    Require(inFound.mediaDuration == static_cast<std::uint32_t>(inTrack.duration), "a track has its duration");
    bool isReported = false; // Of no interest here.
    const auto toMovieTime = [&](std::int32_t inTime) {
        return static_cast<std::uint32_t>(ToMovieTime(inTime, inTrack.timeScale, inMovie.timeScale, isReported));
    };
    const std::int32_t shown = Wrap(std::int64_t{inTrack.duration} + inTrack.trimIn);
    Require(inFound.duration == toMovieTime(shown), "a track is shown for its duration and its delay");
    Require(inFound.edits.size() == (inTrack.trimIn > 0 ? 2 : 1) &&
                inFound.edits.back().duration == toMovieTime(inTrack.duration) && inFound.edits.back().mediaTime == 0,
            "the last edit plays the whole media");
    Require(inTrack.trimIn <= 0 || (inFound.edits.front().duration == toMovieTime(inTrack.trimIn) &&
                                    inFound.edits.front().mediaTime == -1),
            "an empty edit stands for a delay");
    CheckUserData(inTrack.userData, *inFound.atom, inFile);

    std::map<std::uint32_t, std::vector<std::uint32_t>> references;
    for (const auto& [type, ids] : inTrack.references)
    {
        for (const QT::TrackID id : ids)
        {
            const auto number = inNumbers.find(id);
            references[ReferenceType(type)].push_back(number != inNumbers.end() ? number->second : 0);
        }
    }
    Require(inFound.references == references, "a track has its references");

    const Inspect::Atom* description = inFound.FindTable(FourCC("stsd"));
    Require(description != nullptr && description->GetPayloadSize() >= 8, "a track has a description");
    const std::optional<Bytes> entry = GetEntry(inMovie.descriptions[inTrack.description]);
    Require(entry && Slice(inFile, description->GetPayloadOffset() + 8, description->GetPayloadSize() - 8) == *entry,
            "a track has its description's bytes");

    const int frameSize = inMovie.descriptions[inTrack.description].sampleSize;
    if (IsRegular(inTrack) || !inTrack.isChunkedByHand)
    {
        Require(inFound.chunkOffsets == ExpectChunks(inMovie, inTrack), "the chunks begin where they should");
    }
    if (IsRegular(inTrack) && (!HasFrames(inTrack) || frameSize == 1))
    {
        CheckSamples(inMovie, inTrack, inFound, inFile);
    }
}

void CheckPlace(const Movie& inMovie, const Inspect::Atom& inMooV, const Inspect::Atom& inMedia)
{
    const std::uint64_t room = inMovie.mediaOffset - kFileTypeSize - kWideAndHeaderSize;
    const bool fits = inMooV.size + 8 <= room;
    Require(inMooV.offset == (fits ? kFileTypeSize : inMedia.GetEnd()), "'moov' stands in front where it fits");
}

} // namespace

void Require(bool inCondition, std::string_view inWhat)
{
    if (!inCondition)
    {
        std::fprintf(stderr, "Does not hold: %.*s\n", static_cast<int>(inWhat.size()), inWhat.data());
        std::abort();
    }
}

Track* Movie::FindTrack(QT::TrackID inID)
{
    const QT::TrackID index = inID - kFirstTrackID;
    return index < tracks.size() ? &tracks[index] : nullptr;
}

bool Movie::AddRecord(Track& ioTrack, const std::uint8_t* inData, int inSize, int inCount, int inDuration)
{
    ioTrack.records.push_back({media.size(), inSize, inCount, inDuration, false});
    media.insert(media.end(), inData, inData + inSize);
    const std::int64_t duration = ioTrack.duration + std::int64_t{inCount} * inDuration;
    const bool leaves = duration < 0 || duration > INT32_MAX;
    ioTrack.duration = Wrap(duration);
    ioTrack.hasWrapped = ioTrack.hasWrapped || leaves;
    return leaves;
}

int Movie::GetDuration(bool& outIsReported) const
{
    outIsReported = false;
    std::int32_t longest = 0;
    for (const Track& track : tracks)
    {
        longest = std::max(longest, ToMovieTime(track.duration, track.timeScale, timeScale, outIsReported));
    }
    return longest;
}

std::optional<Bytes> GetEntry(const Description& inDescription)
{
    try
    {
        Tolbin::utility::BinaryDataArray entry;
        inDescription.object->GetAsBinary(entry);
        return Bytes(entry.begin(), entry.end());
    }
    catch (const std::exception&)
    {
        return std::nullopt;
    }
}

Tolbin::Result ExpectClose(const Movie& inMovie)
{
    for (const Track& track : inMovie.tracks)
    {
        if (track.records.empty())
        {
            continue;
        }
        const std::optional<Bytes> entry = GetEntry(inMovie.descriptions[track.description]);
        if (!entry)
        {
            return QT::kResultOutOfMemory;
        }
        if (entry->empty())
        {
            return QT::kResultFailed;
        }
        if (!IsUniform(track) && 20 + 4 * CountSamples(track) > kMaxAtomSize) // 'stsz'
        {
            return QT::kQTErrTooLarge;
        }
    }
    return Tolbin::kResultSuccess;
}

bool MayReportOnClose(const Movie& inMovie)
{
    return ExpectClose(inMovie) < 0 ||
           std::any_of(inMovie.tracks.begin(), inMovie.tracks.end(), [&](const Track& inTrack) {
               const bool hasOddReference =
                   inTrack.references.upper_bound(QT::kQTTrackReferenceChapter) != inTrack.references.end() ||
                   inTrack.references.lower_bound(QT::kQTTrackReferenceTimecode) != inTrack.references.begin();
               return !inTrack.records.empty() && (hasOddReference || !HasSaneTimes(inMovie, inTrack) ||
                                                   !inMovie.descriptions[inTrack.description].isSane);
           });
}

std::set<std::string_view> GetExcuses(const Movie& inMovie)
{
    std::set<std::string_view> excuses;
    if (HasOddItems(inMovie.userData))
    {
        // An item that claims to hold atoms, and does not.
        excuses.insert({"atom-size", "atom-depth", "trailing-bytes"});
    }
    for (const Track& track : inMovie.tracks)
    {
        if (track.records.empty())
        {
            continue; // Not part of the movie.
        }
        const Description& description = inMovie.descriptions[track.description];
        const bool isDescribed = description.isSane && description.mediaType == track.mediaType;
        if (!isDescribed)
        {
            // Bytes of any kind where readers expect the fields of the track's media type.
            excuses.insert({"atom-size",      "atom-depth",    "atom-long",    "atom-short", "trailing-bytes",
                            "entry-format",   "entry-short",   "video-size",   "field",      "clean-aperture",
                            "sound-channels", "sound-frame",   "sound-labels", "sound-size", "timecode-sample",
                            "timecode-rate",  "timecode-drop", "stsd-none",    "stsd-count", "stsc-description",
                            "data-reference"});
        }
        if (HasFrames(track) && (!isDescribed || description.sampleSize != 1))
        {
            // Readers take the frames to be of another size.
            excuses.insert({"chunk-outside", "chunk-overlap"});
        }
        if (description.sampleSize != 0 && SampleSize(track.records.front()) != description.sampleSize)
        {
            excuses.insert({"sound-size", "timecode-sample"});
        }
        if (!HasSaneTimes(inMovie, track))
        {
            // Time scales and durations of 0 or less, and sums beyond the 31 bits of the headers.
            excuses.insert({"time-scale", "media-duration", "track-duration", "movie-duration", "edit-range"});
        }
        if (!IsRegular(track))
        {
            // Calls without samples, whose chunks the tables cannot tell, and more samples than 32 bits count.
            excuses.insert({"stsc-count", "stsc-order", "stts-count", "chunk-outside", "chunk-overlap"});
        }
        if (HasOddItems(track.userData))
        {
            excuses.insert({"atom-size", "atom-depth", "trailing-bytes"});
        }
        for (const auto& [type, ids] : track.references)
        {
            for (const QT::TrackID id : ids)
            {
                const QT::MediaType target = inMovie.tracks[id - kFirstTrackID].mediaType;
                const bool isTimecode = target == QT::kQTMediaTypeTimecode;
                const bool isChapters = target == QT::kQTMediaTypeText || target == QT::kQTMediaTypeVideo;
                if ((type == QT::kQTTrackReferenceTimecode && !isTimecode) ||
                    (type == QT::kQTTrackReferenceChapter && !isChapters))
                {
                    excuses.insert("reference-kind");
                }
                if (type == QT::kQTTrackReferenceTimecode)
                {
                    excuses.insert("timecode-duration"); // How long timecode lasts is the host's affair.
                }
            }
        }
    }
    if (inMovie.timeScale <= 0)
    {
        excuses.insert("time-scale");
    }
    return excuses;
}

void CheckClosed(const Movie& inMovie, Tolbin::Result inCloseResult, const Bytes& inFile)
{
    const Inspect::MemorySource source(inFile);
    Inspect::Findings findings;
    const Inspect::MovieFile found(source, findings);
    const Inspect::Atom* media = found.GetTree().Find(FourCC("mdat"));
    Require(media != nullptr && media->GetPayloadOffset() == inMovie.mediaOffset, "the media begins in its place");
    Require(Payload(inFile, *media) == inMovie.media, "the media is what was handed in");
    Require((found.GetMooV() != nullptr) == (inCloseResult >= 0), "there is a 'moov' unless closing failed");
    if (inCloseResult < 0)
    {
        return;
    }
    CheckPlace(inMovie, *found.GetMooV(), *media);

    Inspect::VerifyMovie(found, findings);
    const std::set<std::string_view> excuses = GetExcuses(inMovie);
    for (const Inspect::Finding& finding : findings.List())
    {
        Require(finding.severity != Inspect::Severity::kError || excuses.contains(finding.check),
                finding.check + ": " + finding.what + " (nothing that the host did excuses that)");
    }

    std::map<QT::TrackID, std::uint32_t> numbers; // In the file, by ID.
    for (std::size_t i = 0; i < inMovie.tracks.size(); ++i)
    {
        if (!inMovie.tracks[i].records.empty())
        {
            numbers.emplace(kFirstTrackID + i, static_cast<std::uint32_t>(numbers.size()) + 1);
        }
    }
    Require(found.GetTracks().size() == numbers.size(), "the movie has the tracks with samples and no other");
    for (const auto& [id, number] : numbers)
    {
        const Inspect::Track& track = found.GetTracks()[number - 1];
        Require(track.id == number, "the tracks are numbered from 1");
        CheckTrack(inMovie, inMovie.tracks[id - kFirstTrackID], numbers, track, inFile);
    }
    bool isReported = false;
    Require(found.GetTimeScale() == static_cast<std::uint32_t>(inMovie.timeScale), "the movie has its time scale");
    Require(found.GetDuration() == static_cast<std::uint32_t>(inMovie.GetDuration(isReported)),
            "the movie lasts as long as its longest track");
    CheckUserData(inMovie.userData, *found.GetMooV(), inFile);
}

void CheckAbandoned(const Movie& inMovie, const Bytes& inFile)
{
    const std::uint64_t written = inMovie.media.size() / inMovie.blockSize * inMovie.blockSize;
    Require(inFile.size() == inMovie.mediaOffset + written, "every full block is written, and nothing else");
    Require(Slice(inFile, inMovie.mediaOffset, written) == Slice(inMovie.media, 0, written),
            "the media on disk is what was handed in");
}

} // namespace WriterModel
