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

//! Every sample of a track as the text of an array, one to a line, written as it goes: sound counts each frame as one.
//! Ends early when `out` fails.
void WriteSamples(const Track& inTrack, std::ostream& out);

nlohmann::ordered_json DescribeFindings(const Findings& inFindings);

} // namespace Inspect
