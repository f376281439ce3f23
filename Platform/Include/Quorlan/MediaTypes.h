#pragma once

#include <Tolbin/Allocator.h>

#include <cstdint>
#include <vector>

namespace Quorlan
{

//! How a video frame is scanned.
enum FieldType : std::int32_t
{
    kFieldTypeProgressive = 0,
    kFieldTypeLowerFirst = 1, //!< Interlaced, bottom field displayed first.
    kFieldTypeUpperFirst = 2  //!< Interlaced, top field displayed first.
};

//! Width of a pixel divided by its height. Any two values are kept as they are.
class PixelAspectRatio
{
public:
    constexpr PixelAspectRatio(std::uint32_t inNumerator, std::uint32_t inDenominator)
        : mNumerator(inNumerator), mDenominator(inDenominator)
    {
    }

    constexpr std::uint32_t GetNumerator() const { return mNumerator; }
    constexpr std::uint32_t GetDenominator() const { return mDenominator; }

private:
    std::uint32_t mNumerator;
    std::uint32_t mDenominator;
};

//! What one audio channel is for.
enum AudioChannelLabel : std::uint32_t
{
    kAudioChannelLabelDiscrete = 0, //!< No position: the track's discrete labelling says what becomes of it.
    kAudioChannelLabelLeft = 100,
    kAudioChannelLabelRight = 101,
    kAudioChannelLabelCenter = 102,
    kAudioChannelLabelLFEScreen = 103,
    kAudioChannelLabelLeftSurround = 104,
    kAudioChannelLabelRightSurround = 105,
    kAudioChannelLabelCenterSurround = 106,
    kAudioChannelLabelLeftCenter = 107,
    kAudioChannelLabelRightCenter = 108,
    kAudioChannelLabelLeftSurroundDirect = 109,
    kAudioChannelLabelRightSurroundDirect = 110,
    kAudioChannelLabelTopCenterSurround = 111,
    kAudioChannelLabelVerticalHeightLeft = 112,
    kAudioChannelLabelVerticalHeightRight = 113,
    kAudioChannelLabelVerticalHeightCenter = 114,
    kAudioChannelLabelTopBackLeft = 115,
    kAudioChannelLabelTopBackRight = 116,
    kAudioChannelLabelTopBackCenter = 117,
    kAudioChannelLabelLeftWide = 118,
    kAudioChannelLabelRightWide = 119,
    kAudioChannelLabelRearSurroundLeft = 129,
    kAudioChannelLabelRearSurroundRight = 130,
    kAudioChannelLabelLFE2 = 131,
    kAudioChannelLabelLeftTotal = 132,
    kAudioChannelLabelRightTotal = 133,
    kAudioChannelLabelAmbisonicW = 134,
    kAudioChannelLabelAmbisonicX = 135,
    kAudioChannelLabelAmbisonicY = 136,
    kAudioChannelLabelAmbisonicZ = 137
};

//! One channel of an audio layout.
class AudioChannelDescription
{
public:
    constexpr AudioChannelDescription(AudioChannelLabel inLabel) : mLabel(inLabel) {}

    constexpr AudioChannelLabel GetLabel() const { return mLabel; }

private:
    AudioChannelLabel mLabel;
};

//! The channels of a track, in channel order.
using AudioChannelLayout =
    std::vector<AudioChannelDescription, Tolbin::allocator::STLAllocator<AudioChannelDescription>>;

} // namespace Quorlan
