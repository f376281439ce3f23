#pragma once

#include <Ventra/FileSystem.h>

//! Passes every operation on to another file system. The doubles derive from it and change what they need, so that they
//! can stand on top of each other.
class ForwardingFileSystem : public Ventra::FileSystem
{
public:
    explicit ForwardingFileSystem(Ventra::FileSystem& inNext = Ventra::FileSystem::System()) : mNext(inNext) {}

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override
    {
        return mNext.Open(inPath, inMode, outHandle);
    }

    Tolbin::Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                        std::size_t& outRead) override
    {
        return mNext.Read(inHandle, inOffset, outData, inLength, outRead);
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        return mNext.Write(inHandle, inOffset, inData, inLength, outWritten);
    }

    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override
    {
        return mNext.Seek(inHandle, inDistance, inMethod, ioPosition);
    }

    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override { return mNext.GetSize(inHandle, outSize); }

    Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) override { return mNext.SetSize(inHandle, inSize); }

    Tolbin::Result Sync(Handle inHandle) override { return mNext.Sync(inHandle); }

    Tolbin::Result Close(Handle inHandle) override { return mNext.Close(inHandle); }

    Ventra::FileSystemType::Type GetType(Handle inHandle) override { return mNext.GetType(inHandle); }

    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize) override
    {
        return mNext.GetEfficientDiskBufferSize(inPath, outSize);
    }

    Tolbin::Result Remove(const Tolbin::UTF16String& inPath) override { return mNext.Remove(inPath); }

private:
    Ventra::FileSystem& mNext;
};

//! The operations of a file system that a double can tell apart.
enum class FileOperation
{
    Open,
    Read,
    Write,
    Seek,
    GetSize,
    SetSize,
    Sync,
    Close,
    BufferSize,
    Remove
};
