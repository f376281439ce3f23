#pragma once

// What the on-disk records are made of: byte order, four-character codes, fixed-point constants.

#include <boost/endian/arithmetic.hpp>
#include <boost/endian/conversion.hpp>

#include <cstdint>
#include <type_traits>

//! Converts between host order and big-endian; its own inverse.
constexpr std::uint32_t TO_BIG(std::uint32_t inValue)
{
    return boost::endian::native_to_big(inValue);
}

//! What every type stored in a file must be: plain bytes that can stand at any address.
template <typename T>
inline constexpr bool IsDiskRecord = std::is_trivially_copyable_v<T>&& std::is_standard_layout_v<T> && alignof(T) == 1;

namespace QT
{

//! A four-character code from its characters, the first in the most significant byte.
constexpr std::uint32_t FourCC(const char (&inText)[5])
{
    std::uint32_t code = 0;
    for (int i = 0; i < 4; ++i)
    {
        code = (code << 8) | static_cast<unsigned char>(inText[i]);
    }
    return code;
}

//! The two's-complement bits of a signed value, as the format stores it.
constexpr std::uint32_t Bits32(std::int32_t inValue)
{
    return static_cast<std::uint32_t>(inValue);
}

//! The low 32 bits of a value whose field is no wider.
constexpr std::uint32_t Low32(std::uint64_t inValue)
{
    return static_cast<std::uint32_t>(inValue);
}

//! The low 16 bits of a value whose field is no wider.
constexpr std::uint16_t Low16(std::uint32_t inValue)
{
    return static_cast<std::uint16_t>(inValue);
}

//! The low 8 bits of a value whose field is no wider.
constexpr std::uint8_t Low8(std::uint32_t inValue)
{
    return static_cast<std::uint8_t>(inValue);
}

//! Length of an atom header, and so of an atom without payload.
constexpr std::int32_t kAtomHeaderSize = 8;

//! Atoms stay below 2 GiB: their sizes are taken as signed 32-bit values.
constexpr std::uint64_t kMaxAtomSize = 0x7FFFFFFF;

constexpr std::uint32_t kFixedOne = 0x00010000;     //!< 1.0 as 16.16.
constexpr std::uint16_t kShortFixedOne = 0x0100;    //!< 1.0 as 8.8.
constexpr std::uint32_t kFractOne = 0x40000000;     //!< 1.0 as 2.30.
constexpr std::uint16_t kDitherCopyMode = 0x0040;   //!< Graphics mode of everything that shows a picture.
constexpr std::uint16_t kOpColorComponent = 0x8000; //!< Red, green and blue of its opcolor.

} // namespace QT
