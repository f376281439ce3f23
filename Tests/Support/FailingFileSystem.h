#pragma once

#include "ForwardingFileSystem.h"

#include <Tolbin/Result.h>

#include <cerrno>

//! Fails one call of an operation, or all from that call on, without passing it on. A `Close` that fails still closes.
class FailingFileSystem final : public ForwardingFileSystem
{
public:
    enum Extent
    {
        Once,
        FromThenOn
    };

    //! `inNumber` counts the calls of `inOperation` from 1.
    FailingFileSystem(Ventra::FileSystem& inNext, FileOperation inOperation, int inNumber, Extent inExtent = Once,
                      int inErrno = EIO)
        : ForwardingFileSystem(inNext),
          mOperation(inOperation),
          mNumber(inNumber),
          mExtent(inExtent),
          mResult(Tolbin::ResultFromSystemError(inErrno))
    {
    }

    //! How many calls have failed.
    int Failures() const { return mFailures; }

    //! How many calls of the operation were made.
    int Calls() const { return mCalls; }

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override
    {
        return Fails(FileOperation::Open) ? mResult : ForwardingFileSystem::Open(inPath, inMode, outHandle);
    }

    Tolbin::Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                        std::size_t& outRead) override
    {
        outRead = 0;
        return Fails(FileOperation::Read) ? mResult
                                          : ForwardingFileSystem::Read(inHandle, inOffset, outData, inLength, outRead);
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        outWritten = 0;
        return Fails(FileOperation::Write)
                   ? mResult
                   : ForwardingFileSystem::Write(inHandle, inOffset, inData, inLength, outWritten);
    }

    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override
    {
        return Fails(FileOperation::Seek) ? mResult
                                          : ForwardingFileSystem::Seek(inHandle, inDistance, inMethod, ioPosition);
    }

    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override
    {
        return Fails(FileOperation::GetSize) ? mResult : ForwardingFileSystem::GetSize(inHandle, outSize);
    }

    Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) override
    {
        return Fails(FileOperation::SetSize) ? mResult : ForwardingFileSystem::SetSize(inHandle, inSize);
    }

    Tolbin::Result Sync(Handle inHandle) override
    {
        return Fails(FileOperation::Sync) ? mResult : ForwardingFileSystem::Sync(inHandle);
    }

    Tolbin::Result Close(Handle inHandle) override
    {
        const Tolbin::Result result = ForwardingFileSystem::Close(inHandle);
        return Fails(FileOperation::Close) ? mResult : result;
    }

    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize) override
    {
        return Fails(FileOperation::BufferSize) ? mResult
                                                : ForwardingFileSystem::GetEfficientDiskBufferSize(inPath, outSize);
    }

    Tolbin::Result Remove(const Tolbin::UTF16String& inPath) override
    {
        return Fails(FileOperation::Remove) ? mResult : ForwardingFileSystem::Remove(inPath);
    }

private:
    bool Fails(FileOperation inOperation)
    {
        if (inOperation != mOperation)
        {
            return false;
        }
        ++mCalls;
        const bool fails = mExtent == Once ? mCalls == mNumber : mCalls >= mNumber;
        mFailures += fails ? 1 : 0;
        return fails;
    }

    FileOperation mOperation;
    int mNumber;
    Extent mExtent;
    Tolbin::Result mResult;
    int mCalls = 0;
    int mFailures = 0;
};
