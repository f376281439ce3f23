#include "Picture.h"

#include "AtomTree.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <string_view>
#include <vector>

namespace Inspect
{

namespace
{

//! Takes values out of a source, one block of which is kept, so that a head costs one read. Beyond the end every value
//! is 0 and `HasFailed` is true; so it is after more blocks than any real head takes.
class BlockReader
{
public:
    explicit BlockReader(const ByteSource& inSource, std::uint64_t inMaxBlocks = kMaxBlocks)
        : mSource(inSource), mMaxBlocks(inMaxBlocks)
    {
    }

    void Seek(std::uint64_t inOffset) { mOffset = inOffset; }
    void Skip(std::uint64_t inCount) { mOffset += std::min(inCount, UINT64_MAX - mOffset); }
    void SetLittleEndian(bool inIsLittle) { mIsLittle = inIsLittle; }

    std::uint8_t U8() { return static_cast<std::uint8_t>(Take(1)); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Take(2)); }
    std::uint32_t U32() { return static_cast<std::uint32_t>(Take(4)); }
    std::uint64_t U64() { return Take(8); }

    std::uint64_t GetOffset() const { return mOffset; }
    std::uint64_t GetSize() const { return mSource.GetSize(); }
    bool HasFailed() const { return mHasFailed; }

private:
    static constexpr std::size_t kBlockSize = 1024;
    static constexpr std::uint64_t kMaxBlocks = 1024;

    std::uint64_t Take(std::size_t inCount)
    {
        const bool isHeld = mOffset >= mBegin && mOffset - mBegin <= mCount && mCount - (mOffset - mBegin) >= inCount;
        if (!isHeld && !mHasFailed)
        {
            mBegin = mOffset;
            mCount = mSource.Read(mBegin, mBlock);
            mHasFailed = mCount < inCount || ++mBlocks > mMaxBlocks;
        }
        if (mHasFailed)
        {
            return 0;
        }
        const auto first = mBlock.begin() + static_cast<std::ptrdiff_t>(mOffset - mBegin);
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < inCount; ++i)
        {
            value = value << 8 | first[static_cast<std::ptrdiff_t>(mIsLittle ? inCount - 1 - i : i)];
        }
        mOffset += inCount;
        return value;
    }

    const ByteSource& mSource;
    std::array<std::uint8_t, kBlockSize> mBlock{};
    std::uint64_t mBegin = 0; //!< Of the block.
    std::size_t mCount = 0;   //!< Bytes in it.
    std::uint64_t mOffset = 0;
    std::uint64_t mBlocks = 0; //!< Read so far.
    std::uint64_t mMaxBlocks;
    bool mIsLittle = false;
    bool mHasFailed = false;
};

constexpr std::uint8_t kEndOfImage = 0xD9; //!< Of JPEG and JPEG 2000, after FF.

//! Whether the source ends with some bytes.
bool EndsWith(const ByteSource& inBytes, const std::vector<std::uint8_t>& inEnd)
{
    std::vector<std::uint8_t> end(inEnd.size());
    return inBytes.GetSize() >= end.size() && inBytes.Read(inBytes.GetSize() - end.size(), end) == end.size() &&
           end == inEnd;
}

//! Whether an end marker of JPEG or JPEG 2000, FF D9, lies between two offsets. Looks from the end on, as other data may
//! follow it. In compressed data nothing looks like it; in a head something may, such as the end of a small picture.
bool HasEndMarker(const ByteSource& inBytes, std::uint64_t inBegin, std::uint64_t inEnd)
{
    constexpr std::uint64_t kMaxBlockSize = 1u << 16;
    static constexpr std::array<std::uint8_t, 2> kMarker = {0xFF, kEndOfImage};
    std::vector<std::uint8_t> block;
    std::uint64_t blockSize = kMarker.size(); // Nothing follows most.
    for (std::uint64_t end = inEnd; end > inBegin && end - inBegin >= kMarker.size(); blockSize = kMaxBlockSize)
    {
        const std::uint64_t begin = end - std::min(end - inBegin, blockSize);
        block.resize(end - begin);
        block.resize(inBytes.Read(begin, block));
        if (std::search(block.begin(), block.end(), kMarker.begin(), kMarker.end()) != block.end())
        {
            return true;
        }
        end = begin + 1; // The marker may lie across two blocks.
    }
    return false;
}

// ---- PNG ----

constexpr std::uint64_t kPNGSignature = 0x89504E470D0A1A0A;

