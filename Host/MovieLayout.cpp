#include "MovieLayout.h"

#include "CommandError.h"

#include <ByteSource.h>

#include <boost/endian/conversion.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/format.h>
#include <span>
#include <system_error>

namespace Host
{

namespace
{

constexpr std::uint64_t kHeaderSize = 8;
constexpr std::uint64_t kLargeHeaderSize = 16; //!< A 32-bit size of 1 says that 64 bits follow the type.

bool IsPrintable(unsigned char inByte)
{
    return inByte >= 0x20 && inByte <= 0x7E;
}

[[noreturn]] void Fail(const std::filesystem::path& inPath, const std::string& inReason)
{
    throw CommandError(ExitCode::kIOFailed,
                       fmt::format("\"{}\" was not written completely: {}; check its volume, and run the command again",
                                   inPath.string(), inReason));
}

} // namespace

MovieLayout ReadMovieLayout(const std::filesystem::path& inPath, const std::filesystem::path& inName)
{
    const std::filesystem::path& name = inName.empty() ? inPath : inName;
    try
    {
        return ReadMovieLayout(Inspect::FileSource(inPath), name);
    }
    catch (const std::system_error& error)
    {
        Fail(name, fmt::format("it cannot be read back ({})", error.code().message()));
    }
}

MovieLayout ReadMovieLayout(const Inspect::ByteSource& inFile, const std::filesystem::path& inName)
{
    MovieLayout layout;
    bool hasMovie = false;
    bool hasMedia = false;
    layout.fileSize = inFile.GetSize();
    for (std::uint64_t offset = 0; offset < layout.fileSize;)
    {
        std::array<unsigned char, kLargeHeaderSize> header = {};
        const std::size_t available = inFile.Read(offset, header);
        std::uint64_t size = boost::endian::load_big_u32(header.data());
        const bool isLarge = size == 1;
        if (isLarge)
        {
            size = boost::endian::load_big_u64(header.data() + kHeaderSize);
        }
        if (available < (isLarge ? kLargeHeaderSize : kHeaderSize) || size < (isLarge ? kLargeHeaderSize : kHeaderSize))
        {
            Fail(inName, fmt::format("byte {} does not start an atom", offset));
        }
        if (size > layout.fileSize - offset)
        {
            Fail(inName,
                 fmt::format("the file ends {} bytes before its last atom does", size - (layout.fileSize - offset)));
        }
        if (!std::all_of(header.begin() + 4, header.begin() + 8, IsPrintable))
        {
            Fail(inName, fmt::format("the atom at byte {} has no type", offset));
        }
        if (std::memcmp(header.data() + 4, "moov", 4) == 0)
        {
            hasMovie = true;
            layout.movieOffset = offset;
            layout.movieSize = size;
        }
        else if (std::memcmp(header.data() + 4, "mdat", 4) == 0)
        {
            hasMedia = true;
            layout.mediaOffset = offset;
        }
        offset += size;
    }
    if (!hasMovie || !hasMedia)
    {
        Fail(inName, !hasMovie ? "it has no 'moov' atom" : "it has no 'mdat' atom");
    }
    return layout;
}

} // namespace Host
