#pragma once

#include "LibAV.h"
#include "TimecodeOption.h"

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Host
{

//! What line 21 carries in one frame of 29.97 a second: two bytes with their parity bits, as the file has them.
using CaptionBytes = std::array<std::uint8_t, 2>;

//! A line of a captions file: pairs that are sent one a frame, from a timecode on.
struct SccLine
{
    int number = 0; //!< in the file, from 1
    Timecode timecode;
    std::vector<CaptionBytes> pairs;
};

//! Reads the text of an SCC file. Throws CommandError (`kInputRefused`) where it is none, names the faulty line.
std::vector<SccLine> ParseScc(const std::string& inPath, std::string_view inText);

//! Hands out the pairs of an SCC file by video frames. The file counts frames of 30000/1001 a second, whatever the
//! video's rate; only beside video of exactly 30 or 60 frames a second it counts 30 true ones, of which one is one
//! frame (or two).
class CaptionQueue
{
public:
    //! \param inStart  timecode in the file that falls on the first video frame. Throws CommandError
    //!                 (`kInputRefused`) when a caption lies before it, or has a number that does not exist.
    CaptionQueue(const std::string& inPath, const std::vector<SccLine>& inLines, const Timecode& inStart,
                 AVRational inVideoRate);

    //! The pairs whose time lies before `inEnd` units of 1/`inTimeScale` s since the first video frame, and were not
    //! handed out yet.
    std::vector<CaptionBytes> TakeUpTo(std::int64_t inEnd, int inTimeScale);

    std::size_t GetCount() const { return mPairs.size(); }

    //! Seconds from the first video frame to the first pair that is left.
    double GetFirstSeconds() const;

private:
    struct Pair
    {
        std::int64_t frame; //!< since the first video frame, as the file counts them
        CaptionBytes bytes;
    };

    AVRational mRate;
    std::deque<Pair> mPairs;
};

//! The sample of a closed-caption track for one video frame: a 'cdat' atom with its pairs, padding when there is none.
std::vector<std::uint8_t> MakeCaptionSample(const std::vector<CaptionBytes>& inPairs);

} // namespace Host
