#include "Completeness.h"

#include "Interrupt.h"

#include <ByteSource.h>

#include <boost/endian/conversion.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <span>
#include <string_view>

namespace fs = std::filesystem;

namespace Host
{

namespace
{

using Header = std::span<const std::uint8_t>;

constexpr std::size_t kHeaderSize = 64; //!< No header that is looked at is longer.

//! An element of a file: a size, and content or further elements.
struct Element
{
    enum class Kind
    {
        kMedia,
        kOther,
        kLast,   //!< No media comes after it.
        kUnknown //!< It is no element.
    };
    Kind kind = Kind::kOther;
    std::int64_t next = 0;      //!< offset of the next header: after the element or, where it is looked into, inside
    std::int64_t padding = 0;   //!< in front of the next header
    std::int64_t parentEnd = 0; //!< end of an element that is looked into, 0 when it is not known
};

//! Makes out the element at an offset. Returns false when its header is not whole.
using ReadElement = bool (*)(Header inHeader, std::int64_t inOffset, Element& outElement);

std::string_view TypeAt(Header inHeader, std::size_t inOffset)
{
    return {reinterpret_cast<const char*>(inHeader.data()) + inOffset, 4};
}

//! The end of an element, however far beyond the file it may be.
std::int64_t EndAfter(std::int64_t inOffset, std::uint64_t inSize)
{
    constexpr std::int64_t kFar = INT64_MAX / 2;
    return inSize > static_cast<std::uint64_t>(kFar - inOffset) ? kFar : inOffset + static_cast<std::int64_t>(inSize);
}

//! An atom: 32-bit size, type; a size of 1 stands for 64 bits after the type, 0 for all the rest of the file. What is in
//! 'mdat' the tables tell.
bool ReadAtom(Header inHeader, std::int64_t inOffset, Element& outElement)
{
    if (inHeader.size() < 8)
    {
        return false;
    }
    std::uint64_t size = boost::endian::load_big_u32(inHeader.data());
    if (size == 1)
    {
        if (inHeader.size() < 16)
        {
            return false;
        }
        size = boost::endian::load_big_u64(inHeader.data() + 8);
    }
    const std::string_view type = TypeAt(inHeader, 4);
    const bool isMedia = type == "moov" || type == "moof";
    outElement.kind = size == 0  ? Element::Kind::kLast
                      : size < 8 ? Element::Kind::kUnknown
                      : isMedia  ? Element::Kind::kMedia
                                 : Element::Kind::kOther;
    outElement.next = EndAfter(inOffset, size);
    return true;
}

//! A RIFF chunk: type, 32-bit little-endian size, content, padded to 16 bits. 'RIFF' is looked into, and 'movi' where
//! its size was left open. A 'RIFF' that is left out altogether, after one that is whole, cannot be noticed: the frames
//! that the headers count may be dropped ones, of which nothing may come.
bool ReadChunk(Header inHeader, std::int64_t inOffset, Element& outElement)
{
    constexpr std::size_t kListHeaderSize = 12;
    if (inHeader.size() < 8)
    {
        return false;
    }
    const std::string_view type = TypeAt(inHeader, 0);
    const bool isFile = type == "RIFF";
    if ((isFile || type == "LIST") && inHeader.size() < kListHeaderSize)
    {
        return false;
    }
    const std::uint32_t size = boost::endian::load_little_u32(inHeader.data() + 4);
    const bool isMovie = type == "LIST" && TypeAt(inHeader, 8) == "movi";
    const bool isOpen = size == 0 || size == UINT32_MAX;
    const bool isData = type[0] >= '0' && type[0] <= '9' && type[1] >= '0' && type[1] <= '9';
    outElement.kind = type == std::string_view("\0\0\0\0", 4) ? Element::Kind::kUnknown
                      : isMovie || isData                     ? Element::Kind::kMedia
                                                              : Element::Kind::kOther;
    outElement.next = isFile || (isMovie && isOpen) ? inOffset + static_cast<std::int64_t>(kListHeaderSize)
                                                    : EndAfter(inOffset, 8 + std::uint64_t{size} + size % 2);
    outElement.padding = size % 2;
    outElement.parentEnd = isFile ? EndAfter(inOffset, isOpen ? UINT64_MAX : 8 + std::uint64_t{size}) : 0;
    return true;
}

//! An EBML element: ID and size, each with as many bytes as its first has leading zeros and one more; a size of ones is
//! not known. Segments are looked into, and clusters that have no size.
bool ReadEBML(Header inHeader, std::int64_t inOffset, Element& outElement)
{
    constexpr std::uint64_t kSegment = 0x18538067;
    constexpr std::uint64_t kCluster = 0x1F43B675;
    constexpr std::uint64_t kBlockGroup = 0xA0;
    constexpr std::uint64_t kSimpleBlock = 0xA3;
    std::size_t position = 0;
    const auto read = [&](bool inKeepsMarker, std::uint64_t& outValue, bool& outIsOpen) {
        if (position >= inHeader.size())
        {
            return false;
        }
        const std::size_t length = 1 + static_cast<std::size_t>(std::countl_zero(inHeader[position]));
        if (length > 8 || position + length > inHeader.size())
        {
            return false;
        }
        outValue = 0;
        for (std::size_t index = 0; index < length; ++index)
        {
            outValue = outValue << 8 | inHeader[position + index];
        }
        const std::uint64_t marker = std::uint64_t{1} << 7 * length;
        outIsOpen = outValue == 2 * marker - 1;
        outValue -= inKeepsMarker ? 0 : marker;
        position += length;
        return true;
    };
    std::uint64_t type = 0;
    std::uint64_t size = 0;
    bool isOpen = false;
    if (inHeader.empty() || inHeader[0] < 0x10)
    {
        outElement.kind = Element::Kind::kUnknown; // An ID has four bytes at most.
        return !inHeader.empty();
    }
    if (!read(true, type, isOpen) || !read(false, size, isOpen))
    {
        return false;
    }
    const bool isEntered = type == kSegment || (type == kCluster && isOpen);
    const std::int64_t content = inOffset + static_cast<std::int64_t>(position);
    outElement.kind =
        type == kCluster || type == kBlockGroup || type == kSimpleBlock ? Element::Kind::kMedia : Element::Kind::kOther;
    outElement.next = isEntered ? content : EndAfter(content, size);
    outElement.parentEnd = type == kSegment && !isOpen ? EndAfter(content, size) : 0;
    return true;
}

//! A KLV triplet of MXF: a universal label of 16 bytes, a length in BER form, content.
bool ReadKLV(Header inHeader, std::int64_t inOffset, Element& outElement)
{
    constexpr std::array<std::uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};
    constexpr std::array<std::uint8_t, 4> kSystemItem = {0x0D, 0x01, 0x03, 0x01};
    constexpr std::array<std::uint8_t, 6> kFooter = {0x0D, 0x01, 0x02, 0x01, 0x01, 0x04};
    constexpr std::size_t kKeySize = 16;
    if (inHeader.size() <= kKeySize)
    {
        return false;
    }
    const auto isAt = [&](std::size_t inPosition, std::span<const std::uint8_t> inBytes) {
        return std::equal(inBytes.begin(), inBytes.end(), inHeader.begin() + static_cast<std::ptrdiff_t>(inPosition));
    };
    const std::uint8_t first = inHeader[kKeySize];
    const std::size_t extra = first < 0x80 ? 0 : first & 0x7FU;
    if (!isAt(0, kLabel) || extra > 8 || first == 0x80) // 0x80 leaves the length open.
    {
        outElement.kind = Element::Kind::kUnknown;
        return true;
    }
    if (inHeader.size() < kKeySize + 1 + extra)
    {
        return false;
    }
    std::uint64_t size = extra == 0 ? first : 0;
    for (std::size_t index = 0; index < extra; ++index)
    {
        size = size << 8 | inHeader[kKeySize + 1 + index];
    }
    const bool isEssence = inHeader[4] == 1 && inHeader[5] == 2;
    outElement.kind = isAt(8, kFooter)                    ? Element::Kind::kLast
                      : isEssence || isAt(8, kSystemItem) ? Element::Kind::kMedia
                                                          : Element::Kind::kOther;
    outElement.next = EndAfter(inOffset + static_cast<std::int64_t>(kKeySize + 1 + extra), size);
    return true;
}

//! Bytes of the 'data' chunk that a wave file declares, in any of its three forms; -1 where that is open.
std::int64_t WaveBytes(const Inspect::ByteSource& inFile)
{
    constexpr std::uint32_t kMinimumPlaceholder = 0x7FFFF000; // What writers into pipes put for a size up to 2 GiB,
    constexpr std::uint32_t kMaximumPlaceholder = 0x80000000;
    constexpr std::uint32_t kOpen = 0xFFFFFFFF; // and for any; also where 'ds64' has the size.
    constexpr std::array<char, 4> kLarge = {'r', 'i', 'f', 'f'};
    constexpr int kMaximumChunks = 1000;
    std::array<std::uint8_t, kHeaderSize> bytes = {};
    inFile.Read(0, bytes);
    const bool isLarge = std::memcmp(bytes.data(), kLarge.data(), kLarge.size()) == 0; // 64-bit sizes and long names
    std::uint64_t largeSize = 0;
    std::uint64_t offset = isLarge ? 40 : 12;
    for (int chunk = 0; chunk < kMaximumChunks; ++chunk)
    {
        const std::size_t available = inFile.Read(offset, bytes);
        if (available < (isLarge ? 24 : 8))
        {
            return -1;
        }
        const std::string_view type = TypeAt(bytes, 0);
        if (isLarge)
        {
            const std::uint64_t size = boost::endian::load_little_u64(bytes.data() + 16); // with the header
            if (type == "data")
            {
                return size > 24 && size < INT64_MAX ? static_cast<std::int64_t>(size - 24) : -1;
            }
            offset += (std::clamp<std::uint64_t>(size, 24, INT64_MAX / 2) + 7) / 8 * 8;
        }
        else
        {
            const std::uint32_t size = boost::endian::load_little_u32(bytes.data() + 4);
            if (type == "ds64" && available >= 24)
            {
                largeSize = boost::endian::load_little_u64(bytes.data() + 16); // after that of the file
            }
            if (type == "data" && size == kOpen && largeSize > 0 && largeSize < INT64_MAX)
            {
                return static_cast<std::int64_t>(largeSize);
            }
            if (type == "data")
            {
                const bool isOpen =
                    size == 0 || size == kOpen || (size >= kMinimumPlaceholder && size <= kMaximumPlaceholder);
                return isOpen ? -1 : std::int64_t{size};
            }
            offset += 8 + std::uint64_t{size} + size % 2;
        }
    }
    return -1;
}

//! Bytes of a sample frame of PCM, 0 for any other codec.
std::int64_t FrameBytes(const AVCodecParameters& inParameters)
{
    const AVCodecDescriptor* codec = avcodec_descriptor_get(inParameters.codec_id);
    const bool isPCM = codec != nullptr && std::strncmp(codec->name, "pcm_", 4) == 0;
    return isPCM ? std::int64_t{av_get_bits_per_sample(inParameters.codec_id)} * inParameters.ch_layout.nb_channels / 8
                 : 0;
}

bool IsTaken(const AVStream& inStream)
{
    return inStream.discard < AVDISCARD_ALL;
}

} // namespace

