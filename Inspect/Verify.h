#pragma once

#include "Findings.h"
#include "MovieFile.h"

namespace Inspect
{

//! Checks that a movie agrees with itself: every chunk inside the media and none over another, tables, durations,
//! edits, references, descriptions. Adds to the findings that reading the movie made. Reads no media; what fragments
//! hold is not checked. Memory is proportional to the number of chunks.
void VerifyMovie(const MovieFile& inMovie, Findings& ioFindings);

} // namespace Inspect
