#pragma once

#include "CommandError.h"
#include "DescriptionOptions.h"
#include "LibAV.h"
#include "MovieLayout.h"
#include "Progress.h"
#include "TrackOptions.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Host
{

struct WrapOptions
{
    std::vector<std::string> inputs;
    std::filesystem::path output;
    bool overwrite = false;
    bool allowDamage = false;      //!< An input that breaks off ends there, and damaged packets are taken.
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
//! `kIOFailed` when reading or writing failed, an input breaks off or the user asked to stop. Then what was written is kept as a movie that
//! ends at its last whole sample, where there is one, and the sentence names it; else nothing is left that was not there
//! before.
WrapSummary Wrap(const WrapOptions& inOptions, Progress& ioProgress);

//! What `Wrap` would come to.
struct WrapPrediction
{
    std::optional<WrapSummary> summary;     //!< none where a refusal leaves it open what would be written
    std::optional<std::uint64_t> freeSpace; //!< bytes on the volume of the output, where the system says so
    std::vector<CommandError> refusals;     //!< all that can be told, and a movie that does not fit its volume
    bool endsEarly = false; //!< An input breaks off, which the last of the refusals tells; the summary is what is kept.

    //! That of an input that breaks off where nothing else keeps the movie from being written.
    ExitCode GetExitCode() const
    {
        return refusals.empty()                    ? ExitCode::kDone
               : endsEarly && refusals.size() == 1 ? ExitCode::kIOFailed
                                                   : ExitCode::kInputRefused;
    }
};

//! Reads the inputs to their end and makes the whole movie out of them, but neither creates nor writes any file.
//! Sizes and places are those that `Wrap` would come to. Throws CommandError only when interrupted.
WrapPrediction PredictWrap(const WrapOptions& inOptions, Progress& ioProgress);

} // namespace Host
