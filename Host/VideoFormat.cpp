#include "VideoFormat.h"

#include <Tolbin/String.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fmt/format.h>
#include <utility>

namespace Host
{

namespace
{

constexpr int kMaximumSize =
    65535; // Width and height have 16 bits in the entry, and in whole pixels in the track header.
constexpr const char* kConvertVideo = "convert the video first, to ProRes, DNxHR or uncompressed 4:2:2 for example";
constexpr int kDepthOpaque = 24;
constexpr int kDepthAlpha = 32;

using Code = std::uint32_t; //!< A four-character code, its first character in the most significant byte.

constexpr Code MakeCode(const char (&inText)[5])
{
    Code code = 0;
    for (int index = 0; index < 4; ++index)
    {
        code = code << 8 | static_cast<unsigned char>(inText[index]);
    }
    return code;
}

std::string CodeText(Code inCode)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
    {
        text += static_cast<char>(inCode >> shift & 0xFF);
    }
    return text;
}

bool IsPrintable(Code inCode)
{
    const std::string text = CodeText(inCode);
    return std::all_of(text.begin(), text.end(),
                       [](char inCharacter) { return inCharacter >= 0x20 && inCharacter <= 0x7E; });
}

//! A data format and the name that users know it by.
struct Codec
{
    Code code = 0;
    const char* name = "";
};

struct NamedCodec
{
    AVCodecID id;
    Codec codec;
};

//! Codecs of one tag, or whose tag the container states.
constexpr std::array kCodecs = {
    NamedCodec{AV_CODEC_ID_PRORES, {MakeCode("apco"), "Apple ProRes 422 Proxy"}},
    NamedCodec{AV_CODEC_ID_PRORES, {MakeCode("apcs"), "Apple ProRes 422 LT"}},
    NamedCodec{AV_CODEC_ID_PRORES, {MakeCode("apcn"), "Apple ProRes 422"}},
    NamedCodec{AV_CODEC_ID_PRORES, {MakeCode("apch"), "Apple ProRes 422 HQ"}},
    NamedCodec{AV_CODEC_ID_PRORES, {MakeCode("ap4h"), "Apple ProRes 4444"}},
    NamedCodec{AV_CODEC_ID_PRORES, {MakeCode("ap4x"), "Apple ProRes 4444 XQ"}},
    NamedCodec{AV_CODEC_ID_HAP, {MakeCode("Hap1"), "Hap"}},
    NamedCodec{AV_CODEC_ID_HAP, {MakeCode("Hap5"), "Hap Alpha"}},
    NamedCodec{AV_CODEC_ID_HAP, {MakeCode("HapY"), "Hap Q"}},
    NamedCodec{AV_CODEC_ID_HAP, {MakeCode("HapM"), "Hap Q Alpha"}},
    NamedCodec{AV_CODEC_ID_HAP, {MakeCode("HapA"), "Hap Alpha-Only"}},
    NamedCodec{AV_CODEC_ID_MJPEG, {MakeCode("jpeg"), "Photo - JPEG"}},
    NamedCodec{AV_CODEC_ID_PNG, {MakeCode("png "), "PNG"}},
    NamedCodec{AV_CODEC_ID_JPEG2000, {MakeCode("mjp2"), "JPEG 2000"}},
    NamedCodec{AV_CODEC_ID_TIFF, {MakeCode("tiff"), "TIFF"}},
    NamedCodec{AV_CODEC_ID_TARGA, {MakeCode("tga "), "TGA"}},
    NamedCodec{AV_CODEC_ID_CFHD, {MakeCode("CFHD"), "CineForm HD"}},
    NamedCodec{AV_CODEC_ID_V210, {MakeCode("v210"), "Uncompressed 10-bit 4:2:2"}},
    NamedCodec{AV_CODEC_ID_V308, {MakeCode("v308"), "Uncompressed 8-bit 4:4:4"}},
    NamedCodec{AV_CODEC_ID_V408, {MakeCode("v408"), "Uncompressed 8-bit 4:4:4:4"}},
    NamedCodec{AV_CODEC_ID_V410, {MakeCode("v410"), "Uncompressed 10-bit 4:4:4"}},
    NamedCodec{AV_CODEC_ID_R210, {MakeCode("r210"), "Uncompressed 10-bit RGB"}},
};

//! ProRes tags in the order of libav's profiles, from proxy to 4444 XQ.
constexpr std::array kProResProfiles = {MakeCode("apco"), MakeCode("apcs"), MakeCode("apcn"),
                                        MakeCode("apch"), MakeCode("ap4h"), MakeCode("ap4x")};

struct RawLayout
{
    AVPixelFormat pixels;
    Codec codec;
    int depth;
};

//! Uncompressed pixels whose bytes are the same in libav and under the tag.
constexpr std::array kRawLayouts = {
    RawLayout{AV_PIX_FMT_UYVY422, {MakeCode("2vuy"), "Uncompressed 8-bit 4:2:2"}, 24},
    RawLayout{AV_PIX_FMT_YUYV422, {MakeCode("yuvs"), "Uncompressed 8-bit 4:2:2"}, 24},
    RawLayout{AV_PIX_FMT_RGB24, {MakeCode("raw "), "Uncompressed RGB"}, 24},
    RawLayout{AV_PIX_FMT_ARGB, {MakeCode("raw "), "Uncompressed RGB with alpha"}, 32},
    RawLayout{AV_PIX_FMT_RGB555BE, {MakeCode("raw "), "Uncompressed RGB 5:5:5"}, 16},
    RawLayout{AV_PIX_FMT_BGRA, {MakeCode("BGRA"), "Uncompressed RGB with alpha"}, 32},
    RawLayout{AV_PIX_FMT_RGBA, {MakeCode("RGBA"), "Uncompressed RGB with alpha"}, 32},
    RawLayout{AV_PIX_FMT_RGB48BE, {MakeCode("b48r"), "Uncompressed 16-bit RGB"}, 48},
    RawLayout{AV_PIX_FMT_GRAY16BE, {MakeCode("b16g"), "Uncompressed 16-bit grey"}, 24},
};

struct DVForm
{
    AVPixelFormat pixels;
    int width;
    int height;
    int fieldsOrFrames; //!< per second, rounded: 25, 30, 50 or 60 frames
    Codec codec;
};

constexpr std::array kDVForms = {
    DVForm{AV_PIX_FMT_YUV411P, 720, 480, 30, {MakeCode("dvc "), "DV - NTSC"}},
    DVForm{AV_PIX_FMT_YUV420P, 720, 576, 25, {MakeCode("dvcp"), "DV - PAL"}},
    DVForm{AV_PIX_FMT_YUV411P, 720, 576, 25, {MakeCode("dvpp"), "DVCPRO - PAL"}},
    DVForm{AV_PIX_FMT_YUV422P, 720, 480, 30, {MakeCode("dv5n"), "DVCPRO50 - NTSC"}},
    DVForm{AV_PIX_FMT_YUV422P, 720, 576, 25, {MakeCode("dv5p"), "DVCPRO50 - PAL"}},
    DVForm{AV_PIX_FMT_YUV422P, 1280, 1080, 30, {MakeCode("dvh6"), "DVCPRO HD 1080i60"}},
    DVForm{AV_PIX_FMT_YUV422P, 1440, 1080, 25, {MakeCode("dvh5"), "DVCPRO HD 1080i50"}},
    DVForm{AV_PIX_FMT_YUV422P, 960, 720, 60, {MakeCode("dvhp"), "DVCPRO HD 720p60"}},
    DVForm{AV_PIX_FMT_YUV422P, 960, 720, 50, {MakeCode("dvhq"), "DVCPRO HD 720p50"}},
};

const AVPixFmtDescriptor* PixelsOf(const AVCodecParameters& inParameters)
{
    return av_pix_fmt_desc_get(static_cast<AVPixelFormat>(inParameters.format));
}

std::string PixelName(const AVCodecParameters& inParameters)
{
    const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(inParameters.format));
    return name != nullptr ? name : "unknown";
}

