#include "Description.h"

#include "Content.h"
#include "Names.h"

#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <ostream>

namespace Inspect
{

namespace
{

using Json = nlohmann::ordered_json;

constexpr std::size_t kMaxChapters = 10'000;

double Seconds(std::uint64_t inTime, std::uint32_t inTimeScale)
{
    return inTimeScale != 0 ? static_cast<double>(inTime) / inTimeScale : 0;
}

//! Bytes of the file as text that JSON can hold.
std::string Printable(const std::string& inText)
{
    const Json text = inText;
    return Json::parse(text.dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
}

//! ISO 8601, in UTC.
std::string DateText(std::uint64_t inSecondsSince1904)
{
    constexpr std::int64_t kSecondsTo1970 = 2082844800;
    const std::time_t time = static_cast<std::int64_t>(inSecondsSince1904) - kSecondsTo1970;
    std::tm date{};
    if (inSecondsSince1904 > UINT32_MAX || ::gmtime_r(&time, &date) == nullptr)
    {
        return "";
    }
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday,
                       date.tm_hour, date.tm_min, date.tm_sec);
}

Json Describe(const VideoFormat& inVideo)
{
    Json video;
    video["width"] = inVideo.width;
    video["height"] = inVideo.height;
    video["depth"] = inVideo.depth;
    video["codecName"] = Printable(inVideo.compressorName);
    video["vendor"] = FourCCText(inVideo.vendor);
    if (inVideo.field)
    {
        video["field"] = FieldName((*inVideo.field)[0], (*inVideo.field)[1]);
    }
    if (inVideo.pixelAspect)
    {
        video["pixelAspect"] = fmt::format("{}:{}", (*inVideo.pixelAspect)[0], (*inVideo.pixelAspect)[1]);
    }
    if (inVideo.color)
    {
        const Color& color = *inVideo.color;
        video["color"] = {{"kind", FourCCText(color.parameterType)},
                          {"primaries", color.primaries},
                          {"transferFunction", color.transferFunction},
                          {"matrix", color.matrix},
                          {"name", ColorName(color.primaries, color.transferFunction, color.matrix)}};
    }
    if (inVideo.cleanAperture)
    {
        const CleanAperture& clean = *inVideo.cleanAperture;
        video["cleanAperture"] = {{"width", {clean.widthN, clean.widthD}},
                                  {"height", {clean.heightN, clean.heightD}},
                                  {"horizontalOffset", {clean.horizOffN, clean.horizOffD}},
                                  {"verticalOffset", {clean.vertOffN, clean.vertOffD}}};
    }
    if (inVideo.gamma)
    {
        video["gamma"] = *inVideo.gamma / 65536.0;
    }
    return video;
}

Json Describe(const SoundFormat& inSound)
{
    Json sound;
    sound["channels"] = inSound.channelCount;
    sound["sampleRate"] = inSound.sampleRate;
    sound["bits"] = inSound.bitsPerChannel;
    sound["version"] = inSound.version;
    if (inSound.version == 2)
    {
        sound["flags"] = inSound.formatFlags;
    }
    if (inSound.littleEndian)
    {
        sound["littleEndian"] = *inSound.littleEndian;
    }
    if (inSound.channelLayout)
    {
        Json labels = Json::array();
        for (const std::uint32_t label : inSound.channelLayout->labels)
        {
            labels.push_back(ChannelLabelName(label));
        }
        if (inSound.channelLayout->tag != 0)
        {
            sound["channelLayout"] = ChannelLayoutTagName(inSound.channelLayout->tag);
        }
        else
        {
            sound["channelLabels"] = labels;
        }
    }
    return sound;
}

Json DescribeTrack(const MovieFile& inMovie, const Track& inTrack, double inMeanChunk)
{
    Json track;
    track["id"] = inTrack.id;
    track["kind"] = HandlerName(inTrack.handlerType);
    track["handler"] = FourCCText(inTrack.handlerType);
    track["handlerName"] = Printable(inTrack.handlerName);
    track["enabled"] = (inTrack.flags & 1) != 0;
    track["format"] = inTrack.entries.empty() ? "" : FourCCText(inTrack.entries.front().format);
    track["descriptions"] = inTrack.entries.size();
    track["timeScale"] = inTrack.mediaTimeScale;
    track["mediaDuration"] = inTrack.mediaDuration;
    track["mediaSeconds"] = Seconds(inTrack.mediaDuration, inTrack.mediaTimeScale);
    track["seconds"] = Seconds(inTrack.duration, inMovie.GetTimeScale());
    track["samples"] = inTrack.sampleCount;
    track["chunks"] = inTrack.chunkOffsets.size();
    track["meanChunkSeconds"] = inMeanChunk;
    std::uint64_t bytes = 0;
    inTrack.VisitChunks([&bytes](const Chunk& inChunk) {
        bytes += inChunk.size;
        return true;
    });
    track["bytes"] = bytes;
    track["offsets"] = inTrack.has64BitOffsets ? "64-bit" : "32-bit";
    if (inTrack.width != 0 || inTrack.height != 0)
    {
        track["width"] = inTrack.width;
        track["height"] = inTrack.height;
    }
    if (inTrack.handlerType == FourCC("vide") && inTrack.mediaDuration != 0)
    {
        track["frameRate"] = inTrack.sampleCount / Seconds(inTrack.mediaDuration, inTrack.mediaTimeScale);
    }
    if (!inTrack.entries.empty())
    {
        const SampleEntry& entry = inTrack.entries.front();
        if (entry.video)
        {
            track["video"] = Describe(*entry.video);
        }
        if (entry.sound)
        {
            track["sound"] = Describe(*entry.sound);
        }
        if (entry.timecode)
        {
            const TimecodeFormat& timecode = *entry.timecode;
            track["timecode"] = {{"start", ReadStartTimecode(inMovie, inTrack).value_or("")},
                                 {"dropFrame", (timecode.flags & 1) != 0},
                                 {"timeScale", timecode.timeScale},
                                 {"frameDuration", timecode.frameDuration},
                                 {"numberOfFrames", timecode.numberOfFrames}};
        }
        Json extensions = Json::array();
        for (const Atom& extension : entry.extensions)
        {
            extensions.push_back(FourCCText(extension.type));
        }
        track["extensions"] = extensions;
    }
    if (inTrack.apertures)
    {
        const auto size = [](const std::optional<Apertures::Size>& inSize) {
            return inSize ? Json{inSize->width, inSize->height} : Json();
        };
        track["apertures"] = {{"clean", size(inTrack.apertures->clean)},
                              {"production", size(inTrack.apertures->production)},
                              {"encoded", size(inTrack.apertures->encoded)}};
    }
    Json edits = Json::array();
    for (const Edit& edit : inTrack.edits)
    {
        edits.push_back({{"seconds", Seconds(edit.duration, inMovie.GetTimeScale())},
                         {"duration", edit.duration},
                         {"mediaTime", edit.mediaTime},
                         {"rate", static_cast<std::int32_t>(edit.mediaRate) / 65536.0}});
    }
    track["edits"] = edits;
    Json references = Json::object();
    for (const auto& [type, ids] : inTrack.references)
    {
        references[FourCCText(type)] = ids;
    }
    track["references"] = references;
    Json metadata = Json::array();
    for (const MetadataItem& item : inTrack.metadata)
    {
        metadata.push_back({{"key", item.key}, {"value", Printable(item.value)}});
    }
    track["metadata"] = metadata;
    return track;
}

Json Describe(const Sample& inSample)
{
    return {{"sample", inSample.index + 1}, {"chunk", inSample.chunk + 1}, {"offset", inSample.offset},
            {"size", inSample.size},        {"time", inSample.time},       {"duration", inSample.duration}};
}

//! The texts of the first track that another names as its chapters.
Json DescribeChapters(const MovieFile& inMovie)
{
    Json chapters = Json::array();
    for (const Track& track : inMovie.GetTracks())
    {
        const auto reference = track.references.find(FourCC("chap"));
        if (reference == track.references.end())
        {
            continue;
        }
        for (const std::uint32_t id : reference->second)
        {
            const Track* texts = inMovie.FindTrack(id);
            if (texts == nullptr || texts->handlerType != FourCC("text"))
            {
                continue;
            }
            for (const TextSample& sample : ReadTexts(inMovie, *texts, kMaxChapters))
            {
                chapters.push_back(
                    {{"start", sample.time}, {"seconds", sample.duration}, {"title", Printable(sample.text)}});
            }
            return chapters;
        }
    }
    return chapters;
}

} // namespace

nlohmann::ordered_json DescribeMovie(const MovieFile& inMovie)
{
    Json movie;
    movie["size"] = inMovie.GetSource().GetSize();
    Json media = Json::array();
    for (const Atom& atom : inMovie.GetTree().GetAtoms())
    {
        if (atom.type == FourCC("mdat"))
        {
            media.push_back({{"offset", atom.offset}, {"size", atom.size}});
        }
    }
    if (const Atom* mooV = inMovie.GetMooV())
    {
        const bool isInFront = media.empty() || mooV->offset < media.front()["offset"].get<std::uint64_t>();
        movie["moov"] = {{"offset", mooV->offset}, {"size", mooV->size}, {"position", isInFront ? "front" : "end"}};
    }
    movie["media"] = media;
    movie["created"] = DateText(inMovie.GetCreationTime());
    movie["timeScale"] = inMovie.GetTimeScale();
    movie["duration"] = inMovie.GetDuration();
    movie["seconds"] = Seconds(inMovie.GetDuration(), inMovie.GetTimeScale());
    const Interleave interleave = MeasureInterleave(inMovie, ChunksInFileOrder(inMovie));
    movie["interleave"] = {{"longestSkewSeconds", interleave.longestSkew}, {"atOffset", interleave.skewOffset}};
    Json tracks = Json::array();
    for (std::size_t i = 0; i < inMovie.GetTracks().size(); ++i)
    {
        tracks.push_back(DescribeTrack(inMovie, inMovie.GetTracks()[i], interleave.meanChunkDuration[i]));
    }
    movie["tracks"] = tracks;
    movie["chapters"] = DescribeChapters(inMovie);
    Json metadata = Json::array();
    for (const MetadataItem& item : inMovie.GetMetadata())
    {
        metadata.push_back({{"key", item.key}, {"value", Printable(item.value)}});
    }
    movie["metadata"] = metadata;
    return movie;
}

nlohmann::ordered_json DescribeAtoms(const std::vector<Atom>& inAtoms)
{
    Json atoms = Json::array();
    for (const Atom& atom : inAtoms)
    {
        Json described = {{"type", FourCCText(atom.type)}, {"offset", atom.offset}, {"size", atom.size}};
        if (!atom.children.empty())
        {
            described["children"] = DescribeAtoms(atom.children);
        }
        atoms.push_back(std::move(described));
    }
    return atoms;
}

void WriteSamples(const Track& inTrack, std::ostream& out)
{
    out << '[';
    inTrack.VisitSamples([&out](const Sample& inSample) {
        out << (inSample.index == 0 ? "\n  " : ",\n  ") << Describe(inSample).dump();
        return static_cast<bool>(out);
    });
    out << "\n]";
}

nlohmann::ordered_json DescribeFindings(const Findings& inFindings)
{
    static constexpr const char* kSeverities[] = {"note", "warning", "error"};
    Json findings = Json::array();
    for (const Finding& finding : inFindings.List())
    {
        Json described = {{"severity", kSeverities[static_cast<std::size_t>(finding.severity)]},
                          {"check", finding.check},
                          {"offset", finding.offset}};
        if (finding.track != 0)
        {
            described["track"] = finding.track;
        }
        described["what"] = finding.what;
        findings.push_back(described);
    }
    return findings;
}

} // namespace Inspect
