#include "WrapReport.h"

#include "Progress.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <ostream>

namespace Host
{

namespace
{

using Json = nlohmann::ordered_json;

//! Sentences with names of files in them.
template <typename Range, typename TextOf>
Json FormatAll(const Range& inSentences, TextOf inTextOf)
{
    Json texts = Json::array();
    for (const auto& sentence : inSentences)
    {
        texts.push_back(FormatNames(inTextOf(sentence)));
    }
    return texts;
}

Json FormatAll(const std::vector<std::string>& inSentences)
{
    return FormatAll(inSentences, [](const std::string& inSentence) { return inSentence; });
}

Json DescribeSummary(const WrapSummary& inSummary)
{
    Json tracks = Json::array();
    for (const WrapSummary::Track& track : inSummary.tracks)
    {
        tracks.push_back({{"kind", track.kind},
                          {"format", track.format},
                          {"samples", track.samples},
                          {"bytes", track.bytes},
                          {"seconds", track.seconds},
                          {"delay", track.delay}});
    }
    const MovieLayout& layout = inSummary.layout;
    return {{"output", inSummary.output.string()},
            {"seconds", inSummary.seconds},
            {"tracks", tracks},
            {"layout",
             {{"size", layout.fileSize},
              {"moov",
               {{"offset", layout.movieOffset},
                {"size", layout.movieSize},
                {"position", layout.IsMovieInFront() ? "front" : "end"}}},
              {"mdat", {{"offset", layout.mediaOffset}}}}},
            {"notes", FormatAll(inSummary.notes)}};
}

//! Names of files may be no UTF-8, and JSON must be.
void Print(const Json& inObject, std::ostream& out)
{
    out << inObject.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

Json Head(ExitCode inExitCode, const std::vector<std::string>& inErrors)
{
    return {{"exitCode", static_cast<int>(inExitCode)}, {"errors", FormatAll(inErrors)}};
}

} // namespace

void PrintSummary(const WrapSummary& inSummary, std::ostream& out)
{
    const MovieLayout& layout = inSummary.layout;
    out << fmt::format("{}: {}, {}\n", FormatNames(inSummary.output.string()), FormatSeconds(inSummary.seconds),
                       FormatBytes(layout.fileSize));
    int number = 0;
    for (const WrapSummary::Track& track : inSummary.tracks)
    {
        out << fmt::format("  track {}: {}, {}; {} {}, {}, {}", ++number, track.kind, track.format, track.samples,
                           track.kind == "video" ? "frames" : "samples", FormatSeconds(track.seconds),
                           FormatBytes(track.bytes));
        out << (track.delay > 0 ? fmt::format(", starts at {}\n", FormatSeconds(track.delay)) : "\n");
    }
    out << fmt::format("  'moov' at byte {}, {} the media at byte {}\n", layout.movieOffset,
                       layout.IsMovieInFront() ? "before" : "behind", layout.mediaOffset);
    for (const std::string& note : inSummary.notes)
    {
        out << fmt::format("  note: {}\n", FormatNames(note));
    }
}

void PrintPrediction(const WrapPrediction& inPrediction, std::ostream& out)
{
    if (const auto& summary = inPrediction.summary)
    {
        PrintSummary(*summary, out);
        out << fmt::format("  dry run: the file would have {} bytes, {} of them its 'moov'\n", summary->layout.fileSize,
                           summary->layout.movieSize);
    }
    if (inPrediction.freeSpace)
    {
        out << fmt::format("  dry run: {} are free on the volume\n", FormatBytes(*inPrediction.freeSpace));
    }
}

void PrintSummaryJson(const WrapSummary& inSummary, std::ostream& out)
{
    Json object = Head(ExitCode::kDone, {});
    object.update(DescribeSummary(inSummary));
    Print(object, out);
}

void PrintPredictionJson(const WrapPrediction& inPrediction, std::ostream& out)
{
    Json object = {{"exitCode", static_cast<int>(inPrediction.GetExitCode())}, {"dryRun", true}};
    if (inPrediction.summary)
    {
        object.update(DescribeSummary(*inPrediction.summary));
    }
    object["freeSpace"] = inPrediction.freeSpace ? Json(*inPrediction.freeSpace) : Json(nullptr);
    object["refusals"] =
        FormatAll(inPrediction.refusals, [](const CommandError& inRefusal) { return inRefusal.what(); });
    Print(object, out);
}

void PrintFailureJson(ExitCode inExitCode, const std::string& inSentence, std::ostream& out)
{
    Print(Head(inExitCode, {inSentence}), out);
}

} // namespace Host
