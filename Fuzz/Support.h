#pragma once

#include <Ventra/FileSystem.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

//! Ends the process with a sentence unless the condition holds.
inline void Require(bool inCondition, std::string_view inWhat)
{
    if (!inCondition)
    {
        std::fprintf(stderr, "Does not hold: %.*s\n", static_cast<int>(inWhat.size()), inWhat.data());
        std::abort();
    }
}

//! Keeps files in memory and counts what changes them.
class MemoryFileSystem final : public Ventra::FileSystem
{
public:
    using Path = Tolbin::UTF16String;
    using Result = Tolbin::Result;

    explicit MemoryFileSystem(unsigned int inBufferSize) : mBufferSize(inBufferSize) {}

    bool HasFile(const Path& inPath) const { return mFiles.contains(inPath); }
    Bytes& GetFile(const Path& inPath) { return *mFiles.at(inPath); }
    std::size_t GetFileCount() const { return mFiles.size(); }
    std::size_t GetOpenCount() const { return mHandles.size(); }
    std::uint64_t GetChangeCount() const { return mChangeCount; }

    //! An empty file, in the memory that an earlier run had for it: to obtain it anew takes longer than the run.
    Bytes& MakeFile(const Path& inPath)
    {
        static std::map<Path, std::shared_ptr<Bytes>> sStorage;
        ++mChangeCount;
        mFiles.erase(inPath);
        std::shared_ptr<Bytes>& storage = sStorage[inPath];
        if (storage.use_count() != 1)
        {
            storage = std::make_shared<Bytes>();
        }
        storage->clear();
        return *(mFiles[inPath] = storage);
    }

    Result Open(const Path& inPath, const Ventra::FileOpenMode& inMode, Handle& outHandle) override
    {
        const bool creates = inMode.disposition != Ventra::FileCreateDispositionFlags::kOpenExisting;
        const bool replaces = inMode.disposition == Ventra::FileCreateDispositionFlags::kCreateAlways;
        if (!replaces && creates == HasFile(inPath))
        {
            return Tolbin::ResultFromSystemError(creates ? EEXIST : ENOENT);
        }
        if (creates)
        {
            MakeFile(inPath);
        }
        outHandle = ++mLastHandle;
        mHandles[outHandle] = mFiles[inPath];
        return 0;
    }

    Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                std::size_t& outRead) override
    {
        const Bytes& file = *mHandles.at(inHandle);
        const std::size_t offset = std::min(static_cast<std::size_t>(inOffset), file.size());
        outRead = std::min(inLength, file.size() - offset);
        std::copy_n(file.data() + offset, outRead, static_cast<std::uint8_t*>(outData));
        return 0;
    }

    Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                 std::size_t& outWritten) override
    {
        Bytes& file = *mHandles.at(inHandle);
        const auto offset = static_cast<std::size_t>(inOffset);
        file.resize(std::max(file.size(), offset + inLength));
        std::copy_n(static_cast<const std::uint8_t*>(inData), inLength, file.data() + offset);
        mChangeCount += inLength != 0 ? 1 : 0;
        outWritten = inLength;
        return 0;
    }

    Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                std::int64_t& ioPosition) override
    {
        const std::int64_t from = inMethod == Ventra::FilePointerMoveMethod::kBegin     ? 0
                                  : inMethod == Ventra::FilePointerMoveMethod::kCurrent ? ioPosition
                                                                                        : Size(inHandle);
        if (from + inDistance < 0)
        {
            return Tolbin::ResultFromSystemError(EINVAL);
        }
        ioPosition = from + inDistance;
        return 0;
    }

    Result GetSize(Handle inHandle, std::int64_t& outSize) override
    {
        outSize = Size(inHandle);
        return 0;
    }

    Result SetSize(Handle inHandle, std::int64_t inSize) override
    {
        ++mChangeCount;
        mHandles.at(inHandle)->resize(static_cast<std::size_t>(inSize));
        return 0;
    }

    Result Sync(Handle) override { return 0; }

    Result Close(Handle inHandle) override
    {
        Require(mHandles.erase(inHandle) == 1, "a handle is closed once");
        return 0;
    }

    //! NFS, where a setting gives the size of the blocks.
    Ventra::FileSystemType::Type GetType(Handle) override { return Ventra::FileSystemType::kNFS; }

    Result GetEfficientDiskBufferSize(const Path&, unsigned int& outSize) override
    {
        outSize = mBufferSize;
        return 0;
    }

    Result Remove(const Path& inPath) override
    {
        ++mChangeCount;
        return mFiles.erase(inPath) == 1 ? Tolbin::kResultSuccess : Tolbin::ResultFromSystemError(ENOENT);
    }

private:
    std::int64_t Size(Handle inHandle) const { return static_cast<std::int64_t>(mHandles.at(inHandle)->size()); }

    unsigned int mBufferSize;
    std::map<Path, std::shared_ptr<Bytes>> mFiles;
    std::map<Handle, std::shared_ptr<Bytes>> mHandles;
    Handle mLastHandle = 0;
    std::uint64_t mChangeCount = 0;
};
