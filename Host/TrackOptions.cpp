#include "TrackOptions.h"

#include "CommandError.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <string_view>

namespace Host
{

namespace
{

[[noreturn]] void RefuseValue(const std::string& inOption, const std::string& inValue, const std::string& inReason)
{
    throw CommandError(ExitCode::kUsage, fmt::format("{} {} {}", inOption, inValue, inReason));
}

std::optional<int> ParseTrackNumber(std::string_view inText)
{
    int number = 0;
    const auto [end, error] = std::from_chars(inText.data(), inText.data() + inText.size(), number);
    return error == std::errc() && end == inText.data() + inText.size() && number > 0 ? std::optional(number)
                                                                                      : std::nullopt;
}

Timecode ParseTimecodeOption(const std::string& inOption, const std::string& inText)
{
    const std::optional<Timecode> timecode = ParseTimecode(inText);
    if (!timecode)
    {
        RefuseValue(inOption, inText, "is no timecode; write it as 01:00:00:00, or 01:00:00;00 for drop frame");
    }
    return *timecode;
}

//! "0.5s", "500ms": with a unit, so that nobody has to guess it.
std::optional<std::int64_t> ParseDuration(std::string_view inText)
{
    constexpr double kMaximumSeconds = 1e6;
    double value = 0;
    const auto [end, error] =
        std::from_chars(inText.data(), inText.data() + inText.size(), value, std::chars_format::fixed);
    const std::string_view unit = inText.substr(static_cast<std::size_t>(end - inText.data()));
    const bool isKnown = unit == "s" || unit == "ms";
    const double seconds = unit == "ms" ? value / 1000 : value;
    if (error != std::errc() || !isKnown || !(seconds >= 0 && seconds <= kMaximumSeconds))
    {
        return std::nullopt;
    }
    return std::llround(seconds * 1e9);
}

TrackOptions::TrimIn ParseTrimIn(const std::string& inText)
{
    TrackOptions::TrimIn trimIn;
    std::string_view duration = inText;
    bool isSound = true;
    if (const std::size_t colon = inText.find(':'); colon != std::string::npos)
    {
        const std::optional<int> track = ParseTrackNumber(duration.substr(0, colon));
        isSound = track.has_value();
        trimIn.track = track.value_or(0);
        duration.remove_prefix(colon + 1);
    }
    const std::optional<std::int64_t> nanoseconds = ParseDuration(duration);
    if (!isSound || !nanoseconds)
    {
        RefuseValue("--trim-in", inText,
                    "is no duration; write it as 0.5s or 500ms for all tracks, 2:0.5s for track 2");
    }
    trimIn.nanoseconds = *nanoseconds;
    return trimIn;
}

TrackOptions::TrackMetadata ParseTrackMetadata(const std::string& inText)
{
    const std::size_t colon = inText.find(':');
    const std::optional<int> track =
        ParseTrackNumber(std::string_view(inText).substr(0, colon == std::string::npos ? 0 : colon));
    if (!track)
    {
        RefuseValue("--track-meta", inText, "does not begin with a track's number; write it as 1:title=Camera A");
    }
    return {*track, ParseMetadata("--track-meta", inText, inText.substr(colon + 1))};
}

TrackOptions::Reference ParseReference(const std::string& inText)
{
    const std::size_t first = inText.find(':');
    const std::size_t second = first == std::string::npos ? first : inText.find(':', first + 1);
    std::optional<int> from;
    std::optional<int> to;
    std::string type;
    if (second != std::string::npos)
    {
        from = ParseTrackNumber(std::string_view(inText).substr(0, first));
        to = ParseTrackNumber(std::string_view(inText).substr(first + 1, second - first - 1));
        type = inText.substr(second + 1);
    }
    if (!from || !to || *from == *to || (type != "chapter" && type != "timecode"))
    {
        RefuseValue(
            "--ref", inText,
            "is no reference; write it as 2:3:chapter or 2:3:timecode, where track 3 is what track 2 refers to");
    }
    return {inText, *from, *to, type == "chapter" ? QT::kQTTrackReferenceChapter : QT::kQTTrackReferenceTimecode};
}

} // namespace

void AddTrackOptions(CLI::App& ioCommand, TrackArguments& ioArguments)
{
    ioCommand
        .add_option("--timecode", ioArguments.timecode,
                    "Timecode of the first video frame, with a semicolon for drop frame: 01:00:00;00. Without this "
                    "option it is the input's own, if it has one; \"none\" leaves it out")
        ->type_name("HH:MM:SS:FF");
    ioCommand
        .add_option("--chapters", ioArguments.chapters,
                    "Chapters: ffmetadata, or lines \"00:01:30.000 Title\". Without this option they are the input's "
                    "own; \"none\" leaves them out")
        ->type_name("FILE");
    ioCommand.add_option("--text", ioArguments.texts, "SRT or WebVTT file that becomes a text track; may repeat")
        ->type_name("FILE")
        ->allow_extra_args(false);
    ioCommand
        .add_option("--captions", ioArguments.captions,
                    "SCC file that becomes a closed-caption track of the first video")
        ->type_name("FILE.scc");
    ioCommand
        .add_option("--start", ioArguments.start,
                    "Timecode in the captions file that falls on the first video frame, wherever a trim-in puts that "
                    "frame. Without this option it is the video's timecode if the captions begin after it, and "
                    "00:00:00:00 otherwise")
        ->type_name("HH:MM:SS:FF");
    ioCommand
        .add_option("--trim-in", ioArguments.trimIns,
                    "Delays all tracks (0.5s, 500ms), or track 2 only (2:0.5s): an empty edit stands before its media. "
                    "Tracks have the numbers of the summary: video and audio streams in the order of the inputs, then "
                    "timecode, chapters, texts, captions. Timecode and captions go along with their video; a delay of "
                    "their own comes on top")
        ->type_name("[N:]DURATION")
        ->allow_extra_args(false);
    ioCommand
        .add_option("--meta", ioArguments.metadata,
                    "Metadata of the movie. A key is one of " + MetadataNames() +
                        ", or a code of four characters, for which @FILE gives the content of a file")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);
    ioCommand.add_option("--track-meta", ioArguments.trackMetadata, "Metadata of track N, as --meta")
        ->type_name("N:KEY=VALUE")
        ->allow_extra_args(false);
    ioCommand
        .add_option("--ref", ioArguments.references,
                    "Makes track A refer to track B as its chapters or its timecode, beside the references that the "
                    "command makes by itself")
        ->type_name("A:B:chapter|timecode")
        ->allow_extra_args(false);
}

