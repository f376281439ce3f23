#pragma once

#include <cstdint>

namespace Sambrel
{

//! The form of one uncompressed audio sample.
enum AudioSampleType : std::int32_t
{
    kAudioSampleTypeUInt8 = 1,
    kAudioSampleTypeInt8 = 2,
    kAudioSampleTypeInt16LE = 3,
    kAudioSampleTypeInt24LE = 4,
    kAudioSampleTypeInt32LE = 5,
    kAudioSampleTypeFloat32LE = 6,
    kAudioSampleTypeFloat64LE = 10,
    kAudioSampleTypeInt16BE = 11,
    kAudioSampleTypeInt24BE = 12,
    kAudioSampleTypeInt32BE = 13,
    kAudioSampleTypeFloat32BE = 14
};

} // namespace Sambrel
