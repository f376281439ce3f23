#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>

namespace Host
{

struct InfoOptions
{
    std::filesystem::path input;
    bool json = false;
    bool atoms = false;                   //!< The tree of atoms instead of the summary.
    std::optional<std::uint32_t> samples; //!< The samples of the track with this ID instead of the summary.
};

//! Prints what a movie file says of itself. What is malformed is told beneath.
//!
//! Throws CommandError: `kInputRefused` when it is no movie file or has no such track, `kIOFailed` when it cannot be
//! read.
void PrintInfo(const InfoOptions& inOptions, std::ostream& out);

} // namespace Host
