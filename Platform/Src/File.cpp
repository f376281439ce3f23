#include "RetryInterrupted.h"

#include <Ventra/File.h>

#include <algorithm>
#include <cerrno>

namespace Ventra
{

namespace
{

//! What one call moves at most, in bytes: macOS refuses more than INT_MAX, Linux takes a page less than 2 GiB. What
//! follows lies as well aligned for an unbuffered handle as what comes first.
constexpr std::size_t kMaxTransfer = std::size_t{1} << 30;

} // namespace

File::~File()
{
    if (mFileSystem != nullptr)
    {
        static_cast<void>(Close()); // Whoever wants the result has called `Close`.
    }
}

Tolbin::Result File::Create(const Tolbin::UTF16String& inPath, FileAccessFlags::Type inAccess,
                            FileShareModeFlags::Type inShare, FileCreateDispositionFlags::Type inDisposition,
                            FileAttributesFlags::Type inAttributes, bool inInheritable)
{
    if (mFileSystem != nullptr)
    {
        static_cast<void>(Close());
    }
    FileSystem& fileSystem = FileSystem::Current();
    const FileOpenMode mode{inAccess, inShare, inDisposition, inAttributes, inInheritable};
    const Tolbin::Result result = RetryInterrupted([&] { return fileSystem.Open(inPath, mode, mHandle); });
    if (result >= 0)
    {
        mFileSystem = &fileSystem;
        mPosition = 0;
        mPositionResult = Tolbin::kResultSuccess;
    }
    return result;
}

Tolbin::Result File::Read(void* outData, unsigned int inLength, unsigned int& outRead)
{
    outRead = 0;
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    if (mPositionResult < 0)
    {
        return mPositionResult;
    }
    while (outRead < inLength)
    {
        std::size_t count = 0;
        const std::size_t length = std::min<std::size_t>(inLength - outRead, kMaxTransfer);
        const Tolbin::Result result =
            mFileSystem->Read(mHandle, mPosition, static_cast<char*>(outData) + outRead, length, count);
        outRead += static_cast<unsigned int>(count); // At most what was asked.
        mPosition += static_cast<std::int64_t>(count);
        const bool interrupted = Tolbin::SystemErrorFromResult(result) == EINTR;
        if (result < 0 && !interrupted)
        {
            return result;
        }
        if (count == 0 && !interrupted)
        {
            break;
        }
    }
    return Tolbin::kResultSuccess;
}

Tolbin::Result File::Write(const void* inData, unsigned int inLength, unsigned int& outWritten)
{
    outWritten = 0;
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    if (mPositionResult < 0)
    {
        return mPositionResult;
    }
    for (;;)
    {
        std::size_t written = 0;
        const std::size_t length = std::min<std::size_t>(inLength - outWritten, kMaxTransfer);
        const Tolbin::Result result =
            mFileSystem->Write(mHandle, mPosition, static_cast<const char*>(inData) + outWritten, length, written);
        outWritten += static_cast<unsigned int>(written); // At most what was asked.
        mPosition += static_cast<std::int64_t>(written);
        const bool interrupted = Tolbin::SystemErrorFromResult(result) == EINTR;
        if (result < 0 && !interrupted)
        {
            return result;
        }
        if (outWritten == inLength || (written == 0 && !interrupted))
        {
            return Tolbin::kResultSuccess;
        }
    }
}

Tolbin::Result File::SetFilePointer(long long inDistance, FilePointerMoveMethod::Type inMethod)
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    const Tolbin::Result result =
        RetryInterrupted([&] { return mFileSystem->Seek(mHandle, inDistance, inMethod, mPosition); });
    const bool isThere = inMethod == FilePointerMoveMethod::kBegin && inDistance == mPosition;
    if (result >= 0 || isThere)
    {
        mPositionResult = Tolbin::kResultSuccess;
    }
    else if (Tolbin::SystemErrorFromResult(result) != EINVAL)
    {
        mPositionResult = result;
    }
    return result;
}

Tolbin::Result File::GetFilePointer(long long& outPosition) const
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    outPosition = mPosition;
    return Tolbin::kResultSuccess;
}

Tolbin::Result File::GetSize(long long& outSize) const
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    std::int64_t size = 0;
    const Tolbin::Result result = RetryInterrupted([&] { return mFileSystem->GetSize(mHandle, size); });
    if (result >= 0)
    {
        outSize = size;
    }
    return result;
}

Tolbin::Result File::SetSize(long long inSize)
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    return RetryInterrupted([&] { return mFileSystem->SetSize(mHandle, inSize); });
}

Tolbin::Result File::Sync()
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    return RetryInterrupted([&] { return mFileSystem->Sync(mHandle); });
}

FileSystemType::Type File::GetFileSystemType() const
{
    return mFileSystem != nullptr ? mFileSystem->GetType(mHandle) : FileSystemType::kLocal;
}

Tolbin::Result File::Close()
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    FileSystem* fileSystem = mFileSystem;
    mFileSystem = nullptr;
    return fileSystem->Close(mHandle); // Not retried: the handle is gone even when the call was interrupted.
}

Tolbin::Result File::Remove(const Tolbin::UTF16String& inPath)
{
    return RetryInterrupted([&] { return FileSystem::Current().Remove(inPath); });
}

} // namespace Ventra
