#include "MediaSource.h"

#include "CommandError.h"
#include "ImageSequence.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <system_error>

namespace fs = std::filesystem;

namespace Host
{

namespace
{

//! libavformat looks for the first image among this many numbers from the start number.
constexpr const char* kStartNumberRange = "1";

//! Owns the options of one call; whatever the call did not use stays in it.
class Options
{
public:
    Options() = default;
    ~Options() { av_dict_free(&mDictionary); }
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;

    void Set(const char* inKey, const std::string& inValue)
    {
        if (av_dict_set(&mDictionary, inKey, inValue.c_str(), 0) < 0)
        {
            throw std::bad_alloc();
        }
    }

    AVDictionary** Get() { return &mDictionary; }

private:
    AVDictionary* mDictionary = nullptr;
};

bool IsPicturePipe(const AVInputFormat& inFormat)
{
    const std::string name = inFormat.name;
    return name == "image2" || (name.size() > 5 && name.compare(name.size() - 5, 5, "_pipe") == 0);
}

//! Whether the stream's content is known without its packets: that of a timecode or a chapter track.
bool IsTaken(const AVFormatContext& inFormat, const AVStream& inStream)
{
    const bool isTimecode = inStream.codecpar->codec_type == AVMEDIA_TYPE_DATA &&
                            av_dict_get(inStream.metadata, "timecode", nullptr, 0) != nullptr;
    const bool isChapters = inStream.codecpar->codec_tag == MKTAG('t', 'e', 'x', 't') && inFormat.nb_chapters > 0 &&
                            inStream.nb_frames == static_cast<std::int64_t>(inFormat.nb_chapters);
    return isTimecode || isChapters;
}

[[noreturn]] void FailOpen(const std::string& inPath, int inError)
{
    if (inError == AVERROR_INVALIDDATA)
    {
        throw CommandError(
            ExitCode::kInputRefused,
            fmt::format("\"{}\" is no media file that can be read, or it is damaged; name another, or get "
                        "an undamaged copy",
                        inPath));
    }
    throw CommandError(ExitCode::kIOFailed, fmt::format("\"{}\" cannot be opened: {}; check its name and permissions",
                                                        inPath, LibAVMessage(inError)));
}

} // namespace

MediaSource::MediaSource(const std::string& inPath, AVRational inFrameRate, bool inAudioOnly, bool inAllowsDamage)
    : mPath(inPath), mAllowsDamage(inAllowsDamage)
{
    av_log_set_level(AV_LOG_QUIET); // What goes wrong is told by results; the rest is not for users.

    Options options;
    options.Set("protocol_whitelist", "file");
    const std::string rate = fmt::format("{}/{}", inFrameRate.num, inFrameRate.den);
    const AVInputFormat* format = nullptr;
    if (ImageSequence::IsNamedBy(inPath))
    {
        mImages = std::make_unique<ImageSequence>(inPath);
        format = av_find_input_format("image2");
        options.Set("start_number", std::to_string(mImages->GetFirstNumber()));
        options.Set("start_number_range", kStartNumberRange);
    }
    else
    {
        std::error_code error;
        if (fs::is_directory(inPath, error))
        {
            throw CommandError(ExitCode::kInputRefused,
                               fmt::format("\"{}\" is a folder; name a file, or an image sequence by a pattern such as "
                                           "\"{}\"",
                                           inPath, (fs::path(inPath) / "frame%04d.png").string()));
        }
    }
    if (inFrameRate.num > 0)
    {
        options.Set("framerate", rate);
    }
    AVFormatContext* opened = nullptr;
    int result = avformat_open_input(&opened, ("file:" + inPath).c_str(), format, options.Get());
    if (result < 0)
    {
        CheckImages();
        FailOpen(inPath, result);
    }
    mFormat.reset(opened);
    if (IsPicturePipe(*mFormat->iformat) && inFrameRate.num <= 0)
    {
        throw CommandError(
            ExitCode::kUsage,
            fmt::format("\"{}\" is an image sequence without times; give its frame rate with --fps", inPath));
    }
    if (!IsPicturePipe(*mFormat->iformat))
    {
        try
        {
            mCompleteness = std::make_unique<Completeness>(inPath, *mFormat);
        }
        catch (const std::system_error& error)
        {
            throw CommandError(ExitCode::kIOFailed,
                               fmt::format("\"{}\" cannot be opened: {}; check its name and permissions", inPath,
                                           error.code().message()));
        }
    }
    else if (mImages == nullptr)
    {
        mImages = std::make_unique<ImageSequence>(inPath);
    }
    result = avformat_find_stream_info(mFormat.get(), nullptr);
    CheckImages();
    if (result < 0)
    {
        FailOpen(inPath, result);
    }
    SelectStreams(inAudioOnly);
}

MediaSource::~MediaSource() = default;

//! Refuses images that do not make a sequence, before libavformat's own, nameless failure.
void MediaSource::CheckImages()
{
    if (mImages != nullptr)
    {
        const bool isKnown = mFormat != nullptr && mFormat->nb_streams == 1;
        mImages->CheckFiles(isKnown ? mFormat->streams[0]->codecpar->codec_id : AV_CODEC_ID_NONE);
    }
}

void MediaSource::SelectStreams(bool inAudioOnly)
{
    bool hasVideo = false;
    for (unsigned int index = 0; index < mFormat->nb_streams; ++index)
    {
        AVStream& stream = *mFormat->streams[index];
        const bool isPicture = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isPicture;
        if ((isVideo && !hasVideo && !inAudioOnly) || stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
        {
            hasVideo = hasVideo || isVideo;
            mStreams.push_back(&stream);
            continue;
        }
        const bool isNeeded = mCompleteness != nullptr && mCompleteness->NeedsAllStreams();
        stream.discard = isNeeded ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        if (IsTaken(*mFormat, stream))
        {
            continue;
        }
        mNotes.push_back(fmt::format("{} is left out: {}", DescribeStream(*this, stream),
                                     isPicture     ? "it is an attached picture"
                                     : inAudioOnly ? "only audio is taken of a file that --audio adds"
                                     : isVideo     ? "only the first video stream of an input is taken"
                                                   : "only video and audio are taken"));
    }
    if (mStreams.empty() && !inAudioOnly)
    {
        throw CommandError(ExitCode::kInputRefused,
                           fmt::format("\"{}\" has neither video nor audio; name a file that has, and give texts, "
                                       "chapters and captions by --text, --chapters and --captions",
                                       mPath));
    }
}

double MediaSource::GetExpectedSeconds() const
{
    const bool isEstimate = mFormat->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
    return isEstimate ? 0 : std::max(0.0, static_cast<double>(mFormat->duration) / AV_TIME_BASE);
}

double MediaSource::GetMaximumSeconds() const
{
    constexpr double kEstimateMargin = 2;
    const double seconds = std::max(0.0, static_cast<double>(mFormat->duration) / AV_TIME_BASE);
    return GetExpectedSeconds() > 0 ? seconds : kEstimateMargin * seconds;
}

void MediaSource::FailRead(const std::string& inReason) const
{
    const std::string sentence =
        fmt::format("\"{}\" cannot be read to its end: {}; check its volume, or get another copy", mPath, inReason);
    throw EarlyEnd(sentence, sentence);
}

void MediaSource::BreakOff(const std::string& inReason) const
{
    const std::string sentence = fmt::format(
        "\"{}\" breaks off: {}; get a whole copy, or take what is there with --allow-damage", mPath, inReason);
    throw EarlyEnd(sentence, sentence);
}

bool MediaSource::IsSelected(const AVPacket& inPacket) const
{
    return std::any_of(mStreams.begin(), mStreams.end(),
                       [&](const AVStream* inStream) { return inStream->index == inPacket.stream_index; });
}

Completeness::Verdict MediaSource::Judge(AVPacket& ioPacket)
{
    try
    {
        return mCompleteness != nullptr ? mCompleteness->Take(ioPacket) : Completeness::Verdict::kWhole;
    }
    catch (const std::system_error& error)
    {
        FailRead(error.code().message());
    }
}

//! At the end of the input: tells what of it did not come.
void MediaSource::CheckCompleteness()
{
    std::string loss;
    try
    {
        loss = mCompleteness != nullptr ? mCompleteness->FindLoss() : "";
    }
    catch (const std::system_error& error)
    {
        FailRead(error.code().message());
    }
    if (loss.empty())
    {
        return;
    }
    if (!mAllowsDamage)
    {
        BreakOff(loss);
    }
    mNotes.push_back(fmt::format("\"{}\" breaks off: {}; what came whole was taken", mPath, loss));
}

PacketPtr MediaSource::ReadPacket()
{
    if (mAhead != nullptr)
    {
        return std::move(mAhead);
    }
    for (;;)
    {
        PacketPtr packet(av_packet_alloc());
        if (packet == nullptr)
        {
            throw std::bad_alloc();
        }
        const int result = av_read_frame(mFormat.get(), packet.get());
        const int streamError = mFormat->pb != nullptr ? mFormat->pb->error : 0;
        if (result < 0 && mImages != nullptr)
        {
            mImages->CheckEnd(result);
        }
        if (result == AVERROR_EOF && (streamError == 0 || streamError == AVERROR_EOF))
        {
            CheckCompleteness();
            return nullptr;
        }
        if (result < 0)
        {
            FailRead(LibAVMessage(result == AVERROR_EOF ? streamError : result));
        }
        const Completeness::Verdict verdict = Judge(*packet);
        if (!IsSelected(*packet) || verdict == Completeness::Verdict::kCut)
        {
            continue;
        }
        if (verdict == Completeness::Verdict::kDamaged && !mAllowsDamage)
        {
            BreakOff(fmt::format("a packet of {} is marked as damaged",
                                 DescribeStream(*this, *mFormat->streams[packet->stream_index])));
        }
        if (mImages != nullptr)
        {
            mImages->CheckNext({packet->data, static_cast<std::size_t>(packet->size)});
        }
        return packet;
    }
}

bool MediaSource::IsImageSequence(const std::string& inPath)
{
    if (ImageSequence::IsNamedBy(inPath))
    {
        return true;
    }
    constexpr std::array<const char*, 10> kPictureExtensions = {".png", ".jpg", ".jpeg", ".jp2",  ".j2k",
                                                                ".j2c", ".jpc", ".tif",  ".tiff", ".tga"};
    std::string extension = fs::path(inPath).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), [](char inCharacter) {
        return inCharacter >= 'A' && inCharacter <= 'Z' ? static_cast<char>(inCharacter + 32) : inCharacter;
    });
    return std::find(kPictureExtensions.begin(), kPictureExtensions.end(), extension) != kPictureExtensions.end();
}