//! Goes through the elements of a file, keeping up with the packets that are read, as long as their headers are in the
//! system's cache.
class ElementWalk
{
public:
    enum class End
    {
        kWhole,      //!< It ends where it should, or after all media.
        kInMedia,    //!< It ends inside media.
        kInHeader,   //!< It ends inside the header of an element.
        kOutOfMedia, //!< It ends inside something else, or between two elements.
        kUnknown     //!< It does not consist of elements.
    };

    ElementWalk(const std::string& inPath, ReadElement inReadElement) : mFile(inPath), mReadElement(inReadElement) {}

    //! Goes on to the element that holds the byte at `inPosition`.
    void Advance(std::int64_t inPosition)
    {
        while (mNext <= inPosition && mElement.kind < Element::Kind::kLast && Step())
        {
            ThrowIfStopRequested();
        }
    }

    //! Offset after the last element that was come to.
    std::int64_t GetNext() const { return mNext; }
    bool IsOpen() const { return mParentEnd == 0; } //!< Nothing that is looked into has a size.
    bool IsInMedia() const { return mElement.kind == Element::Kind::kMedia; }

    //! Goes on to the end of the file, which has `inSize` bytes.
    End Finish(std::int64_t inSize)
    {
        Advance(inSize - 1);
        if (mElement.kind == Element::Kind::kUnknown)
        {
            return mParentEnd > 0 && mParentEnd <= inSize ? End::kWhole : End::kUnknown;
        }
        const bool isWhole = mElement.kind == Element::Kind::kLast || (mParentEnd > 0 && mParentEnd <= inSize);
        return isWhole                                            ? End::kWhole
               : mNext < inSize                                   ? End::kInHeader
               : IsInMedia() && mNext - mElement.padding > inSize ? End::kInMedia
                                                                  : End::kOutOfMedia;
    }

private:
    bool Step()
    {
        std::array<std::uint8_t, kHeaderSize> bytes = {};
        const std::size_t available = mFile.Read(static_cast<std::uint64_t>(mNext), bytes);
        Element element;
        if (!mReadElement(Header(bytes).first(available), mNext, element))
        {
            return false;
        }
        mElement = element;
        mNext = element.kind == Element::Kind::kUnknown ? mNext : element.next;
        mParentEnd = std::max(mParentEnd, element.parentEnd);
        return true;
    }