// 0 signature, 8 chunk size, 12 'IHDR', 16 width, 20 height, 24 bits a sample, 25 colour type.
std::optional<Picture> ReadPNG(BlockReader& ioReader)
{
    const bool isPNG = ioReader.U64() == kPNGSignature;
    ioReader.Skip(4);
    if (!isPNG || ioReader.U32() != FourCC("IHDR"))
    {
        return std::nullopt;
    }
    Picture picture;
    picture.width = ioReader.U32();
    picture.height = ioReader.U32();
    const unsigned int bits = ioReader.U8();
    static constexpr std::array<const char*, 7> kTypes = {"grey",          "", "RGB", "palette", "grey with alpha", "",
                                                          "RGB with alpha"};
    const std::size_t type = ioReader.U8();
    picture.form = fmt::format("{}-bit {}", bits, type < kTypes.size() ? kTypes[type] : "");
    return picture;
}

//! Follows the chunks, each of a size, a type, content and a checksum, to the last.
bool IsWholePNG(const ByteSource& inBytes)
{
    static constexpr std::array<std::uint8_t, 12> kEnd = {0, 0, 0, 0, 'I', 'E', 'N', 'D', 0xAE, 0x42, 0x60, 0x82};
    if (EndsWith(inBytes, {kEnd.begin(), kEnd.end()}))
    {
        return true;
    }
    std::array<std::uint8_t, 8> head{};
    for (std::uint64_t offset = sizeof(kPNGSignature); inBytes.Read(offset, head) == head.size();)
    {
        ByteReader reader(head);
        offset += kEnd.size() + reader.U32();
        const std::uint32_t type = reader.U32();
        if (type == FourCC("IEND") || type == 0)
        {
            return type != 0 && offset <= inBytes.GetSize();
        }
    }
    return false;
}

// ---- JPEG ----

constexpr std::uint8_t kStartOfImage = 0xD8;

// 0 FF D8, then segments: FF, marker, 16-bit size that counts itself. Of the frame header: bits a sample, height,
// width, number of components, and of each its ID, sampling factors and table. Of the segments before it, any may hold a
// small picture.
std::optional<Picture> ReadJPEG(BlockReader& ioReader)
{
    constexpr std::uint8_t kFirstStartOfFrame = 0xC0;
    constexpr std::uint8_t kLastStartOfFrame = 0xCF;
    constexpr std::uint8_t kHuffmanTables = 0xC4;
    constexpr std::uint8_t kExtension = 0xC8;
    constexpr std::uint8_t kArithmeticTables = 0xCC;
    constexpr std::uint8_t kStartOfScan = 0xDA;
    constexpr std::uint8_t kAdobe = 0xEE;
    if (ioReader.U16() != (0xFF00 | kStartOfImage))
    {
        return std::nullopt;
    }
    Picture picture;
    unsigned int bits = 0;
    std::vector<std::string> sampling;
    std::string transform;
    while (picture.minimumSize == 0)
    {
        if (ioReader.U8() != 0xFF)
        {
            return std::nullopt;
        }
        std::uint8_t marker = 0xFF;
        while (marker == 0xFF)
        {
            marker = ioReader.U8(); // Any number of FF may come before it.
        }
        const std::uint64_t begin = ioReader.GetOffset();
        const std::uint64_t end = begin + ioReader.U16();
        if (ioReader.HasFailed() || marker == kEndOfImage || (marker == kStartOfScan && sampling.empty()))
        {
            return std::nullopt;
        }
        if (marker == kAdobe && end - ioReader.GetOffset() >= 12 && ioReader.U32() == FourCC("Adob"))
        {
            ioReader.Skip(7);
            transform = ioReader.U8() == 0 ? ", untransformed" : "";
        }
        if (sampling.empty() && marker >= kFirstStartOfFrame && marker <= kLastStartOfFrame &&
            marker != kHuffmanTables && marker != kExtension && marker != kArithmeticTables)
        {
            bits = ioReader.U8();
            picture.height = ioReader.U16();
            picture.width = ioReader.U16();
            sampling.resize(ioReader.U8());
            for (std::string& factors : sampling)
            {
                ioReader.Skip(1);
                const unsigned int value = ioReader.U8();
                factors = fmt::format("{}x{}", value >> 4, value & 0xF);
                ioReader.Skip(1);
            }
        }
        if (marker == kStartOfScan)
        {
            picture.minimumSize = end; // The compressed data begins.
        }
        ioReader.Seek(end);
    }
    // One component is not subsampled, whatever its factors.
    picture.form = sampling.size() == 1 ? fmt::format("{}-bit grey", bits)
                                        : fmt::format("{}-bit, {} components sampled {}{}", bits, sampling.size(),
                                                      fmt::join(sampling, ", "), transform);
    return picture;
}