bool IsQuickTime(const MediaSource& inSource)
{
    return std::strncmp(inSource.GetFormat().iformat->name, "mov,", 4) == 0;
}

//! The stream's own tag, first character in the most significant byte.
Code OwnCode(const AVCodecParameters& inParameters)
{
    return av_bswap32(inParameters.codec_tag);
}

const char* NameOf(AVCodecID inCodec, Code inCode)
{
    for (const NamedCodec& known : kCodecs)
    {
        if (known.id == inCodec && known.codec.code == inCode)
        {
            return known.codec.name;
        }
    }
    for (const DVForm& known : kDVForms)
    {
        if (inCodec == AV_CODEC_ID_DVVIDEO && known.codec.code == inCode)
        {
            return known.codec.name;
        }
    }
    for (const RawLayout& known : kRawLayouts)
    {
        if (inCodec == AV_CODEC_ID_RAWVIDEO && known.codec.code == inCode)
        {
            return known.codec.name;
        }
    }
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(inCodec);
    return descriptor == nullptr ? "" : descriptor->long_name != nullptr ? descriptor->long_name : descriptor->name;
}

//! The codec's only tag, or the one among several that the stream states; code 0 when neither is known.
Codec ListedCodec(const AVCodecParameters& inParameters)
{
    const Codec* only = nullptr;
    int count = 0;
    for (const NamedCodec& known : kCodecs)
    {
        if (known.id != inParameters.codec_id)
        {
            continue;
        }
        if (known.codec.code == OwnCode(inParameters))
        {
            return known.codec;
        }
        only = &known.codec;
        ++count;
    }
    return count == 1 ? *only : Codec{};
}