    Inspect::FileSource mFile;
    ReadElement mReadElement;
    Element mElement;
    std::int64_t mNext = 0;
    std::int64_t mParentEnd = 0;
};

Completeness::Completeness(const std::string& inPath, AVFormatContext& ioFormat) : mFormat(ioFormat)
{
    constexpr std::int64_t kMaximumCount = 1 << 30; // From there on a count stands for one that was not known.
    std::error_code error;
    mIsFile = mFormat.pb != nullptr && fs::is_regular_file(inPath, error);
    mSizeAtStart = mIsFile ? GetEnd() : 0;
    mStatedTime = std::max<std::int64_t>(0, mFormat.duration);
    const std::string_view name = mFormat.iformat->name;
    for (unsigned int index = 0; index < mFormat.nb_streams; ++index)
    {
        const AVStream& stream = *mFormat.streams[index];
        Stream& noted = StreamOf(stream.index);
        // AVI states a length for video only, of one tick a frame; what libavformat has as its duration may be an estimate.
        const bool isCounted = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && stream.nb_frames < kMaximumCount;
        noted.statedTicks = std::max<std::int64_t>(0, name != "avi" ? stream.duration
                                                      : isCounted   ? stream.nb_frames
                                                                    : 0);
    }
    const auto walk = [&](ReadElement inReadElement) {
        mWalk = mIsFile ? std::make_unique<ElementWalk>(inPath, inReadElement) : nullptr;
    };
    if (name.find("mov") == 0)
    {
        mKind = Kind::kTables;
        walk(ReadAtom);
    }
    else if (name.find("matroska") == 0 || name == "mxf" || name == "avi")
    {
        mKind = Kind::kElements;
        walk(name == "mxf" ? ReadKLV : name == "avi" ? ReadChunk : ReadEBML);
    }
    else if (name == "dv")
    {
        mKind = Kind::kFrames;
    }
    else if ((name == "wav" || name == "w64" || name == "aiff" || name == "au" || name == "caf") &&
             mFormat.nb_streams == 1)
    {
        mKind = Kind::kSound;
        const std::int64_t frameBytes = FrameBytes(*mFormat.streams[0]->codecpar);
        const std::int64_t count = std::max(mFormat.streams[0]->nb_frames, mStreams[0].statedTicks);
        if (name[0] == 'w') // libavformat does not tell what is more than the file has.
        {
            mStatedBytes = mIsFile ? WaveBytes(Inspect::FileSource(inPath)) : -1;
        }
        else if (count > 0)
        {
            mStatedBytes = frameBytes > 0 ? std::min(count, INT64_MAX / frameBytes) * frameBytes : 0;
        }
    }
}

