#pragma once

#include <ByteSource.h>
#include <Ventra/FileSystem.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace Host
{

//! A volume that takes one movie file and keeps of it what does not come through the unbuffered handle: the head, the
//! last block of the media and 'moov'. The rest is only counted, so that a movie of any length can be "written" to see
//! how it would turn out. Everything that is asked of the volume is answered by that of a folder.
class DryRunFileSystem final : public Ventra::FileSystem
{
public:
    explicit DryRunFileSystem(const std::filesystem::path& inFolder);

    //! The file, with zeros where media was not kept.
    const Inspect::ByteSource& GetContent() const { return mContent; }

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override;
    Tolbin::Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                        std::size_t& outRead) override;
    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override;
    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override;
    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override;
    Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) override;
    Tolbin::Result Sync(Handle inHandle) override;
    Tolbin::Result Close(Handle inHandle) override;
    Ventra::FileSystemType::Type GetType(Handle inHandle) override;
    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize) override;
    Tolbin::Result Remove(const Tolbin::UTF16String& inPath) override;

private:
    class Content final : public Inspect::ByteSource
    {
    public:
        void Write(std::uint64_t inOffset, const void* inData, std::size_t inLength, bool inIsKept);
        std::uint64_t GetSize() const override { return mSize; }
        std::size_t Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const override;

    private:
        struct Extent
        {
            std::uint64_t offset = 0;
            std::vector<std::uint8_t> bytes;
        };
        std::vector<Extent> mExtents; //!< in the order of writing; later ones lie on top
        std::uint64_t mSize = 0;
    };

    Content mContent;
    Ventra::FileSystemType::Type mType = Ventra::FileSystemType::kLocal;
    Tolbin::Result mBufferSizeResult = 0;
    unsigned int mBufferSize = 0;
};

} // namespace Host