Codec DVCodec(const AVCodecParameters& inParameters, AVRational inFrameRate)
{
    const long rate = inFrameRate.den > 0 ? std::lround(av_q2d(inFrameRate)) : 0;
    for (const DVForm& form : kDVForms)
    {
        if (form.pixels == inParameters.format && form.width == inParameters.width &&
            form.height == inParameters.height && form.fieldsOrFrames == rate)
        {
            return form.codec;
        }
    }
    return {};
}

//! What the codec is called in a movie, `outDepth` its bits per pixel. Refuses what has no tag, where the user gave
//! none that can settle it.
Codec ChooseCodec(const MediaSource& inSource, const AVStream& inStream, const Choice<Code>& inTag,
                  AVRational inFrameRate, VideoFormat& ioFormat, int& outDepth)
{
    const AVCodecParameters& parameters = *inStream.codecpar;
    const AVPixFmtDescriptor* pixels = PixelsOf(parameters);
    outDepth = pixels != nullptr && (pixels->flags & AV_PIX_FMT_FLAG_ALPHA) != 0 ? kDepthAlpha : kDepthOpaque;

    if (parameters.codec_id == AV_CODEC_ID_RAWVIDEO && parameters.format == AV_PIX_FMT_PAL8)
    {
        RefuseStream(inSource, inStream, "its pixels are indices into a palette, which cannot be written",
                     kConvertVideo);
    }
    if (parameters.codec_id == AV_CODEC_ID_RAWVIDEO && pixels == nullptr)
    {
        RefuseStream(inSource, inStream, "the input does not say how its pixels are laid out",
                     "rewrite the input in a container that does");
    }
    if (IsQuickTime(inSource))
    {
        const AVCodecTag* const tags[] = {avformat_get_mov_video_tags(), nullptr};
        if (av_codec_get_id(tags, parameters.codec_tag) == parameters.codec_id)
        {
            if (parameters.codec_id == AV_CODEC_ID_RAWVIDEO && parameters.bits_per_coded_sample > 0)
            {
                outDepth = parameters.bits_per_coded_sample; // It says how 'raw ' pixels are laid out.
            }
            return {OwnCode(parameters), NameOf(parameters.codec_id, OwnCode(parameters))};
        }
    }
    switch (parameters.codec_id)
    {
    case AV_CODEC_ID_RAWVIDEO: {
        if (parameters.extradata_size >= 8 && std::memcmp(parameters.extradata, "BottomUp", 8) == 0)
        {
            RefuseStream(inSource, inStream, "its rows are stored from the bottom up, which no movie can say",
                         "rewrite the input with its rows from the top down");
        }
        const auto* layout = std::find_if(kRawLayouts.begin(), kRawLayouts.end(), [&](const RawLayout& inLayout) {
            return inLayout.pixels == parameters.format;
        });
        if (layout == kRawLayouts.end())
        {
            RefuseStream(inSource, inStream,
                         fmt::format("movies have no tag for uncompressed {} pixels", PixelName(parameters)),
                         kConvertVideo);
        }
        const int size = av_image_get_buffer_size(static_cast<AVPixelFormat>(parameters.format), parameters.width,
                                                  parameters.height, 1);
        ioFormat.frameSize = static_cast<std::size_t>(std::max(size, 0));
        outDepth = layout->depth;
        return layout->codec;
    }
    case AV_CODEC_ID_PRORES: {
        const Codec stated = ListedCodec(parameters);
        if (stated.code == 0 && parameters.profile >= 0 &&
            static_cast<std::size_t>(parameters.profile) < kProResProfiles.size())
        {
            const Code code = kProResProfiles[static_cast<std::size_t>(parameters.profile)];
            return {code, NameOf(parameters.codec_id, code)};
        }
        if (stated.code == 0 && !inTag)
        {
            RefuseStream(inSource, inStream, "the input does not say which of the six flavours it is",
                         "give its tag, as in --codec-tag apch");
        }
        return stated;
    }
    case AV_CODEC_ID_DVVIDEO: {
        const Codec codec = DVCodec(parameters, inFrameRate);
        if (codec.code == 0)
        {
            RefuseStream(inSource, inStream,
                         fmt::format("movies have no tag for DV of {}x{} {} pixels at {:.5g} frames per second",
                                     parameters.width, parameters.height, PixelName(parameters), av_q2d(inFrameRate)),
                         kConvertVideo);
        }
        return codec;
    }
    case AV_CODEC_ID_DNXHD:
        if (parameters.profile >= FF_PROFILE_DNXHR_LB && parameters.profile <= FF_PROFILE_DNXHR_444)
        {
            return {MakeCode("AVdh"), "Avid DNxHR"};
        }
        if (parameters.profile != FF_PROFILE_DNXHD && !inTag)
        {
            RefuseStream(inSource, inStream, "the input does not say whether it is DNxHD or DNxHR",
                         "give its tag, --codec-tag AVdn or AVdh");
        }
        return {MakeCode("AVdn"), "Avid DNxHD"};
    default:
        break;
    }
    const Codec codec = ListedCodec(parameters);
    if (codec.code == 0)
    {
        RefuseStream(inSource, inStream,
                     fmt::format("no movie tag is known for {}", avcodec_get_name(parameters.codec_id)), kConvertVideo);
    }
    ioFormat.isOneImage = codec.code == MakeCode("jpeg");
    return codec;
}

