#include "Verify.h"

#include "VerifySamples.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <fmt/format.h>
#include <initializer_list>
#include <iterator>
#include <map>
#include <set>

namespace Inspect
{

namespace
{

//! A time in other units, truncated as writers do; saturates where 64 bits are too few.
std::uint64_t Rescale(std::uint64_t inTime, std::uint64_t inFrom, std::uint64_t inTo)
{
    if (inFrom == 0)
    {
        return 0;
    }
    const long double time =
        static_cast<long double>(inTime) * static_cast<long double>(inTo) / static_cast<long double>(inFrom);
    return time < 1.8e19L ? static_cast<std::uint64_t>(time) : UINT64_MAX;
}

std::uint64_t Distance(std::uint64_t inA, std::uint64_t inB)
{
    return inA > inB ? inA - inB : inB - inA;
}

//! Sums and differences that stay at the end of what 64 bits hold, so that nonsense in a file is not lost by wrapping.
std::uint64_t Sum(std::uint64_t inA, std::uint64_t inB)
{
    return inA > UINT64_MAX - inB ? UINT64_MAX : inA + inB;
}

std::uint64_t Less(std::uint64_t inA, std::uint64_t inB)
{
    return inA > inB ? inA - inB : 0;
}

std::string HandlerText(const Track& inTrack)
{
    return FourCCText(inTrack.handlerType);
}

//! Where a chunk lies, for the checks across tracks.
struct Extent
{
    std::uint64_t begin;
    std::uint64_t end;
    std::uint32_t track;
};

bool IsOneOf(std::uint32_t inType, std::initializer_list<std::uint32_t> inTypes)
{
    return std::find(inTypes.begin(), inTypes.end(), inType) != inTypes.end();
}

class Verifier
{
public:
    Verifier(const MovieFile& inMovie, Findings& ioFindings) : mMovie(inMovie), mFindings(ioFindings) {}

    void Run()
    {
        CheckTopLevel();
        if (mMovie.GetMooV() == nullptr)
        {
            return;
        }
        CheckMovieHeader();
        for (const Track& track : mMovie.GetTracks())
        {
            CheckTrackHeader(track);
            CheckStructure(track);
            CheckTimeToSample(track);
            CheckSampleToChunk(track);
            CheckChunks(track);
            CheckSideTables(track);
            CheckEdits(track);
            CheckReferences(track);
            CheckEntries(track);
            CheckApertures(track);
        }
        CheckOverlaps();
        VerifySamples(mMovie, mFindings);
    }

private:
    // ---- The file ----

    void CheckTopLevel()
    {
        const std::vector<Atom>& atoms = mMovie.GetTree().GetAtoms();
        const Atom* mooV = mMovie.GetMooV();
        mIsFragmented = mooV != nullptr && mooV->Find(FourCC("mvex")) != nullptr;
        unsigned int movies = 0;
        bool hasFragments = false;
        bool hasContent = false;
        for (const Atom& atom : atoms)
        {
            switch (atom.type)
            {
            case FourCC("mdat"):
                mMedia.push_back({atom.GetPayloadOffset(), atom.GetEnd(), 0});
                hasContent = true;
                break;
            case FourCC("moov"):
                hasContent = true;
                if (++movies == 2)
                {
                    Error("moov-twice", atom.offset,
                          "the file has a second 'moov' atom, which readers may take instead");
                }
                break;
            case FourCC("moof"):
                if (!hasFragments && mIsFragmented)
                {
                    Note("fragments", atom.offset, "the movie goes on in fragments, which are not checked");
                }
                else if (!hasFragments && mooV != nullptr)
                {
                    Error("fragments", atom.offset, "the file has fragments, but the movie does not say so ('mvex')");
                }
                hasFragments = true;
                break;
            case FourCC("ftyp"):
                if (hasContent)
                {
                    Error("ftyp-order", atom.offset, "'ftyp' stands behind what it is to announce");
                }
                break;
            default:
                break;
            }
        }
        const bool hasSamples =
            std::any_of(mMovie.GetTracks().begin(), mMovie.GetTracks().end(),
                        [](const Track& inTrack) { return inTrack.sampleCount != 0 && inTrack.IsSelfContained(); });
        if (mMedia.empty() && hasSamples)
        {
            Error("no-mdat", mooV->offset, "the movie has samples, but the file has no media ('mdat')");
        }
    }