Completeness::~Completeness() = default;

bool Completeness::NeedsAllStreams() const
{
    // Sound of raw DV comes out of the frames of video, and the length of Matroska is its longest stream's.
    return mKind == Kind::kFrames || (mKind == Kind::kElements && mStatedTime > 0);
}

Completeness::Stream& Completeness::StreamOf(int inIndex)
{
    const auto index = static_cast<std::size_t>(inIndex);
    mStreams.resize(std::max(mStreams.size(), index + 1)); // Some streams are found later.
    return mStreams[index];
}

//! The size of the file as it is now; of a pipe what came once it has ended.
std::int64_t Completeness::GetEnd() const
{
    if (mIsFile)
    {
        return std::max<std::int64_t>(0, avio_size(mFormat.pb));
    }
    return mFormat.pb != nullptr && avio_feof(mFormat.pb) != 0 ? avio_tell(mFormat.pb) : INT64_MAX;
}

//! Whether the end of a packet did not come.
bool Completeness::IsCut(const AVPacket& inPacket)
{
    constexpr std::int64_t kMaximumHeaderSize = 64; // The position may be that of a header in front.
    const AVCodecParameters& parameters = *mFormat.streams[inPacket.stream_index]->codecpar;
    if (inPacket.pos < 0)
    {
        return false;
    }
    if (mKind == Kind::kFrames)
    {
        const bool isVideo = parameters.codec_type == AVMEDIA_TYPE_VIDEO;
        mFrameSize = isVideo ? inPacket.size : mFrameSize; // libavformat fills up a frame that is not whole.
        return inPacket.pos + mFrameSize > GetEnd();
    }
    const bool isShort = parameters.codec_id == AV_CODEC_ID_RAWVIDEO &&
                         inPacket.size < av_image_get_buffer_size(static_cast<AVPixelFormat>(parameters.format),
                                                                  parameters.width, parameters.height, 1);
    if (isShort || (inPacket.flags & AV_PKT_FLAG_CORRUPT) != 0)
    {
        return inPacket.pos + inPacket.size + kMaximumHeaderSize >= GetEnd();
    }
    // A parser divides what MXF holds in one piece, and does not flag what it has left in the end.
    if (mWalk == nullptr || !mWalk->IsInMedia() || mFormat.iformat->name != std::string_view("mxf"))
    {
        return false;
    }
    const std::int64_t end = GetEnd();
    return mWalk->GetNext() > end && inPacket.pos + inPacket.size >= end;
}