//! Scanning. The enumeration has the interlaced orders whose fields are stored the other way round than they are shown;
//! for the two others, stored as they are shown, the pair of the field atom is written as it is.
void DescribeFields(AVFieldOrder inOrder, Quorlan::FieldType& outType, int& outDetail)
{
    outType = Quorlan::kFieldTypeProgressive;
    outDetail = 0;
    switch (inOrder)
    {
    case AV_FIELD_TB:
        outType = Quorlan::kFieldTypeLowerFirst;
        break;
    case AV_FIELD_BT:
        outType = Quorlan::kFieldTypeUpperFirst;
        break;
    case AV_FIELD_TT:
        outDetail = 1;
        break;
    case AV_FIELD_BB:
        outDetail = 6;
        break;
    default:
        break;
    }
}

//! An index that QuickTime's colour tables have for a code point of ISO/IEC 23091-2, which they share, or for one of
//! the same meaning; 2 ("unspecified"), with a note, for any other.
unsigned short ColourIndex(const char* inWhat, int inCodePoint, const char* inName,
                           std::initializer_list<int> inIndices, std::initializer_list<std::pair<int, int>> inEquals,
                           std::vector<std::string>& ioNotes)
{
    constexpr unsigned short kUnspecified = 2;
    if (inCodePoint == kUnspecified)
    {
        return kUnspecified;
    }
    for (const auto& [codePoint, index] : inEquals)
    {
        if (codePoint == inCodePoint)
        {
            return static_cast<unsigned short>(index);
        }
    }
    if (std::find(inIndices.begin(), inIndices.end(), inCodePoint) != inIndices.end())
    {
        return static_cast<unsigned short>(inCodePoint);
    }
    ioNotes.push_back(fmt::format("the format has no index for the {} {}, which is left unspecified", inWhat,
                                  inName != nullptr ? inName : std::to_string(inCodePoint)));
    return kUnspecified;
}

