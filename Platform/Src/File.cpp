#include <Ventra/File.h>

#include <cerrno>

namespace Ventra
{

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
    Tolbin::Result result;
    do
    {
        result = fileSystem.Open(inPath, mode, mHandle);
    } while (Tolbin::SystemErrorFromResult(result) == EINTR);
    if (result >= 0)
    {
        mFileSystem = &fileSystem;
        mPosition = 0;
    }
    return result;
}

Tolbin::Result File::Write(const void* inData, unsigned int inLength, unsigned int& outWritten)
{
    outWritten = 0;
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    for (;;)
    {
        std::size_t written = 0;
        const Tolbin::Result result = mFileSystem->Write(
            mHandle, mPosition, static_cast<const char*>(inData) + outWritten, inLength - outWritten, written);
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
    return mFileSystem->Seek(mHandle, inDistance, inMethod, mPosition);
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
    const Tolbin::Result result = mFileSystem->GetSize(mHandle, size);
    if (result >= 0)
    {
        outSize = size;
    }
    return result;
}

Tolbin::Result File::Sync()
{
    if (mFileSystem == nullptr)
    {
        return Tolbin::ResultFromSystemError(EBADF);
    }
    Tolbin::Result result;
    do
    {
        result = mFileSystem->Sync(mHandle);
    } while (Tolbin::SystemErrorFromResult(result) == EINTR);
    return result;
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

} // namespace Ventra
