#pragma once

#include <filesystem>
#include <iosfwd>
#include <vector>

namespace Host
{

struct VerifyOptions
{
    std::vector<std::filesystem::path> inputs;
    bool json = false;
    bool quiet = false; //!< Only what is wrong.
};

//! Checks movie files and prints what is wrong with them. A file with errors is not sound; warnings and notes alone
//! leave it sound.
//!
//! Throws CommandError at the end: `kIOFailed` when a file could not be read, else `kVerificationFailed` when one is
//! not sound.
void VerifyFiles(const VerifyOptions& inOptions, std::ostream& out);

} // namespace Host
