#pragma once

#include <Tolbin/Export.h>
#include <Tolbin/UTF16String.h>

#include <chrono>

namespace Tolbin::filesupport
{

//! Where a path's file is kept. There is one kind on the systems supported here.
enum class StorageType : int
{
    kFileSystem = 0
};

//! What the system knows about a file besides its content.
class TOLBIN_EXPORT File
{
public:
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

    //! Names a file; does not touch it.
    File(const UTF16String& inPath, StorageType inStorage);

    //! When the file was created: its birth time where the file system keeps one, else the time of its last status
    //! change. Throws `std::system_error` when the file cannot be read or has no such path (`string::UTF16ToPath`).
    TimePoint Created() const;

private:
    UTF16String mPath;
};

} // namespace Tolbin::filesupport