    void CheckMovieHeader()
    {
        const Atom& mooV = *mMovie.GetMooV();
        const Atom* header = mooV.Find(FourCC("mvhd"));
        CheckOnce(mooV, {FourCC("mvhd")}, 0);
        if (mMovie.GetTracks().empty())
        {
            Note("no-tracks", mooV.offset, "the movie has no tracks");
        }
        // Writers differ in what they count: leading empty edits or not, the track's header or its edits.
        std::uint64_t shortest = 0;
        std::uint64_t longest = 0;
        std::set<std::uint32_t> ids;
        for (const Track& track : mMovie.GetTracks())
        {
            std::uint64_t edits = 0;
            std::uint64_t delay = 0;
            bool isLeading = true;
            for (const Edit& edit : track.edits)
            {
                isLeading = isLeading && edit.mediaTime == -1;
                edits = Sum(edits, edit.duration);
                delay = Sum(delay, isLeading ? edit.duration : 0);
            }
            const std::uint64_t played = track.edits.empty() ? track.duration : edits;
            shortest = std::max(shortest, Less(std::min(track.duration, played), delay));
            longest = std::max({longest, track.duration, played});
            const std::uint64_t trackOffset = track.atom->offset;
            if (track.id == 0)
            {
                Error("track-id", trackOffset, "a track has the ID 0, which stands for no track");
            }
            else if (!ids.insert(track.id).second)
            {
                Error("track-id", trackOffset, fmt::format("two tracks have the ID {}", track.id));
            }
        }
        if (header == nullptr)
        {
            return; // Found while reading.
        }
        if (!mIsFragmented && !ids.empty() && *ids.rbegin() >= mMovie.GetNextTrackID())
        {
            Error("next-track-id", header->offset,
                  fmt::format("the movie's next track ID {} is not above the track ID {}", mMovie.GetNextTrackID(),
                              *ids.rbegin()));
        }
        // A unit may be lost to truncation on the way.
        constexpr std::uint64_t kTolerance = 1;
        const std::uint64_t duration = mMovie.GetDuration();
        if (!mIsFragmented && (Sum(duration, kTolerance) < shortest || duration > Sum(longest, kTolerance)))
        {
            Error("movie-duration", header->offset,
                  fmt::format("the movie says that it lasts {} units, but its longest track lasts {}", duration,
                              longest));
        }
    }

    //! Finds fault with siblings of which readers take one and not the other.
    void CheckOnce(const Atom& inParent, std::initializer_list<std::uint32_t> inTypes, std::uint32_t inTrack)
    {
        for (const std::uint32_t type : inTypes)
        {
            const Atom* first = inParent.Find(type);
            const auto isSecond = [first, type](const Atom& inAtom) { return inAtom.type == type && &inAtom != first; };
            const auto second = std::find_if(inParent.children.begin(), inParent.children.end(), isSecond);
            if (second != inParent.children.end())
            {
                Error("atom-twice", second->offset,
                      fmt::format("{} has a second {}", FourCCText(inParent.type), FourCCText(type)), inTrack);
            }
        }
    }

    // ---- One track ----

    void CheckTrackHeader(const Track& inTrack)
    {
        const Atom* header = inTrack.atom->Find(FourCC("tkhd"));
        if (header == nullptr || mIsFragmented)
        {
            return;
        }
        std::uint64_t expected = 0;
        if (inTrack.edits.empty())
        {
            expected = Rescale(inTrack.mediaDuration, inTrack.mediaTimeScale, mMovie.GetTimeScale());
        }
        for (const Edit& edit : inTrack.edits)
        {
            expected = Sum(expected, edit.duration);
        }
        const char* what = inTrack.edits.empty() ? "media" : "edits";
        const std::uint64_t tolerance = inTrack.edits.size() + 1;
        if (Less(inTrack.duration, expected) > tolerance)
        {
            Error("track-duration", header->offset,
                  fmt::format("the track says that it lasts {} movie units, but its {} last {}", inTrack.duration, what,
                              expected),
                  inTrack.id);
        }
        else if (Less(expected, inTrack.duration) > tolerance)
        {
            // Written so where a track was cut short in its header alone.
            Warn("track-duration", header->offset,
                 fmt::format("the track says that it lasts {} movie units, less than the {} of its {}",
                             inTrack.duration, expected, what),
                 inTrack.id);
        }
        if (inTrack.handlerType == FourCC("vide") && (inTrack.width <= 0 || inTrack.height <= 0))
        {
            Warn("track-size", header->offset, "the video track is shown with no width or no height", inTrack.id);
        }
    }

    void CheckStructure(const Track& inTrack)
    {
        const Atom* media = inTrack.atom->Find(FourCC("mdia"));
        const Atom* information = media != nullptr ? media->Find(FourCC("minf")) : nullptr;
        const Atom* table = information != nullptr ? information->Find(FourCC("stbl")) : nullptr;
        if (table == nullptr)
        {
            return; // Found while reading.
        }
        CheckOnce(*inTrack.atom, {FourCC("tkhd"), FourCC("mdia"), FourCC("edts"), FourCC("tref"), FourCC("tapt")},
                  inTrack.id);
        CheckOnce(*media, {FourCC("mdhd"), FourCC("hdlr"), FourCC("minf")}, inTrack.id);
        CheckOnce(*information, {FourCC("dinf"), FourCC("stbl")}, inTrack.id);
        CheckOnce(*table,
                  {FourCC("stsd"), FourCC("stts"), FourCC("ctts"), FourCC("stss"), FourCC("stsc"), FourCC("stsz"),
                   FourCC("stco"), FourCC("co64")},
                  inTrack.id);
        for (const std::uint32_t type : {FourCC("stsd"), FourCC("stts"), FourCC("stsc")})
        {
            if (table->Find(type) == nullptr)
            {
                Error("table-missing", table->offset, fmt::format("the sample table has no {} atom", FourCCText(type)),
                      inTrack.id);
            }
        }
        CheckAlternatives(*table, FourCC("stsz"), FourCC("stz2"), inTrack.id);
        CheckAlternatives(*table, FourCC("stco"), FourCC("co64"), inTrack.id);
        CheckDataReferences(inTrack, *information);
        CheckHandler(inTrack, *media, *information);
    }

