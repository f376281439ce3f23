#pragma once

#include "AllocationLimit.h"
#include "ForwardingFileSystem.h"

#include <Tolbin/Result.h>

#include <cerrno>
#include <cstdint>
#include <vector>

//! What goes wrong from one file operation on, counted from 1 over all kinds of operations.
struct Fault
{
    enum Kind
    {
        Error,   //!< The operation fails. An interruption that is there for good strikes every second operation.
        Half,    //!< A write takes the first half.
        Nothing, //!< A write takes nothing and names no error.
        Full     //!< A write takes the first half, and those behind it fail for lack of space.
    };

    int number = 0; //!< 0: nothing.
    Kind kind = Error;
    int error = EIO;
    bool isForGood = false;

    //! Of the operation that is hit, once the platform has dealt with it.
    Tolbin::Result GetResult() const
    {
        return kind == Nothing                  ? Tolbin::kResultShortWrite
               : kind == Full                   ? Tolbin::ResultFromSystemError(ENOSPC)
               : kind == Half || error == EINTR ? Tolbin::kResultSuccess
                                                : Tolbin::ResultFromSystemError(error);
    }
};

//! Lets a fault strike, and writes down every operation. A `Close` that fails still closes.
class FaultFileSystem final : public ForwardingFileSystem
{
public:
    struct Call
    {
        FileOperation operation;
        bool isJournal;      //!< On a file of that name.
        std::int64_t offset; //!< Of a read or write; the distance of a seek.
        int step;            //!< Of the one who calls.
    };

    FaultFileSystem(Ventra::FileSystem& inNext, const Fault& inFault) : ForwardingFileSystem(inNext), mFault(inFault) {}

    const std::vector<Call>& Calls() const { return mCalls; }
    void SetStep(int inStep) { mStep = inStep; }

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override
    {
        return Do(FileOperation::Open, IsJournal(inPath), 0, [&] {
            const Tolbin::Result result = ForwardingFileSystem::Open(inPath, inMode, outHandle);
            if (result >= 0)
            {
                mJournals.resize(static_cast<std::size_t>(outHandle) + 1); // Handles are counted.
                mJournals.back() = IsJournal(inPath);
            }
            return result;
        });
    }

    Tolbin::Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                        std::size_t& outRead) override
    {
        outRead = 0;
        return Do(FileOperation::Read, inHandle, inOffset,
                  [&] { return ForwardingFileSystem::Read(inHandle, inOffset, outData, inLength, outRead); });
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        outWritten = 0;
        const bool isHit = Strikes(static_cast<int>(mCalls.size()) + 1);
        const bool isFirst = static_cast<int>(mCalls.size()) + 1 == mFault.number;
        if (isHit && mFault.kind == Fault::Full && !isFirst)
        {
            mCalls.push_back({FileOperation::Write, IsJournal(inHandle), inOffset, mStep});
            return Tolbin::ResultFromSystemError(ENOSPC);
        }
        const std::size_t length = !isHit || mFault.kind == Fault::Error ? inLength
                                   : mFault.kind == Fault::Nothing       ? 0
                                                                         : (inLength + 1) / 2;
        return Do(FileOperation::Write, inHandle, inOffset,
                  [&] { return ForwardingFileSystem::Write(inHandle, inOffset, inData, length, outWritten); });
    }

    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override
    {
        return Do(FileOperation::Seek, inHandle, inDistance,
                  [&] { return ForwardingFileSystem::Seek(inHandle, inDistance, inMethod, ioPosition); });
    }

    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override
    {
        return Do(FileOperation::GetSize, inHandle, 0,
                  [&] { return ForwardingFileSystem::GetSize(inHandle, outSize); });
    }

    Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) override
    {
        return Do(FileOperation::SetSize, inHandle, inSize,
                  [&] { return ForwardingFileSystem::SetSize(inHandle, inSize); });
    }

    Tolbin::Result Sync(Handle inHandle) override
    {
        return Do(FileOperation::Sync, inHandle, 0, [&] { return ForwardingFileSystem::Sync(inHandle); });
    }

    Tolbin::Result Close(Handle inHandle) override
    {
        const Tolbin::Result result = ForwardingFileSystem::Close(inHandle);
        return Do(FileOperation::Close, inHandle, 0, [&] { return result; });
    }

    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize) override
    {
        return Do(FileOperation::BufferSize, false, 0,
                  [&] { return ForwardingFileSystem::GetEfficientDiskBufferSize(inPath, outSize); });
    }

    Tolbin::Result Remove(const Tolbin::UTF16String& inPath) override
    {
        return Do(FileOperation::Remove, IsJournal(inPath), 0, [&] { return ForwardingFileSystem::Remove(inPath); });
    }

private:
    static bool IsJournal(const Tolbin::UTF16String& inPath) { return inPath.ends_with(u".journal"); }
    bool IsJournal(Handle inHandle) const { return mJournals[static_cast<std::size_t>(inHandle)]; }

    bool Strikes(int inNumber) const
    {
        const int behind = inNumber - mFault.number;
        return mFault.number > 0 && (mFault.isForGood || mFault.kind == Fault::Full
                                         ? behind >= 0 && (mFault.error != EINTR || behind % 2 == 0)
                                         : behind == 0);
    }

    template <typename Next>
    Tolbin::Result Do(FileOperation inOperation, Handle inHandle, std::int64_t inOffset, Next inNext)
    {
        return Do(inOperation, IsJournal(inHandle), inOffset, inNext);
    }

    template <typename Next>
    Tolbin::Result Do(FileOperation inOperation, bool inIsJournal, std::int64_t inOffset, Next inNext)
    {
        const AllocationFault::Pause pause;
        mCalls.push_back({inOperation, inIsJournal, inOffset, mStep});
        const int number = static_cast<int>(mCalls.size());
        return mFault.kind == Fault::Error && Strikes(number) ? Tolbin::ResultFromSystemError(mFault.error) : inNext();
    }

    Fault mFault;
    int mStep = 0;
    std::vector<Call> mCalls;
    std::vector<bool> mJournals; //!< By handle.
};
