#pragma once

#include "ByteSource.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Inspect
{

//! What the head of an encoded still picture says of it.
struct Picture
{
    std::uint32_t width = 0;  //!< Pixels.
    std::uint32_t height = 0; //!< Pixels.
    std::string form;         //!< How its pixels are made up, in words that are the same for the same form.

    //! Where its bytes end at least, as far as its head says so; 0 when it does not.
    std::uint64_t minimumSize = 0;
};

//! Whether pictures of a sample description's format can be read: 'png ', 'jpeg', 'tiff', 'tga ' and 'mjp2'.
bool IsPictureFormat(std::uint32_t inFormat);

//! What a picture of a known format says of itself; none when the bytes are no such picture, or end before it is said.
//! Reads some KiB at most places, and nothing of the pixels. Throws `std::system_error` when they cannot be read.
std::optional<Picture> ReadPicture(std::uint32_t inFormat, const ByteSource& inBytes);

//! Whether all bytes of a picture, read by `ReadPicture`, are there, as far as that can be told without decoding. Reads
//! its end, and more only where something follows the picture.
bool IsWhole(std::uint32_t inFormat, const Picture& inPicture, const ByteSource& inBytes);

} // namespace Inspect