void DescribeColour(const AVCodecParameters& inParameters, QT::QTImageDescription& ioDescription,
                    const Choice<Colour>& inChoice, std::vector<std::string>& ioNotes)
{
    const AVPixFmtDescriptor* pixels = PixelsOf(inParameters);
    const bool isRGB = pixels != nullptr && (pixels->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    // RGB needs no matrix.
    const AVColorSpace matrix = isRGB ? AVCOL_SPC_UNSPECIFIED : inParameters.color_space;
    if (inChoice)
    {
        const Colour& colour = inChoice->value;
        ioDescription.SetColorSpaceParameter(colour.primaries, colour.transferFunction, colour.matrix);
    }
    else if (inParameters.color_primaries != AVCOL_PRI_UNSPECIFIED || inParameters.color_trc != AVCOL_TRC_UNSPECIFIED ||
             matrix != AVCOL_SPC_UNSPECIFIED)
    {
        // SMPTE 170M and BT.2020 have the transfer function of BT.709, BT.470 BG the matrix of SMPTE 170M.
        ioDescription.SetColorSpaceParameter(
            ColourIndex("colour primaries", inParameters.color_primaries,
                        av_color_primaries_name(inParameters.color_primaries), {1, 5, 6, 9, 11, 12}, {}, ioNotes),
            ColourIndex("transfer function", inParameters.color_trc, av_color_transfer_name(inParameters.color_trc),
                        {1, 4, 5, 7, 8, 13, 16, 17, 18}, {{6, 1}, {14, 1}, {15, 1}}, ioNotes),
            ColourIndex("colour matrix", matrix, av_color_space_name(matrix), {1, 6, 7, 9}, {{5, 6}}, ioNotes));
    }
    const bool isImpliedFull = inParameters.codec_id == AV_CODEC_ID_MJPEG;
    if (inParameters.color_range == AVCOL_RANGE_JPEG && !isRGB && !isImpliedFull)
    {
        ioNotes.emplace_back("the format cannot say that the values have full range");
    }
}

//! Atoms that a decoder needs: extradata that is a run of whole atoms, or an image description entry, whose extensions
//! follow its 86 fixed bytes. What the description writes by itself is not repeated.
void AddExtensions(const AVCodecParameters& inParameters, QT::QTImageDescription& ioDescription,
                   std::vector<std::string>& ioNotes)
{
    constexpr std::size_t kHeaderSize = 8;
    constexpr std::size_t kEntrySize = 86;
    constexpr std::size_t kTerminatorSize = 4; // A size of 0 may end the extensions.

    const std::uint8_t* data = inParameters.extradata;
    std::size_t size = inParameters.extradata_size > 0 ? static_cast<std::size_t>(inParameters.extradata_size) : 0;
    const bool isTag = size == 4 && std::memcmp(data, &inParameters.codec_tag, 4) == 0;
    if (size == 0 || isTag)
    {
        return;
    }
    if (size >= kEntrySize && AV_RB32(data) == size && AV_RL32(data + 4) == inParameters.codec_tag)
    {
        data += kEntrySize;
        size -= kEntrySize;
    }
    std::vector<std::pair<const std::uint8_t*, std::size_t>> atoms;
    std::size_t offset = 0;
    while (size - offset >= kHeaderSize)
    {
        const std::size_t atomSize = AV_RB32(data + offset);
        if (atomSize < kHeaderSize || atomSize > size - offset || !IsPrintable(AV_RB32(data + offset + 4)))
        {
            break;
        }
        atoms.emplace_back(data + offset, atomSize);
        offset += atomSize;
    }
    const bool isTerminated = size - offset == kTerminatorSize && AV_RB32(data + offset) == 0;
    if (offset != size && !isTerminated)
    {
        ioNotes.push_back(fmt::format("{} bytes of decoder configuration that are no atoms are left out",
                                      inParameters.extradata_size));
        return;
    }
    for (const auto& [atom, atomSize] : atoms)
    {
        const Code type = AV_RB32(atom + 4);
        if (type == MakeCode("fiel") || type == MakeCode("pasp") || type == MakeCode("colr"))
        {
            continue; // Described by the stream's parameters.
        }
        // The description copies the payload and changes nothing.
        ioDescription.AddArbitraryImageDescriptionExtension(type, const_cast<std::uint8_t*>(atom + kHeaderSize),
                                                            static_cast<int>(atomSize - kHeaderSize));
    }
}

//! The encoded size as it is shown: width scaled by the pixel aspect.
void ApplyPixelAspect(AVRational inAspect, VideoFormat& ioFormat)
{
    const std::int64_t width = av_rescale(ioFormat.trackWidth, inAspect.num, inAspect.den);
    if (width < 1 || width > kMaximumSize)
    {
        ioFormat.notes.push_back(
            fmt::format("its pixel aspect of {}:{} would make the track {} pixels wide; the track has "
                        "the encoded width",
                        inAspect.num, inAspect.den, width));
        return;
    }
    ioFormat.trackWidth = static_cast<int>(width);
}

// ---- What the user says ---------------------------------------------------------------------------------------------

//! The part of the frame to show: the chosen one, or all of it. Refuses one that is not inside the frame.
CleanAperture ApertureOf(const MediaSource& inSource, const AVStream& inStream, const Choice<CleanAperture>& inChoice)
{
    const AVCodecParameters& parameters = *inStream.codecpar;
    if (!inChoice)
    {
        return {parameters.width, parameters.height, {}};
    }
    const CleanAperture& aperture = inChoice->value;
    const auto [left, top] = aperture.position.value_or(std::pair(0, 0));
    if (aperture.width > parameters.width - left || aperture.height > parameters.height - top)
    {
        RefuseOption(inChoice->option, inSource, inStream,
                     fmt::format("its frames have {}x{} pixels", parameters.width, parameters.height),
                     "give a part that lies inside them");
    }
    return aperture;
}

//! The pixel aspect that the user chose. Refuses one that makes the picture too wide for a track.
AVRational ChosenPixelAspect(const MediaSource& inSource, const AVStream& inStream, const CleanAperture& inAperture,
                             const Chosen<Aspect>& inAspect)
{
    AVRational aspect = inAspect.value.ratio;
    if (!inAspect.value.isOfPixel)
    {
        const bool isExact = av_reduce(&aspect.num, &aspect.den, std::int64_t{aspect.num} * inAperture.height,
                                       std::int64_t{aspect.den} * inAperture.width, INT32_MAX) != 0;
        if (!isExact)
        {
            RefuseOption(inAspect.option, inSource, inStream,
                         fmt::format("the aspect of its pixels would be no ratio of 31-bit numbers for a picture of "
                                     "{}x{}",
                                     inAperture.width, inAperture.height),
                         "write the aspect in smaller numbers");
        }
    }
    const std::int64_t width = av_rescale(inAperture.width, aspect.num, aspect.den);
    if (width < 1 || width > kMaximumSize)
    {
        RefuseOption(
            inAspect.option, inSource, inStream,
            fmt::format("its picture would be shown {} pixels wide, and a track has 1 to {}", width, kMaximumSize),
            "give an aspect nearer to the picture's own");
    }
    return aspect;
}

void AddAperture(const CleanAperture& inAperture, QT::QTImageDescription& ioDescription)
{
    // The distances of the part's centre from the frame's, in halves of a pixel.
    int right = 0;
    int down = 0;
    if (inAperture.position)
    {
        right = 2 * inAperture.position->first + inAperture.width - ioDescription.GetDescriptionWidth();
        down = 2 * inAperture.position->second + inAperture.height - ioDescription.GetDescriptionHeight();
    }
    ioDescription.AddCleanAperture(static_cast<unsigned int>(inAperture.width), 1,
                                   static_cast<unsigned int>(inAperture.height), 1, right, 2, down, 2);
}

//! A tag that is known for other media than the stream's would have readers decode them wrongly.
void CheckTag(const MediaSource& inSource, const AVStream& inStream, const Chosen<Code>& inTag,
              std::vector<std::string>& ioNotes)
{
    const AVCodecParameters& parameters = *inStream.codecpar;
    const AVCodecTag* const tags[] = {avformat_get_mov_video_tags(), nullptr};
    const AVCodecID codec = av_codec_get_id(tags, av_bswap32(inTag.value));
    const bool isListed = std::any_of(kCodecs.begin(), kCodecs.end(), [&](const NamedCodec& inCodec) {
        return inCodec.id == parameters.codec_id && inCodec.codec.code == inTag.value;
    });
    const auto isOfTag = [&inTag](const RawLayout& inLayout) { return inLayout.codec.code == inTag.value; };
    const bool isOtherLayout = parameters.codec_id == AV_CODEC_ID_RAWVIDEO &&
                               std::any_of(kRawLayouts.begin(), kRawLayouts.end(), isOfTag) &&
                               std::none_of(kRawLayouts.begin(), kRawLayouts.end(), [&](const RawLayout& inLayout) {
                                   return isOfTag(inLayout) && inLayout.pixels == parameters.format;
                               });
    if (isOtherLayout)
    {
        RefuseOption(inTag.option, inSource, inStream,
                     fmt::format("the tag is for another layout of pixels than {}", PixelName(parameters)),
                     "give one for this layout, or leave the option out");
    }
    if (codec == AV_CODEC_ID_NONE && !isListed)
    {
        ioNotes.push_back(fmt::format("no codec is known for {}; readers may not find one", inTag.option));
    }
    else if (codec != parameters.codec_id && !isListed)
    {
        RefuseOption(inTag.option, inSource, inStream, fmt::format("the tag is for {}", avcodec_get_name(codec)),
                     "give one for the stream's codec, or leave the option out");
    }
}

//! What stands in the description beside shape, scanning and colour.
void ApplyOptions(const VideoOptions& inOptions, QT::QTImageDescription& ioDescription)
{
    if (inOptions.gamma)
    {
        ioDescription.AddGamma(QT::kQTGamma22);
    }
    if (inOptions.vendor)
    {
        ioDescription.SetVendorFourCC(inOptions.vendor->value);
    }
    if (inOptions.codecName)
    {
        ioDescription.SetCodecName(Tolbin::string::UTF8to16(inOptions.codecName->value));
    }
    if (inOptions.padding)
    {
        ioDescription.SetExtraPaddingAmount(inOptions.padding->value);
    }
}

} // namespace

