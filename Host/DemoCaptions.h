#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Host
{

//! A caption on screen from one video frame up to, but not including, another.
struct Caption
{
    int firstFrame;
    int endFrame;
    std::vector<std::string_view> lines; //!< At most two of 32 characters; shown centred at the bottom.
};

//! What line 21 carries in one video frame, parity included.
using CaptionPair = std::array<std::uint8_t, 2>;

//! Encodes captions as CEA-608 channel 1 in pop-on style: each is loaded unseen in the frames before its first and
//! shown at once. Frames without data hold padding.
//!
//! The captions must leave each other the frames to load in and fit into `inFrameCount` frames; anything else is a
//! mistake of the caller (`std::logic_error`). Characters are those that CEA-608 shares with ASCII.
std::vector<CaptionPair> EncodeCaptions(const std::vector<Caption>& inCaptions, int inFrameCount);

} // namespace Host
