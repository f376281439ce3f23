#include "Timing.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

namespace Host
{

namespace
{

constexpr int kCommonMovieTimeScale = 600;   // Whole frames at 24, 25 and 30 frames per second.
constexpr double kUnknownSeconds = 6 * 3600; // Room kept for a movie whose length is not known.

//! Time scales that a track falls back to: 1/90000 s holds 6.6 hours, 1/600 s 41 days.
constexpr int kCoarseTimeScales[] = {90000, 15000, 3000, kCommonMovieTimeScale};

//! Whether 31 bits can count the time. Leaves a little for lengths that are stated too short.
bool Holds(std::int64_t inTimeScale, double inSeconds)
{
    return (inSeconds * 1.001 + 1) * static_cast<double>(inTimeScale) <= static_cast<double>(kMaximumDuration);
}

//! The least common multiple, 0 when it passes what a time scale can be.
std::int64_t CommonMultiple(std::int64_t inLeft, std::int64_t inRight)
{
    const std::int64_t multiple = inLeft / std::gcd(inLeft, inRight) * inRight; // both below 2^31
    return multiple <= kMaximumDuration ? multiple : 0;
}

std::int64_t CommonMultiple(const std::vector<int>& inTimeScales)
{
    std::int64_t multiple = inTimeScales.empty() ? 0 : 1;
    for (const int timeScale : inTimeScales)
    {
        multiple = multiple == 0 ? 0 : CommonMultiple(multiple, timeScale);
    }
    return multiple;
}

} // namespace

VideoClock::VideoClock(const VideoTiming& inTiming) : mTimeBase(inTiming.timeBase)
{
    av_reduce(&mTimeBase.num, &mTimeBase.den, mTimeBase.num, mTimeBase.den, INT32_MAX);
    const bool hasRate = inTiming.frameRate.num > 0 && inTiming.frameRate.den > 0;
    std::int64_t timeScale = mTimeBase.den;
    if (hasRate && inTiming.isTimeBaseRounded)
    {
        const std::int64_t common = CommonMultiple(mTimeBase.den, inTiming.frameRate.num);
        if (common > 0 && Holds(common, inTiming.expectedSeconds))
        {
            timeScale = common;
        }
        else if (Holds(inTiming.frameRate.num, inTiming.expectedSeconds))
        {
            timeScale = inTiming.frameRate.num;
            mIsExact = false;
        }
        mIsSnapping = true;
    }
    if (!Holds(timeScale, inTiming.expectedSeconds))
    {
        mIsExact = false;
        mIsSnapping = false;
        const auto* coarse = std::find_if(std::begin(kCoarseTimeScales), std::end(kCoarseTimeScales),
                                          [&](int inScale) { return Holds(inScale, inTiming.expectedSeconds); });
        timeScale = coarse != std::end(kCoarseTimeScales) ? *coarse : kCommonMovieTimeScale;
    }
    mTimeScale = static_cast<int>(timeScale); // at most kMaximumDuration
    if (hasRate)
    {
        mFrameUnits = av_rescale(inTiming.frameRate.den, mTimeScale, inTiming.frameRate.num);
    }
}

std::int64_t VideoClock::Rescale(std::int64_t inTicks) const
{
    return av_rescale_q(inTicks, mTimeBase, {1, mTimeScale});
}

//! Puts a time onto the grid of the frame rate; false when it is too far from it. Both this time and the first frame's
//! were rounded, each by half a tick at most.
bool VideoClock::Snap(std::int64_t& ioUnits) const
{
    if (!mIsSnapping || mFrameUnits == 0)
    {
        return true;
    }
    const std::int64_t onGrid = av_rescale(ioUnits, 1, mFrameUnits) * mFrameUnits;
    if (std::abs(onGrid - ioUnits) > std::max<std::int64_t>(1, Rescale(1)))
    {
        return false;
    }
    ioUnits = onGrid;
    return true;
}

std::int64_t VideoClock::UnitsOf(std::int64_t inTicks) const
{
    std::int64_t units = Rescale(inTicks);
    Snap(units); // A length that is off the grid stays as it is.
    return units;
}

std::int64_t VideoClock::UnitsSince(std::int64_t inFirst, std::int64_t inTick)
{
    std::int64_t units = Rescale(inTick - inFirst);
    mOffGridCount += Snap(units) ? 0 : 1;
    return units;
}

int ChooseMovieTimeScale(const std::vector<int>& inVideoTimeScales, const std::vector<int>& inSoundTimeScales,
                         double inSeconds)
{
    const double seconds = inSeconds > 0 ? inSeconds : kUnknownSeconds;
    std::vector<int> all = inVideoTimeScales;
    all.insert(all.end(), inSoundTimeScales.begin(), inSoundTimeScales.end());
    const std::int64_t firstVideo = inVideoTimeScales.empty() ? 0 : inVideoTimeScales.front();
    for (const std::int64_t timeScale : {CommonMultiple(all), CommonMultiple(inSoundTimeScales), firstVideo})
    {
        if (timeScale > 0 && Holds(timeScale, seconds))
        {
            return static_cast<int>(timeScale); // at most kMaximumDuration
        }
    }
    return kCommonMovieTimeScale;
}

} // namespace Host
