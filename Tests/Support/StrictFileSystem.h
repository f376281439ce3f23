#pragma once

#include "ForwardingFileSystem.h"

#include <Tolbin/Result.h>

#include <cerrno>
#include <set>

//! A device that insists: a write through an unbuffered handle whose address, length or offset is not a multiple of the
//! alignment fails with EINVAL.
class StrictFileSystem final : public ForwardingFileSystem
{
public:
    StrictFileSystem(Ventra::FileSystem& inNext, std::uint64_t inAlignment)
        : ForwardingFileSystem(inNext), mAlignment(inAlignment)
    {
    }

    //! How many unbuffered writes were in order, and how many were refused.
    int Accepted() const { return mAccepted; }
    int Refused() const { return mRefused; }

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override
    {
        const Tolbin::Result result = ForwardingFileSystem::Open(inPath, inMode, outHandle);
        if (result >= 0 && (inMode.attributes & Ventra::FileAttributesFlags::kUnbuffered) != 0)
        {
            mUnbuffered.insert(outHandle);
        }
        return result;
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        if (mUnbuffered.contains(inHandle))
        {
            const std::uint64_t bits =
                reinterpret_cast<std::uintptr_t>(inData) | inLength | static_cast<std::uint64_t>(inOffset);
            if (bits % mAlignment != 0)
            {
                ++mRefused;
                outWritten = 0;
                return Tolbin::ResultFromSystemError(EINVAL);
            }
            ++mAccepted;
        }
        return ForwardingFileSystem::Write(inHandle, inOffset, inData, inLength, outWritten);
    }

    Tolbin::Result Close(Handle inHandle) override
    {
        mUnbuffered.erase(inHandle);
        return ForwardingFileSystem::Close(inHandle);
    }

private:
    std::uint64_t mAlignment; //!< A power of two.
    std::set<Handle> mUnbuffered;
    int mAccepted = 0;
    int mRefused = 0;
};