Completeness::Verdict Completeness::Take(AVPacket& ioPacket)
{
    if (mKind == Kind::kSound)
    {
        StreamOf(ioPacket.stream_index).bytes += ioPacket.size;
        const AVCodecParameters& parameters = *mFormat.streams[ioPacket.stream_index]->codecpar;
        if (FrameBytes(parameters) > 0 || (parameters.block_align > 0 && ioPacket.size % parameters.block_align == 0))
        {
            ioPacket.flags &= ~AV_PKT_FLAG_CORRUPT; // It only says that less came at a time than before.
        }
        return (ioPacket.flags & AV_PKT_FLAG_CORRUPT) != 0 ? Verdict::kDamaged : Verdict::kWhole;
    }
    const AVStream& source = *mFormat.streams[ioPacket.stream_index];
    Stream& stream = StreamOf(ioPacket.stream_index);
    if (mWalk != nullptr)
    {
        mWalk->Advance(ioPacket.pos);
    }
    if (stream.isCut)
    {
        return Verdict::kCut;
    }
    stream.isCut = IsCut(ioPacket);
    if (stream.isCut)
    {
        const std::int64_t frameBytes = FrameBytes(*source.codecpar);
        if (frameBytes == 0 || mKind == Kind::kFrames || ioPacket.size < frameBytes)
        {
            return Verdict::kCut;
        }
        ioPacket.size -= static_cast<int>(ioPacket.size % frameBytes);
        ioPacket.flags &= ~AV_PKT_FLAG_CORRUPT;
        return Verdict::kWhole;
    }
    stream.count += ioPacket.size > 0 ? 1 : 0;
    stream.bytes += ioPacket.size;
    mFrameEnd = std::max(mFrameEnd, ioPacket.pos + mFrameSize);
    const std::int64_t time = ioPacket.pts != AV_NOPTS_VALUE ? ioPacket.pts : ioPacket.dts;
    if (time != AV_NOPTS_VALUE)
    {
        const std::int64_t gap = stream.first == AV_NOPTS_VALUE ? 0 : av_sat_sub64(time, stream.last);
        stream.first = stream.first == AV_NOPTS_VALUE ? time : std::min(stream.first, time);
        stream.last = time;
        stream.end = std::max(stream.end, av_sat_add64(time, ioPacket.duration > 0 ? ioPacket.duration : gap));
    }
    return (ioPacket.flags & AV_PKT_FLAG_CORRUPT) != 0 ? Verdict::kDamaged : Verdict::kWhole;
}

