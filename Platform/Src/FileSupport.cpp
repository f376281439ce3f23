#include "OperatingSystem.h"

#include <Tolbin/FileSupport.h>
#include <Tolbin/String.h>

#include <cerrno>
#include <system_error>

namespace Tolbin::filesupport
{

File::File(const UTF16String& inPath, StorageType /*inStorage*/) : mPath(inPath) {}

File::TimePoint File::Created() const
{
    std::string path;
    const Result result = string::UTF16ToPath(mPath, path);
    if (result < 0)
    {
        throw std::system_error(SystemErrorFromResult(result), std::generic_category(), "no file has such a path");
    }
    timespec time{};
    if (!Ventra::OperatingSystem::GetCreationTime(path.c_str(), time))
    {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return TimePoint(std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_nsec / 1000));
}

} // namespace Tolbin::filesupport
