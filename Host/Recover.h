#pragma once

#include <filesystem>
#include <ostream>

namespace Host
{

struct RecoverOptions
{
    std::filesystem::path movie;
    std::filesystem::path output; //!< Empty: the movie is finished in place.
    bool overwrite = false;
    bool dryRun = false;
    bool dropsForSpace = false;
    bool json = false;
};

//! Finishes a movie that a crash left behind, from the journal beside it, and prints what it holds then. A movie that is
//! not there yet is looked for under the name that `wrap` gives it until it is complete ("movie.mov.part"), and gets
//! its own when it is.
//!
//! Throws CommandError: `kInputRefused` without a journal of this movie or a whole sample, and nothing was written;
//! `kIOFailed` when reading or writing failed, and movie and journal are there for another attempt.
void RecoverMovieFile(const RecoverOptions& inOptions, std::ostream& out);

} // namespace Host