std::string Completeness::FindLossByTables() const
{
    for (unsigned int index = 0; index < mFormat.nb_streams && index < mStreams.size(); ++index)
    {
        AVStream& stream = *mFormat.streams[index];
        std::int64_t count = 0;
        std::int64_t bytes = 0;
        bool isInside = true;
        const int entries = IsTaken(stream) ? avformat_index_get_entries_count(&stream) : 0;
        for (int number = 0; number < entries; ++number)
        {
            const AVIndexEntry& entry = *avformat_index_get_entry(&stream, number);
            count += entry.size > 0 ? 1 : 0;
            bytes += entry.size;
            isInside = isInside && av_sat_add64(entry.pos, entry.size) <= GetEnd();
        }
        if (mStreams[index].count == 0 && !mStreams[index].isCut && mIsFile && isInside)
        {
            continue; // Its media is in another file, and it ends up without a track, which is told.
        }
        if (mStreams[index].count < count || mStreams[index].bytes < bytes)
        {
            return fmt::format("of the {} packets that it lists for stream {}, {} came whole", count, index,
                               mStreams[index].count);
        }
    }
    return {};
}

std::string Completeness::FindLossOfSound() const
{
    const std::int64_t frameBytes = FrameBytes(*mFormat.streams[0]->codecpar);
    const std::int64_t bytes = mStreams[0].bytes;
    if (frameBytes == 0)
    {
        return {};
    }
    if (mStatedBytes >= 0)
    {
        return bytes >= mStatedBytes / frameBytes * frameBytes
                   ? ""
                   : fmt::format("of the {} bytes of sound that it declares, {} came", mStatedBytes, bytes);
    }
    const bool isPadded = bytes % frameBytes == 1 && bytes % 2 == 0;
    return bytes % frameBytes == 0 || isPadded ? "" : "it ends inside a sample frame";
}