    void CheckAlternatives(const Atom& inTable, std::uint32_t inA, std::uint32_t inB, std::uint32_t inTrack)
    {
        const Atom* a = inTable.Find(inA);
        const Atom* b = inTable.Find(inB);
        if (a == nullptr && b == nullptr)
        {
            Error("table-missing", inTable.offset,
                  fmt::format("the sample table has neither a {} nor a {} atom", FourCCText(inA), FourCCText(inB)),
                  inTrack);
        }
        else if (a != nullptr && b != nullptr)
        {
            Error("atom-twice", b->offset,
                  fmt::format("the sample table has both a {} and a {} atom", FourCCText(inA), FourCCText(inB)),
                  inTrack);
        }
    }

    void CheckDataReferences(const Track& inTrack, const Atom& inInformation)
    {
        const Atom* dataInformation = inInformation.Find(FourCC("dinf"));
        const Atom* references = dataInformation != nullptr ? dataInformation->Find(FourCC("dref")) : nullptr;
        if (references == nullptr)
        {
            Error("no-dref", inInformation.offset, "the track does not say where its media is ('dref')", inTrack.id);
            return;
        }
        if (inTrack.statedDataReferenceCount != inTrack.dataReferences.size())
        {
            Error("dref-count", references->offset,
                  fmt::format("'dref' says that it has {} entries, but holds {}", inTrack.statedDataReferenceCount,
                              inTrack.dataReferences.size()),
                  inTrack.id);
        }
        for (const SampleEntry& entry : inTrack.entries)
        {
            if (entry.dataReference == 0 || entry.dataReference > inTrack.dataReferences.size())
            {
                Error("data-reference", entry.offset,
                      fmt::format("the sample description {} has its media at place {} of {}", FourCCText(entry.format),
                                  entry.dataReference, inTrack.dataReferences.size()),
                      inTrack.id);
            }
        }
        if (!inTrack.IsSelfContained())
        {
            Note("external-media", references->offset, "the track's media lies in another file, which is not checked",
                 inTrack.id);
        }
    }

    void CheckHandler(const Track& inTrack, const Atom& inMedia, const Atom& inInformation)
    {
        const Atom* handler = inMedia.Find(FourCC("hdlr"));
        if (handler == nullptr)
        {
            return; // Found while reading.
        }
        if (!IsOneOf(inTrack.handlerType,
                     {FourCC("vide"), FourCC("soun"), FourCC("tmcd"), FourCC("clcp"), FourCC("text"), FourCC("sbtl"),
                      FourCC("subt"), FourCC("subp"), FourCC("hint"), FourCC("meta"), FourCC("auxv"), FourCC("pict"),
                      FourCC("MPEG"), FourCC("musi"), FourCC("sprt"), FourCC("odsm"), FourCC("sdsm"), FourCC("data"),
                      FourCC("tx3g"), FourCC("fdsc"), FourCC("strm"), FourCC("twen"), FourCC("qd3d")}))
        {
            Warn("handler", handler->offset,
                 fmt::format("the media is of a kind that is not known here, {}", HandlerText(inTrack)), inTrack.id);
        }
        const bool isPicture = IsOneOf(inTrack.handlerType, {FourCC("vide"), FourCC("auxv"), FourCC("pict")});
        const bool isSound = inTrack.handlerType == FourCC("soun");
        static constexpr std::array<std::uint32_t, 6> kHeaders = {FourCC("vmhd"), FourCC("smhd"), FourCC("gmhd"),
                                                                  FourCC("nmhd"), FourCC("hmhd"), FourCC("sthd")};
        const auto header =
            std::find_if(inInformation.children.begin(), inInformation.children.end(), [](const Atom& inAtom) {
                return std::find(kHeaders.begin(), kHeaders.end(), inAtom.type) != kHeaders.end();
            });
        if (header == inInformation.children.end())
        {
            // Subtitles are written without.
            mFindings.Add(
                isPicture || isSound || inTrack.handlerType == FourCC("tmcd") ? Severity::kError : Severity::kWarning,
                "media-header", inInformation.offset, inTrack.id, "the track has no media information header");
            return;
        }
        if (isPicture != (header->type == FourCC("vmhd")) || isSound != (header->type == FourCC("smhd")))
        {
            Error("media-header", header->offset,
                  fmt::format("a track of {} has the media information header {}", HandlerText(inTrack),
                              FourCCText(header->type)),
                  inTrack.id);
        }
        const std::uint64_t fixedSize = header->type == FourCC("vmhd") ? 12 : header->type == FourCC("smhd") ? 8 : 0;
        if (fixedSize != 0 && header->GetPayloadSize() != fixedSize)
        {
            Error(header->GetPayloadSize() < fixedSize ? CheckName("atom-short") : CheckName("atom-long"),
                  header->offset,
                  fmt::format("{} has {} bytes instead of {}", FourCCText(header->type), header->GetPayloadSize(),
                              fixedSize),
                  inTrack.id);
        }
        if (header->type == FourCC("gmhd"))
        {
            CheckGenericHeader(inTrack, *header);
        }
    }

