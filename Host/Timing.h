#pragma once

#include "LibAV.h"

#include <cstdint>
#include <vector>

namespace Host
{

//! The format counts a track's time in 31 bits of its own units.
constexpr std::int64_t kMaximumDuration = INT32_MAX;

//! What a video clock is chosen from.
struct VideoTiming
{
    AVRational timeBase;        //!< seconds per tick of the input
    AVRational frameRate;       //!< frames per second, 0/0 when it is not known or not constant
    bool isTimeBaseRounded;     //!< The ticks are those of a container that rounds its times, not of the media.
    double expectedSeconds = 0; //!< 0 when it is not known
};

//! Counts the time of a video stream in the units of its track.
//!
//! Exact where that is possible: a time base of n/d gives d units per second. Where the container rounds its times (to
//! milliseconds, say) and the frame rate is known, frames within one tick of the rate's own grid are put onto it; the
//! units are then a common multiple of both, so that other frames keep exactly the time that they have. Only where
//! exact units would be so fine that the track could not hold its expected length are times rounded to coarser ones.
class VideoClock
{
public:
    explicit VideoClock(const VideoTiming& inTiming);

    int GetTimeScale() const { return mTimeScale; }

    //! Duration of a frame at the frame rate, 0 when it is not known.
    std::int64_t GetFrameUnits() const { return mFrameUnits; }

    //! Times are not exact, but rounded to the track's units.
    bool IsRounded() const { return !mIsExact; }

    //! How many times were off the frame rate's grid by more than a tick, and were kept.
    std::int64_t GetOffGridCount() const { return mOffGridCount; }

    //! Units from the first frame, at tick `inFirst`, to the one at tick `inTick`.
    std::int64_t UnitsSince(std::int64_t inFirst, std::int64_t inTick);

    //! A length in ticks as units.
    std::int64_t UnitsOf(std::int64_t inTicks) const;

private:
    std::int64_t Rescale(std::int64_t inTicks) const;
    bool Snap(std::int64_t& ioUnits) const;

    AVRational mTimeBase;
    int mTimeScale = 0;
    std::int64_t mFrameUnits = 0;
    bool mIsExact = true;
    bool mIsSnapping = false;
    std::int64_t mOffGridCount = 0;
};

//! The time scale of the movie, in which edits and the movie's length are counted; they are truncated to whole units.
//! The first of these that can count `inSeconds` (0: unknown, taken as six hours) in 31 bits:
//!  1. the least common multiple of all tracks' time scales, in which everything is exact;
//!  2. that of the sound tracks, exact to the sample;
//!  3. the first video track's, exact to the frame;
//!  4. 600.
int ChooseMovieTimeScale(const std::vector<int>& inVideoTimeScales, const std::vector<int>& inSoundTimeScales,
                         double inSeconds);

} // namespace Host
