#pragma once

#include "DescriptionOptions.h"
#include "LibAV.h"
#include "MovieLayout.h"
#include "Progress.h"
#include "TrackOptions.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Host
{

struct WrapOptions
{
    std::vector<std::string> inputs;
    std::filesystem::path output;
    bool overwrite = false;
    AVRational frameRate = {0, 1}; //!< of image sequences
    DescriptionOptions descriptions;
    TrackOptions tracks;
};

struct WrapSummary
{
    struct Track
    {
        std::string kind;   //!< "video", "sound", "timecode", "chapters", "text" or "captions"
        std::string format; //!< for people
        std::int64_t samples = 0;
        std::uint64_t bytes = 0;
        double seconds = 0;
        double delay = 0; //!< seconds from the start of the movie to the track's first sample
    };

    std::filesystem::path output;
    double seconds = 0;
    std::vector<Track> tracks;
    MovieLayout layout;
    std::vector<std::string> notes;
};

//! Puts the first video and all audio streams of the inputs into a movie, their packets unchanged and interleaved by
//! time. The start of each input is the start of the movie; streams that start later keep their distance from it.
//!
//! Throws CommandError: `kInputRefused` when an input cannot be written as it is or the output may not be,
//! `kIOFailed` when reading or writing failed. Either way nothing is left that was not there before.
WrapSummary Wrap(const WrapOptions& inOptions, Progress& ioProgress);

} // namespace Host
