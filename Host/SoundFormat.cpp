#include "SoundFormat.h"

#include <boost/endian/conversion.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/format.h>

namespace Host
{

namespace
{

struct SampleForm
{
    AVCodecID codec;
    Sambrel::AudioSampleType type;
    int bytes;
};

constexpr std::array<SampleForm, 11> kSampleForms = {{
    {AV_CODEC_ID_PCM_U8, Sambrel::kAudioSampleTypeUInt8, 1},
    {AV_CODEC_ID_PCM_S8, Sambrel::kAudioSampleTypeInt8, 1},
    {AV_CODEC_ID_PCM_S16LE, Sambrel::kAudioSampleTypeInt16LE, 2},
    {AV_CODEC_ID_PCM_S24LE, Sambrel::kAudioSampleTypeInt24LE, 3},
    {AV_CODEC_ID_PCM_S32LE, Sambrel::kAudioSampleTypeInt32LE, 4},
    {AV_CODEC_ID_PCM_F32LE, Sambrel::kAudioSampleTypeFloat32LE, 4},
    {AV_CODEC_ID_PCM_F64LE, Sambrel::kAudioSampleTypeFloat64LE, 8},
    {AV_CODEC_ID_PCM_S16BE, Sambrel::kAudioSampleTypeInt16BE, 2},
    {AV_CODEC_ID_PCM_S24BE, Sambrel::kAudioSampleTypeInt24BE, 3},
    {AV_CODEC_ID_PCM_S32BE, Sambrel::kAudioSampleTypeInt32BE, 4},
    {AV_CODEC_ID_PCM_F32BE, Sambrel::kAudioSampleTypeFloat32BE, 4},
}};

//! The label of a speaker position. The movie format's channel bitmap has the bits of a WAVE channel mask, so that its
//! "left surround" (bit 4) is what libav calls back left, and its "left surround direct" (bit 9) is side left.
Quorlan::AudioChannelLabel LabelOf(int inChannel)
{
    switch (inChannel)
    {
    case AV_CHAN_FRONT_LEFT:
        return Quorlan::kAudioChannelLabelLeft;
    case AV_CHAN_FRONT_RIGHT:
        return Quorlan::kAudioChannelLabelRight;
    case AV_CHAN_FRONT_CENTER:
        return Quorlan::kAudioChannelLabelCenter;
    case AV_CHAN_LOW_FREQUENCY:
        return Quorlan::kAudioChannelLabelLFEScreen;
    case AV_CHAN_BACK_LEFT:
        return Quorlan::kAudioChannelLabelLeftSurround;
    case AV_CHAN_BACK_RIGHT:
        return Quorlan::kAudioChannelLabelRightSurround;
    case AV_CHAN_FRONT_LEFT_OF_CENTER:
        return Quorlan::kAudioChannelLabelLeftCenter;
    case AV_CHAN_FRONT_RIGHT_OF_CENTER:
        return Quorlan::kAudioChannelLabelRightCenter;
    case AV_CHAN_BACK_CENTER:
        return Quorlan::kAudioChannelLabelCenterSurround;
    case AV_CHAN_SIDE_LEFT:
    case AV_CHAN_SURROUND_DIRECT_LEFT:
        return Quorlan::kAudioChannelLabelLeftSurroundDirect;
    case AV_CHAN_SIDE_RIGHT:
    case AV_CHAN_SURROUND_DIRECT_RIGHT:
        return Quorlan::kAudioChannelLabelRightSurroundDirect;
    case AV_CHAN_TOP_CENTER:
        return Quorlan::kAudioChannelLabelTopCenterSurround;
    case AV_CHAN_TOP_FRONT_LEFT:
        return Quorlan::kAudioChannelLabelVerticalHeightLeft;
    case AV_CHAN_TOP_FRONT_CENTER:
        return Quorlan::kAudioChannelLabelVerticalHeightCenter;
    case AV_CHAN_TOP_FRONT_RIGHT:
        return Quorlan::kAudioChannelLabelVerticalHeightRight;
    case AV_CHAN_TOP_BACK_LEFT:
        return Quorlan::kAudioChannelLabelTopBackLeft;
    case AV_CHAN_TOP_BACK_CENTER:
        return Quorlan::kAudioChannelLabelTopBackCenter;
    case AV_CHAN_TOP_BACK_RIGHT:
        return Quorlan::kAudioChannelLabelTopBackRight;
    case AV_CHAN_STEREO_LEFT:
        return Quorlan::kAudioChannelLabelLeftTotal;
    case AV_CHAN_STEREO_RIGHT:
        return Quorlan::kAudioChannelLabelRightTotal;
    case AV_CHAN_WIDE_LEFT:
        return Quorlan::kAudioChannelLabelLeftWide;
    case AV_CHAN_WIDE_RIGHT:
        return Quorlan::kAudioChannelLabelRightWide;
    case AV_CHAN_LOW_FREQUENCY_2:
        return Quorlan::kAudioChannelLabelLFE2;
    // Ambisonic components are numbered W, Y, Z, X.
    case AV_CHAN_AMBISONIC_BASE:
        return Quorlan::kAudioChannelLabelAmbisonicW;
    case AV_CHAN_AMBISONIC_BASE + 1:
        return Quorlan::kAudioChannelLabelAmbisonicY;
    case AV_CHAN_AMBISONIC_BASE + 2:
        return Quorlan::kAudioChannelLabelAmbisonicZ;
    case AV_CHAN_AMBISONIC_BASE + 3:
        return Quorlan::kAudioChannelLabelAmbisonicX;
    default:
        return Quorlan::kAudioChannelLabelDiscrete;
    }
}

std::string LayoutName(const AVChannelLayout& inLayout)
{
    if (inLayout.order == AV_CHANNEL_ORDER_UNSPEC)
    {
        return inLayout.nb_channels == 1 ? "mono" : fmt::format("{} channels", inLayout.nb_channels);
    }
    std::array<char, 256> text = {};
    const int length = av_channel_layout_describe(&inLayout, text.data(), text.size());
    return length > 0 ? std::string(text.data()) : fmt::format("{} channels", inLayout.nb_channels);
}

//! A version 1 entry says "raw " for both 8-bit forms, which readers take as unsigned. In such an entry the format has
//! 'twos' for signed samples of 8 bits; nothing else differs.
class SignedByteDescription final : public QT::QTSampleDescription
{
public:
    explicit SignedByteDescription(boost::shared_ptr<QT::QTSampleDescription> inDescription)
        : mDescription(std::move(inDescription))
    {
    }

    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        constexpr std::size_t kDataFormatOffset = 4;
        mDescription->GetAsBinary(outEntry);
        if (std::memcmp(outEntry.data() + kDataFormatOffset, "raw ", 4) == 0)
        {
            std::memcpy(outEntry.data() + kDataFormatOffset, "twos", 4);
        }
    }

private:
    boost::shared_ptr<QT::QTSampleDescription> mDescription;
};

//! The library numbers the discrete channels of several by their place, from 0. This numbers them from elsewhere.
class RenumberedDescription final : public QT::QTSampleDescription
{
public:
    RenumberedDescription(boost::shared_ptr<QT::QTSampleDescription> inDescription, int inChannelCount, int inFirst)
        : mDescription(std::move(inDescription)),
          mChannelCount(static_cast<std::size_t>(inChannelCount)),
          mFirst(static_cast<std::uint32_t>(inFirst))
    {
    }

