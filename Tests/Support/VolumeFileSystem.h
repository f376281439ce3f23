#pragma once

#include "ForwardingFileSystem.h"

//! A volume of a chosen kind with a chosen efficient disk-buffer size.
class VolumeFileSystem final : public ForwardingFileSystem
{
public:
    VolumeFileSystem(Ventra::FileSystem& inNext, Ventra::FileSystemType::Type inType, unsigned int inBufferSize)
        : ForwardingFileSystem(inNext), mType(inType), mBufferSize(inBufferSize)
    {
    }

    Ventra::FileSystemType::Type GetType(Handle) override { return mType; }

    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String&, unsigned int& outSize) override
    {
        outSize = mBufferSize;
        return 0;
    }

private:
    Ventra::FileSystemType::Type mType;
    unsigned int mBufferSize;
};
