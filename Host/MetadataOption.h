#pragma once

#include <cstdint>
#include <string>

namespace Host
{

//! An item of user data, of the movie or of one of its tracks.
struct MetadataItem
{
    std::uint32_t type = 0;
    std::string payload; //!< as it stands in the file; filled in by `LoadMetadata` where `file` is not empty
    std::string file;
};

//! Reads KEY=VALUE. A key is a name from `MetadataNames`, whose value becomes international text; or a code of four
//! characters, whose value becomes international text when the code begins with a copyright sign, and the plain bytes
//! of the text otherwise. A code with @FILE stands for the file's bytes.
//!
//! Throws CommandError (`kUsage`), which names `inOption` and what was given for it.
MetadataItem ParseMetadata(const std::string& inOption, const std::string& inWhole, const std::string& inText);

//! Reads the item's file, if it has one. Throws CommandError.
void LoadMetadata(const std::string& inOption, MetadataItem& ioItem);

//! The names, for the help.
std::string MetadataNames();

} // namespace Host