std::vector<std::string> MediaSource::FilesOf(const std::string& inPath)
{
    return ImageSequence::IsNamedBy(inPath) ? ImageSequence::ListFiles(inPath) : std::vector{inPath};
}

std::string DescribeStream(const MediaSource& inSource, const AVStream& inStream)
{
    const AVCodecParameters& parameters = *inStream.codecpar;
    const char* type = av_get_media_type_string(parameters.codec_type);
    char tag[AV_FOURCC_MAX_STRING_SIZE] = {};
    const bool isNamed = parameters.codec_id != AV_CODEC_ID_NONE || parameters.codec_tag == 0;
    const char* codec =
        isNamed ? avcodec_get_name(parameters.codec_id) : av_fourcc_make_string(tag, parameters.codec_tag);
    return fmt::format("stream {} ({}, {}) of \"{}\"", inStream.index, type != nullptr ? type : "unknown", codec,
                       inSource.GetPath());
}

void RefuseOption(const std::string& inOption, const MediaSource& inSource, const AVStream& inStream,
                  const std::string& inReason, const std::string& inRemedy)
{
    throw CommandError(ExitCode::kInputRefused, fmt::format("{} does not fit {}: {}; {}", inOption,
                                                            DescribeStream(inSource, inStream), inReason, inRemedy));
}

void RefuseStream(const MediaSource& inSource, const AVStream& inStream, const std::string& inReason,
                  const std::string& inRemedy)
{
    throw CommandError(ExitCode::kInputRefused, fmt::format("{} cannot be wrapped: {}; {}",
                                                            DescribeStream(inSource, inStream), inReason, inRemedy));
}

} // namespace Host
