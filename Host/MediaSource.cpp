#include "MediaSource.h"

#include "CommandError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <map>
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

//! A file name split around its number: "shot_%04d.png".
struct NumberPattern
{
    std::string prefix;
    std::string suffix;
    std::size_t width = 0; //!< Digits that shorter numbers are filled up to with zeros.
};

//! True when `inName` holds one %d or %0Nd.
bool ParsePattern(const std::string& inName, NumberPattern& outPattern)
{
    const std::size_t percent = inName.find('%');
    if (percent == std::string::npos)
    {
        return false;
    }
    const std::size_t end = inName.find_first_not_of("0123456789", percent + 1);
    if (end == std::string::npos || inName[end] != 'd' || inName.find('%', end) != std::string::npos)
    {
        return false;
    }
    outPattern.prefix = inName.substr(0, percent);
    outPattern.suffix = inName.substr(end + 1);
    outPattern.width = 0;
    const char* digits = inName.data() + percent + 1;
    return digits == inName.data() + end ||
           std::from_chars(digits, inName.data() + end, outPattern.width).ec == std::errc();
}

//! The number in a file name of the pattern, -1 in any other.
long long NumberInName(const std::string& inName, const NumberPattern& inPattern)
{
    const std::size_t fixed = inPattern.prefix.size() + inPattern.suffix.size();
    if (inName.size() <= fixed || inName.compare(0, inPattern.prefix.size(), inPattern.prefix) != 0 ||
        inName.compare(inName.size() - inPattern.suffix.size(), std::string::npos, inPattern.suffix) != 0)
    {
        return -1;
    }
    const std::string digits = inName.substr(inPattern.prefix.size(), inName.size() - fixed);
    int number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() || number < 0 ||
        fmt::format("{:0{}}", number, inPattern.width) != digits)
    {
        return -1;
    }
    return number;
}

//! The images of a sequence by number. Throws CommandError when the folder cannot be read.
std::map<long long, std::string> ListImages(const std::string& inPath, const NumberPattern& inPattern)
{
    const fs::path parent = fs::path(inPath).parent_path();
    std::map<long long, std::string> images;
    std::error_code error;
    for (fs::directory_iterator entry(parent.empty() ? fs::path(".") : parent, error), end; !error && entry != end;
         entry.increment(error))
    {
        const long long number = NumberInName(entry->path().filename().string(), inPattern);
        if (number >= 0)
        {
            images.emplace(number, entry->path().string());
        }
    }
    if (error)
    {
        throw CommandError(ExitCode::kIOFailed,
                           fmt::format("the folder of \"{}\" cannot be read: {}; check its name and permissions",
                                       inPath, error.message()));
    }
    return images;
}

//! The number of the first image. libavformat ends a sequence silently at a number that is missing, so a sequence with
//! a gap is refused here.
long long FirstImageNumber(const std::string& inPath, const NumberPattern& inPattern)
{
    const std::map<long long, std::string> images = ListImages(inPath, inPattern);
    if (images.empty())
    {
        throw CommandError(ExitCode::kIOFailed,
                           fmt::format("no file is named like \"{}\"; check the folder and the number of digits, "
                                       "where %04d stands for four",
                                       inPath));
    }
    const auto gap = std::adjacent_find(images.begin(), images.end(), [](const auto& inLeft, const auto& inRight) {
        return inRight.first != inLeft.first + 1;
    });
    if (gap != images.end())
    {
        throw CommandError(ExitCode::kInputRefused,
                           fmt::format("the image sequence \"{}\" has no image {}, but goes on with {}; complete it",
                                       inPath, gap->first + 1, std::next(gap)->first));
    }
    return images.begin()->first;
}

bool IsPicturePipe(const AVInputFormat& inFormat)
{
    const std::string name = inFormat.name;
    return name == "image2" || (name.size() > 5 && name.compare(name.size() - 5, 5, "_pipe") == 0);
}

bool HasSequencePattern(const std::string& inPath, NumberPattern& outPattern)
{
    std::error_code error;
    return ParsePattern(fs::path(inPath).filename().string(), outPattern) && !fs::exists(inPath, error);
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

MediaSource::MediaSource(const std::string& inPath, AVRational inFrameRate, bool inAudioOnly) : mPath(inPath)
{
    av_log_set_level(AV_LOG_QUIET); // What goes wrong is told by results; the rest is not for users.

    Options options;
    options.Set("protocol_whitelist", "file");
    const std::string rate = fmt::format("{}/{}", inFrameRate.num, inFrameRate.den);
    const AVInputFormat* format = nullptr;
    NumberPattern pattern;
    if (HasSequencePattern(inPath, pattern))
    {
        format = av_find_input_format("image2");
        options.Set("start_number", std::to_string(FirstImageNumber(inPath, pattern)));
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
        FailOpen(inPath, result);
    }
    mFormat.reset(opened);
    if (IsPicturePipe(*mFormat->iformat) && inFrameRate.num <= 0)
    {
        throw CommandError(
            ExitCode::kUsage,
            fmt::format("\"{}\" is an image sequence without times; give its frame rate with --fps", inPath));
    }
    result = avformat_find_stream_info(mFormat.get(), nullptr);
    if (result < 0)
    {
        FailOpen(inPath, result);
    }
    SelectStreams(inAudioOnly);
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
        stream.discard = AVDISCARD_ALL;
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

PacketPtr MediaSource::ReadPacket()
{
    for (;;)
    {
        PacketPtr packet(av_packet_alloc());
        if (packet == nullptr)
        {
            throw std::bad_alloc();
        }
        const int result = av_read_frame(mFormat.get(), packet.get());
        const int streamError = mFormat->pb != nullptr ? mFormat->pb->error : 0;
        if (result == AVERROR_EOF && (streamError == 0 || streamError == AVERROR_EOF))
        {
            return nullptr;
        }
        if (result < 0)
        {
            const std::string sentence =
                fmt::format("\"{}\" cannot be read to its end: {}; check its volume, or get another copy", mPath,
                            LibAVMessage(result == AVERROR_EOF ? streamError : result));
            throw EarlyEnd(sentence, sentence);
        }
        const bool isTaken = std::any_of(mStreams.begin(), mStreams.end(), [&](const AVStream* inStream) {
            return inStream->index == packet->stream_index;
        });
        if (isTaken)
        {
            return packet;
        }
    }
}

bool MediaSource::IsImageSequence(const std::string& inPath)
{
    NumberPattern pattern;
    if (HasSequencePattern(inPath, pattern))
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
    NumberPattern pattern;
    if (!HasSequencePattern(inPath, pattern))
    {
        return {inPath};
    }
    std::vector<std::string> files;
    for (const auto& [number, file] : ListImages(inPath, pattern))
    {
        files.push_back(file);
    }
    return files;
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
