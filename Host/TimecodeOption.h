#pragma once

#include "LibAV.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Host
{

//! A timecode as it is written: HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame counting.
struct Timecode
{
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
    bool isDropFrame = false;
};

//! None unless `inText` has that form with hours below 24, minutes and seconds below 60. The number of the frame is
//! left to `FindTimecodeFault`, which knows the frame rate.
std::optional<Timecode> ParseTimecode(std::string_view inText);

std::string FormatTimecode(const Timecode& inTimecode);

//! Numbers in a second of timecode at a frame rate: 30 at 30000/1001. 0 when there is no rate.
int TimecodeFrames(AVRational inRate);

//! What is wrong with a timecode and what to write instead, each as a part of a sentence.
struct TimecodeFault
{
    std::string reason;
    std::string remedy;
};

//! Why a timecode cannot stand on a frame at this rate; none when it can.
std::optional<TimecodeFault> FindTimecodeFault(const Timecode& inTimecode, AVRational inRate);

//! The frame's number since 00:00:00:00, where a second has `inFrames` numbers. Drop-frame counting passes over the
//! first numbers (;00 and ;01 of 30) of every minute but each tenth.
std::int64_t CountFrames(const Timecode& inTimecode, int inFrames);

} // namespace Host
