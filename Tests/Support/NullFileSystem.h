#pragma once

#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>
#include <Ventra/FileSystem.h>

#include <algorithm>
#include <cerrno>
#include <map>

//! Opens every path, takes every write and keeps of it only how long the file has become, on a local volume with a disk
//! buffer of 4096 bytes. What runs on it can be measured without the system and without a disk.
class NullFileSystem final : public Ventra::FileSystem
{
public:
    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override
    {
        std::int64_t& size = mSizes[inPath];
        size = inMode.disposition == Ventra::FileCreateDispositionFlags::kOpenExisting ? size : 0;
        outHandle = reinterpret_cast<Handle>(&size);
        return 0;
    }

    Tolbin::Result Read(Handle, std::int64_t, void*, std::size_t, std::size_t& outRead) override
    {
        outRead = 0;
        return Tolbin::ResultFromSystemError(EIO);
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void*, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        SizeOf(inHandle) = std::max(SizeOf(inHandle), inOffset + static_cast<std::int64_t>(inLength));
        outWritten = inLength;
        return 0;
    }

    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override
    {
        const std::int64_t from = inMethod == Ventra::FilePointerMoveMethod::kBegin     ? 0
                                  : inMethod == Ventra::FilePointerMoveMethod::kCurrent ? ioPosition
                                                                                        : SizeOf(inHandle);
        ioPosition = from + inDistance;
        return 0;
    }

    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override
    {
        outSize = SizeOf(inHandle);
        return 0;
    }

    Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) override
    {
        SizeOf(inHandle) = inSize;
        return 0;
    }

    Tolbin::Result Sync(Handle) override { return 0; }

    Tolbin::Result Close(Handle) override { return 0; }

    Ventra::FileSystemType::Type GetType(Handle) override { return Ventra::FileSystemType::kLocal; }

    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String&, unsigned int& outSize) override
    {
        outSize = 4096;
        return 0;
    }

    Tolbin::Result Remove(const Tolbin::UTF16String&) override { return 0; }

private:
    //! A handle is the address of the file's size.
    static std::int64_t& SizeOf(Handle inHandle) { return *reinterpret_cast<std::int64_t*>(inHandle); }

    std::map<Tolbin::UTF16String, std::int64_t> mSizes; //!< Of all files ever opened.
};
