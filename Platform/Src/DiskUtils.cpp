#include "RetryInterrupted.h"

#include <Ventra/DiskUtils.h>
#include <Ventra/FileSystem.h>

namespace Ventra::DiskUtils
{

Tolbin::Result GetEfficientDiskBufferSizeFromPath(const Tolbin::UTF16String& inPath, unsigned int& outSize)
{
    constexpr unsigned int kDefaultSize = 4096;
    const Tolbin::Result result =
        RetryInterrupted([&] { return FileSystem::Current().GetEfficientDiskBufferSize(inPath, outSize); });
    if (result < 0)
    {
        outSize = kDefaultSize;
    }
    return result;
}

} // namespace Ventra::DiskUtils
