#include "SparseFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;

void SparseFileSystem::Copy(const Content& inContent, std::int64_t inOffset, std::uint8_t* outData,
                            std::size_t inLength)
{
    for (std::size_t i = 0; i < inLength;)
    {
        const std::int64_t offset = inOffset + static_cast<std::int64_t>(i);
        const auto inPage = static_cast<std::size_t>(offset) % kPageSize;
        const std::size_t length = std::min(inLength - i, kPageSize - inPage);
        const auto found = inContent.pages.find(offset / static_cast<std::int64_t>(kPageSize));
        if (found != inContent.pages.end() && !found->second.bytes.empty())
        {
            std::memcpy(outData + i, found->second.bytes.data() + inPage, length);
        }
        else
        {
            std::memset(outData + i, found != inContent.pages.end() ? found->second.fill : 0, length);
        }
        i += length;
    }
}

BinaryDataArray SparseFileSystem::Read(const Tolbin::UTF16String& inPath, std::int64_t inOffset,
                                       std::size_t inLength) const
{
    BinaryDataArray bytes(inLength);
    Copy(*mFiles.at(inPath), inOffset, bytes.data(), inLength);
    return bytes;
}

bool SparseFileSystem::Holds(const Tolbin::UTF16String& inPath, const Files& inFiles) const
{
    if (!Exists(inPath) || !inFiles.contains(inPath))
    {
        return Exists(inPath) == inFiles.contains(inPath);
    }
    const Content& one = *mFiles.at(inPath);
    const Content& other = inFiles.at(inPath);
    std::vector<std::uint8_t> pages[2] = {std::vector<std::uint8_t>(kPageSize), std::vector<std::uint8_t>(kPageSize)};
    const auto isSame = [&](const auto& inPage) {
        const std::int64_t offset = inPage.first * static_cast<std::int64_t>(kPageSize);
        Copy(one, offset, pages[0].data(), kPageSize);
        Copy(other, offset, pages[1].data(), kPageSize);
        return std::memcmp(pages[0].data(), pages[1].data(), kPageSize) == 0;
    };
    return one.size == other.size && std::all_of(one.pages.begin(), one.pages.end(), isSame) &&
           std::all_of(other.pages.begin(), other.pages.end(), isSame);
}

SparseFileSystem::Files SparseFileSystem::Save() const
{
    Files files;
    for (const auto& [path, content] : mFiles)
    {
        files.emplace(path, *content);
    }
    return files;
}

void SparseFileSystem::Restore(const Files& inFiles)
{
    mFiles.clear();
    for (const auto& [path, content] : inFiles)
    {
        mFiles.emplace(path, std::make_shared<Content>(content));
    }
}

Result SparseFileSystem::Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode, Handle& outHandle)
{
    using namespace Ventra::FileCreateDispositionFlags;
    const bool exists = Exists(inPath);
    if (exists ? inMode.disposition == kCreateNew : inMode.disposition == kOpenExisting)
    {
        return Tolbin::ResultFromSystemError(exists ? EEXIST : ENOENT);
    }
    std::shared_ptr<Content>& content = mFiles[inPath];
    if (!content)
    {
        content = std::make_shared<Content>();
    }
    if (inMode.disposition == kCreateAlways)
    {
        *content = Content();
    }
    outHandle = ++mLastHandle;
    mHandles[outHandle] = content;
    return 0;
}

Result SparseFileSystem::Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                              std::size_t& outRead)
{
    const Content& content = *mHandles.at(inHandle);
    outRead = std::min(inLength, static_cast<std::size_t>(std::max<std::int64_t>(0, content.size - inOffset)));
    Copy(content, inOffset, static_cast<std::uint8_t*>(outData), outRead);
    return 0;
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

Result SparseFileSystem::SetSize(Handle inHandle, std::int64_t inSize)
{
    Content& content = *mHandles.at(inHandle);
    const auto last = content.pages.lower_bound(inSize / static_cast<std::int64_t>(kPageSize));
    if (inSize < content.size && last != content.pages.end())
    {
        Page page = last->second;
        const auto kept = static_cast<std::size_t>(inSize) % kPageSize;
        const bool isCut = kept != 0 && last->first == inSize / static_cast<std::int64_t>(kPageSize);
        content.pages.erase(last, content.pages.end());
        if (isCut)
        {
            page.bytes.resize(kPageSize, page.fill);
            std::fill(page.bytes.begin() + static_cast<std::ptrdiff_t>(kept), page.bytes.end(), std::uint8_t{0});
            content.pages[inSize / static_cast<std::int64_t>(kPageSize)] = page;
        }
    }
    content.size = inSize;
    return 0;
}

Result SparseFileSystem::Sync(Handle)
{
    return 0;
}

Result SparseFileSystem::Close(Handle inHandle)
{
    mHandles.erase(inHandle);
    return 0;
}

Ventra::FileSystemType::Type SparseFileSystem::GetType(Handle)
{
    return Ventra::FileSystemType::kLocal;
}

Result SparseFileSystem::GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize)
{
    outSize = 4096;
    return Exists(inPath) ? 0 : Tolbin::ResultFromSystemError(ENOENT);
}

Result SparseFileSystem::Remove(const Tolbin::UTF16String& inPath)
{
    return mFiles.erase(inPath) != 0 ? 0 : Tolbin::ResultFromSystemError(ENOENT);
}
