#include "QTAtomHelpers.h"

#include <Reelmill/QTSampleDescription.h>
#include <Tolbin/Debug.h>

#include <boost/make_shared.hpp>

#include <cstddef>
#include <iterator>

// The functions of the unnamed namespace report under the names that hosts know them by, whatever a compiler would
// print.

namespace
{

//! What one sample type comes to in a file; no code for the types that cannot be written.
struct SampleTypeRow
{
    std::uint32_t code; //!< Data format of a version 1 entry.
    std::int16_t bits;  //!< Per sample.
};

constexpr SampleTypeRow kSampleTypes[] = {
    {QT::FourCC("raw "), 8},  //  1  unsigned
    {QT::FourCC("raw "), 8},  //  2  signed
    {QT::FourCC("sowt"), 16}, //  3  little-endian
    {QT::FourCC("in24"), 24}, //  4  little-endian
    {QT::FourCC("in32"), 32}, //  5  little-endian
    {QT::FourCC("fl32"), 32}, //  6  little-endian
    {},
    {},
    {},
    {QT::FourCC("fl64"), 64}, // 10  little-endian
    {QT::FourCC("twos"), 16}, // 11  big-endian
    {QT::FourCC("in24"), 24}, // 12  big-endian
    {QT::FourCC("in32"), 32}, // 13  big-endian
    {QT::FourCC("fl32"), 32}, // 14  big-endian
};

//! The row of a sample type, or null when it cannot be written.
const SampleTypeRow* FindSampleType(Sambrel::AudioSampleType inType)
{
    const std::uint32_t index = static_cast<std::uint32_t>(inType) - 1;
    return index < std::size(kSampleTypes) && kSampleTypes[index].code != 0 ? &kSampleTypes[index] : nullptr;
}

std::uint32_t AudioSampleTypeToQTAudioFourCC(Sambrel::AudioSampleType inType)
{
    const SampleTypeRow* row = FindSampleType(inType);
    TOLBIN_ASSERT_AS(row != nullptr, "0",
                     "std::uint32_t (anonymous namespace)::AudioSampleTypeToQTAudioFourCC(Sambrel::AudioSampleType)",
                     "");
    return row != nullptr ? row->code : 0;
}

std::int16_t AudioSampleTypeToBitsPerSample(Sambrel::AudioSampleType inType)
{
    const SampleTypeRow* row = FindSampleType(inType);
    TOLBIN_ASSERT_AS(row != nullptr, "0",
                     "std::int16_t (anonymous namespace)::AudioSampleTypeToBitsPerSample(Sambrel::AudioSampleType)",
                     "");
    return row != nullptr ? row->bits : static_cast<std::int16_t>(-1);
}

bool IsBigEndian(Sambrel::AudioSampleType inType)
{
    return inType >= Sambrel::kAudioSampleTypeInt16BE && inType <= Sambrel::kAudioSampleTypeFloat32BE;
}

//! Whether a version 1 entry states the byte order in a 'wave' atom.
bool NeedsWaveAtom(Sambrel::AudioSampleType inType)
{
    return inType != Sambrel::kAudioSampleTypeUInt8 && inType != Sambrel::kAudioSampleTypeInt8 &&
           inType != Sambrel::kAudioSampleTypeInt16LE;
}

bool IsLittleEndianWave(Sambrel::AudioSampleType inType)
{
    switch (inType)
    {
    case Sambrel::kAudioSampleTypeInt24LE:
    case Sambrel::kAudioSampleTypeInt32LE:
    case Sambrel::kAudioSampleTypeFloat32LE:
    case Sambrel::kAudioSampleTypeFloat64LE:
        return true;
    default:
        return false;
    }
}

//! The linear-PCM flags of a version 2 entry.
std::uint32_t FormatFlags(Sambrel::AudioSampleType inType)
{
    constexpr std::uint32_t kFloat = 1;
    constexpr std::uint32_t kBigEndian = 2;
    constexpr std::uint32_t kSigned = 4;
    constexpr std::uint32_t kPacked = 8;
    const std::uint32_t byteOrder = IsBigEndian(inType) ? kBigEndian : 0;
    switch (inType)
    {
    case Sambrel::kAudioSampleTypeUInt8:
        return kPacked;
    case Sambrel::kAudioSampleTypeFloat32LE:
    case Sambrel::kAudioSampleTypeFloat64LE:
    case Sambrel::kAudioSampleTypeFloat32BE:
        return kFloat | byteOrder;
    default:
        return kSigned | kPacked | byteOrder;
    }
}

//! The format's labels for `AudioChannelLabel` 100 and up; 0 where there is none. Not a fixed offset.
constexpr std::uint32_t kChannelLabels[] = {
    qtn_kLabelLeft,                 // 100
    qtn_kLabelRight,                // 101
    qtn_kLabelCenter,               // 102
    qtn_kLabelLFEScreen,            // 103
    qtn_kLabelLeftSurround,         // 104
    qtn_kLabelRightSurround,        // 105
    qtn_kLabelCenterSurround,       // 106
    qtn_kLabelLeftCenter,           // 107
    qtn_kLabelRightCenter,          // 108
    qtn_kLabelLeftSurroundDirect,   // 109
    qtn_kLabelRightSurroundDirect,  // 110
    qtn_kLabelTopCenterSurround,    // 111
    qtn_kLabelVerticalHeightLeft,   // 112
    qtn_kLabelVerticalHeightRight,  // 113
    qtn_kLabelVerticalHeightCenter, // 114
    qtn_kLabelTopBackLeft,          // 115
    qtn_kLabelTopBackRight,         // 116
    qtn_kLabelTopBackCenter,        // 117
    qtn_kLabelLeftWide,             // 118
    qtn_kLabelRightWide,            // 119
    0,
    0,
    0,
    0,
    0,
    0,
    0,
    0,
    0,                           // 120 to 128
    qtn_kLabelRearSurroundLeft,  // 129
    qtn_kLabelRearSurroundRight, // 130
    qtn_kLabelLFE2,              // 131
    qtn_kLabelLeftTotal,         // 132
    qtn_kLabelRightTotal,        // 133
    qtn_kLabelAmbisonicW,        // 134
    qtn_kLabelAmbisonicX,        // 135
    qtn_kLabelAmbisonicY,        // 136
    qtn_kLabelAmbisonicZ,        // 137
};
static_assert(std::size(kChannelLabels) == 38);

//! The format's label for a channel. `channel` numbers a discrete one; `single` says that the layout has no other.
qtn_AudioChannelLabel MakeQTAudioChannelLabel(Quorlan::AudioChannelLabel label, int channel, bool single, bool discrete)
{
    if (single && !discrete)
    {
        return qtn_kLabelMono;
    }
    if (label == Quorlan::kAudioChannelLabelDiscrete)
    {
        return discrete ? static_cast<qtn_AudioChannelLabel>(qtn_kLabelDiscrete0 + QT::Bits32(channel))
                        : qtn_kLabelMono;
    }
    const std::uint32_t index = static_cast<std::uint32_t>(label) - Quorlan::kAudioChannelLabelLeft;
    if (index < std::size(kChannelLabels) && kChannelLabels[index] != 0)
    {
        return static_cast<qtn_AudioChannelLabel>(kChannelLabels[index]);
    }
    TOLBIN_ASSERT_AS(false, "0",
                     "qtn_AudioChannelLabel (anonymous namespace)::MakeQTAudioChannelLabel("
                     "Quorlan::AudioChannelLabel, int, bool, bool)",
                     "Unknown channel label!\n");
    return qtn_kLabelUnknown;
}

//! 'chan': 24 bytes, then 20 for each channel (present, but zero, where a layout tag says it all). Leaves `outAtom`
//! alone when labels and channels do not agree in number.
void MakeAudioChannelLayoutAtom(Tolbin::utility::BinaryDataArray& outAtom, int inChannelCount, int inDiscreteChannel,
                                Quorlan::AudioChannelLayout& inChannels, bool inDiscrete)
{
    const bool isCountRight = inChannelCount >= 0 && inChannels.size() == static_cast<std::size_t>(inChannelCount);
    TOLBIN_ASSERT_AS(isCountRight, "0",
                     "void (anonymous namespace)::MakeAudioChannelLayoutAtom(Tolbin::utility::BinaryDataArray &, int, "
                     "int, Quorlan::AudioChannelLayout &, bool)",
                     "Audio layout size doesn't match the number of channels\n");
    if (!isCountRight)
    {
        return;
    }
    const std::size_t size =
        sizeof(qtn_AudioChannelLayoutAtom) + inChannels.size() * sizeof(qtn_AudioChannelDescription);
    qtn_AudioChannelLayoutAtom layout;
    layout.header = qtn_GenericAtomHeader(QT::Low32(size), QT::FourCC("chan"));
    outAtom.assign(size, 0);

    const bool isStereo = inChannels.size() == 2 && inChannels[0].GetLabel() == Quorlan::kAudioChannelLabelLeft &&
                          inChannels[1].GetLabel() == Quorlan::kAudioChannelLabelRight;
    if (isStereo)
    {
        layout.layoutTag = qtn_kLayoutTagStereo;
        QT::StoreRecord(outAtom, 0, layout);
        return;
    }
    layout.descriptionCount = QT::Bits32(inChannelCount);
    QT::StoreRecord(outAtom, 0, layout);
    const bool isSingle = inChannelCount == 1;
    for (int channel = 0; channel < inChannelCount; ++channel)
    {
        const auto index = static_cast<std::size_t>(channel);
        qtn_AudioChannelDescription description;
        description.label = MakeQTAudioChannelLabel(inChannels[index].GetLabel(),
                                                    isSingle ? inDiscreteChannel : channel, isSingle, inDiscrete);
        QT::StoreRecord(outAtom, sizeof(layout) + index * sizeof(description), description);
    }
}

} // namespace