    void CheckGenericHeader(const Track& inTrack, const Atom& inHeader)
    {
        std::vector<std::uint32_t> needed = {FourCC("gmin")};
        if (IsOneOf(inTrack.handlerType, {FourCC("tmcd"), FourCC("text")}))
        {
            needed.push_back(inTrack.handlerType);
        }
        for (const std::uint32_t type : needed)
        {
            if (inHeader.Find(type) == nullptr)
            {
                Error("generic-header", inHeader.offset,
                      fmt::format("the 'gmhd' of a track of {} has no {}", HandlerText(inTrack), FourCCText(type)),
                      inTrack.id);
            }
        }
    }

    void CheckTimeToSample(const Track& inTrack)
    {
        const Atom* atom = inTrack.FindTable(FourCC("stts"));
        if (atom == nullptr)
        {
            return;
        }
        std::uint64_t samples = 0;
        std::uint64_t duration = 0;
        for (const TimeToSample& entry : inTrack.timeToSample)
        {
            samples += entry.sampleCount; // 2^27 entries at most.
            duration = Sum(duration, std::uint64_t{entry.sampleCount} * entry.sampleDuration);
        }
        if (samples != inTrack.sampleCount)
        {
            Error("stts-count", atom->offset,
                  fmt::format("'stts' gives times to {} samples, but 'stsz' counts {}", samples, inTrack.sampleCount),
                  inTrack.id);
        }
        // With composition offsets some writers count up to the last display time.
        if (!mIsFragmented && Distance(duration, inTrack.mediaDuration) > inTrack.maxCompositionOffset)
        {
            Error("media-duration", atom->offset,
                  fmt::format("the samples last {} media units, but the media header says {}", duration,
                              inTrack.mediaDuration),
                  inTrack.id);
        }
    }

    void CheckSideTables(const Track& inTrack)
    {
        const Atom* offsets = inTrack.FindTable(FourCC("ctts"));
        if (offsets != nullptr && inTrack.compositionCount != inTrack.sampleCount)
        {
            Error("ctts-count", offsets->offset,
                  fmt::format("'ctts' gives offsets to {} samples, but 'stsz' counts {}", inTrack.compositionCount,
                              inTrack.sampleCount),
                  inTrack.id);
        }
        // One byte for each sample behind version and flags.
        const Atom* dependencies = inTrack.FindTable(FourCC("sdtp"));
        if (dependencies != nullptr && dependencies->GetPayloadSize() != std::uint64_t{4} + inTrack.sampleCount)
        {
            Error(
                "sdtp-count", dependencies->offset,
                fmt::format("'sdtp' has {} bytes for {} samples", dependencies->GetPayloadSize(), inTrack.sampleCount),
                inTrack.id);
        }
        const Atom* sync = inTrack.FindTable(FourCC("stss"));
        std::uint32_t previous = 0;
        for (const std::uint32_t sample : inTrack.syncSamples)
        {
            if (sample <= previous || sample > inTrack.sampleCount)
            {
                Error("stss-order", sync->offset,
                      fmt::format("'stss' names sample {} behind {} in a track of {}", sample, previous,
                                  inTrack.sampleCount),
                      inTrack.id);
                return;
            }
            previous = sample;
        }
    }

    void CheckSampleToChunk(const Track& inTrack)
    {
        const Atom* atom = inTrack.FindTable(FourCC("stsc"));
        if (atom == nullptr)
        {
            return;
        }
        std::uint64_t samples = 0;
        std::uint64_t idle = 0;
        for (std::size_t i = 0; i < inTrack.sampleToChunk.size(); ++i)
        {
            const SampleToChunk& entry = inTrack.sampleToChunk[i];
            const std::uint64_t entryOffset = atom->GetPayloadOffset() + 8 + 12 * i;
            const bool isLast = i + 1 == inTrack.sampleToChunk.size();
            const std::uint64_t next =
                isLast ? inTrack.chunkOffsets.size() + 1 : inTrack.sampleToChunk[i + 1].firstChunk;
            if ((i == 0 && entry.firstChunk != 1) || entry.firstChunk >= next)
            {
                Error("stsc-order", entryOffset,
                      i == 0 && entry.firstChunk != 1
                          ? fmt::format("'stsc' begins with chunk {} instead of 1", entry.firstChunk)
                          : fmt::format("'stsc' entry {} begins with chunk {}, but the next begins at {}", i + 1,
                                        entry.firstChunk, next),
                      inTrack.id);
                return;
            }
            if (entry.samplesPerChunk == 0)
            {
                Warn("stsc-empty", entryOffset, fmt::format("'stsc' entry {} gives its chunks no samples", i + 1),
                     inTrack.id);
            }
            if (entry.descriptionID == 0 || entry.descriptionID > inTrack.entries.size())
            {
                Error("stsc-description", entryOffset,
                      fmt::format("'stsc' entry {} uses sample description {} of {}", i + 1, entry.descriptionID,
                                  inTrack.entries.size()),
                      inTrack.id);
            }
            samples = Sum(samples, (next - entry.firstChunk) * entry.samplesPerChunk);
            idle += CountIdleSamples(inTrack, entry, next);
        }
        const std::string what =
            fmt::format("the chunks hold {} samples, but 'stsz' counts {}", samples, inTrack.sampleCount);
        if (samples != inTrack.sampleCount && samples - idle == inTrack.sampleCount)
        {
            Warn("stsc-count", atom->offset, what + "; the chunks without bytes make the difference", inTrack.id);
        }
        else if (samples != inTrack.sampleCount)
        {
            Error("stsc-count", atom->offset, what, inTrack.id);
        }
    }

