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
    const std::string path = string::UTF16to8(mPath);
    if (!string::IsValidUTF16(mPath))
    {
        throw std::system_error(EILSEQ, std::generic_category(), "the path is not valid UTF-16: " + path);
    }
    timespec time{};
    if (!Ventra::OperatingSystem::GetCreationTime(path.c_str(), time))
    {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return TimePoint(std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_nsec / 1000));
}

} // namespace Tolbin::filesupport