    //! The entry ends with the channel layout, and that with 20 bytes for each channel: its label, then 0.
    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        constexpr std::size_t kChannelSize = 20;
        constexpr std::uint32_t kDiscrete0 = 0x10000;
        mDescription->GetAsBinary(outEntry);
        std::uint8_t* channel = outEntry.data() + outEntry.size() - mChannelCount * kChannelSize;
        for (std::uint32_t index = 0; index < mChannelCount; ++index, channel += kChannelSize)
        {
            boost::endian::store_big_u32(channel, kDiscrete0 + mFirst + index);
        }
    }

private:
    boost::shared_ptr<QT::QTSampleDescription> mDescription;
    std::size_t mChannelCount;
    std::uint32_t mFirst;
};

//! The labels that the user gave. Refuses what does not fit the stream.
Quorlan::AudioChannelLayout ChosenLabels(const MediaSource& inSource, const AVStream& inStream,
                                         const AudioLabels& inLabels)
{
    const int count = inStream.codecpar->ch_layout.nb_channels;
    if (!inLabels.labels.empty() && inLabels.labels.size() != static_cast<std::size_t>(count))
    {
        RefuseOption(inLabels.option, inSource, inStream,
                     fmt::format("the channels are {}, and the labels {}", count, inLabels.labels.size()),
                     "give one for each channel");
    }
    constexpr int kMaximumDiscrete = 0xFFFF;
    if (inLabels.firstDiscrete + count - 1 > kMaximumDiscrete)
    {
        RefuseOption(inLabels.option, inSource, inStream,
                     fmt::format("the channels are {}, and numbers end at {}", count, kMaximumDiscrete),
                     "begin with a lower number");
    }
    if (inLabels.labels.empty())
    {
        return Quorlan::AudioChannelLayout(static_cast<std::size_t>(count), Quorlan::kAudioChannelLabelDiscrete);
    }
    return {inLabels.labels.begin(), inLabels.labels.end()};
}

//! "L R" or "6 discrete channels from 9", for people.
std::string NamesOf(const AudioLabels& inChoice, const Quorlan::AudioChannelLayout& inLabels)
{
    if (inChoice.labels.empty())
    {
        return fmt::format("{} discrete channels from {}", inLabels.size(), inChoice.firstDiscrete);
    }
    std::string names;
    for (const Quorlan::AudioChannelDescription& channel : inLabels)
    {
        names += (names.empty() ? "" : " ");
        names += LabelName(channel.GetLabel());
    }
    return names;
}

