#pragma once

#include <Tolbin/Export.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>
#include <Ventra/FileSystem.h>

namespace Ventra
{

//! An open file and its file pointer. One thread at a time. Calls on a file that is not open fail with EBADF.
class TOLBIN_EXPORT File
{
public:
    File() = default;

    //! Closes the file if it is still open; whoever wants the result calls `Close`.
    ~File();

    File(const File&) = delete;
    File& operator=(const File&) = delete;

    //! Opens the file with the pointer at 0. A file that was open before is closed first. Where the file system cannot
    //! bypass the cache, an unbuffered open succeeds all the same and writes go through the cache.
    //!
    //! \param inPath  as of `Tolbin::string::PathToUTF16`
    //! \return 0; an error of the system (EILSEQ or EINVAL when no file can have that path), and no file is open.
    Tolbin::Result Create(const Tolbin::UTF16String& inPath, FileAccessFlags::Type inAccess,
                          FileShareModeFlags::Type inShare, FileCreateDispositionFlags::Type inDisposition,
                          FileAttributesFlags::Type inAttributes, bool inInheritable);

    //! Reads at the file pointer and moves it behind what was read, retrying as `Write` does: 0, with `outRead` below
    //! `inLength` only at the end of the file; or the error that ended it, with `outRead` telling what came before.
    Tolbin::Result Read(void* outData, unsigned int inLength, unsigned int& outRead);

    //! Writes at the file pointer and moves it behind what was written. Interrupted calls are retried and partial
    //! writes continued, so that the result is final: 0, with `outWritten` below `inLength` only when the system takes
    //! no more without naming an error; or the error that ended it, with `outWritten` telling what came before.
    Tolbin::Result Write(const void* inData, unsigned int inLength, unsigned int& outWritten);

    //! Moves the file pointer. A negative target is refused (EINVAL) and moves nothing; one beyond the end is allowed.
    //! After any other failure the pointer is lost, unless it is there already: `Read` and `Write` fail with the same
    //! result until it is moved, so that nothing goes to the wrong place.
    Tolbin::Result SetFilePointer(long long inDistance, FilePointerMoveMethod::Type inMethod);

    Tolbin::Result GetFilePointer(long long& outPosition) const;

    Tolbin::Result GetSize(long long& outSize) const;

    //! Cuts the file, or lengthens it with zeros. The pointer stays.
    Tolbin::Result SetSize(long long inSize);

    //! Returns once the file's content and length are on the device.
    Tolbin::Result Sync();

    //! The kind of volume that the file lies on; local when no file is open.
    FileSystemType::Type GetFileSystemType() const;

    //! The file is closed whatever the result.
    Tolbin::Result Close();

    //! Removes a file's name; who has the file open keeps it.
    static Tolbin::Result Remove(const Tolbin::UTF16String& inPath);

private:
    FileSystem* mFileSystem = nullptr; //!< Null while no file is open.
    FileSystem::Handle mHandle = 0;
    std::int64_t mPosition = 0;
    Tolbin::Result mPositionResult = Tolbin::kResultSuccess; //!< Negative while the pointer is lost.
};

} // namespace Ventra
