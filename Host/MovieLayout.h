#pragma once

#include <cstdint>
#include <filesystem>

namespace Inspect
{
class ByteSource;
}

namespace Host
{

//! Where the parts of a finished movie file lie.
struct MovieLayout
{
    std::uint64_t fileSize = 0;
    std::uint64_t movieOffset = 0; //!< of 'moov'
    std::uint64_t movieSize = 0;
    std::uint64_t mediaOffset = 0; //!< of 'mdat'

    bool IsMovieInFront() const { return movieOffset < mediaOffset; }
};

//! Reads the headers of the file's top-level atoms, which must follow each other from its first to its last byte and
//! hold one 'moov' and one 'mdat'. A media block that never reached the disk shows here and nowhere else.
//!
//! Throws CommandError with `kIOFailed` otherwise, under `inName` where the file is to get another name.
MovieLayout ReadMovieLayout(const std::filesystem::path& inPath, const std::filesystem::path& inName = {});

//! The same of a file that is read through `inFile`; sentences call it `inPath`.
MovieLayout ReadMovieLayout(const Inspect::ByteSource& inFile, const std::filesystem::path& inPath);

} // namespace Host
