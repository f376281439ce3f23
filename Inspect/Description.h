#pragma once

#include "Findings.h"
#include "MovieFile.h"

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>

namespace Inspect
{

// What a movie says of itself as JSON objects. Times are in the units named beside them and in seconds; offsets and
// sizes in bytes.

//! The movie with its tracks, chapters, metadata and interleave.
nlohmann::ordered_json DescribeMovie(const MovieFile& inMovie);

//! The atoms as a tree.
nlohmann::ordered_json DescribeAtoms(const std::vector<Atom>& inAtoms);

//! Every sample of a track. Sound counts each frame as one: `WriteSamples` keeps them out of memory.
nlohmann::ordered_json DescribeSamples(const Track& inTrack);

//! The same array as text, one sample to a line, written as it goes; ends early when `out` fails.
void WriteSamples(const Track& inTrack, std::ostream& out);

nlohmann::ordered_json DescribeFindings(const Findings& inFindings);

} // namespace Inspect
