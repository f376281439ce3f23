#pragma once

#include <cstdint>
#include <filesystem>

namespace Host
{

//! What `reelmill demo` was asked for.
struct DemoOptions
{
    std::filesystem::path output;
    bool overwrite = false; //!< Replaces an existing file instead of refusing it.
};

//! What was written.
struct DemoSummary
{
    std::filesystem::path path;
    std::uintmax_t bytes = 0; //!< Length of the whole file.
    double seconds = 0;
    int tracks = 0;
};

//! Writes ten seconds of colour bars and tone with a timecode track, three chapters, closed captions and user data:
//! everything that the library can put into a movie, from uncompressed frames and samples that are made here.
//!
//! Throws `CommandError`: `kInputRefused` for an output that exists (unless `overwrite`) or cannot be one, `kIOFailed`
//! when writing failed. Either way nothing was left behind, and an existing file is as it was.
DemoSummary WriteDemoMovie(const DemoOptions& inOptions);

} // namespace Host
