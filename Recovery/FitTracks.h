#pragma once

#include "PrivateReelmill.h"

#include <cstdint>

namespace QT
{

//! Whether it is picture or sound.
bool IsMedia(const TrackRec& inTrack);

//! For a movie that ends earlier than was planned: what goes along with picture and sound (timecode, text, captions)
//! ends with them, and timecode lasts until the end of the tracks that refer to it. Returns how many samples begin only
//! behind that and were left out.
std::uint64_t FitTracksToMedia(PrivateReelmill::TrackMap& ioTracks);

} // namespace QT
