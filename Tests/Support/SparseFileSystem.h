#pragma once

#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>
#include <Ventra/FileSystem.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

//! Keeps files in memory, on a local volume with a disk buffer of 4096 bytes. Pages that hold one byte throughout cost
//! a map entry, so that media of one byte value costs next to nothing however long it is.
class SparseFileSystem final : public Ventra::FileSystem
{
    struct Page
    {
        std::uint8_t fill = 0;           //!< What the whole page holds while `bytes` is empty.
        std::vector<std::uint8_t> bytes; //!< Empty or a whole page.
    };

    struct Content
    {
        std::int64_t size = 0;
        std::map<std::int64_t, Page> pages; //!< By offset divided by the page size; a missing page is zero.
    };

public:
    using Files = std::map<Tolbin::UTF16String, Content>;

    bool Exists(const Tolbin::UTF16String& inPath) const { return mFiles.contains(inPath); }

    //! 0 for a file that does not exist.
    std::int64_t Size(const Tolbin::UTF16String& inPath) const { return Exists(inPath) ? mFiles.at(inPath)->size : 0; }

    std::size_t OpenHandles() const { return mHandles.size(); }

    Tolbin::utility::BinaryDataArray Read(const Tolbin::UTF16String& inPath, std::int64_t inOffset,
                                          std::size_t inLength) const;

    //! Whether a file holds what it held when the others were saved.
    bool Holds(const Tolbin::UTF16String& inPath, const Files& inFiles) const;

    Files Save() const;
    void Restore(const Files& inFiles);

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
    static constexpr std::size_t kPageSize = 65536;

    static void Copy(const Content& inContent, std::int64_t inOffset, std::uint8_t* outData, std::size_t inLength);

    std::map<Tolbin::UTF16String, std::shared_ptr<Content>> mFiles;
    std::map<Handle, std::shared_ptr<Content>> mHandles;
    Handle mLastHandle = 0;
};