// ---- TIFF ----

constexpr std::uint64_t kMaxInlineSize = 4; //!< Values of more bytes lie elsewhere in the file.

//! Bytes of a value of a TIFF field, by its type; 0 when that is not known.
std::uint32_t ValueSize(unsigned int inType)
{
    static constexpr std::array<std::uint8_t, 14> kSizes = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4};
    return inType < kSizes.size() ? kSizes[inType] : 0;
}

//! The values of a TIFF field of whole numbers.
std::vector<std::uint64_t> ReadFieldValues(BlockReader& ioReader, unsigned int inType, std::uint32_t inCount)
{
    constexpr std::uint32_t kMaxCount = 1u << 18;
    const std::uint32_t size = ValueSize(inType);
    if (std::uint64_t{inCount} * size > kMaxInlineSize)
    {
        ioReader.Seek(ioReader.U32());
    }
    std::vector<std::uint64_t> values;
    for (std::uint32_t i = 0; i < std::min(inCount, kMaxCount) && !ioReader.HasFailed(); ++i)
    {
        values.push_back(size == 1 ? ioReader.U8() : size == 2 ? ioReader.U16() : ioReader.U32());
    }
    return values;
}

// 0 'II' or 'MM', 2 the number 42, 4 offset of the directory: a count, and of each field its tag, type, number of
// values, and the values or where they are.
std::optional<Picture> ReadTIFF(BlockReader& ioReader)
{
    constexpr std::uint16_t kLittleEndian = 0x4949;
    constexpr std::uint16_t kBigEndian = 0x4D4D;
    constexpr std::uint64_t kFieldSize = 12;
    enum Tag : std::uint16_t
    {
        kWidth = 256,
        kHeight = 257,
        kBitsPerSample = 258,
        kPhotometric = 262,
        kStripOffsets = 273,
        kSamplesPerPixel = 277,
        kStripByteCounts = 279,
        kColourMap = 320,
        kTileOffsets = 324,
        kTileByteCounts = 325,
    };
    const std::uint16_t order = ioReader.U16();
    ioReader.SetLittleEndian(order == kLittleEndian);
    if ((order != kLittleEndian && order != kBigEndian) || ioReader.U16() != 42)
    {
        return std::nullopt;
    }
    const std::uint64_t directory = ioReader.U32();
    ioReader.Seek(directory);
    const std::uint16_t count = ioReader.U16();
    Picture picture;
    picture.minimumSize = directory + 2 + kFieldSize * count + 4; // The offset of the next directory.
    std::vector<std::uint64_t> bits = {1};
    std::uint64_t samples = 1;
    std::uint64_t photometric = 0;
    std::vector<std::uint64_t> offsets;
    std::vector<std::uint64_t> sizes;
    for (std::uint16_t index = 0; index < count && !ioReader.HasFailed(); ++index)
    {
        ioReader.Seek(directory + 2 + kFieldSize * index);
        const std::uint16_t tag = ioReader.U16();
        const std::uint16_t type = ioReader.U16();
        const std::uint32_t valueCount = ioReader.U32();
        const std::uint64_t valuesSize = std::uint64_t{valueCount} * ValueSize(type);
        static constexpr std::array<std::uint16_t, 6> kNeeded = {kBitsPerSample, kStripOffsets, kStripByteCounts,
                                                                 kColourMap,     kTileOffsets,  kTileByteCounts};
        const bool isNeeded = std::find(kNeeded.begin(), kNeeded.end(), tag) != kNeeded.end();
        if (isNeeded && valuesSize > kMaxInlineSize)
        {
            picture.minimumSize = std::max(picture.minimumSize, ioReader.U32() + valuesSize);
            ioReader.Seek(directory + 2 + kFieldSize * index + 8);
        }
        const auto values = [&] { return ReadFieldValues(ioReader, type, valueCount); };
        const auto value = [&] {
            const std::vector<std::uint64_t> all = ReadFieldValues(ioReader, type, 1);
            return all.empty() ? 0 : all.front();
        };
        switch (tag)
        {
        case kWidth:
            picture.width = static_cast<std::uint32_t>(value()); // Of 32 bits at most.
            break;
        case kHeight:
            picture.height = static_cast<std::uint32_t>(value());
            break;
        case kBitsPerSample:
            bits = values();
            break;
        case kPhotometric:
            photometric = value();
            break;
        case kSamplesPerPixel:
            samples = value() & 0xFFFF;
            break;
        case kStripOffsets:
        case kTileOffsets:
            offsets = values();
            break;
        case kStripByteCounts:
        case kTileByteCounts:
            sizes = values();
            break;
        default:
            break;
        }
    }
    for (std::size_t i = 0; i < std::min(offsets.size(), sizes.size()); ++i)
    {
        picture.minimumSize = std::max(picture.minimumSize, offsets[i] + sizes[i]);
    }
    static constexpr std::array<const char*, 6> kNames = {"white is 0", "black is 0",        "RGB",
                                                          "palette",    "transparency mask", "CMYK"};
    if (bits.size() == 1)
    {
        bits.resize(samples, bits.front()); // Written so by some.
    }
    picture.form = fmt::format("{} bits, {}", fmt::join(bits, ", "),
                               photometric < kNames.size() ? kNames[photometric] : std::to_string(photometric));
    return picture.width != 0 && picture.height != 0 ? std::optional(picture) : std::nullopt;
}

