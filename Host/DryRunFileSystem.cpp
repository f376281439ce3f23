#include "DryRunFileSystem.h"

#include <Tolbin/String.h>
#include <Ventra/File.h>

#include <algorithm>
#include <cerrno>

namespace Host
{

namespace
{
constexpr Ventra::FileSystem::Handle kOrdinaryHandle = 1;
constexpr Ventra::FileSystem::Handle kUnbufferedHandle = 2;
} // namespace

void DryRunFileSystem::Content::Write(std::uint64_t inOffset, const void* inData, std::size_t inLength, bool inIsKept)
{
    if (inIsKept)
    {
        const auto* bytes = static_cast<const std::uint8_t*>(inData);
        mExtents.push_back({inOffset, {bytes, bytes + inLength}});
    }
    mSize = std::max(mSize, inOffset + inLength);
}

std::size_t DryRunFileSystem::Content::Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const
{
    const std::uint64_t end = std::min(mSize, inOffset + outBytes.size());
    std::fill(outBytes.begin(), outBytes.end(), std::uint8_t{0});
    for (const Extent& extent : mExtents)
    {
        const std::uint64_t from = std::max(inOffset, extent.offset);
        const std::uint64_t to = std::min(end, extent.offset + extent.bytes.size());
        if (from < to)
        {
            std::copy_n(extent.bytes.data() + (from - extent.offset), to - from, outBytes.data() + (from - inOffset));
        }
    }
    return inOffset < end ? static_cast<std::size_t>(end - inOffset) : 0;
}

DryRunFileSystem::DryRunFileSystem(const std::filesystem::path& inFolder)
{
    const Tolbin::UTF16String folder = Tolbin::string::PathToUTF16(inFolder.string());
    Ventra::File file;
    static_cast<void>(file.Create(folder, Ventra::FileAccessFlags::kRead, Ventra::FileShareModeFlags::kReadWrite,
                                  Ventra::FileCreateDispositionFlags::kOpenExisting,
                                  Ventra::FileAttributesFlags::kNormal, false));
    mType = file.GetFileSystemType(); // That of a local volume when the folder cannot be opened.
    mBufferSizeResult = Ventra::FileSystem::Current().GetEfficientDiskBufferSize(folder, mBufferSize);
}

Tolbin::Result DryRunFileSystem::Open(const Tolbin::UTF16String&, const Ventra::FileOpenMode& inMode, Handle& outHandle)
{
    const bool isUnbuffered = (inMode.attributes & Ventra::FileAttributesFlags::kUnbuffered) != 0;
    outHandle = isUnbuffered ? kUnbufferedHandle : kOrdinaryHandle;
    return Tolbin::kResultSuccess;
}

Tolbin::Result DryRunFileSystem::Read(Handle, std::int64_t inOffset, void* outData, std::size_t inLength,
                                      std::size_t& outRead)
{
    outRead = mContent.Read(static_cast<std::uint64_t>(inOffset), {static_cast<std::uint8_t*>(outData), inLength});
    return Tolbin::kResultSuccess;
}

Tolbin::Result DryRunFileSystem::Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                                       std::size_t& outWritten)
{
    mContent.Write(static_cast<std::uint64_t>(inOffset), inData, inLength, inHandle == kOrdinaryHandle);
    outWritten = inLength;
    return Tolbin::kResultSuccess;
}

Tolbin::Result DryRunFileSystem::Seek(Handle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                                      std::int64_t& ioPosition)
{
    const std::int64_t base = inMethod == Ventra::FilePointerMoveMethod::kBegin ? 0
                              : inMethod == Ventra::FilePointerMoveMethod::kEnd
                                  ? static_cast<std::int64_t>(mContent.GetSize())
                                  : ioPosition;
    if (inDistance < -base)
    {
        return Tolbin::ResultFromSystemError(EINVAL);
    }
    ioPosition = base + inDistance;
    return Tolbin::kResultSuccess;
}

Tolbin::Result DryRunFileSystem::GetSize(Handle, std::int64_t& outSize)
{
    outSize = static_cast<std::int64_t>(mContent.GetSize());
    return Tolbin::kResultSuccess;
}

Tolbin::Result DryRunFileSystem::SetSize(Handle, std::int64_t)
{
    return Tolbin::ResultFromSystemError(ENOTSUP); // A movie that is written only grows.
}

Tolbin::Result DryRunFileSystem::Remove(const Tolbin::UTF16String&)
{
    return Tolbin::ResultFromSystemError(ENOTSUP);
}

Tolbin::Result DryRunFileSystem::Sync(Handle)
{
    return Tolbin::kResultSuccess;
}

Tolbin::Result DryRunFileSystem::Close(Handle)
{
    return Tolbin::kResultSuccess;
}

Ventra::FileSystemType::Type DryRunFileSystem::GetType(Handle)
{
    return mType;
}

Tolbin::Result DryRunFileSystem::GetEfficientDiskBufferSize(const Tolbin::UTF16String&, unsigned int& outSize)
{
    outSize = mBufferSizeResult >= 0 ? mBufferSize : outSize; // Set on success only.
    return mBufferSizeResult;
}

} // namespace Host