namespace QT
{

class PrivateQTSoundDescription final : public QTSoundDescription
{
public:
    PrivateQTSoundDescription(std::int32_t inDiscreteChannel, std::int32_t inChannelCount, std::int32_t inSampleRate,
                              Sambrel::AudioSampleType inSampleType, const Quorlan::AudioChannelLayout& inChannels,
                              bool inDiscrete)
        : mDiscreteChannel(inDiscreteChannel),
          mChannelCount(inChannelCount),
          mSampleRate(inSampleRate),
          mSampleType(inSampleType),
          mChannels(inChannels),
          mDiscrete(inDiscrete)
    {
    }

    // The entry: 52 fixed bytes and ['wave'], or 72 fixed bytes; then ['chan'].
    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        if (mChannelCount <= 2 && Bits32(mSampleRate) <= 0xFFFF)
        {
            ReplaceWithRecord(outEntry, MakeVersion1Entry());
            if (NeedsWaveAtom(mSampleType))
            {
                qtn_WaveAtom wave;
                wave.dataFormat = AudioSampleTypeToQTAudioFourCC(mSampleType);
                wave.littleEndian = IsLittleEndianWave(mSampleType) ? 1 : 0;
                AppendRecord(outEntry, wave);
            }
        }
        else
        {
            ReplaceWithRecord(outEntry, MakeVersion2Entry());
        }
        Tolbin::utility::BinaryDataArray layout;
        MakeAudioChannelLayoutAtom(layout, mChannelCount, mDiscreteChannel, mChannels, mDiscrete);
        outEntry.insert(outEntry.end(), layout.begin(), layout.end());
        StoreRecord(outEntry, 0, big_uint32_t(Low32(outEntry.size())));
    }

private:
    qtn_SoundDescriptionV1 MakeVersion1Entry() const
    {
        qtn_SoundDescriptionV1 sound;
        sound.entry.header = qtn_GenericAtomHeader(sizeof(sound), AudioSampleTypeToQTAudioFourCC(mSampleType));
        sound.numberOfChannels = Low16(Bits32(mChannelCount));
        sound.sampleSize = Low16(Bits32(AudioSampleTypeToBitsPerSample(mSampleType)));
        sound.sampleRate = Bits32(mSampleRate) << 16;
        const std::int32_t bytesPerSample = AudioSampleTypeToBitsPerSample(mSampleType) / 8;
        sound.bytesPerPacket = Bits32(bytesPerSample);
        sound.bytesPerFrame = Bits32(mChannelCount) * Bits32(bytesPerSample);
        sound.bytesPerSample = Bits32(bytesPerSample);
        return sound;
    }