// ---- TGA ----

constexpr unsigned int kRunLengths = 8; //!< Added to a kind of TGA.

// 0 size of the ID, 1 colour map or none, 2 kind, 5 colours in the map, 7 bits of each, 12 width, 14 height, 16 bits a
// pixel, 17 bits of alpha and directions; then ID, map and pixels.
std::optional<Picture> ReadTGA(BlockReader& ioReader)
{
    constexpr std::uint64_t kHeadSize = 18;
    static constexpr std::array<const char*, 4> kKinds = {"", "palette", "RGB", "grey"};
    ioReader.SetLittleEndian(true);
    const std::uint64_t idSize = ioReader.U8();
    const unsigned int mapType = ioReader.U8();
    const unsigned int kind = ioReader.U8();
    ioReader.Skip(2);
    const std::uint64_t mapCount = ioReader.U16();
    const std::uint64_t mapBits = ioReader.U8();
    ioReader.Skip(4);
    Picture picture;
    picture.width = ioReader.U16();
    picture.height = ioReader.U16();
    const unsigned int bits = ioReader.U8();
    const unsigned int alpha = ioReader.U8() & 0xF;
    const unsigned int plainKind = kind & ~kRunLengths;
    if (mapType > 1 || plainKind == 0 || plainKind >= kKinds.size() || picture.width == 0 || picture.height == 0)
    {
        return std::nullopt;
    }
    picture.form = fmt::format("{}-bit {} with {} bits of alpha", bits, kKinds[plainKind], alpha);
    picture.minimumSize = kHeadSize + idSize + (mapType == 1 ? mapCount * ((mapBits + 7) / 8) : 0);
    if (kind == plainKind)
    {
        picture.minimumSize += std::uint64_t{picture.width} * picture.height * ((bits + 7) / 8);
    }
    return picture;
}

//! Follows the run lengths, unless the file ends with what only a whole one has.
bool IsWholeTGA(const Picture& inPicture, const ByteSource& inBytes)
{
    static constexpr std::string_view kFooter("TRUEVISION-XFILE.\0", 18);
    BlockReader reader(inBytes, UINT64_MAX);
    reader.Seek(2);
    const bool hasRunLengths = (reader.U8() & kRunLengths) != 0;
    if (!hasRunLengths || EndsWith(inBytes, {kFooter.begin(), kFooter.end()}))
    {
        return inPicture.minimumSize <= inBytes.GetSize();
    }
    reader.Seek(16);
    const std::uint64_t bytesPerPixel = (reader.U8() + 7U) / 8;
    reader.Seek(inPicture.minimumSize);
    for (std::uint64_t left = std::uint64_t{inPicture.width} * inPicture.height; left != 0;)
    {
        const unsigned int head = reader.U8(); // The top bit tells one pixel to be repeated from several.
        const std::uint64_t count = (head & 0x7F) + 1;
        reader.Skip(((head & 0x80) != 0 ? 1 : count) * bytesPerPixel);
        left -= std::min(left, count);
        if (reader.HasFailed())
        {
            return false;
        }
    }
    return reader.GetOffset() <= inBytes.GetSize();
}

// ---- JPEG 2000 ----

constexpr std::uint32_t kCodestreamStart = 0xFF4FFF51; //!< The marker, and that of the size segment.

//! The codestream: all, or the content of a box of the file format, whose boxes are built as atoms are.
struct Codestream
{
    std::uint64_t begin = 0;
    std::uint64_t end = 0; //!< May lie beyond the bytes that there are.
};

