#pragma once

#include <Tolbin/Export.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>

namespace Ventra::DiskUtils
{

//! The size of the writes that the volume of an existing file takes best: a power of two, no less than what unbuffered
//! writes must align to, 4096 when the system gives nothing usable, and at most 4 MiB.
//!
//! \return 0; an error of the system, and `outSize` is 4096.
TOLBIN_EXPORT Tolbin::Result GetEfficientDiskBufferSizeFromPath(const Tolbin::UTF16String& inPath,
                                                                unsigned int& outSize);

} // namespace Ventra::DiskUtils
