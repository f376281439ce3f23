#include "VerifySamples.h"

#include "Picture.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace Inspect
{

namespace
{

//! What a track or a sample description is for; captions, timecode and text are other kinds.
enum class Kind
{
    kUnknown,
    kPicture,
    kSound,
    kOther
};

//! The size of the rows of uncompressed frames: `bytes` for every `pixels`, the last of which may be filled up.
struct RowFormat
{
    std::uint32_t format;
    std::uint64_t pixels;
    std::uint64_t bytes;
};

constexpr auto kRowFormats = std::to_array<RowFormat>({
    {FourCC("2vuy"), 1, 2},    {FourCC("2Vuy"), 1, 2},    {FourCC("yuvs"), 1, 2}, {FourCC("yuvu"), 1, 2},
    {FourCC("v216"), 1, 4},    {FourCC("v308"), 1, 3},    {FourCC("v408"), 1, 4}, {FourCC("v410"), 1, 4},
    {FourCC("v210"), 48, 128}, {FourCC("r210"), 64, 256}, {FourCC("R210"), 1, 4}, {FourCC("R10k"), 1, 4},
    {FourCC("24BG"), 1, 3},    {FourCC("BGRA"), 1, 4},    {FourCC("RGBA"), 1, 4}, {FourCC("ABGR"), 1, 4},
    {FourCC("ARGB"), 1, 4},    {FourCC("b64a"), 1, 8},    {FourCC("b48r"), 1, 6}, {FourCC("b32a"), 1, 4},
    {FourCC("b16g"), 1, 2},    {FourCC("L555"), 1, 2},    {FourCC("L565"), 1, 2}, {FourCC("B565"), 1, 2},
});

//! The fewest bytes that a frame can have; 0 when the format does not tell.
std::uint64_t MinimumFrameSize(std::uint32_t inFormat, const VideoFormat& inVideo)
{
    const std::uint64_t width = inVideo.width;
    if (inFormat == FourCC("raw "))
    {
        constexpr std::uint16_t kGrey = 32; // Added to the depth of grey pixels.
        const std::uint64_t bits = inVideo.depth > kGrey ? inVideo.depth - kGrey : inVideo.depth;
        return (width * bits + 7) / 8 * inVideo.height;
    }
    const auto* row = std::find_if(kRowFormats.begin(), kRowFormats.end(),
                                   [inFormat](const RowFormat& inRow) { return inRow.format == inFormat; });
    return row == kRowFormats.end() ? 0 : (width + row->pixels - 1) / row->pixels * row->bytes * inVideo.height;
}

Kind KindOfHandler(std::uint32_t inHandler)
{
    switch (inHandler)
    {
    case FourCC("vide"):
    case FourCC("auxv"):
    case FourCC("pict"):
        return Kind::kPicture;
    case FourCC("soun"):
        return Kind::kSound;
    case FourCC("text"):
    case FourCC("sbtl"):
    case FourCC("subt"):
    case FourCC("clcp"):
    case FourCC("tmcd"):
        return Kind::kOther;
    default:
        return Kind::kUnknown;
    }
}

//! Only formats that are of one kind: 'raw ' is video and sound.
Kind KindOfFormat(std::uint32_t inFormat)
{
    static constexpr auto kPictures = std::to_array<std::uint32_t>(
        {FourCC("apco"), FourCC("apcs"), FourCC("apcn"), FourCC("apch"), FourCC("ap4h"), FourCC("ap4x"), FourCC("avc1"),
         FourCC("hvc1"), FourCC("hev1"), FourCC("mp4v"), FourCC("AVdn"), FourCC("AVdh"), FourCC("dvc "), FourCC("dvcp"),
         FourCC("mjpa"), FourCC("mjpb"), FourCC("rle "), FourCC("CFHD")});
    static constexpr auto kSounds = std::to_array<std::uint32_t>(
        {FourCC("twos"), FourCC("sowt"), FourCC("in24"), FourCC("in32"), FourCC("fl32"), FourCC("fl64"), FourCC("lpcm"),
         FourCC("mp4a"), FourCC("alac"), FourCC("ac-3"), FourCC("ec-3"), FourCC("ulaw"), FourCC("alaw"), FourCC("ima4"),
         FourCC(".mp3"), FourCC("Opus"), FourCC("fLaC")});
    static constexpr auto kOthers =
        std::to_array<std::uint32_t>({FourCC("text"), FourCC("tx3g"), FourCC("c608"), FourCC("c708"), FourCC("tmcd"),
                                      FourCC("wvtt"), FourCC("stpp")});
    const auto isIn = [inFormat](const auto& inFormats) {
        return std::find(inFormats.begin(), inFormats.end(), inFormat) != inFormats.end();
    };
    const bool isRows = std::any_of(kRowFormats.begin(), kRowFormats.end(),
                                    [inFormat](const RowFormat& inRow) { return inRow.format == inFormat; });
    return isRows || IsPictureFormat(inFormat) || isIn(kPictures) ? Kind::kPicture
           : isIn(kSounds)                                        ? Kind::kSound
           : isIn(kOthers)                                        ? Kind::kOther
                                                                  : Kind::kUnknown;
}

//! The bytes of one sample.
class SampleSource final : public ByteSource
{
public:
    SampleSource(const ByteSource& inFile, std::uint64_t inOffset, std::uint64_t inSize)
        : mFile(inFile), mOffset(inOffset), mSize(inSize)
    {
    }

    std::uint64_t GetSize() const override { return mSize; }

    std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const override
    {
        const std::uint64_t left = mSize - std::min(mSize, inOffset);
        return mFile.Read(mOffset + inOffset, outBytes.first(std::min<std::uint64_t>(left, outBytes.size())));
    }

private:
    const ByteSource& mFile;
    std::uint64_t mOffset;
    std::uint64_t mSize;
};

//! Whether it is a text with its length in front and its encoding behind it.
bool IsText(const SampleSource& inSample)
{
    constexpr std::uint64_t kLengthSize = 2;
    constexpr std::uint64_t kMaxSize = 4096; // Video has frames of less, but hardly ever.
    static constexpr std::array<std::uint8_t, 8> kEncoding = {0, 0, 0, 12, 'e', 'n', 'c', 'd'};
    constexpr std::uint64_t kEncodingSize = 12;
    if (inSample.GetSize() < kLengthSize + kEncodingSize || inSample.GetSize() > kMaxSize)
    {
        return false;
    }
    std::array<std::uint8_t, kEncoding.size()> encoding{};
    inSample.Read(inSample.GetSize() - kEncodingSize, encoding);
    if (encoding != kEncoding)
    {
        return false;
    }
    std::array<std::uint8_t, kLengthSize> length{};
    inSample.Read(0, length);
    return ByteReader(length).U16() == inSample.GetSize() - kLengthSize - kEncodingSize;
}

//! Whether a picture fits its description. A JPEG image may be filled up to whole blocks; JPEG and JPEG 2000 ones may be
//! one of two fields.
bool HasSize(std::uint32_t inFormat, const Picture& inPicture, const VideoFormat& inVideo)
{
    constexpr std::uint32_t kBlock = 16;
    const bool isJPEG = inFormat == FourCC("jpeg");
    const bool hasFields = isJPEG || inFormat == FourCC("mjp2");
    const auto fits = [isJPEG](std::uint32_t inSize, std::uint32_t inStated) {
        return inSize == inStated || (isJPEG && inSize > inStated && inSize - inStated < kBlock && inSize % 8 == 0);
    };
    return fits(inPicture.width, inVideo.width) &&
           (fits(inPicture.height, inVideo.height) || (hasFields && fits(2 * inPicture.height, inVideo.height)));
}

class SampleVerifier
{
public:
    //! \param ioUnread  bytes of the file that samples can still have; in hostile tables they would have more
    SampleVerifier(const ByteSource& inFile, const Track& inTrack, std::uint64_t& ioUnread, Findings& ioFindings)
        : mFile(inFile),
          mTrack(inTrack),
          mUnread(ioUnread),
          mFindings(ioFindings),
          mKind(KindOfHandler(inTrack.handlerType))
    {
    }

    void Run()
    {
        for (const SampleEntry& entry : mTrack.entries)
        {
            CheckKind(entry);
        }
        if (mTrack.IsSelfContained())
        {
            mTrack.VisitChunks([this](const Chunk& inChunk) {
                CheckChunk(inChunk);
                return true;
            });
        }
    }

private:
    void CheckKind(const SampleEntry& inEntry)
    {
        const Kind kind = KindOfFormat(inEntry.format);
        if (kind != Kind::kUnknown && mKind != Kind::kUnknown && kind != mKind)
        {
            Error("media-kind", inEntry.offset,
                  fmt::format("a track of {} has a sample description of {}", FourCCText(mTrack.handlerType),
                              FourCCText(inEntry.format)));
        }
    }

    //! Samples of a uniform size differ in their content only.
    void CheckChunk(const Chunk& inChunk)
    {
        if (inChunk.descriptionID == 0 || inChunk.descriptionID > mTrack.entries.size())
        {
            return;
        }
        const SampleEntry& entry = mTrack.entries[inChunk.descriptionID - 1];
        const bool hasPictures = entry.video && IsPictureFormat(entry.format);
        const bool isListed = mTrack.uniformSampleSize == 0;
        const std::uint64_t listed =
            mTrack.sampleSizes.size() - std::min(inChunk.firstSample, mTrack.sampleSizes.size());
        const std::uint64_t count = isListed      ? std::min(inChunk.sampleCount, listed)
                                    : hasPictures ? inChunk.sampleCount
                                                  : 1;
        std::uint64_t offset = inChunk.offset;
        for (std::uint64_t index = 0; index < count; ++index)
        {
            const std::uint64_t number = inChunk.firstSample + index + 1;
            const std::uint64_t size = mTrack.GetSampleSize(number - 1);
            if (size > mUnread)
            {
                return; // Chunks that share their bytes, or lie outside the file.
            }
            if (size != 0)
            {
                mUnread -= size;
                CheckSize(entry, number, offset, size, isListed);
                CheckContent(entry, number, offset, size);
            }
            offset += size;
        }
    }

    void CheckSize(const SampleEntry& inEntry, std::uint64_t inNumber, std::uint64_t inOffset, std::uint64_t inSize,
                   bool inIsListed)
    {
        const std::uint64_t minimum = inEntry.video ? MinimumFrameSize(inEntry.format, *inEntry.video) : 0;
        if (inSize < minimum)
        {
            Error("frame-short", inOffset,
                  fmt::format("sample {} has {} bytes, but a frame of {} x {} {} pixels takes {}", inNumber, inSize,
                              inEntry.video->width, inEntry.video->height, FourCCText(inEntry.format), minimum));
        }
        const bool hasFrames =
            inIsListed && inEntry.sound && inEntry.sound->isUncompressed && inEntry.sound->bytesPerFrame != 0;
        if (hasFrames && inSize % inEntry.sound->bytesPerFrame != 0)
        {
            Error("sound-size", inOffset,
                  fmt::format("sample {} has {} bytes, which are no whole frames of {}", inNumber, inSize,
                              inEntry.sound->bytesPerFrame));
        }
    }

    void CheckContent(const SampleEntry& inEntry, std::uint64_t inNumber, std::uint64_t inOffset, std::uint64_t inSize)
    {
        if (inOffset > mFile.GetSize() || inSize > mFile.GetSize() - inOffset)
        {
            return; // Found among the chunks.
        }
        const SampleSource sample(mFile, inOffset, inSize);
        if (mKind == Kind::kPicture && IsText(sample))
        {
            Error("media-kind", inOffset, fmt::format("sample {} of the video track is a text", inNumber));
        }
        else if (inEntry.video && IsPictureFormat(inEntry.format) && mBadPictures < kMaxListedPerCheck)
        {
            CheckPicture(inEntry, inNumber, inOffset, sample);
        }
    }

    void CheckPicture(const SampleEntry& inEntry, std::uint64_t inNumber, std::uint64_t inOffset,
                      const SampleSource& inSample)
    {
        const std::optional<Picture> picture = ReadPicture(inEntry.format, inSample);
        if (!picture)
        {
            BadPicture(inOffset, fmt::format("sample {} is no {} picture", inNumber, FourCCText(inEntry.format)));
        }
        else if (!HasSize(inEntry.format, *picture, *inEntry.video))
        {
            BadPicture(inOffset,
                       fmt::format("the picture of sample {} has {} x {} pixels, its description says {} x {}",
                                   inNumber, picture->width, picture->height, inEntry.video->width,
                                   inEntry.video->height));
        }
    }

    //! No more pictures of a track are read than findings are listed: in hostile files each costs many reads.
    void BadPicture(std::uint64_t inOffset, const std::string& inWhat)
    {
        const bool isLast = ++mBadPictures == kMaxListedPerCheck;
        Error("picture", inOffset, inWhat + (isLast ? "; further pictures of the track are not read" : ""));
    }

    void Error(CheckName inCheck, std::uint64_t inOffset, const std::string& inWhat)
    {
        mFindings.Add(Severity::kError, inCheck, inOffset, mTrack.id, inWhat);
    }

    const ByteSource& mFile;
    const Track& mTrack;
    std::uint64_t& mUnread;
    Findings& mFindings;
    Kind mKind;
    std::uint64_t mBadPictures = 0;
};

} // namespace

void VerifySamples(const MovieFile& inMovie, Findings& ioFindings)
{
    const ByteSource& file = inMovie.GetSource();
    std::uint64_t unread = file.GetSize();
    for (const Track& track : inMovie.GetTracks())
    {
        SampleVerifier(file, track, unread, ioFindings).Run();
    }
}

} // namespace Inspect