    //! What the entry claims for chunks that begin where their successors do, and so can hold nothing: a write of no
    //! samples leaves such a chunk behind.
    static std::uint64_t CountIdleSamples(const Track& inTrack, const SampleToChunk& inEntry, std::uint64_t inNext)
    {
        const std::vector<std::uint64_t>& offsets = inTrack.chunkOffsets;
        std::uint64_t samples = 0;
        for (std::uint64_t chunk = inEntry.firstChunk; chunk < inNext && chunk < offsets.size(); ++chunk)
        {
            samples += offsets[chunk - 1] == offsets[chunk] ? inEntry.samplesPerChunk : 0;
        }
        return samples;
    }

    void CheckChunks(const Track& inTrack)
    {
        const Atom* atom = inTrack.FindTable(inTrack.has64BitOffsets ? FourCC("co64") : FourCC("stco"));
        if (atom == nullptr || !inTrack.IsSelfContained() || mMedia.empty())
        {
            return;
        }
        std::uint64_t index = 0;
        std::uint64_t furthest = 0;
        inTrack.VisitChunks([&](const Chunk& inChunk) {
            ++index;
            furthest = std::max(furthest, inChunk.offset);
            if (inChunk.size == 0)
            {
                return true;
            }
            const std::uint64_t end = Sum(inChunk.offset, inChunk.size);
            if (IsInMedia(inChunk.offset, end))
            {
                mExtents.push_back({inChunk.offset, end, inTrack.id});
            }
            else
            {
                Error("chunk-outside", inChunk.offset,
                      fmt::format("chunk {} ({} bytes) lies {}", index, inChunk.size,
                                  end > mMovie.GetSource().GetSize() ? "beyond the end of the file"
                                                                     : "outside the media ('mdat')"),
                      inTrack.id);
            }
            return true;
        });
        if (inTrack.has64BitOffsets && furthest <= UINT32_MAX)
        {
            Note("offset-width", atom->offset, "the chunk offsets have 64 bits where 32 would do", inTrack.id);
        }
    }

    //! Whether the bytes are all of one 'mdat'; these lie in the order of the file and apart.
    bool IsInMedia(std::uint64_t inBegin, std::uint64_t inEnd) const
    {
        const auto behind =
            std::upper_bound(mMedia.begin(), mMedia.end(), inBegin,
                             [](std::uint64_t inOffset, const Extent& inMedia) { return inOffset < inMedia.begin; });
        return behind != mMedia.begin() && inEnd <= std::prev(behind)->end;
    }

    void CheckEdits(const Track& inTrack)
    {
        const Atom* edits = inTrack.atom->Find(FourCC("edts"));
        const Atom* list = edits != nullptr ? edits->Find(FourCC("elst")) : nullptr;
        if (list == nullptr || mIsFragmented)
        {
            return;
        }
        if (inTrack.edits.empty())
        {
            Note("edit-none", list->offset, "the edit list is empty, so the whole media is played", inTrack.id);
        }
        for (std::size_t i = 0; i < inTrack.edits.size(); ++i)
        {
            const Edit& edit = inTrack.edits[i];
            if (edit.mediaTime == -1)
            {
                continue;
            }
            if (edit.mediaTime < -1)
            {
                Error("edit-time", list->offset,
                      fmt::format("edit {} begins at the media time {}", i + 1, edit.mediaTime), inTrack.id);
                continue;
            }
            // One movie unit may be rounded up. At another rate the edit takes more or less of the media.
            const double rate = std::abs(static_cast<std::int32_t>(edit.mediaRate) / 65536.0);
            const std::uint64_t whole = Rescale(Less(edit.duration, 1), mMovie.GetTimeScale(), inTrack.mediaTimeScale);
            const std::uint64_t length =
                rate == 1 ? whole : Rescale(whole, 65536, static_cast<std::uint64_t>(rate * 65536));
            const auto begin = static_cast<std::uint64_t>(edit.mediaTime);
            const std::uint64_t end = Sum(inTrack.mediaDuration, inTrack.maxCompositionOffset);
            if (begin > end || length > end - begin)
            {
                Error("edit-range", list->offset,
                      fmt::format("edit {} plays the media from {} for about {} units, but it lasts only {}", i + 1,
                                  begin, length, inTrack.mediaDuration),
                      inTrack.id);
            }
            if (edit.mediaRate != 0x00010000)
            {
                Note("edit-rate", list->offset,
                     fmt::format("edit {} plays at {} times the speed", i + 1,
                                 static_cast<std::int32_t>(edit.mediaRate) / 65536.0),
                     inTrack.id);
            }
        }
    }

