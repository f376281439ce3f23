#include "OperatingSystem.h"

#include <Tolbin/String.h>
#include <Ventra/FileSystem.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Ventra
{

namespace
{

constexpr unsigned int kDefaultDiskBufferSize = 4096;
constexpr unsigned int kMaxDiskBufferSize = 4u << 20;
constexpr mode_t kNewFilePermissions = 0666; // Less the process's umask.

std::atomic<FileSystem*> sCurrent{nullptr};

Tolbin::Result LastSystemError()
{
    return Tolbin::ResultFromSystemError(errno);
}

//! The handle is the file descriptor.
class PosixFileSystem final : public FileSystem
{
public:
    Tolbin::Result Open(const Tolbin::UTF16String& inPath, const FileOpenMode& inMode, Handle& outHandle) override
    {
        std::string path;
        const Tolbin::Result result = Tolbin::string::UTF16ToPath(inPath, path);
        if (result < 0)
        {
            return result;
        }
        int flags = (inMode.access & FileAccessFlags::kWrite) != 0 ? O_RDWR : O_RDONLY;
        flags |= inMode.inheritable ? 0 : O_CLOEXEC;
        flags |= inMode.disposition == FileCreateDispositionFlags::kCreateAlways ? O_CREAT | O_TRUNC : 0;
        flags |= inMode.disposition == FileCreateDispositionFlags::kCreateNew ? O_CREAT | O_EXCL : 0;
        const bool isUnbuffered = (inMode.attributes & FileAttributesFlags::kUnbuffered) != 0;
        const int descriptor = isUnbuffered ? OperatingSystem::OpenUnbuffered(path.c_str(), flags, kNewFilePermissions)
                                            : ::open(path.c_str(), flags, kNewFilePermissions);
        if (descriptor < 0)
        {
            return LastSystemError();
        }
        outHandle = descriptor;
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                        std::size_t& outRead) override
    {
        const ssize_t count = ::pread(static_cast<int>(inHandle), outData, inLength, inOffset);
        outRead = count < 0 ? 0 : static_cast<std::size_t>(count);
        return count < 0 ? LastSystemError() : Tolbin::kResultSuccess;
    }

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        outWritten = 0;
        const int descriptor = static_cast<int>(inHandle);
        ssize_t written = ::pwrite(descriptor, inData, inLength, inOffset);
        if (written < 0 && errno == EINVAL && OperatingSystem::StopUnbuffered(descriptor))
        {
            // The device cannot take this address, length or offset directly, or any on this file system.
            written = ::pwrite(descriptor, inData, inLength, inOffset);
        }
        if (written < 0)
        {
            return LastSystemError();
        }
        outWritten = static_cast<std::size_t>(written);
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, FilePointerMoveMethod::Type inMethod,
                        std::int64_t& ioPosition) override
    {
        std::int64_t base = 0;
        if (inMethod == FilePointerMoveMethod::kCurrent)
        {
            base = ioPosition;
        }
        else if (inMethod == FilePointerMoveMethod::kEnd)
        {
            const Tolbin::Result result = GetSize(inHandle, base);
            if (result < 0)
            {
                return result;
            }
        }
        std::int64_t position = 0;
        if (__builtin_add_overflow(base, inDistance, &position) || position < 0)
        {
            return Tolbin::ResultFromSystemError(EINVAL);
        }
        ioPosition = position;
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) override
    {
        struct stat info
        {
        };
        if (::fstat(static_cast<int>(inHandle), &info) != 0)
        {
            return LastSystemError();
        }
        outSize = info.st_size;
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) override
    {
        return ::ftruncate(static_cast<int>(inHandle), inSize) == 0 ? Tolbin::kResultSuccess : LastSystemError();
    }

    Tolbin::Result Sync(Handle inHandle) override
    {
        return OperatingSystem::Sync(static_cast<int>(inHandle)) ? Tolbin::kResultSuccess : LastSystemError();
    }

    Tolbin::Result Close(Handle inHandle) override
    {
        return ::close(static_cast<int>(inHandle)) == 0 ? Tolbin::kResultSuccess : LastSystemError();
    }

    FileSystemType::Type GetType(Handle inHandle) override
    {
        return OperatingSystem::GetType(static_cast<int>(inHandle));
    }

    Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize) override
    {
        std::string path;
        const Tolbin::Result result = Tolbin::string::UTF16ToPath(inPath, path);
        if (result < 0)
        {
            return result;
        }
        struct stat info
        {
        };
        if (::stat(path.c_str(), &info) != 0)
        {
            return LastSystemError();
        }
        outSize = kDefaultDiskBufferSize;
        if (info.st_blksize > 0)
        {
            const auto preferred = static_cast<std::uint64_t>(info.st_blksize);
            const std::uint64_t wanted =
                std::max<std::uint64_t>(preferred, OperatingSystem::GetUnbufferedAlignment(path.c_str()));
            outSize = std::bit_ceil(static_cast<unsigned int>(std::min<std::uint64_t>(wanted, kMaxDiskBufferSize)));
        }
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Remove(const Tolbin::UTF16String& inPath) override
    {
        std::string path;
        const Tolbin::Result result = Tolbin::string::UTF16ToPath(inPath, path);
        if (result < 0)
        {
            return result;
        }
        return ::unlink(path.c_str()) == 0 ? Tolbin::kResultSuccess : LastSystemError();
    }
};

} // namespace

FileSystem::~FileSystem() = default;

FileSystem& FileSystem::System()
{
    static PosixFileSystem sSystem;
    return sSystem;
}

FileSystem& FileSystem::Current()
{
    FileSystem* current = sCurrent.load();
    return current != nullptr ? *current : System();
}

FileSystemScope::FileSystemScope(FileSystem& inFileSystem) : mPrevious(sCurrent.exchange(&inFileSystem)) {}

FileSystemScope::~FileSystemScope()
{
    sCurrent.store(mPrevious);
}

} // namespace Ventra
