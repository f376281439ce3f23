#include "Content.h"

#include <algorithm>
#include <array>
#include <boost/locale/encoding_utf.hpp>
#include <fmt/format.h>
#include <numeric>
#include <set>

namespace Inspect
{

namespace
{

constexpr std::uint64_t kMaxTextSize = 2 + 0xFFFF; //!< A text sample's length field has 16 bits.
constexpr std::size_t kMaxTextTotal = 16u << 20;   //!< Samples may all name the same bytes.

double Seconds(const Track& inTrack, std::uint64_t inTime)
{
    return inTrack.mediaTimeScale != 0 ? static_cast<double>(inTime) / inTrack.mediaTimeScale : 0;
}

//! Text as UTF-8: UTF-16 by its byte-order mark, else as it stands.
std::string DecodeText(std::span<const std::uint8_t> inBytes)
{
    const bool isBigEndian = inBytes.size() >= 2 && inBytes[0] == 0xFE && inBytes[1] == 0xFF;
    const bool isLittleEndian = inBytes.size() >= 2 && inBytes[0] == 0xFF && inBytes[1] == 0xFE;
    if (!isBigEndian && !isLittleEndian)
    {
        return {inBytes.begin(), inBytes.end()};
    }
    std::u16string units;
    for (std::size_t i = 2; i + 1 < inBytes.size(); i += 2)
    {
        const unsigned int first = inBytes[i];
        const unsigned int second = inBytes[i + 1];
        units.push_back(static_cast<char16_t>(isBigEndian ? first << 8 | second : second << 8 | first));
    }
    return boost::locale::conv::utf_to_utf<char>(units);
}

} // namespace

std::string FormatTimecode(std::uint32_t inFrameNumber, const TimecodeFormat& inFormat)
{
    constexpr std::uint32_t kDropFrame = 1;
    const std::uint32_t rate = inFormat.numberOfFrames;
    if (rate == 0)
    {
        return "";
    }
    std::uint64_t frame = inFrameNumber;
    const bool isDropFrame = (inFormat.flags & kDropFrame) != 0;
    if (isDropFrame)
    {
        // Two numbers in thirty are left out at the start of each minute but every tenth.
        const std::uint64_t dropped = rate / 15;
        const std::uint64_t perMinute = std::uint64_t{rate} * 60 - dropped;
        const std::uint64_t perTenMinutes = perMinute * 10 + dropped;
        const std::uint64_t tens = frame / perTenMinutes;
        const std::uint64_t rest = frame % perTenMinutes;
        frame += dropped * 9 * tens;
        if (rest >= std::uint64_t{rate} * 60)
        {
            frame += dropped * ((rest - std::uint64_t{rate} * 60) / perMinute + 1);
        }
    }
    const std::uint64_t seconds = frame / rate;
    return fmt::format("{:02}:{:02}:{:02}{}{:02}", seconds / 3600 % 24, seconds / 60 % 60, seconds % 60,
                       isDropFrame ? ';' : ':', frame % rate);
}

std::optional<std::string> ReadStartTimecode(const MovieFile& inMovie, const Track& inTrack)
{
    if (inTrack.entries.empty() || !inTrack.entries.front().timecode || inTrack.chunkOffsets.empty())
    {
        return std::nullopt;
    }
    const TimecodeFormat& format = *inTrack.entries.front().timecode;
    std::array<std::uint8_t, 4> bytes{};
    if (format.numberOfFrames == 0 || inMovie.GetSource().Read(inTrack.chunkOffsets.front(), bytes) != bytes.size())
    {
        return std::nullopt;
    }
    return FormatTimecode(ByteReader(bytes).U32(), format);
}

std::vector<TextSample> ReadTexts(const MovieFile& inMovie, const Track& inTrack, std::size_t inLimit)
{
    std::vector<TextSample> texts;
    std::size_t total = 0;
    const std::uint64_t fileSize = inMovie.GetSource().GetSize();
    inTrack.VisitSamples([&](const Sample& inSample) {
        if (texts.size() == inLimit || total > kMaxTextTotal)
        {
            return false;
        }
        const std::uint64_t available = fileSize - std::min(fileSize, inSample.offset);
        std::vector<std::uint8_t> bytes(std::min({inSample.size, kMaxTextSize, available}));
        bytes.resize(inMovie.GetSource().Read(inSample.offset, bytes));
        total += bytes.size();
        ByteReader reader(bytes);
        const std::size_t length = reader.U16();
        const auto text = reader.Bytes(std::min(length, reader.Rest().size()));
        texts.push_back({Seconds(inTrack, inSample.time), Seconds(inTrack, inSample.duration), DecodeText(text)});
        return true;
    });
    return texts;
}

double MediaStart(const MovieFile& inMovie, const Track& inTrack)
{
    double start = 0;
    for (const Edit& edit : inTrack.edits)
    {
        if (edit.mediaTime != -1)
        {
            const double cut = inTrack.mediaTimeScale != 0 ? static_cast<double>(edit.mediaTime) : 0;
            return start - cut / std::max(1U, inTrack.mediaTimeScale);
        }
        start += static_cast<double>(edit.duration) / std::max(1U, inMovie.GetTimeScale());
    }
    return start;
}

std::vector<PlacedChunk> ChunksInFileOrder(const MovieFile& inMovie)
{
    std::vector<PlacedChunk> chunks;
    chunks.reserve(std::accumulate(
        inMovie.GetTracks().begin(), inMovie.GetTracks().end(), std::size_t{0},
        [](std::size_t inCount, const Track& inTrack) { return inCount + inTrack.chunkOffsets.size(); }));
    std::uint32_t index = 0;
    for (const Track& track : inMovie.GetTracks())
    {
        const double start = MediaStart(inMovie, track);
        track.VisitChunks([&](const Chunk& inChunk) {
            if (inChunk.offset < inMovie.GetSource().GetSize())
            {
                chunks.push_back({{inChunk.offset, inChunk.size},
                                  start + Seconds(track, inChunk.time),
                                  start + Seconds(track, inChunk.time + inChunk.duration),
                                  index});
            }
            return true;
        });
        ++index;
    }
    std::sort(chunks.begin(), chunks.end(),
              [](const PlacedChunk& inA, const PlacedChunk& inB) { return inA.chunk.offset < inB.chunk.offset; });
    return chunks;
}

Interleave MeasureInterleave(const MovieFile& inMovie, const std::vector<PlacedChunk>& inChunks)
{
    const std::vector<Track>& tracks = inMovie.GetTracks();
    Interleave interleave;
    interleave.meanChunkDuration.resize(tracks.size());
    interleave.chunkCounts.resize(tracks.size());
    struct Progress
    {
        bool counts = false;   //!< A video or sound track with media.
        bool hasBegun = false; //!< A track that has not can fall behind, but is not ahead.
        bool isDone = false;   //!< A track that has come to its end cannot fall behind.
        double reached = 0;    //!< Seconds of the movie.
        double end = 0;
    };
    std::vector<Progress> progress(tracks.size());
    for (const PlacedChunk& placed : inChunks)
    {
        interleave.meanChunkDuration[placed.track] += placed.end - placed.begin;
        ++interleave.chunkCounts[placed.track];
        const std::uint32_t type = tracks[placed.track].handlerType;
        progress[placed.track].counts = type == FourCC("vide") || type == FourCC("soun");
    }
    std::multiset<double> reached;    // By each track that counts and has begun.
    std::multiset<double> unfinished; // By those of them that are not done.
    for (std::size_t index = 0; index < tracks.size(); ++index)
    {
        interleave.meanChunkDuration[index] /=
            static_cast<double>(std::max<std::uint64_t>(1, interleave.chunkCounts[index]));
        if (progress[index].counts)
        {
            progress[index].reached = MediaStart(inMovie, tracks[index]);
            progress[index].end = progress[index].reached + Seconds(tracks[index], tracks[index].mediaDuration);
            unfinished.insert(progress[index].reached);
        }
    }
    if (unfinished.size() < 2)
    {
        return interleave;
    }
    for (const PlacedChunk& placed : inChunks)
    {
        Progress& track = progress[placed.track];
        if (!track.counts)
        {
            continue;
        }
        if (track.hasBegun)
        {
            reached.erase(reached.find(track.reached));
        }
        if (!track.isDone)
        {
            unfinished.erase(unfinished.find(track.reached));
        }
        track.hasBegun = true;
        track.reached = placed.end;
        track.isDone = placed.end >= track.end;
        reached.insert(track.reached);
        if (!track.isDone)
        {
            unfinished.insert(track.reached);
        }
        const double ahead = *reached.rbegin();
        const double behind = unfinished.empty() ? placed.end : std::min(placed.end, *unfinished.begin());
        if (ahead - behind > interleave.longestSkew)
        {
            interleave.longestSkew = ahead - behind;
            interleave.skewOffset = placed.chunk.offset;
        }
    }
    return interleave;
}

} // namespace Inspect
