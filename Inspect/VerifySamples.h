#pragma once

#include "Findings.h"
#include "MovieFile.h"

namespace Inspect
{

//! Checks the samples of all tracks against their descriptions: their kind, their sizes, and what the heads of pictures
//! say. Reads a block of each picture and a few bytes of small samples, so that a large movie takes time in proportion
//! to its samples and not to its bytes.
void VerifySamples(const MovieFile& inMovie, Findings& ioFindings);

} // namespace Inspect
