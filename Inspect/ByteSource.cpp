#include "ByteSource.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Inspect
{

FileSource::FileSource(const std::filesystem::path& inPath)
    : mPath(inPath.string()),
      // Without O_NONBLOCK a pipe would wait here for somebody to write to it.
      mDescriptor(::open(mPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
{
    if (mDescriptor < 0)
    {
        throw std::system_error(errno, std::generic_category(), mPath);
    }
    struct stat info
    {
    };
    const bool isRegular = ::fstat(mDescriptor, &info) == 0 && S_ISREG(info.st_mode);
    if (!isRegular)
    {
        ::close(mDescriptor);
        throw std::system_error(S_ISDIR(info.st_mode) ? EISDIR : EINVAL, std::generic_category(), mPath);
    }
    mSize = static_cast<std::uint64_t>(info.st_size);
}

FileSource::~FileSource()
{
    ::close(mDescriptor);
}

std::size_t FileSource::Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const
{
    std::size_t done = 0;
    while (done < outBytes.size() && inOffset + done < mSize)
    {
        constexpr std::size_t kMaxTransfer = std::size_t{1} << 30; // macOS refuses more than INT_MAX.
        const std::size_t length = std::min(outBytes.size() - done, kMaxTransfer);
        const ssize_t count = ::pread(mDescriptor, outBytes.data() + done, length, static_cast<off_t>(inOffset + done));
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count < 0)
        {
            throw std::system_error(errno, std::generic_category(), mPath);
        }
        if (count == 0)
        {
            break; // The file became shorter meanwhile.
        }
        done += static_cast<std::size_t>(count);
    }
    return done;
}

std::size_t MemorySource::Read(std::uint64_t inOffset, std::span<std::uint8_t> outBytes) const
{
    if (inOffset >= mBytes.size())
    {
        return 0;
    }
    const std::size_t count = std::min<std::size_t>(outBytes.size(), mBytes.size() - inOffset);
    std::copy_n(mBytes.begin() + static_cast<std::ptrdiff_t>(inOffset), count, outBytes.begin());
    return count;
}

double ByteReader::F64()
{
    return std::bit_cast<double>(U64());
}

std::span<const std::uint8_t> ByteReader::Bytes(std::size_t inCount)
{
    if (inCount > mRest.size())
    {
        mHasFailed = true;
        mRest = {};
        return {};
    }
    const auto bytes = mRest.first(inCount);
    mRest = mRest.subspan(inCount);
    return bytes;
}

std::uint64_t ByteReader::Take(std::size_t inCount)
{
    std::uint64_t value = 0;
    for (const std::uint8_t byte : Bytes(inCount))
    {
        value = (value << 8) | byte;
    }
    return value;
}

} // namespace Inspect
