#include "TextTrack.h"

#include "CommandError.h"
#include "LibAV.h"
#include "SideFile.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <new>
#include <set>
#include <string_view>

namespace Host
{

namespace
{

constexpr const char* kOption = "--text";

struct FormatCloser
{
    void operator()(AVFormatContext* inFormat) const { avformat_close_input(&inFormat); }
};
struct CodecCloser
{
    void operator()(AVCodecContext* inCodec) const { avcodec_free_context(&inCodec); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecCloser>;

FormatPtr OpenText(const std::string& inPath)
{
    AVFormatContext* opened = nullptr;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    const int result = avformat_open_input(&opened, ("file:" + inPath).c_str(), nullptr, &options);
    av_dict_free(&options);
    if (result < 0)
    {
        RefuseSideFile(kOption, inPath, "it is no SRT or WebVTT file", "convert the texts to one of these");
    }
    return FormatPtr(opened);
}

//! The stream's decoder, which turns every text form into ASS.
CodecPtr OpenDecoder(const std::string& inPath, const AVStream& inStream)
{
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(inStream.codecpar->codec_id);
    const bool isText = descriptor != nullptr && descriptor->type == AVMEDIA_TYPE_SUBTITLE &&
                        (descriptor->props & AV_CODEC_PROP_TEXT_SUB) != 0;
    const AVCodec* decoder = isText ? avcodec_find_decoder(inStream.codecpar->codec_id) : nullptr;
    if (decoder == nullptr)
    {
        RefuseSideFile(kOption, inPath, "it is no SRT or WebVTT file", "convert the texts to one of these");
    }
    CodecPtr codec(avcodec_alloc_context3(decoder));
    if (codec == nullptr)
    {
        throw std::bad_alloc();
    }
    codec->pkt_timebase = inStream.time_base;
    const int result = avcodec_parameters_to_context(codec.get(), inStream.codecpar);
    if (result < 0 || avcodec_open2(codec.get(), decoder, nullptr) < 0)
    {
        RefuseSideFile(kOption, inPath, "its texts cannot be decoded", "convert them to SRT or WebVTT");
    }
    return codec;
}

std::string Decode(const std::string& inPath, AVCodecContext& ioCodec, AVPacket& ioPacket, bool& ioHasFormatting)
{
    AVSubtitle subtitle = {};
    int hasSubtitle = 0;
    const int result = avcodec_decode_subtitle2(&ioCodec, &subtitle, &hasSubtitle, &ioPacket);
    std::string text;
    for (unsigned int index = 0; result >= 0 && hasSubtitle != 0 && index < subtitle.num_rects; ++index)
    {
        const char* event = subtitle.rects[index]->ass;
        const std::string plain = event != nullptr ? PlainText(event, ioHasFormatting) : std::string();
        text += (text.empty() || plain.empty() ? "" : "\n") + plain;
    }
    avsubtitle_free(&subtitle);
    if (result < 0)
    {
        RefuseSideFile(kOption, inPath,
                       result == AVERROR_INVALIDDATA
                           ? "a text is damaged, or not valid UTF-8"
                           : fmt::format("a text cannot be decoded: {}", LibAVMessage(result)),
                       "convert the file to UTF-8, or mend it");
    }
    return text;
}

} // namespace

std::string PlainText(const std::string& inEvent, bool& ioHasFormatting)
{
    // ReadOrder, Layer, Style, Name, MarginL, MarginR, MarginV, Effect, then the text.
    constexpr int kFieldsBefore = 8;
    std::size_t at = 0;
    for (int field = 0; field < kFieldsBefore; ++field)
    {
        const std::size_t comma = inEvent.find(',', at);
        if (comma == std::string::npos)
        {
            return {};
        }
        at = comma + 1;
    }
    std::string text;
    while (at < inEvent.size())
    {
        const char character = inEvent[at];
        const char next = at + 1 < inEvent.size() ? inEvent[at + 1] : '\0';
        const std::size_t close = character == '{' ? inEvent.find('}', at) : std::string::npos;
        if (close != std::string::npos)
        {
            ioHasFormatting = true;
            at = close + 1;
        }
        else if (character == '\\' && (next == 'N' || next == 'n' || next == 'h'))
        {
            text += next == 'h' ? ' ' : '\n';
            at += 2;
        }
        else if (character == '\\' && (next == '{' || next == '}' || next == '\\'))
        {
            text += next;
            at += 2;
        }
        else
        {
            text += character;
            ++at;
        }
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    {
        text.pop_back();
    }
    return text;
}

CueFile ReadTextFile(const std::string& inPath)
{
    if (!IsValidUTF8(ReadSideFile(kOption, inPath)))
    {
        // A byte-order mark tells libavformat of UTF-16; anything else it takes as it is.
        const std::string head = ReadSideFile(kOption, inPath).substr(0, 2);
        if (head != "\xFF\xFE" && head != "\xFE\xFF")
        {
            RefuseSideFile(kOption, inPath, "it is not valid UTF-8", "convert it");
        }
    }
    const FormatPtr format = OpenText(inPath);
    if (format->nb_streams != 1)
    {
        RefuseSideFile(kOption, inPath, "it is no SRT or WebVTT file", "convert the texts to one of these");
    }
    const AVStream& stream = *format->streams[0];
    const CodecPtr codec = OpenDecoder(inPath, stream);
    CueFile file;
    for (;;)
    {
        const PacketPtr packet(av_packet_alloc());
        if (packet == nullptr)
        {
            throw std::bad_alloc();
        }
        const int result = av_read_frame(format.get(), packet.get());
        if (result == AVERROR_EOF)
        {
            break;
        }
        if (result < 0)
        {
            throw CommandError(ExitCode::kIOFailed, fmt::format("{} \"{}\": the file cannot be read to its end: {}; "
                                                                "check its volume, or get another copy",
                                                                kOption, inPath, LibAVMessage(result)));
        }
        Cue cue;
        cue.start = av_rescale_q(packet->pts, stream.time_base, {1, kCueTimeScale});
        cue.end = cue.start + av_rescale_q(packet->duration, stream.time_base, {1, kCueTimeScale});
        cue.text = Decode(inPath, *codec, *packet, file.hasFormatting);
        if (packet->pts < 0 || cue.end <= cue.start)
        {
            RefuseSideFile(
                kOption, inPath,
                fmt::format("the text at {:.3f} s has no length", static_cast<double>(cue.start) / kCueTimeScale),
                "give it an end behind its start");
        }
        if (!cue.text.empty())
        {
            file.cues.push_back(std::move(cue));
        }
    }
    if (file.cues.empty())
    {
        RefuseSideFile(kOption, inPath, "it has no texts", "name another file, or leave the option out");
    }
    std::stable_sort(file.cues.begin(), file.cues.end(),
                     [](const Cue& inLeft, const Cue& inRight) { return inLeft.start < inRight.start; });
    return file;
}

std::vector<Cue> MakeTextSamples(const std::vector<Cue>& inCues)
{
    std::set<std::int64_t> borders = {0};
    for (const Cue& cue : inCues)
    {
        borders.insert(cue.start);
        borders.insert(cue.end);
    }
    std::vector<Cue> samples;
    std::vector<const Cue*> shown;
    auto next = inCues.begin();
    for (auto border = borders.begin(); std::next(border) != borders.end(); ++border)
    {
        shown.erase(std::remove_if(shown.begin(), shown.end(), [&](const Cue* inCue) { return inCue->end <= *border; }),
                    shown.end());
        for (; next != inCues.end() && next->start <= *border; ++next)
        {
            shown.push_back(&*next);
        }
        Cue sample = {*border, *std::next(border), {}};
        for (const Cue* cue : shown)
        {
            sample.text += (sample.text.empty() ? "" : "\n") + cue->text;
        }
        samples.push_back(std::move(sample));
    }
    return samples;
}

} // namespace Host