TrackOptions ParseTrackOptions(const TrackArguments& inArguments)
{
    TrackOptions options;
    options.takesTimecode = inArguments.timecode != "none";
    if (options.takesTimecode && !inArguments.timecode.empty())
    {
        options.timecode = ParseTimecodeOption("--timecode", inArguments.timecode);
    }
    options.takesChapters = inArguments.chapters != "none";
    options.chapters = options.takesChapters ? inArguments.chapters : std::string();
    options.texts = inArguments.texts;
    options.captions = inArguments.captions;
    if (!inArguments.start.empty())
    {
        options.captionsStart = ParseTimecodeOption("--start", inArguments.start);
        if (options.captions.empty())
        {
            RefuseValue("--start", inArguments.start,
                        "is for the captions of --captions, and there are none; leave it out");
        }
    }
    for (const std::string& text : inArguments.trimIns)
    {
        options.trimIns.push_back(ParseTrimIn(text));
    }
    std::vector<std::pair<int, std::uint32_t>> given;
    const auto takeOnce = [&given](const std::string& inOption, const std::string& inText, int inTrack,
                                   std::uint32_t inType) {
        const std::pair<int, std::uint32_t> key = {inTrack, inType};
        if (std::find(given.begin(), given.end(), key) != given.end())
        {
            RefuseValue(inOption, inText, "gives a key that was given before; give each key once");
        }
        given.push_back(key);
    };
    for (const std::string& text : inArguments.metadata)
    {
        options.metadata.push_back(ParseMetadata("--meta", text, text));
        takeOnce("--meta", text, 0, options.metadata.back().type);
    }
    for (const std::string& text : inArguments.trackMetadata)
    {
        options.trackMetadata.push_back(ParseTrackMetadata(text));
        takeOnce("--track-meta", text, options.trackMetadata.back().track, options.trackMetadata.back().item.type);
    }
    for (const std::string& text : inArguments.references)
    {
        options.references.push_back(ParseReference(text));
    }
    return options;
}

} // namespace Host
