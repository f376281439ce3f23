#pragma once

#include "MetadataOption.h"
#include "TimecodeOption.h"

#include <Reelmill/QTTypes.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace Host
{

//! Which tracks `reelmill wrap` adds to those of the media, and what it attaches to all of them. Tracks have the numbers
//! of the summary: the video and audio streams in the order of the inputs, then timecode, chapters, texts, captions.
struct TrackOptions
{
    struct TrimIn
    {
        int track = 0; //!< 0: all
        std::int64_t nanoseconds = 0;
    };
    struct TrackMetadata
    {
        int track = 0;
        MetadataItem item;
    };
    struct Reference
    {
        std::string text; //!< as given
        int from = 0;
        int to = 0;
        QT::TrackReferenceType type = QT::kQTTrackReferenceTimecode;
    };

    bool takesTimecode = true; //!< that of the input where `timecode` has none
    std::optional<Timecode> timecode;
    bool takesChapters = true; //!< those of the input where `chapters` is empty
    std::string chapters;
    std::vector<std::string> texts;
    std::string captions;
    std::optional<Timecode> captionsStart;
    std::vector<TrimIn> trimIns;
    std::vector<MetadataItem> metadata;
    std::vector<TrackMetadata> trackMetadata;
    std::vector<Reference> references;
};

//! The options as they stand on the command line.
struct TrackArguments
{
    std::string timecode;
    std::string chapters;
    std::vector<std::string> texts;
    std::string captions;
    std::string start;
    std::vector<std::string> trimIns;
    std::vector<std::string> metadata;
    std::vector<std::string> trackMetadata;
    std::vector<std::string> references;
};

//! Adds the options to a subcommand; what is given for them goes to `ioArguments`.
void AddTrackOptions(CLI::App& ioCommand, TrackArguments& ioArguments);

//! Throws CommandError (`kUsage`) for an option that is not written as it should be.
TrackOptions ParseTrackOptions(const TrackArguments& inArguments);

} // namespace Host
