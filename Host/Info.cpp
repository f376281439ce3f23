#include "Info.h"

#include "CommandError.h"
#include "Progress.h"

#include <Content.h>
#include <Description.h>
#include <MovieFile.h>
#include <Names.h>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <nlohmann/json.hpp>
#include <ostream>
#include <system_error>

namespace Host
{

namespace
{

using Json = nlohmann::ordered_json;

void PrintAtoms(const std::vector<Inspect::Atom>& inAtoms, int inDepth, std::ostream& out)
{
    for (const Inspect::Atom& atom : inAtoms)
    {
        fmt::print(out, "{:>14}  {:>14}  {:{}}{}\n", atom.offset, atom.size, "", 2 * inDepth,
                   Inspect::FourCCText(atom.type));
        PrintAtoms(atom.children, inDepth + 1, out);
    }
}

void PrintSamples(const Inspect::Track& inTrack, std::ostream& out)
{
    fmt::print(out, "{:>10}  {:>10}  {:>14}  {:>10}  {:>12}  {:>10}\n", "sample", "chunk", "offset", "size", "time",
               "duration");
    inTrack.VisitSamples([&out](const Inspect::Sample& inSample) {
        fmt::print(out, "{:>10}  {:>10}  {:>14}  {:>10}  {:>12}  {:>10}\n", inSample.index + 1, inSample.chunk + 1,
                   inSample.offset, inSample.size, inSample.time, inSample.duration);
        return static_cast<bool>(out);
    });
}

//! JSON as text. What is not UTF-8 in it becomes replacement characters.
std::string Text(const Json& inJson)
{
    return inJson.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string Joined(const Json& inTexts)
{
    std::string joined;
    for (const Json& text : inTexts)
    {
        joined += (joined.empty() ? "" : ", ") + text.get<std::string>();
    }
    return joined;
}

std::string Size(const Json& inSize)
{
    return inSize.is_null() ? "none" : fmt::format("{:g} x {:g}", inSize[0].get<double>(), inSize[1].get<double>());
}

//! What is particular to the track's kind, behind its format.
std::string FormatDetails(const Json& inTrack)
{
    if (inTrack.contains("video"))
    {
        const Json& video = inTrack["video"];
        std::string details = fmt::format("{} x {}", video["width"].get<int>(), video["height"].get<int>());
        if (inTrack.contains("frameRate"))
        {
            details += fmt::format(" at {:.6g} frames/s", inTrack["frameRate"].get<double>());
        }
        if (const std::string name = video["codecName"].get<std::string>(); !name.empty())
        {
            details += fmt::format(", \"{}\"", name);
        }
        return details;
    }
    if (inTrack.contains("sound"))
    {
        const Json& sound = inTrack["sound"];
        return fmt::format("{} channels of {} bits at {:g} Hz", sound["channels"].get<std::uint32_t>(),
                           sound["bits"].get<std::uint32_t>(), sound["sampleRate"].get<double>());
    }
    if (inTrack.contains("timecode"))
    {
        const Json& timecode = inTrack["timecode"];
        return fmt::format("from {}, {} frames a second, {}", timecode["start"].get<std::string>(),
                           timecode["numberOfFrames"].get<int>(),
                           timecode["dropFrame"].get<bool>() ? "drop frame" : "non-drop");
    }
    return "";
}

void PrintTrack(const Json& inTrack, std::ostream& out)
{
    const auto line = [&out](const char* inName, const std::string& inValue) {
        if (!inValue.empty())
        {
            fmt::print(out, "    {:<16}{}\n", inName, inValue);
        }
    };
    const std::string details = FormatDetails(inTrack);
    fmt::print(out, "  track {}: {} {}{}{}{}\n", inTrack["id"].get<std::uint32_t>(), inTrack["kind"].get<std::string>(),
               inTrack["format"].get<std::string>(), details.empty() ? "" : ", ", details,
               inTrack["enabled"].get<bool>() ? "" : " (disabled)");
    line("media",
         fmt::format("{}, {} samples in {} chunks of {:.3g} s, {}",
                     FormatSeconds(inTrack["mediaSeconds"].get<double>()), inTrack["samples"].get<std::uint64_t>(),
                     inTrack["chunks"].get<std::uint64_t>(), inTrack["meanChunkSeconds"].get<double>(),
                     FormatBytes(inTrack["bytes"].get<std::uint64_t>())));
    if (inTrack.contains("video"))
    {
        const Json& video = inTrack["video"];
        line("scanning", video.value("field", ""));
        line("pixel aspect", video.value("pixelAspect", ""));
        line("colour", video.contains("color") ? video["color"]["name"].get<std::string>() : "");
        if (video.contains("cleanAperture"))
        {
            const auto fraction = [&video](const char* inName) {
                const Json& value = video["cleanAperture"][inName];
                return fmt::format("{}/{}", value[0].get<std::int64_t>(), value[1].get<std::int64_t>());
            };
            line("clean aperture", fmt::format("{} x {}, centre {} {}", fraction("width"), fraction("height"),
                                               fraction("horizontalOffset"), fraction("verticalOffset")));
        }
        line("gamma", video.contains("gamma") ? fmt::format("{:.2f}", video["gamma"].get<double>()) : "");
    }
    if (inTrack.contains("sound"))
    {
        const Json& sound = inTrack["sound"];
        line("channels", sound.contains("channelLabels") ? Joined(sound["channelLabels"])
                                                         : sound.value("channelLayout", "no labels"));
    }
    if (inTrack.contains("apertures"))
    {
        const Json& apertures = inTrack["apertures"];
        line("apertures", fmt::format("clean {}, production {}, encoded {}", Size(apertures["clean"]),
                                      Size(apertures["production"]), Size(apertures["encoded"])));
    }
    for (const Json& edit : inTrack["edits"])
    {
        const auto mediaTime = edit["mediaTime"].get<std::int64_t>();
        const std::string length = FormatSeconds(edit["seconds"].get<double>());
        line("edit",
             mediaTime == -1 ? length + " of nothing" : fmt::format("{} from media time {}", length, mediaTime));
    }
    for (const auto& [type, ids] : inTrack["references"].items())
    {
        line("refers to", fmt::format("{} as {}", fmt::join(ids.get<std::vector<std::uint32_t>>(), ", "), type));
    }
    for (const Json& item : inTrack["metadata"])
    {
        line(item["key"].get<std::string>().c_str(), item["value"].get<std::string>());
    }
}

void PrintSummary(const std::string& inPath, const Json& inMovie, std::ostream& out)
{
    fmt::print(out, "{}: {}, {}\n", FormatNames(inPath), FormatSeconds(inMovie["seconds"].get<double>()),
               FormatBytes(inMovie["size"].get<std::uint64_t>()));
    fmt::print(out, "  created {}, {} units a second\n", inMovie["created"].get<std::string>(),
               inMovie["timeScale"].get<std::uint32_t>());
    if (inMovie.contains("moov"))
    {
        const Json& mooV = inMovie["moov"];
        fmt::print(out, "  'moov' of {} at byte {}, {}\n", FormatBytes(mooV["size"].get<std::uint64_t>()),
                   mooV["offset"].get<std::uint64_t>(),
                   mooV["position"] == "front" ? "in front of the media" : "behind the media");
    }
    fmt::print(out, "  interleave: sound and video at most {:.3f} s apart in the file\n",
               inMovie["interleave"]["longestSkewSeconds"].get<double>());
    for (const Json& track : inMovie["tracks"])
    {
        PrintTrack(track, out);
    }
    for (const Json& chapter : inMovie["chapters"])
    {
        fmt::print(out, "  chapter at {}: {}\n", FormatSeconds(chapter["start"].get<double>()),
                   chapter["title"].get<std::string>());
    }
    for (const Json& item : inMovie["metadata"])
    {
        fmt::print(out, "  {}: {}\n", item["key"].get<std::string>(), item["value"].get<std::string>());
    }
}

void PrintFindings(const Json& inFindings, std::ostream& out)
{
    for (const Json& finding : inFindings)
    {
        fmt::print(out, "  {} at byte {}: {}\n", finding["severity"].get<std::string>(),
                   finding["offset"].get<std::uint64_t>(), finding["what"].get<std::string>());
    }
}

} // namespace

void PrintInfo(const InfoOptions& inOptions, std::ostream& out)
{
    try
    {
        const Inspect::FileSource source(inOptions.input);
        Inspect::Findings findings;
        const Inspect::MovieFile movie(source, findings);
        const std::string path = inOptions.input.string();
        if (movie.GetMooV() == nullptr)
        {
            throw CommandError(
                ExitCode::kInputRefused,
                fmt::format("\"{}\" has no 'moov' atom, so it is no finished movie; name another file", path));
        }
        const Inspect::Track* track = nullptr;
        if (inOptions.samples)
        {
            track = movie.FindTrack(*inOptions.samples);
            if (track == nullptr)
            {
                throw CommandError(ExitCode::kInputRefused,
                                   fmt::format("\"{}\" has no track {}; name one that `reelmill info` lists", path,
                                               *inOptions.samples));
            }
        }
        if (!inOptions.json)
        {
            if (track != nullptr)
            {
                PrintSamples(*track, out);
            }
            else if (inOptions.atoms)
            {
                PrintAtoms(movie.GetTree().GetAtoms(), 0, out);
            }
            else
            {
                PrintSummary(path, Inspect::DescribeMovie(movie), out);
            }
            PrintFindings(Inspect::DescribeFindings(findings), out);
            return;
        }
        if (track != nullptr)
        {
            // Of samples there may be more than memory holds.
            out << "{\n\"file\": " << Text(path) << ",\n\"samples\": ";
            Inspect::WriteSamples(*track, out);
            out << ",\n\"findings\": " << Text(Inspect::DescribeFindings(findings)) << "\n}\n";
            return;
        }
        Json described = {{"file", path}};
        if (inOptions.atoms)
        {
            described["atoms"] = Inspect::DescribeAtoms(movie.GetTree().GetAtoms());
        }
        else
        {
            described.update(Inspect::DescribeMovie(movie));
        }
        described["findings"] = Inspect::DescribeFindings(findings);
        out << Text(described) << '\n';
    }
    catch (const std::system_error& error)
    {
        throw CommandError(ExitCode::kIOFailed, fmt::format("\"{}\" cannot be read: {}; check its name and permissions",
                                                            inOptions.input.string(), error.code().message()));
    }
}

} // namespace Host
