#include <Ventra/DiskUtils.h>
#include <Ventra/FileSystem.h>

namespace Ventra::DiskUtils
{

Tolbin::Result GetEfficientDiskBufferSizeFromPath(const Tolbin::UTF16String& inPath, unsigned int& outSize)
{
    return FileSystem::Current().GetEfficientDiskBufferSize(inPath, outSize);
}

} // namespace Ventra::DiskUtils
