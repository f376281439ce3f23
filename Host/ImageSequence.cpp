#include "ImageSequence.h"

#include "CommandError.h"
#include "Interrupt.h"

#include <AtomTree.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <system_error>

namespace fs = std::filesystem;

namespace Host
{

namespace
{

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
std::map<long long, std::string> ListImages(const std::string& inPath)
{
    NumberPattern pattern;
    ParsePattern(fs::path(inPath).filename().string(), pattern);
    const fs::path parent = fs::path(inPath).parent_path();
    std::map<long long, std::string> images;
    std::error_code error;
    for (fs::directory_iterator entry(parent.empty() ? fs::path(".") : parent, error), end; !error && entry != end;
         entry.increment(error))
    {
        const long long number = NumberInName(entry->path().filename().string(), pattern);
        if (number >= 0)
        {
            images.emplace(number, (parent / entry->path().filename()).string());
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

std::vector<std::string> FilesOf(const std::map<long long, std::string>& inImages)
{
    std::vector<std::string> files;
    std::transform(inImages.begin(), inImages.end(), std::back_inserter(files),
                   [](const auto& inImage) { return inImage.second; });
    return files;
}

//! The format of a sample description for a codec whose pictures can be told apart without decoding; else 0.
std::uint32_t FormatOf(AVCodecID inCodec)
{
    switch (inCodec)
    {
    case AV_CODEC_ID_PNG:
        return Inspect::FourCC("png ");
    case AV_CODEC_ID_MJPEG:
        return Inspect::FourCC("jpeg");
    case AV_CODEC_ID_TIFF:
        return Inspect::FourCC("tiff");
    case AV_CODEC_ID_TARGA:
        return Inspect::FourCC("tga ");
    case AV_CODEC_ID_JPEG2000:
        return Inspect::FourCC("mjp2");
    default:
        return 0;
    }
}

[[noreturn]] void Refuse(const std::string& inFile, const std::string& inReason, const std::string& inRemedy)
{
    throw CommandError(ExitCode::kInputRefused, fmt::format("\"{}\" {}; {}", inFile, inReason, inRemedy));
}

} // namespace

bool ImageSequence::IsNamedBy(const std::string& inPath)
{
    NumberPattern pattern;
    std::error_code error;
    return ParsePattern(fs::path(inPath).filename().string(), pattern) && !fs::exists(inPath, error);
}

std::vector<std::string> ImageSequence::ListFiles(const std::string& inPath)
{
    return FilesOf(ListImages(inPath));
}

ImageSequence::ImageSequence(const std::string& inPath) : mFiles{inPath}, mIsNumbered(IsNamedBy(inPath))
{
    if (!mIsNumbered)
    {
        return;
    }
    const std::map<long long, std::string> images = ListImages(inPath);
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
    mFirstNumber = images.begin()->first;
    mFiles = FilesOf(images);
}

void ImageSequence::CheckFiles(AVCodecID inCodec)
{
    mFormat = FormatOf(inCodec);
    mCodecName = avcodec_get_name(inCodec);
    if (!mIsNumbered)
    {
        return; // A single file may be a pipe.
    }
    for (const std::string& file : mFiles)
    {
        ThrowIfStopRequested();
        try
        {
            Check(file, Inspect::FileSource(file));
        }
        catch (const std::system_error& error)
        {
            if (error.code() == std::errc::is_a_directory)
            {
                Refuse(file, "is a folder in the place of an image", "put the image there");
            }
            throw CommandError(ExitCode::kIOFailed,
                               fmt::format("\"{}\" cannot be read: {}; check its permissions and its volume", file,
                                           error.code().message()));
        }
    }
}

void ImageSequence::CheckNext(std::span<const std::uint8_t> inBytes)
{
    Check(mFiles[std::min(mNext, mFiles.size() - 1)], Inspect::MemorySource(inBytes));
    ++mNext;
}

void ImageSequence::Check(const std::string& inFile, const Inspect::ByteSource& inBytes)
{
    if (inBytes.GetSize() == 0)
    {
        Refuse(inFile, "is empty", "get another copy of it");
    }
    if (mFormat == 0)
    {
        return;
    }
    const std::optional<Inspect::Picture> picture = Inspect::ReadPicture(mFormat, inBytes);
    if (!picture)
    {
        Refuse(inFile, fmt::format("is no {} image, or it is damaged or cut off", mCodecName),
               "get another copy of it, or convert it");
    }
    if (!Inspect::IsWhole(mFormat, *picture, inBytes))
    {
        Refuse(inFile, "is cut off before its end", "get another copy of it");
    }
    mModel = mModel ? mModel : picture;
    const auto expectSame = [&](const std::string& inOwn, const std::string& inCommon) {
        if (inOwn != inCommon)
        {
            Refuse(inFile, fmt::format("has {}, and the images before it have {}", inOwn, inCommon),
                   "convert it, or divide the sequence there");
        }
    };
    expectSame(fmt::format("{}x{} pixels", picture->width, picture->height),
               fmt::format("{}x{} pixels", mModel->width, mModel->height));
    expectSame(fmt::format("pixels of the form \"{}\"", picture->form),
               fmt::format("pixels of the form \"{}\"", mModel->form));
}

void ImageSequence::CheckEnd(int inError) const
{
    if (mNext >= mFiles.size())
    {
        return;
    }
    const std::string& file = mFiles[mNext];
    std::string reason = LibAVMessage(inError);
    try
    {
        reason = Inspect::FileSource(file).GetSize() == 0 ? "it is empty" : reason;
    }
    catch (const std::system_error& error)
    {
        reason = error.code().message();
    }
    const std::string sentence =
        fmt::format("\"{}\" cannot be read any more: {}; check its volume, or get another copy", file, reason);
    throw EarlyEnd(sentence, sentence);
}

} // namespace Host