//! The labels of the stream's channels, and whether those without a position are numbered (`outDiscrete`). A position
//! that the input does not state is never guessed; only a single channel means mono.
Quorlan::AudioChannelLayout LabelsOf(const AVChannelLayout& inLayout, bool& outDiscrete,
                                     std::vector<std::string>& ioNotes)
{
    Quorlan::AudioChannelLayout labels;
    const bool isStated = inLayout.order != AV_CHANNEL_ORDER_UNSPEC;
    for (int index = 0; index < inLayout.nb_channels; ++index)
    {
        const int channel =
            isStated ? av_channel_layout_channel_from_index(&inLayout, static_cast<unsigned int>(index)) : AV_CHAN_NONE;
        Quorlan::AudioChannelLabel label = LabelOf(channel);
        const bool isRepeated = std::any_of(labels.begin(), labels.end(),
                                            [label](const auto& inOther) { return inOther.GetLabel() == label; });
        if (isRepeated)
        {
            label = Quorlan::kAudioChannelLabelDiscrete;
        }
        if (isStated && label == Quorlan::kAudioChannelLabelDiscrete)
        {
            std::array<char, 64> name = {};
            av_channel_name(name.data(), name.size(), static_cast<AVChannel>(channel));
            ioNotes.push_back(fmt::format("the format has no label for channel {} ({}), which is labelled as discrete",
                                          index + 1, name.data()));
        }
        labels.emplace_back(label);
    }
    const bool isMono =
        inLayout.nb_channels == 1 && (!isStated || labels[0].GetLabel() == Quorlan::kAudioChannelLabelCenter);
    outDiscrete = !isMono;
    if (!isStated && !isMono)
    {
        ioNotes.push_back(fmt::format("the input does not say what its {} channels are for; they are labelled as "
                                      "discrete",
                                      inLayout.nb_channels));
    }
    return labels;
}

} // namespace

SoundFormat DescribeSound(const MediaSource& inSource, const AVStream& inStream, const AudioLabels* inLabels,
                          std::optional<int> inChannel)
{
    const AVCodecParameters& parameters = *inStream.codecpar;
    const auto* form = std::find_if(kSampleForms.begin(), kSampleForms.end(), [&parameters](const SampleForm& inForm) {
        return inForm.codec == parameters.codec_id;
    });
    if (form == kSampleForms.end())
    {
        const AVCodecDescriptor* codec = avcodec_descriptor_get(parameters.codec_id);
        const bool isPCM = codec != nullptr && std::strncmp(codec->name, "pcm_", 4) == 0;
        RefuseStream(inSource, inStream,
                     codec == nullptr ? "its codec is not known"
                     : isPCM          ? fmt::format("{} is not a form of PCM that the format can hold", codec->name)
                                      : fmt::format("{} is compressed, and only PCM audio can be written", codec->name),
                     "convert it to PCM of 8 to 32 bits first");
    }
    int channels = parameters.ch_layout.nb_channels;
    if (channels <= 0 || channels > UINT16_MAX)
    {
        RefuseStream(inSource, inStream,
                     fmt::format("it has {} channels, and a track has 1 to {}", channels, UINT16_MAX),
                     "get a sound copy of the input, or divide its channels");
    }
    if (parameters.sample_rate <= 0)
    {
        RefuseStream(inSource, inStream, fmt::format("its sample rate is {} Hz", parameters.sample_rate),
                     "get a sound copy of the input");
    }
    SoundFormat format;
    format.sampleRate = parameters.sample_rate;
    format.bytesPerFrame = channels * form->bytes;
    format.bytesPerSample = form->bytes;
    if (parameters.block_align != 0 && parameters.block_align != format.bytesPerFrame)
    {
        RefuseStream(
            inSource, inStream,
            fmt::format("its sample frames have {} bytes instead of {}", parameters.block_align, format.bytesPerFrame),
            "convert it to PCM without padding first");
    }
    bool isDiscrete = inLabels != nullptr;
    Quorlan::AudioChannelLayout labels = inLabels != nullptr ? ChosenLabels(inSource, inStream, *inLabels)
                                                             : LabelsOf(parameters.ch_layout, isDiscrete, format.notes);
    std::string layout = inLabels != nullptr ? NamesOf(*inLabels, labels) : LayoutName(parameters.ch_layout);
    const bool isNumbered = inLabels != nullptr && inLabels->firstDiscrete > 0;
    int firstDiscrete = inLabels != nullptr ? inLabels->firstDiscrete : 0;
    if (inChannel && channels > 1)
    {
        const Quorlan::AudioChannelDescription label = labels[static_cast<std::size_t>(*inChannel)];
        layout = fmt::format("channel {} of {} ({})", *inChannel + 1, channels, LabelName(label.GetLabel()));
        labels = {label};
        firstDiscrete += *inChannel;
        channels = 1;
    }
    format.description =
        QT::CreateSoundDescription(firstDiscrete, channels, format.sampleRate, form->type, labels, isDiscrete);
    if (channels > 1 && isNumbered)
    {
        format.description = boost::make_shared<RenumberedDescription>(format.description, channels, firstDiscrete);
    }
    if (form->type == Sambrel::kAudioSampleTypeInt8)
    {
        format.description = boost::make_shared<SignedByteDescription>(format.description);
    }
    format.summary = fmt::format("{}, {} Hz, {}", avcodec_get_name(parameters.codec_id), format.sampleRate, layout);
    return format;
}

} // namespace Host
