#pragma once

#include <filesystem>
#include <string>

namespace Inspect
{
class MovieFile;
}

namespace Host
{

struct MapOptions
{
    std::filesystem::path input;
    std::filesystem::path output; //!< .svg or .html
    bool overwrite = false;
};

//! A picture of a movie file as an SVG document: its atoms, its media by track along the file, the sizes of its chunks,
//! and how far sound and video lie apart. Its size does not grow with the file.
std::string DrawMap(const Inspect::MovieFile& inMovie, const std::string& inTitle);

//! Draws the map of a movie file into an SVG file, or into an HTML page that needs nothing else.
//!
//! Throws CommandError: `kUsage` for an output that is neither, `kInputRefused` when the input is no movie file or the
//! output exists and may not be replaced, `kIOFailed` when reading or writing failed.
void WriteMap(const MapOptions& inOptions);

} // namespace Host