    void CheckReferences(const Track& inTrack)
    {
        const Atom* references = inTrack.atom->Find(FourCC("tref"));
        if (references == nullptr)
        {
            return;
        }
        std::map<std::uint32_t, const Atom*> atoms; // The first of each type.
        for (const Atom& atom : references->children)
        {
            atoms.emplace(atom.type, &atom);
            if (atom.GetPayloadSize() % 4 != 0)
            {
                Error("reference-size", atom.offset,
                      fmt::format("the {} reference is not a whole number of track IDs", FourCCText(atom.type)),
                      inTrack.id);
            }
        }
        for (const auto& [type, ids] : inTrack.references)
        {
            const Atom* atom = atoms.at(type);
            for (const std::uint32_t id : ids)
            {
                const Track* target = mMovie.FindTrack(id);
                if (id == 0)
                {
                    Warn("reference-none", atom->offset,
                         fmt::format("a {} reference leads to no track", FourCCText(type)), inTrack.id);
                }
                else if (target == nullptr)
                {
                    Error("reference-track", atom->offset,
                          fmt::format("a {} reference leads to track {}, which does not exist", FourCCText(type), id),
                          inTrack.id);
                }
                else if (target == &inTrack)
                {
                    Warn("reference-self", atom->offset,
                         fmt::format("a {} reference leads to the track itself", FourCCText(type)), inTrack.id);
                }
                else if (type == FourCC("tmcd") && target->handlerType == FourCC("tmcd"))
                {
                    CheckTimecodeDuration(inTrack, *target);
                }
                else if (type == FourCC("tmcd") ||
                         (type == FourCC("chap") && !IsOneOf(target->handlerType, {FourCC("text"), FourCC("sbtl"),
                                                                                   FourCC("subt"), FourCC("vide")})))
                {
                    Error("reference-kind", atom->offset,
                          fmt::format("the {} reference leads to track {}, which is {}", FourCCText(type), id,
                                      HandlerText(*target)),
                          inTrack.id);
                }
            }
        }
    }

    void CheckTimecodeDuration(const Track& inUser, const Track& inTimecode)
    {
        if (mIsFragmented || inTimecode.entries.empty() || !inTimecode.entries.front().timecode)
        {
            return;
        }
        // A frame may be cut off, and a movie unit lost to truncation on either side.
        const TimecodeFormat& format = *inTimecode.entries.front().timecode;
        const auto positive = [](std::int32_t inValue) { return static_cast<std::uint64_t>(std::max(inValue, 0)); };
        const std::uint64_t tolerance =
            2 + Rescale(positive(format.frameDuration), positive(format.timeScale), mMovie.GetTimeScale());
        // It lasts as long as the longest of the tracks that refer to it.
        std::uint64_t longest = 0;
        for (const Track& track : mMovie.GetTracks())
        {
            const auto found = track.references.find(FourCC("tmcd"));
            const bool isUser = found != track.references.end() && std::find(found->second.begin(), found->second.end(),
                                                                             inTimecode.id) != found->second.end();
            longest = isUser ? std::max(longest, track.duration) : longest;
        }
        const bool isShort = Less(inUser.duration, inTimecode.duration) > tolerance;
        const bool isLong = Less(inTimecode.duration, longest) > tolerance;
        const std::string what = fmt::format("the timecode lasts {} movie units, track {} lasts {}",
                                             inTimecode.duration, inUser.id, inUser.duration);
        if (isShort && inUser.handlerType == FourCC("vide"))
        {
            Error("timecode-duration", inTimecode.atom->offset, what, inTimecode.id);
        }
        else if (isShort || isLong)
        {
            Warn("timecode-duration", inTimecode.atom->offset, what, inTimecode.id);
        }
    }

    // ---- Descriptions ----

    void CheckEntries(const Track& inTrack)
    {
        const Atom* atom = inTrack.FindTable(FourCC("stsd"));
        if (atom == nullptr)
        {
            return;
        }
        if (inTrack.entries.empty())
        {
            Error("stsd-none", atom->offset, "the track has no sample description", inTrack.id);
        }
        if (inTrack.statedEntryCount != inTrack.entries.size())
        {
            Error("stsd-count", atom->offset,
                  fmt::format("'stsd' says that it has {} descriptions, but holds {}", inTrack.statedEntryCount,
                              inTrack.entries.size()),
                  inTrack.id);
        }
        for (const SampleEntry& entry : inTrack.entries)
        {
            if (entry.format == 0)
            {
                Error("entry-format", entry.offset, "the sample description has no data format", inTrack.id);
            }
            if (entry.video)
            {
                CheckVideo(inTrack, entry);
            }
            if (entry.sound)
            {
                CheckSound(inTrack, entry);
            }
            if (entry.timecode)
            {
                CheckTimecode(inTrack, entry);
            }
        }
    }

    void CheckVideo(const Track& inTrack, const SampleEntry& inEntry)
    {
        const VideoFormat& video = *inEntry.video;
        if (video.width == 0 || video.height == 0)
        {
            Error("video-size", inEntry.offset,
                  fmt::format("the video description says {} x {} pixels", video.width, video.height), inTrack.id);
        }
        if (video.pixelAspect && ((*video.pixelAspect)[0] == 0 || (*video.pixelAspect)[1] == 0))
        {
            Warn("pixel-aspect", inEntry.offset,
                 fmt::format("the pixel aspect is {}:{}", (*video.pixelAspect)[0], (*video.pixelAspect)[1]),
                 inTrack.id);
        }
        if (video.field && ((*video.field)[0] == 0 || (*video.field)[0] > 2))
        {
            Error("field", inEntry.offset, fmt::format("'fiel' counts {} fields", (*video.field)[0]), inTrack.id);
        }
        if (video.cleanAperture)
        {
            const CleanAperture& clean = *video.cleanAperture;
            if (clean.widthD == 0 || clean.heightD == 0 || clean.horizOffD == 0 || clean.vertOffD == 0)
            {
                Error("clean-aperture", inEntry.offset, "the clean aperture divides by 0", inTrack.id);
            }
            else if (clean.widthN > std::uint64_t{clean.widthD} * video.width ||
                     clean.heightN > std::uint64_t{clean.heightD} * video.height)
            {
                Error("clean-aperture", inEntry.offset, "the clean aperture is larger than the frame", inTrack.id);
            }
        }
    }