VideoFormat DescribeVideo(const MediaSource& inSource, AVStream& ioStream, const VideoOptions& inOptions)
{
    const AVCodecParameters& parameters = *ioStream.codecpar;
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(parameters.codec_id);
    if (descriptor == nullptr)
    {
        RefuseStream(inSource, ioStream, "its codec is not known", kConvertVideo);
    }
    VideoFormat format;
    const bool isListed = std::any_of(kCodecs.begin(), kCodecs.end(), [&parameters](const NamedCodec& inCodec) {
        return inCodec.id == parameters.codec_id;
    });
    format.needsKeyFlag = (descriptor->props & AV_CODEC_PROP_INTRA_ONLY) == 0;
    if (format.needsKeyFlag && !isListed)
    {
        RefuseStream(inSource, ioStream,
                     fmt::format("{} is an inter-frame codec, and only frames that stand alone can be written",
                                 descriptor->name),
                     kConvertVideo);
    }
    if (parameters.width <= 0 || parameters.height <= 0 || parameters.width > kMaximumSize ||
        parameters.height > kMaximumSize)
    {
        RefuseStream(inSource, ioStream,
                     fmt::format("its size is {}x{} pixels, and the format holds 1 to {} either way", parameters.width,
                                 parameters.height, kMaximumSize),
                     "scale or crop it first");
    }
    int depth = 0;
    const AVRational frameRate = av_guess_frame_rate(&inSource.GetFormat(), &ioStream, nullptr);
    Codec codec = ChooseCodec(inSource, ioStream, inOptions.codecTag, frameRate, format, depth);
    if (inOptions.codecTag)
    {
        CheckTag(inSource, ioStream, *inOptions.codecTag, format.notes);
        codec = {inOptions.codecTag->value, NameOf(parameters.codec_id, inOptions.codecTag->value)};
    }

    Quorlan::FieldType fieldType = Quorlan::kFieldTypeProgressive;
    int fieldDetail = 0;
    DescribeFields(parameters.field_order, fieldType, fieldDetail);
    bool omitsField = parameters.field_order == AV_FIELD_UNKNOWN;
    if (inOptions.field)
    {
        const FieldChoice field = inOptions.field->value;
        fieldType = field == FieldChoice::kTopFirst      ? Quorlan::kFieldTypeUpperFirst
                    : field == FieldChoice::kBottomFirst ? Quorlan::kFieldTypeLowerFirst
                                                         : Quorlan::kFieldTypeProgressive;
        fieldDetail = 0;
        omitsField = field == FieldChoice::kOmit;
    }

    AVRational aspect = av_guess_sample_aspect_ratio(&inSource.GetFormat(), &ioStream, nullptr);
    if (aspect.num <= 0 || aspect.den <= 0)
    {
        aspect = {1, 1};
    }
    const CleanAperture aperture = ApertureOf(inSource, ioStream, inOptions.cleanAperture);
    if (inOptions.aspect)
    {
        aspect = ChosenPixelAspect(inSource, ioStream, aperture, *inOptions.aspect);
    }
    Tolbin::UTF16String name = Tolbin::string::AsciiToUTF16(codec.name);
    format.description = QT::CreateImageDescription(
        static_cast<int>(codec.code), name, parameters.width, parameters.height, depth, fieldType,
        {static_cast<std::uint32_t>(aspect.num), static_cast<std::uint32_t>(aspect.den)});
    AddExtensions(parameters, *format.description, format.notes);
    if (omitsField || fieldDetail != 0)
    {
        format.description->SetShouldOmitFieldExtension(true);
    }
    if (fieldDetail != 0)
    {
        std::uint8_t fields[] = {2, static_cast<std::uint8_t>(fieldDetail)};
        format.description->AddArbitraryImageDescriptionExtension(MakeCode("fiel"), fields, sizeof(fields));
    }
    DescribeColour(parameters, *format.description, inOptions.colour, format.notes);

    const AVDictionaryEntry* vendor = av_dict_get(ioStream.metadata, "vendor_id", nullptr, 0);
    if (IsQuickTime(inSource) && vendor != nullptr && std::strlen(vendor->value) == 4)
    {
        format.description->SetVendorFourCC(AV_RB32(reinterpret_cast<const std::uint8_t*>(vendor->value)));
    }
    format.trackWidth = aperture.width;
    format.trackHeight = aperture.height;
    ApplyOptions(inOptions, *format.description);
    if (inOptions.cleanAperture)
    {
        AddAperture(aperture, *format.description);
    }
    ApplyPixelAspect(aspect, format);
    format.summary = fmt::format("{} ('{}'), {}x{}", inOptions.codecName ? inOptions.codecName->value : codec.name,
                                 CodeText(codec.code), parameters.width, parameters.height);
    if (format.trackWidth != parameters.width || format.trackHeight != parameters.height)
    {
        format.summary += fmt::format(" shown as {}x{}", format.trackWidth, format.trackHeight);
    }
    return format;
}

} // namespace Host
