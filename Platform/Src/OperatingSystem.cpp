#include "OperatingSystem.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <cstring>
#include <sys/mount.h>
#include <sys/param.h>
#include <sys/sysctl.h>
#else
#include <fstream>
#include <linux/magic.h>
#include <string>
#include <string_view>
#include <sys/statfs.h>
#include <sys/sysinfo.h>
#endif

namespace Ventra::OperatingSystem
{

#if defined(__APPLE__)

int OpenUnbuffered(const char* inPath, int inFlags, mode_t inPermissions)
{
    const int descriptor = ::open(inPath, inFlags, inPermissions);
    if (descriptor >= 0)
    {
        static_cast<void>(::fcntl(descriptor, F_NOCACHE, 1)); // Refused: writes go through the cache.
    }
    return descriptor;
}

bool StopUnbuffered(int /*inDescriptor*/)
{
    return false; // F_NOCACHE takes writes of any alignment.
}

bool Sync(int inDescriptor)
{
    // Not every file system has the first, which reaches through the drive's own cache.
    return ::fcntl(inDescriptor, F_FULLFSYNC) == 0 || ::fsync(inDescriptor) == 0;
}

FileSystemType::Type GetType(int inDescriptor)
{
    struct statfs info
    {
    };
    if (::fstatfs(inDescriptor, &info) == 0)
    {
        if (std::strcmp(info.f_fstypename, "nfs") == 0)
        {
            return FileSystemType::kNFS;
        }
        if (std::strcmp(info.f_fstypename, "smbfs") == 0)
        {
            return FileSystemType::kSMB;
        }
    }
    return FileSystemType::kLocal;
}

unsigned int GetUnbufferedAlignment(const char* /*inPath*/)
{
    return 0;
}

bool GetCreationTime(const char* inPath, timespec& outTime)
{
    struct stat info
    {
    };
    if (::stat(inPath, &info) != 0)
    {
        return false;
    }
    outTime = info.st_birthtimespec.tv_sec > 0 ? info.st_birthtimespec : info.st_ctimespec;
    return true;
}

bool IsDebuggerAttached()
{
    int query[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, ::getpid()};
    struct kinfo_proc info
    {
    };
    size_t size = sizeof(info);
    return ::sysctl(query, 4, &info, &size, nullptr, 0) == 0 && (info.kp_proc.p_flag & P_TRACED) != 0;
}

std::uint64_t GetMemorySize()
{
    std::uint64_t bytes = 0;
    size_t size = sizeof(bytes);
    return ::sysctlbyname("hw.memsize", &bytes, &size, nullptr, 0) == 0 ? bytes : UINT64_MAX;
}

#else

int OpenUnbuffered(const char* inPath, int inFlags, mode_t inPermissions)
{
    const int descriptor = ::open(inPath, inFlags | O_DIRECT, inPermissions);
    if (descriptor < 0 && errno == EINVAL)
    {
        return ::open(inPath, inFlags, inPermissions);
    }
    return descriptor;
}

bool StopUnbuffered(int inDescriptor)
{
    const int flags = ::fcntl(inDescriptor, F_GETFL);
    if (flags < 0 || (flags & O_DIRECT) == 0)
    {
        return false;
    }
    return ::fcntl(inDescriptor, F_SETFL, flags & ~O_DIRECT) == 0;
}

bool Sync(int inDescriptor)
{
    return ::fdatasync(inDescriptor) == 0;
}

FileSystemType::Type GetType(int inDescriptor)
{
    struct statfs info
    {
    };
    if (::fstatfs(inDescriptor, &info) != 0)
    {
        return FileSystemType::kLocal;
    }
    // The magic numbers have 32 bits, but f_type may be a signed word.
    switch (static_cast<std::uint32_t>(info.f_type))
    {
    case NFS_SUPER_MAGIC:
        return FileSystemType::kNFS;
    case SMB_SUPER_MAGIC:
    case CIFS_SUPER_MAGIC:
    case SMB2_SUPER_MAGIC:
        return FileSystemType::kSMB;
    default:
        return FileSystemType::kLocal;
    }
}

unsigned int GetUnbufferedAlignment(const char* inPath)
{
#if defined(STATX_DIOALIGN)
    struct statx info
    {
    };
    if (::statx(AT_FDCWD, inPath, 0, STATX_DIOALIGN, &info) == 0 && (info.stx_mask & STATX_DIOALIGN) != 0)
    {
        return std::max(info.stx_dio_mem_align, info.stx_dio_offset_align);
    }
#else
    static_cast<void>(inPath);
#endif
    return 0;
}

bool GetCreationTime(const char* inPath, timespec& outTime)
{
    struct statx info
    {
    };
    if (::statx(AT_FDCWD, inPath, 0, STATX_BTIME | STATX_CTIME, &info) != 0)
    {
        return false;
    }
    const statx_timestamp& time = (info.stx_mask & STATX_BTIME) != 0 ? info.stx_btime : info.stx_ctime;
    outTime.tv_sec = time.tv_sec;
    outTime.tv_nsec = time.tv_nsec;
    return true;
}

bool IsDebuggerAttached()
{
    constexpr const char* kKey = "TracerPid:";
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
    {
        if (word == kKey)
        {
            return status >> word && word != "0";
        }
    }
    return false;
}

std::uint64_t GetMemorySize()
{
    struct sysinfo info
    {
    };
    std::uint64_t least =
        ::sysinfo(&info) == 0 ? (std::uint64_t{info.totalram} + info.totalswap) * info.mem_unit : UINT64_MAX;
    constexpr std::string_view kVersion2 = "0::";
    std::ifstream groups("/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);)
    {
        if (!line.starts_with(kVersion2))
        {
            continue;
        }
        // A group has no more than those above it. The first is named "/", and a container's own may be too.
        std::string group = line.substr(kVersion2.size());
        while (true)
        {
            std::uint64_t limit = 0;
            if (std::ifstream("/sys/fs/cgroup" + group + "/memory.max") >> limit) // "max" is no number.
            {
                least = std::min(least, limit);
            }
            if (group.empty())
            {
                break;
            }
            group.erase(group.rfind('/'));
        }
    }
    return least;
}

#endif

} // namespace Ventra::OperatingSystem