    void CheckSound(const Track& inTrack, const SampleEntry& inEntry)
    {
        const SoundFormat& sound = *inEntry.sound;
        if (sound.channelCount == 0)
        {
            Error("sound-channels", inEntry.offset, "the sound description has no channels", inTrack.id);
        }
        if (!(sound.sampleRate > 0) || !std::isfinite(sound.sampleRate))
        {
            // Rates that do not fit version 0 are written as 0 by some.
            Warn("sound-rate", inEntry.offset, "the sound description has no sample rate", inTrack.id);
        }
        if (sound.channelLayout)
        {
            CheckChannelLayout(inTrack, inEntry, *sound.channelLayout);
        }
        if (!sound.isUncompressed || sound.channelCount == 0)
        {
            return;
        }
        if (sound.version == 2 &&
            sound.bytesPerFrame != std::uint64_t{sound.channelCount} * sound.bitsPerChannel / 8 * sound.framesPerPacket)
        {
            Error("sound-frame", inEntry.offset,
                  fmt::format("{} channels of {} bits do not make frames of {} bytes", sound.channelCount,
                              sound.bitsPerChannel, sound.bytesPerFrame),
                  inTrack.id);
        }
        if (sound.version == 1 && sound.framesPerPacket == 1 && sound.bytesPerPacket != 0 &&
            sound.bytesPerFrame != std::uint64_t{sound.channelCount} * sound.bytesPerPacket)
        {
            Error("sound-frame", inEntry.offset,
                  fmt::format("{} channels of {} bytes do not make frames of {} bytes", sound.channelCount,
                              sound.bytesPerPacket, sound.bytesPerFrame),
                  inTrack.id);
        }
        const bool isListed = inTrack.uniformSampleSize == 0;
        if (!isListed && inTrack.uniformSampleSize != 1 && sound.bytesPerFrame != 0 &&
            inTrack.uniformSampleSize != sound.bytesPerFrame)
        {
            Error(
                "sound-size", inEntry.offset,
                fmt::format("frames have {} bytes, but 'stsz' says {}", sound.bytesPerFrame, inTrack.uniformSampleSize),
                inTrack.id);
        }
    }

    void CheckChannelLayout(const Track& inTrack, const SampleEntry& inEntry, const ChannelLayout& inLayout)
    {
        constexpr std::uint32_t kUseDescriptions = 0;
        constexpr std::uint32_t kUseBitmap = 0x10000;
        std::uint64_t channels = inLayout.tag & 0xFFFF;
        if (inLayout.tag == kUseDescriptions)
        {
            channels = inLayout.labels.size();
        }
        else if (inLayout.tag == kUseBitmap)
        {
            channels = static_cast<std::uint64_t>(std::popcount(inLayout.bitmap));
        }
        if (channels != inEntry.sound->channelCount)
        {
            Error(
                "sound-labels", inEntry.offset,
                fmt::format("the channel layout has {} channels, the sound {}", channels, inEntry.sound->channelCount),
                inTrack.id);
        }
    }

    void CheckTimecode(const Track& inTrack, const SampleEntry& inEntry)
    {
        const TimecodeFormat& timecode = *inEntry.timecode;
        constexpr std::uint64_t kSampleSize = 4;
        if (inEntry.format == FourCC("tmcd") && inTrack.sampleCount != 0 && inTrack.GetSampleSize(0) != kSampleSize)
        {
            Error("timecode-sample", inEntry.offset,
                  fmt::format("a timecode sample has {} bytes instead of {}", inTrack.GetSampleSize(0), kSampleSize),
                  inTrack.id);
        }
        if (timecode.timeScale <= 0 || timecode.frameDuration <= 0 || timecode.numberOfFrames == 0)
        {
            Error("timecode-rate", inEntry.offset,
                  fmt::format("the timecode counts {} frames of {} / {} s", timecode.numberOfFrames,
                              timecode.frameDuration, timecode.timeScale),
                  inTrack.id);
            return;
        }
        const double rate = static_cast<double>(timecode.timeScale) / timecode.frameDuration;
        if (std::ceil(rate - 0.001) != timecode.numberOfFrames)
        {
            Warn("timecode-rate", inEntry.offset,
                 fmt::format("the timecode counts {} frames a second at {:.3f} frames a second",
                             timecode.numberOfFrames, rate),
                 inTrack.id);
        }
        constexpr std::uint32_t kDropFrame = 1;
        if ((timecode.flags & kDropFrame) != 0 && timecode.numberOfFrames % 30 != 0)
        {
            Error("timecode-drop", inEntry.offset,
                  fmt::format("drop-frame counting does not exist at {} frames a second", timecode.numberOfFrames),
                  inTrack.id);
        }
    }