//! By the lengths that the streams or the whole state. That of a stream may be off by a frame, that of the whole by
//! `inTolerance` seconds.
std::string Completeness::FindLossByDuration(bool inMayBeOff, double inTolerance) const
{
    constexpr double kSoundTolerance = 0.005; // Sound of broken frame rates has some samples more or less a frame.
    double end = 0;
    for (unsigned int index = 0; index < mFormat.nb_streams && index < mStreams.size(); ++index)
    {
        const AVStream& source = *mFormat.streams[index];
        const Stream& stream = mStreams[index];
        const double unit = av_q2d(source.time_base);
        end = std::max(end, static_cast<double>(stream.end) * unit);
        const bool isSound = source.codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        const std::int64_t came = stream.first == AV_NOPTS_VALUE ? 0 : av_sat_sub64(stream.end, stream.first);
        const double tolerance = isSound ? kSoundTolerance : inMayBeOff ? 1.5 * unit : 0.5 * unit;
        if (IsTaken(source) && static_cast<double>(av_sat_sub64(stream.statedTicks, came)) * unit > tolerance)
        {
            return fmt::format("stream {} declares {:.3f} s, and {:.3f} s came", index,
                               static_cast<double>(stream.statedTicks) * unit, static_cast<double>(came) * unit);
        }
    }
    const double stated = static_cast<double>(mStatedTime) / AV_TIME_BASE;
    return stated - end > inTolerance ? fmt::format("it declares {:.3f} s, and {:.3f} s came", stated, end) : "";
}

std::string Completeness::FindLossByElements()
{
    const auto end = mWalk != nullptr ? mWalk->Finish(GetEnd()) : ElementWalk::End::kUnknown;
    const bool isStated = mStatedTime > 0 || std::any_of(mStreams.begin(), mStreams.end(), [](const Stream& inStream) {
                              return inStream.statedTicks > 0;
                          });
    constexpr double kRounding = 0.002; // of times in milliseconds
    constexpr double kByClock = 0.05;   // A length that was put into a live recording later may be a clock's.
    const std::string_view name = mFormat.iformat->name;
    std::string inside = fmt::format("it ends at byte {}, inside its media", GetEnd());
    switch (end)
    {
    case ElementWalk::End::kWhole:
        return {};
    case ElementWalk::End::kInMedia:
        return inside;
    case ElementWalk::End::kInHeader:
        return isStated ? FindLossByDuration(false, kRounding) : inside;
    case ElementWalk::End::kOutOfMedia: // AVI, where 'RIFF' is open, has nothing that says whether more follows.
        return FindLossByDuration(name == "avi", mWalk->IsOpen() && name.find("matroska") == 0 ? kByClock : kRounding);
    case ElementWalk::End::kUnknown:
        break;
    }
    return FindLossByDuration(true, kRounding);
}

std::string Completeness::FindLoss()
{
    std::string loss;
    switch (mKind)
    {
    case Kind::kTables:
        loss = FindLossByTables();
        if (loss.empty() && mWalk != nullptr && mWalk->Finish(GetEnd()) == ElementWalk::End::kInMedia)
        {
            loss = fmt::format("it ends at byte {}, inside its tables", GetEnd());
        }
        break;
    case Kind::kSound:
        loss = FindLossOfSound();
        break;
    case Kind::kFrames:
        loss = GetEnd() != mFrameEnd ? "it ends inside a frame" : "";
        break;
    case Kind::kElements:
        loss = FindLossByElements();
        break;
    case Kind::kOther:
        break;
    }
    const bool isOpen = mKind == Kind::kFrames || mKind == Kind::kOther || (mKind == Kind::kSound && mStatedBytes < 0);
    if (loss.empty() && isOpen && mIsFile && GetEnd() < mSizeAtStart)
    {
        loss = "it became shorter while it was read";
    }
    const auto cut =
        std::find_if(mStreams.begin(), mStreams.end(), [](const Stream& inStream) { return inStream.isCut; });
    if (loss.empty() && cut != mStreams.end())
    {
        loss = fmt::format("it ends inside a packet of stream {}", cut - mStreams.begin());
    }
    return loss;
}

} // namespace Host
