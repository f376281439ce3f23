#include "WriterModel.h"

#include <ByteSource.h>
#include <MovieFile.h>
#include <Verify.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

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

//! Whether all samples are of one size. Records without samples have none.
bool IsUniform(const Track& inTrack)
{
    const auto hasSamples = [](const Record& inRecord) { return inRecord.count != 0; };
    const auto first = std::find_if(inTrack.records.begin(), inTrack.records.end(), hasSamples);
    return std::all_of(first, inTrack.records.end(), [&](const Record& inRecord) {
        return !hasSamples(inRecord) || SampleSize(inRecord) == SampleSize(*first);
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

//! Whether the host was sane, and all times fit the headers.
bool IsSane(const Movie& inMovie)
{
    bool isReported = inMovie.isOdd;
    for (const Track& track : inMovie.tracks)
    {
        const std::int64_t shown = std::int64_t{track.duration} + track.trimIn;
        isReported = isReported || shown < 0 || shown > INT32_MAX;
        for (const std::int32_t time : {track.duration, Wrap(shown), std::max(track.trimIn, 0)})
        {
            ToMovieTime(time, track.timeScale, inMovie.timeScale, isReported);
        }
    }
    return !isReported;
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
    const std::size_t count = atom != nullptr ? atom->children.size() : 0;
    Require((atom != nullptr) == !inItems.empty() && count == inItems.size(), "the user data that was added is there");
    std::size_t index = 0;
    for (const auto& [type, payload] : inItems)
    {
        const Inspect::Atom& item = atom->children[index++];
        Require(item.type == static_cast<std::uint32_t>(type), "user data items stand in the order of their types");
        Require(Payload(inFile, item) == payload, "a user data item has its bytes");
    }
}

//! Where the chunks of a track begin. Merged chunks have no place for calls without samples.
std::vector<std::uint64_t> ExpectChunks(const Movie& inMovie, const Track& inTrack, bool inAreMerged)
{
    std::vector<std::uint64_t> offsets;
    const Record* previous = nullptr;
    for (const Record& record : inTrack.records)
    {
        const bool isBehind =
            previous != nullptr && previous->offset + static_cast<std::uint64_t>(previous->size) == record.offset;
        if (!inAreMerged || !isBehind || previous->endsChunk)
        {
            offsets.push_back(inMovie.mediaOffset + record.offset);
        }
        previous = &record;
    }
    return offsets;
}

void CheckChunks(const Movie& inMovie, const Track& inTrack, const Inspect::Track& inFound)
{
    const auto endsChunk = [](const Record& inRecord) { return inRecord.endsChunk; };
    const auto last = inTrack.records.end() - 1;
    const bool areMerged = std::any_of(inTrack.records.begin(), inTrack.records.end(), endsChunk);
    // The journal may lack a call behind the last sample, or have one behind a sample that was cut.
    const bool mayDiffer = inMovie.isRecovered && std::none_of(inTrack.records.begin(), last, endsChunk);
    if (IsRegular(inTrack) || (!areMerged && !mayDiffer))
    {
        Require(inFound.chunkOffsets == ExpectChunks(inMovie, inTrack, areMerged) ||
                    (mayDiffer && inFound.chunkOffsets == ExpectChunks(inMovie, inTrack, !areMerged)),
                "the chunks begin where they should");
    }
}

void CheckSamples(const Movie& inMovie, const Track& inTrack, const Inspect::Track& inFound)
{
    constexpr std::size_t kMaxCount = 5000; // Of samples alike there can be 2^31.
    const bool hasDurations = std::all_of(inTrack.records.begin(), inTrack.records.end(),
                                          [](const Record& inRecord) { return inRecord.duration != 0; });
    using Place = std::array<std::uint64_t, 3>; // Offset, size and duration.
    std::vector<Place> expected, found;
    for (const Record& record : inTrack.records)
    {
        const auto size = static_cast<std::uint64_t>(SampleSize(record));
        std::uint64_t offset = inMovie.mediaOffset + record.offset;
        for (int i = 0; i < record.count && expected.size() < kMaxCount; ++i, offset += size)
        {
            expected.push_back({offset, size, hasDurations ? static_cast<std::uint32_t>(record.duration) : 0});
        }
    }
    inFound.VisitSamples([&](const Inspect::Sample& inSample) {
        found.push_back({inSample.offset, inSample.size, hasDurations ? inSample.duration : 0});
        return found.size() < kMaxCount;
    });
    Require(found == expected, "the tables tell where each sample lies, its size and its duration");
}

void CheckTrack(const Movie& inMovie, const Track& inTrack, const std::map<QT::TrackID, std::uint32_t>& inNumbers,
                const Inspect::Track& inFound, const Bytes& inFile)
{
    static constexpr std::uint32_t kHandlers[] = {FourCC("vide"), FourCC("soun"), FourCC("tmcd"), FourCC("clcp"),
                                                  FourCC("text")}; // In the order of the media types.
    Require(inFound.handlerType == kHandlers[inTrack.mediaType - QT::kQTMediaTypeVideo], "a track has its media type");
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
        const std::uint32_t code = type == QT::kQTTrackReferenceTimecode  ? FourCC("tmcd")
                                   : type == QT::kQTTrackReferenceChapter ? FourCC("chap")
                                                                          : 0xFFFFFFFF;
        for (const QT::TrackID id : ids)
        {
            references[code].push_back(inNumbers.contains(id) ? inNumbers.at(id) : 0);
        }
    }
    Require(inFound.references == references, "a track has its references");

    const Inspect::Atom* description = inFound.FindTable(FourCC("stsd"));
    Require(description != nullptr && description->GetPayloadSize() >= 8, "a track has a description");
    Require(Slice(inFile, description->GetPayloadOffset() + 8, description->GetPayloadSize() - 8) == inTrack.entry,
            "a track has its description's bytes");
    CheckChunks(inMovie, inTrack, inFound);
    // Where 'stsz' says 1, readers take the size of the samples from the description: for sound it means a frame.
    const bool areFrames =
        inTrack.mediaType == QT::kQTMediaTypeSound && IsUniform(inTrack) && SampleSize(inTrack.records.front()) == 1;
    if (IsRegular(inTrack) && (!areFrames || inMovie.descriptions[inTrack.description].sampleSize == 1))
    {
        CheckSamples(inMovie, inTrack, inFound);
    }
}

//! Lets what goes along with picture and sound end with them, and timecode last until then.
void FitSideTracks(Movie& ioMovie)
{
    const auto isSide = [](const Track& inTrack) { return inTrack.mediaType > QT::kQTMediaTypeSound; };
    const auto endOf = [](const Track& inTrack) {
        return inTrack.records.empty() ? 0 : std::int64_t{inTrack.duration} + std::max(inTrack.trimIn, 0);
    };
    const auto lastOf = [&](const auto& inCounts) {
        double seconds = 0;
        for (const Track& track : ioMovie.tracks)
        {
            const bool counts = !isSide(track) && track.timeScale > 0 && inCounts(track);
            seconds = std::max(seconds, counts ? static_cast<double>(endOf(track)) / track.timeScale : 0);
        }
        return seconds;
    };
    const double last = lastOf([](const Track&) { return true; });
    for (std::size_t i = 0; i < ioMovie.tracks.size(); ++i)
    {
        Track& track = ioMovie.tracks[i];
        const double lastUser = lastOf([i](const Track& inTrack) {
            const auto found = inTrack.references.find(QT::kQTTrackReferenceTimecode);
            return found != inTrack.references.end() &&
                   std::find(found->second.begin(), found->second.end(), i + 256) != found->second.end();
        });
        const double seconds = track.mediaType == QT::kQTMediaTypeTimecode && lastUser > 0 ? lastUser : last;
        const double end = isSide(track) ? std::round(seconds * track.timeScale) : 0;
        const auto excess = [&] { return endOf(track) - static_cast<std::int64_t>(end); };
        const auto hasSingle = [&] { return !track.records.empty() && track.records.back().count == 1; };
        const auto shorten = [&](std::int64_t inBy) {
            track.records.back().duration = Wrap(track.records.back().duration - inBy);
            track.duration = Wrap(track.duration - inBy);
        };
        if (end <= 0 || end > INT32_MAX)
        {
            continue;
        }
        while (excess() > 0 && hasSingle() && track.records.back().duration > 0)
        {
            shorten(std::min<std::int64_t>(excess(), track.records.back().duration));
            track.records.resize(track.records.size() - (track.records.back().duration == 0 ? 1 : 0));
        }
        if (excess() < 0 && track.mediaType == QT::kQTMediaTypeTimecode && hasSingle() &&
            track.records.back().duration - excess() <= INT32_MAX)
        {
            shorten(excess());
        }
    }
}

} // namespace

// ---- What was accepted ----

bool Track::Add(const Record& inRecord)
{
    records.push_back(inRecord);
    const std::int64_t sum = duration + std::int64_t{inRecord.count} * inRecord.duration;
    duration = Wrap(sum);
    return sum < 0 || sum > INT32_MAX;
}

Track* Movie::FindTrack(QT::TrackID inID)
{
    const QT::TrackID index = inID - kFirstTrackID;
    return index < tracks.size() ? &tracks[index] : nullptr;
}

bool Movie::AddRecord(Track& ioTrack, const Bytes& inData, int inSize, int inCount, int inDuration)
{
    const std::uint64_t offset = media.size();
    media.insert(media.end(), inData.begin(), inData.begin() + inSize);
    if (isJournaled && (offset == 0 || offset / blockSize != media.size() / blockSize))
    {
        AskDescriptions();
    }
    return ioTrack.Add({recordCount++, offset, inSize, inCount, inDuration, false});
}

void Movie::AskDescriptions(std::size_t inFirstTrack)
{
    for (std::size_t i = inFirstTrack; i < tracks.size(); ++i)
    {
        tracks[i].entry.reset();
        try
        {
            Tolbin::utility::BinaryDataArray entry;
            descriptions[tracks[i].description].object->GetAsBinary(entry);
            tracks[i].entry.emplace(entry.begin(), entry.end());
            tracks[i].lastEntry = entry.empty() ? tracks[i].lastEntry : *tracks[i].entry;
        }
        catch (const std::exception&) // NOLINT(bugprone-empty-catch): `entry` tells as much.
        {
        }
    }
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

// ---- What must come of it ----

Tolbin::Result ExpectClose(const Movie& inMovie)
{
    for (const Track& track : inMovie.tracks)
    {
        if (track.records.empty())
        {
            continue;
        }
        if (!track.entry)
        {
            return QT::kResultOutOfMemory;
        }
        if (track.entry->empty())
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
    return ExpectClose(inMovie) < 0 || !IsSane(inMovie);
}

void CheckClosed(const Movie& inMovie, Tolbin::Result inCloseResult, const Bytes& inFile)
{
    const Inspect::MemorySource source(inFile);
    Inspect::Findings findings;
    const Inspect::MovieFile found(source, findings);
    const Inspect::Atom* media = found.GetTree().Find(FourCC("mdat"));
    const Inspect::Atom* mooV = found.GetMooV();
    Require(media != nullptr && media->GetPayloadOffset() == inMovie.mediaOffset, "the media begins in its place");
    Require(Payload(inFile, *media) == inMovie.media, "the media is what was handed in");
    Require((mooV != nullptr) == (inCloseResult >= 0), "there is a 'moov' unless closing failed");
    if (inCloseResult < 0)
    {
        return;
    }
    const bool fits = mooV->size + 8 <= inMovie.mediaOffset - kFileTypeSize - kWideAndHeaderSize;
    Require(mooV->offset == (fits ? kFileTypeSize : media->GetEnd()), "'moov' stands in front where it fits");

    Inspect::VerifyMovie(found, findings);
    for (const Inspect::Finding& finding : findings.List())
    {
        const bool isHosts = finding.check == "reference-kind" || finding.check == "timecode-duration" ||
                             finding.check == "media-kind" || finding.check == "user-text";
        Require(finding.severity != Inspect::Severity::kError || isHosts || !IsSane(inMovie),
                finding.check + ": " + finding.what);
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
    CheckUserData(inMovie.userData, *mooV, inFile);
}

void CheckAbandoned(const Movie& inMovie, const Bytes& inFile)
{
    const std::uint64_t written = inMovie.media.size() / inMovie.blockSize * inMovie.blockSize;
    Require(inFile.size() == inMovie.mediaOffset + written, "every full block is written, and nothing else");
    Require(Slice(inFile, inMovie.mediaOffset, written) == Slice(inMovie.media, 0, written),
            "the media on disk is what was handed in");
}

Movie Recover(const Movie& inMovie, bool inWasClosed, const Bytes& inFile, const QT::RecoveryReport& inReport)
{
    std::vector<const Record*> records(inMovie.recordCount);
    for (const Track& track : inMovie.tracks)
    {
        for (const Record& record : track.records)
        {
            records[record.number] = &record;
        }
    }
    const auto isWholeTo = [&](const Record& inRecord, int inSize) {
        const auto begin = inMovie.media.begin() + static_cast<std::ptrdiff_t>(inRecord.offset);
        const std::uint64_t end = inMovie.mediaOffset + inRecord.offset + static_cast<std::uint64_t>(inSize);
        return end <= inFile.size() &&
               std::equal(begin, begin + inSize, inFile.begin() + static_cast<std::ptrdiff_t>(end) - inSize);
    };
    const auto isWhole = [&](const Record* inRecord) { return isWholeTo(*inRecord, inRecord->size); };
    std::size_t kept = 0;
    std::uint64_t samples = 0;
    std::uint64_t bytes = 0;
    const auto isDone = [&] { return samples == inReport.samplesKept && bytes == inReport.bytesKept; };
    for (; !isDone() && kept < records.size() && isWhole(records[kept]); ++kept)
    {
        samples += static_cast<std::uint64_t>(records[kept]->count);
        bytes += static_cast<std::uint64_t>(records[kept]->size);
    }
    std::optional<Record> part; // Of a record that is not whole, the samples that are.
    if (!isDone())
    {
        Require(kept < records.size() && inReport.samplesKept > samples, "recovery keeps the first samples");
        part = *records[kept];
        const auto count = static_cast<int>(inReport.samplesKept - samples);
        const int size = part->size / std::max(1, part->count);
        Require(count < part->count && size > 0 && part->size % part->count == 0 && isWholeTo(*part, count * size),
                "recovery keeps whole samples of a record");
        // Whether zeros at the end of the next are its own is not known.
        const int next = std::min(count + 1, part->count) * size;
        const bool endsInZero = inMovie.media[part->offset + static_cast<std::uint64_t>(next) - 1] == 0;
        Require(count + 1 == part->count || endsInZero || !isWholeTo(*part, next), "recovery keeps all of them");
        part->count = count;
        part->size = count * size;
        samples += static_cast<std::uint64_t>(count);
        bytes += static_cast<std::uint64_t>(part->size);
        Require(isDone(), "recovery counts what it keeps");
    }
    for (std::size_t i = kept; !part && i < records.size() && isWhole(records[i]); ++i)
    {
        Require(records[i]->size == 0, "recovery keeps every sample that is whole in the file");
    }
    Movie movie = inMovie;
    movie.isRecovered = true;
    movie.media.resize(bytes);
    bool isMeantToHaveMedia = false;
    bool hasMedia = false;
    bool hasSamples = false;
    for (Track& track : movie.tracks)
    {
        const bool isMedia = track.mediaType <= QT::kQTMediaTypeSound;
        isMeantToHaveMedia = isMeantToHaveMedia || isMedia;
        track.duration = 0;
        track.entry = track.lastEntry;
        for (const Record& record : std::exchange(track.records, {}))
        {
            const bool isPart = part && record.number == part->number;
            const bool isKept = record.number < kept || isPart;
            if (isKept && !track.lastEntry.empty())
            {
                hasSamples = true;
                hasMedia = hasMedia || isMedia;
                track.Add(isPart ? *part : record);
            }
        }
    }
    movie.isNothing = !hasSamples || (isMeantToHaveMedia && !hasMedia);
    if (!inWasClosed || kept < records.size())
    {
        FitSideTracks(movie);
    }
    return movie;
}

} // namespace WriterModel
