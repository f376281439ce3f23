#pragma once

#include <Tolbin/Allocator.h>

#include <cstdint>
#include <vector>

namespace Tolbin::utility
{

//! A growable array of bytes with the core library's allocator. Bytes added by `resize` are zero.
using BinaryDataArray = std::vector<std::uint8_t, allocator::STLAllocator<std::uint8_t>>;

} // namespace Tolbin::utility
