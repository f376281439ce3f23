#pragma once

#include "ForwardingFileSystem.h"

#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

//! Keeps the content of files in memory; an empty file of the same name exists below. Pages that hold one byte
//! throughout cost a map entry, so that media of one byte value costs next to nothing however long it is.
class SparseFileSystem final : public ForwardingFileSystem
{
public:
    using ForwardingFileSystem::ForwardingFileSystem;

    std::int64_t Size(const Tolbin::UTF16String& inPath) const { return mFiles.at(inPath)->size; }

    Tolbin::utility::BinaryDataArray Read(const Tolbin::UTF16String& inPath, std::int64_t inOffset,
                                          std::size_t inLength) const;

    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                        Handle& outHandle) override;
    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override;
    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override;
    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override;
    Tolbin::Result Close(Handle inHandle) override;

private:
    static constexpr std::size_t kPageSize = 65536;

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

    std::map<Tolbin::UTF16String, std::shared_ptr<Content>> mFiles;
    std::map<Handle, std::shared_ptr<Content>> mHandles;
};
