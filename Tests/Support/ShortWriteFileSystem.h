#pragma once

#include "ForwardingFileSystem.h"

#include <algorithm>

//! Writes short and succeeds: from the write numbered `inNumber` (from 1) on, each takes at most `inLimit` bytes. With
//! a limit of 0 the device takes nothing and names no error.
class ShortWriteFileSystem final : public ForwardingFileSystem
{
public:
    ShortWriteFileSystem(Ventra::FileSystem& inNext, std::size_t inLimit, int inNumber = 1)
        : ForwardingFileSystem(inNext), mLimit(inLimit), mNumber(inNumber)
    {
    }

    int Writes() const { return mWrites; }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        const std::size_t length = ++mWrites >= mNumber ? std::min(inLength, mLimit) : inLength;
        return ForwardingFileSystem::Write(inHandle, inOffset, inData, length, outWritten);
    }

private:
    std::size_t mLimit;
    int mNumber;
    int mWrites = 0;
};