    qtn_SoundDescriptionV2 MakeVersion2Entry() const
    {
        qtn_SoundDescriptionV2 sound;
        sound.sampleRate = mSampleRate;
        sound.numberOfChannels = Bits32(mChannelCount);
        sound.bitsPerChannel = Bits32(AudioSampleTypeToBitsPerSample(mSampleType));
        sound.formatFlags = FormatFlags(mSampleType);
        const std::int64_t bitsPerPacket = std::int64_t{AudioSampleTypeToBitsPerSample(mSampleType)} * mChannelCount;
        sound.bytesPerPacket = Low32(static_cast<std::uint64_t>(bitsPerPacket / 8));
        return sound;
    }

    std::int32_t mDiscreteChannel; //!< Number of the only channel of a one-channel track with discrete labelling.
    std::int32_t mChannelCount;    //!< Per sample frame.
    std::int32_t mSampleRate;      //!< Hertz.
    Sambrel::AudioSampleType mSampleType;
    Quorlan::AudioChannelLayout mChannels;
    bool mDiscrete;
};

boost::shared_ptr<QTSoundDescription> CreateSoundDescription(int inDiscreteChannel, int inChannelCount,
                                                             int inSampleRate, Sambrel::AudioSampleType inSampleType,
                                                             const Quorlan::AudioChannelLayout& inChannels,
                                                             bool inDiscrete)
{
    return boost::make_shared<PrivateQTSoundDescription>(inDiscreteChannel, inChannelCount, inSampleRate, inSampleType,
                                                         inChannels, inDiscrete);
}

} // namespace QT
