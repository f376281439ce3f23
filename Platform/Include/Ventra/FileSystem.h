#pragma once

#include <Tolbin/Export.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>

#include <cstddef>
#include <cstdint>

namespace Ventra
{

namespace FileAccessFlags
{
enum Type : int
{
    kRead = 1,
    kWrite = 2 //!< Read and write underneath.
};
} // namespace FileAccessFlags

namespace FileShareModeFlags
{
//! What others may do with the file meanwhile. The systems supported here do not enforce it.
enum Type : int
{
    kNone = 0,
    kRead = 1,
    kWrite = 2,
    kReadWrite = 3
};
} // namespace FileShareModeFlags

namespace FileCreateDispositionFlags
{
enum Type : int
{
    kCreateNew = 1,    //!< Creates the file, which must not exist (EEXIST).
    kCreateAlways = 2, //!< Creates the file; an existing one loses its content.
    kOpenExisting = 8  //!< Opens the file, which must exist; leaves its content alone.
};
} // namespace FileCreateDispositionFlags

namespace FileAttributesFlags
{
enum Type : int
{
    kNormal = 1,
    kUnbuffered = 4 //!< Writes bypass the system's cache where the file system allows it.
};
} // namespace FileAttributesFlags

namespace FilePointerMoveMethod
{
enum Type : int
{
    kBegin = 0,
    kCurrent = 1,
    kEnd = 2
};
} // namespace FilePointerMoveMethod

namespace FileSystemType
{
enum Type : int
{
    kLocal = 1,
    kNFS = 2,
    kSMB = 3 //!< cifs and smb2 as well.
};
} // namespace FileSystemType

//! How a file is opened.
struct FileOpenMode
{
    FileAccessFlags::Type access;
    FileShareModeFlags::Type share;
    FileCreateDispositionFlags::Type disposition;
    FileAttributesFlags::Type attributes;
    bool inheritable; //!< Whether child processes inherit the handle.
};

//! The one seam between `File` and the operating system: each operation stands for one system call, without retries.
//! Tests install their own to make faults, to keep files in memory or to watch what is called.
class TOLBIN_EXPORT FileSystem
{
public:
    using Handle = std::intptr_t;

    virtual ~FileSystem();

    //! Opens or creates the file at `inPath`. Sets `outHandle` on success only.
    virtual Tolbin::Result Open(const Tolbin::UTF16String& inPath, const FileOpenMode& inMode, Handle& outHandle) = 0;

    //! Reads at an absolute offset, at most 1 GiB. May read less than asked and succeed; 0 bytes only at the end of the
    //! file. `outRead` is set in every case.
    virtual Tolbin::Result Read(Handle inHandle, std::int64_t inOffset, void* outData, std::size_t inLength,
                                std::size_t& outRead) = 0;

    //! Writes at an absolute offset, at most 1 GiB. May write less than asked and succeed, and may be interrupted
    //! (EINTR). `outWritten` is set in every case.
    virtual Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                                 std::size_t& outWritten) = 0;

    //! Works out the offset that lies `inDistance` from the start of the file, from `ioPosition` or from the end, and
    //! stores it in `ioPosition`. A negative offset is refused (EINVAL) and changes nothing.
    virtual Tolbin::Result Seek(Handle inHandle, std::int64_t inDistance, FilePointerMoveMethod::Type inMethod,
                                std::int64_t& ioPosition) = 0;

    virtual Tolbin::Result GetSize(Handle inHandle, std::int64_t& outSize) = 0;

    //! Cuts the file, or lengthens it with zeros.
    virtual Tolbin::Result SetSize(Handle inHandle, std::int64_t inSize) = 0;

    //! Returns once the file's content and length are on the device.
    virtual Tolbin::Result Sync(Handle inHandle) = 0;

    //! The handle is gone whatever the result.
    virtual Tolbin::Result Close(Handle inHandle) = 0;

    virtual FileSystemType::Type GetType(Handle inHandle) = 0;

    //! The size of the writes that the volume of an existing file takes best, in bytes. Sets `outSize` on success only.
    virtual Tolbin::Result GetEfficientDiskBufferSize(const Tolbin::UTF16String& inPath, unsigned int& outSize) = 0;

    //! Removes the file's name; who has it open keeps it.
    virtual Tolbin::Result Remove(const Tolbin::UTF16String& inPath) = 0;

    //! The file system that files opened from now on use.
    static FileSystem& Current();

    //! The operating system's own.
    static FileSystem& System();
};

//! Makes a file system the current one for a scope, in the whole process. A `File` keeps the file system that it was
//! opened on, which must outlive it.
class TOLBIN_EXPORT FileSystemScope
{
public:
    explicit FileSystemScope(FileSystem& inFileSystem);
    ~FileSystemScope();

    FileSystemScope(const FileSystemScope&) = delete;
    FileSystemScope& operator=(const FileSystemScope&) = delete;

private:
    FileSystem* mPrevious;
};

} // namespace Ventra
