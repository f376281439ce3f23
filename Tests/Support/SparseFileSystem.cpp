#include "SparseFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;

BinaryDataArray SparseFileSystem::Read(const Tolbin::UTF16String& inPath, std::int64_t inOffset,
                                       std::size_t inLength) const
{
    const Content& content = *mFiles.at(inPath);
    BinaryDataArray bytes(inLength);
    for (std::size_t i = 0; i < inLength;)
    {
        const std::int64_t offset = inOffset + static_cast<std::int64_t>(i);
        const auto inPage = static_cast<std::size_t>(offset) % kPageSize;
        const std::size_t length = std::min(inLength - i, kPageSize - inPage);
        const auto found = content.pages.find(offset / static_cast<std::int64_t>(kPageSize));
        if (found != content.pages.end())
        {
            const Page& page = found->second;
            for (std::size_t j = 0; j < length; ++j)
            {
                bytes[i + j] = page.bytes.empty() ? page.fill : page.bytes[inPage + j];
            }
        }
        i += length;
    }
    return bytes;
}

Result SparseFileSystem::Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode, Handle& outHandle)
{
    const Result result = ForwardingFileSystem::Open(inPath, inMode, outHandle);
    if (result >= 0)
    {
        std::shared_ptr<Content>& content = mFiles[inPath];
        if (!content || inMode.disposition == Ventra::FileCreateDispositionFlags::kCreateAlways)
        {
            content = std::make_shared<Content>();
        }
        mHandles[outHandle] = content;
    }
    return result;
}

Result SparseFileSystem::Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                               std::size_t& outWritten)
{
    Content& content = *mHandles.at(inHandle);
    const auto* data = static_cast<const std::uint8_t*>(inData);
    for (std::size_t i = 0; i < inLength;)
    {
        const std::int64_t offset = inOffset + static_cast<std::int64_t>(i);
        const auto inPage = static_cast<std::size_t>(offset) % kPageSize;
        const std::size_t length = std::min(inLength - i, kPageSize - inPage);
        Page& page = content.pages[offset / static_cast<std::int64_t>(kPageSize)];
        const bool uniform = std::memcmp(data + i, data + i + 1, length - 1) == 0;
        if (length == kPageSize && uniform)
        {
            page.bytes.clear();
            page.fill = data[i];
        }
        else if (!(page.bytes.empty() && uniform && page.fill == data[i]))
        {
            page.bytes.resize(kPageSize, page.fill);
            std::memcpy(page.bytes.data() + inPage, data + i, length);
        }
        i += length;
    }
    content.size = std::max(content.size, inOffset + static_cast<std::int64_t>(inLength));
    outWritten = inLength;
    return 0;
}

Result SparseFileSystem::Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                              std::int64_t& ioPosition)
{
    const std::int64_t from = inMethod == Ventra::FilePointerMoveMethod::kBegin     ? 0
                              : inMethod == Ventra::FilePointerMoveMethod::kCurrent ? ioPosition
                                                                                    : mHandles.at(inHandle)->size;
    if (from + inDistance < 0)
    {
        return Tolbin::ResultFromSystemError(EINVAL);
    }
    ioPosition = from + inDistance;
    return 0;
}

Result SparseFileSystem::GetSize(Handle inHandle, std::int64_t& outSize)
{
    outSize = mHandles.at(inHandle)->size;
    return 0;
}

Result SparseFileSystem::Close(Handle inHandle)
{
    mHandles.erase(inHandle);
    return ForwardingFileSystem::Close(inHandle);
}