std::optional<Codestream> FindCodestream(BlockReader& ioReader)
{
    if (ioReader.U32() == kCodestreamStart)
    {
        return Codestream{0, ioReader.GetSize()};
    }
    for (std::uint64_t begin = 0; begin < ioReader.GetSize() && !ioReader.HasFailed();)
    {
        ioReader.Seek(begin);
        std::uint64_t size = ioReader.U32();
        const std::uint32_t type = ioReader.U32();
        size = size == 1 ? ioReader.U64() : size == 0 ? ioReader.GetSize() - begin : size;
        if (size < 8 || size > UINT64_MAX - begin)
        {
            break;
        }
        if (type == FourCC("jp2c"))
        {
            return Codestream{ioReader.GetOffset(), begin + size};
        }
        begin += size;
    }
    return std::nullopt;
}

// 0 markers, 4 size, 6 capabilities, 8 right, 12 bottom, 16 left, 20 top, 24 tiles, 40 number of components, and of
// each its bits less 1, with a sign in the top bit, and how far apart its samples are either way.
std::optional<Picture> ReadJPEG2000(BlockReader& ioReader)
{
    const std::optional<Codestream> stream = FindCodestream(ioReader);
    if (!stream)
    {
        return std::nullopt;
    }
    ioReader.Seek(stream->begin);
    if (ioReader.U32() != kCodestreamStart)
    {
        return std::nullopt;
    }
    ioReader.Skip(4);
    Picture picture;
    picture.width = ioReader.U32();
    picture.height = ioReader.U32();
    picture.width -= ioReader.U32();
    picture.height -= ioReader.U32();
    ioReader.Skip(16);
    const unsigned int count = ioReader.U16();
    for (unsigned int index = 0; index < count && !ioReader.HasFailed(); ++index)
    {
        const unsigned int depth = ioReader.U8();
        const unsigned int across = ioReader.U8();
        const unsigned int down = ioReader.U8();
        picture.form += fmt::format("{}{}-bit {}x{}", index == 0 ? "" : ", ", (depth & 0x7F) + 1, across, down);
    }
    picture.minimumSize = stream->end;
    return picture;
}

bool IsWholeJPEG2000(const Picture& inPicture, const ByteSource& inBytes)
{
    constexpr std::uint16_t kStartOfTile = 0xFF90;
    BlockReader reader(inBytes);
    const std::optional<Codestream> stream = FindCodestream(reader);
    if (!stream || inPicture.minimumSize > inBytes.GetSize())
    {
        return false;
    }
    reader.Seek(stream->begin + 2);
    while (reader.U16() != kStartOfTile && !reader.HasFailed())
    {
        const std::uint64_t begin = reader.GetOffset();
        reader.Seek(begin + reader.U16());
    }
    return !reader.HasFailed() && HasEndMarker(inBytes, reader.GetOffset(), inPicture.minimumSize);
}

} // namespace

bool IsPictureFormat(std::uint32_t inFormat)
{
    static constexpr std::array<std::uint32_t, 5> kFormats = {FourCC("png "), FourCC("jpeg"), FourCC("tiff"),
                                                              FourCC("tga "), FourCC("mjp2")};
    return std::find(kFormats.begin(), kFormats.end(), inFormat) != kFormats.end();
}

std::optional<Picture> ReadPicture(std::uint32_t inFormat, const ByteSource& inBytes)
{
    BlockReader reader(inBytes);
    const std::optional<Picture> picture = inFormat == FourCC("png ")   ? ReadPNG(reader)
                                           : inFormat == FourCC("jpeg") ? ReadJPEG(reader)
                                           : inFormat == FourCC("tiff") ? ReadTIFF(reader)
                                           : inFormat == FourCC("tga ") ? ReadTGA(reader)
                                                                        : ReadJPEG2000(reader);
    return reader.HasFailed() ? std::nullopt : picture;
}

bool IsWhole(std::uint32_t inFormat, const Picture& inPicture, const ByteSource& inBytes)
{
    switch (inFormat)
    {
    case FourCC("png "):
        return IsWholePNG(inBytes);
    case FourCC("jpeg"):
        return HasEndMarker(inBytes, inPicture.minimumSize, inBytes.GetSize());
    case FourCC("tga "):
        return IsWholeTGA(inPicture, inBytes);
    case FourCC("mjp2"):
        return IsWholeJPEG2000(inPicture, inBytes);
    default:
        return inPicture.minimumSize <= inBytes.GetSize();
    }
}

} // namespace Inspect