    void CheckApertures(const Track& inTrack)
    {
        const Atom* atom = inTrack.atom->Find(FourCC("tapt"));
        if (atom == nullptr || !inTrack.apertures)
        {
            return;
        }
        if (!inTrack.apertures->clean || !inTrack.apertures->production || !inTrack.apertures->encoded)
        {
            Warn("aperture", atom->offset, "the track's aperture dimensions are not complete", inTrack.id);
        }
        else if (!inTrack.entries.empty() && inTrack.entries.front().video)
        {
            const VideoFormat& video = *inTrack.entries.front().video;
            const auto [across, down] = video.pixelAspect.value_or(std::array<std::uint32_t, 2>{1, 1});
            const double stretch = down != 0 ? static_cast<double>(across) / down : 1;
            const Apertures& apertures = *inTrack.apertures;
            CheckAperture(inTrack, *atom, "encoded", *apertures.encoded, video.width, video.height);
            CheckAperture(inTrack, *atom, "production", *apertures.production, video.width * stretch, video.height);
            if (video.cleanAperture && video.cleanAperture->widthD != 0 && video.cleanAperture->heightD != 0)
            {
                const CleanAperture& clean = *video.cleanAperture;
                CheckAperture(inTrack, *atom, "clean", *apertures.clean,
                              static_cast<double>(clean.widthN) / clean.widthD * stretch,
                              static_cast<double>(clean.heightN) / clean.heightD);
            }
        }
    }

    void CheckAperture(const Track& inTrack, const Atom& inAtom, const char* inName, const Apertures::Size& inSize,
                       double inWidth, double inHeight)
    {
        // Some writers round to whole pixels.
        if (std::abs(inSize.width - inWidth) > 1 || std::abs(inSize.height - inHeight) > 1)
        {
            Warn("aperture", inAtom.offset,
                 fmt::format("the track's {} size is {:g} x {:g}, its description says {:g} x {:g}", inName,
                             inSize.width, inSize.height, inWidth, inHeight),
                 inTrack.id);
        }
    }

    // ---- Across tracks ----

    void CheckOverlaps()
    {
        std::sort(mExtents.begin(), mExtents.end(), [](const Extent& inA, const Extent& inB) {
            return inA.begin != inB.begin ? inA.begin < inB.begin : inA.end < inB.end;
        });
        std::uint64_t used = 0;
        const Extent* reaching = nullptr; // The chunk so far that reaches furthest.
        for (const Extent& extent : mExtents)
        {
            if (reaching != nullptr && extent.begin < reaching->end)
            {
                Error("chunk-overlap", extent.begin,
                      reaching->track == extent.track
                          ? std::string("two chunks of the track share bytes")
                          : fmt::format("the chunk shares bytes with one of track {}", reaching->track),
                      extent.track);
            }
            const std::uint64_t begin = reaching != nullptr ? std::max(reaching->end, extent.begin) : extent.begin;
            used += extent.end > begin ? extent.end - begin : 0;
            if (reaching == nullptr || extent.end > reaching->end)
            {
                reaching = &extent;
            }
        }
        std::uint64_t media = 0;
        for (const Extent& extent : mMedia)
        {
            media += extent.end - extent.begin;
        }
        constexpr std::uint64_t kReach = std::uint64_t{1} << 32; // Of 32-bit offsets.
        const bool hasNarrowOffsets =
            std::any_of(mMovie.GetTracks().begin(), mMovie.GetTracks().end(),
                        [](const Track& inTrack) { return inTrack.sampleCount != 0 && !inTrack.has64BitOffsets; });
        if (!mIsFragmented && hasNarrowOffsets && !mMedia.empty() && mMedia.back().end > kReach &&
            (reaching == nullptr || reaching->end <= kReach))
        {
            Error("offset-width", mMedia.back().begin,
                  "the media goes on where 32-bit chunk offsets do not lead, and no other leads there");
        }
        if (!mIsFragmented && used < media)
        {
            Note("media-unused", mMedia.front().begin,
                 fmt::format("{} of {} bytes of media belong to no track", media - used, media));
        }
    }

    // ---- Helpers ----

    void Error(CheckName inCheck, std::uint64_t inOffset, const std::string& inWhat, std::uint32_t inTrack = 0)
    {
        mFindings.Add(Severity::kError, inCheck, inOffset, inTrack, inWhat);
    }

    void Warn(CheckName inCheck, std::uint64_t inOffset, const std::string& inWhat, std::uint32_t inTrack = 0)
    {
        mFindings.Add(Severity::kWarning, inCheck, inOffset, inTrack, inWhat);
    }

    void Note(CheckName inCheck, std::uint64_t inOffset, const std::string& inWhat, std::uint32_t inTrack = 0)
    {
        mFindings.Add(Severity::kNote, inCheck, inOffset, inTrack, inWhat);
    }

    const MovieFile& mMovie;
    Findings& mFindings;
    std::vector<Extent> mMedia;   //!< Payloads of the 'mdat' atoms.
    std::vector<Extent> mExtents; //!< Chunks that lie inside them.
    bool mIsFragmented = false;
};

} // namespace

void VerifyMovie(const MovieFile& inMovie, Findings& ioFindings)
{
    Verifier(inMovie, ioFindings).Run();
}

} // namespace Inspect
