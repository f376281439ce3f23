#pragma once

#include "LibAV.h"
#include "TextTrack.h"

#include <string>
#include <vector>

namespace Host
{

//! Reads a chapters file: ffmetadata, or lines `HH:MM:SS.mmm Title`, of which each chapter ends where the next begins
//! and the last with the movie. The result is in order of time and does not overlap.
//!
//! Throws CommandError: `kIOFailed` when the file cannot be read, `kInputRefused` when it is neither.
std::vector<Cue> ReadChapterFile(const std::string& inPath);

//! The chapters of an input, with times from `inStart` seconds on; those before it are cut off.
std::vector<Cue> ChaptersOf(const AVFormatContext& inFormat, double inStart);

} // namespace Host
