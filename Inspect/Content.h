#pragma once

#include "MovieFile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Inspect
{

//! "HH:MM:SS:FF", with a semicolon in front of the frames of drop-frame timecode.
std::string FormatTimecode(std::uint32_t inFrameNumber, const TimecodeFormat& inFormat);

//! The first timecode of a timecode track; none when its first sample cannot be read or its format is unusable.
std::optional<std::string> ReadStartTimecode(const MovieFile& inMovie, const Track& inTrack);

//! One sample of a text track.
struct TextSample
{
    double time = 0;     //!< Seconds of media.
    double duration = 0; //!< Seconds.
    std::string text;    //!< UTF-8.
};

//! The samples of a text track, at most `inLimit` of them and some 16 MiB of text.
std::vector<TextSample> ReadTexts(const MovieFile& inMovie, const Track& inTrack, std::size_t inLimit);

//! A chunk and whose it is; small, since a movie may have many millions of them.
struct PlacedChunk
{
    struct Extent
    {
        std::uint64_t offset = 0; //!< In the file.
        std::uint64_t size = 0;   //!< Bytes.
    };
    Extent chunk;
    double begin = 0; //!< Seconds of the movie.
    double end = 0;
    std::uint32_t track = 0; //!< Index into the movie's tracks.
};

//! Seconds of the movie at which a track's media begins: behind the empty edits at its front, less what its first edit
//! cuts off.
double MediaStart(const MovieFile& inMovie, const Track& inTrack);

//! The chunks of all tracks in the order in which they lie in the file, but for those that begin beyond its end.
std::vector<PlacedChunk> ChunksInFileOrder(const MovieFile& inMovie);

//! How far sound and video lie apart.
struct Interleave
{
    double longestSkew = 0;       //!< Seconds: the most that one track is ahead of another where the file has come to.
    std::uint64_t skewOffset = 0; //!< Where in the file.
    std::vector<double> meanChunkDuration; //!< Seconds, for each track.
    std::vector<std::uint64_t> chunkCounts;
};

//! Follows the chunks through the file. Tracks other than video and sound do not count toward the skew.
Interleave MeasureInterleave(const MovieFile& inMovie, const std::vector<PlacedChunk>& inChunks);

} // namespace Inspect
