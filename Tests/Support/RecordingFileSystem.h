#pragma once

#include "ForwardingFileSystem.h"

#include <map>
#include <ostream>
#include <vector>

//! Watches what is called: the writes in order, the opens, and which handles are open.
class RecordingFileSystem final : public ForwardingFileSystem
{
public:
    struct WriteCall
    {
        bool unbuffered; //!< Through a handle opened with that attribute.
        std::int64_t offset;
        std::size_t length;

        bool operator==(const WriteCall&) const = default;
    };

    using ForwardingFileSystem::ForwardingFileSystem;

    const std::vector<WriteCall>& Writes() const { return mWrites; }
    void Forget() { mWrites.clear(); }
    const std::vector<Ventra::FileOpenMode>& Opens() const { return mOpens; }
    std::size_t OpenHandles() const { return mHandles.size(); }
    int Seeks() const { return mSeeks; }

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override
    {
        const Tolbin::Result result = ForwardingFileSystem::Open(inPath, inMode, outHandle);
        mOpens.push_back(inMode);
        if (result >= 0)
        {
            mHandles[outHandle] = inMode.attributes == Ventra::FileAttributesFlags::kUnbuffered;
        }
        return result;
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        mWrites.push_back({mHandles.at(inHandle), inOffset, inLength});
        return ForwardingFileSystem::Write(inHandle, inOffset, inData, inLength, outWritten);
    }

    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override
    {
        ++mSeeks;
        return ForwardingFileSystem::Seek(inHandle, inDistance, inMethod, ioPosition);
    }

    Tolbin::Result Close(Handle inHandle) override
    {
        mHandles.erase(inHandle);
        return ForwardingFileSystem::Close(inHandle);
    }

private:
    std::map<Handle, bool> mHandles;
    std::vector<WriteCall> mWrites;
    std::vector<Ventra::FileOpenMode> mOpens;
    int mSeeks = 0;
};

inline void PrintTo(const RecordingFileSystem::WriteCall& inCall, std::ostream* outStream)
{
    *outStream << (inCall.unbuffered ? "unbuffered " : "") << inCall.length << " at " << inCall.offset;
}
