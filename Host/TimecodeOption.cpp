#include "TimecodeOption.h"

#include <cmath>
#include <fmt/format.h>

namespace Host
{

namespace
{

constexpr double kNtscFactor = 1.001;
constexpr double kSame = 1e-3; // of a frame per second

//! Drop-frame counting exists where timecode that counts 30 (or 60, ...) runs slow by 1001/1000.
bool HasDropFrame(AVRational inRate)
{
    const int frames = TimecodeFrames(inRate);
    return frames > 0 && frames % 30 == 0 && std::abs(av_q2d(inRate) * kNtscFactor - frames) < kSame;
}

//! Numbers that drop-frame counting passes over in a minute: 2 of 30 frames a second, 4 of 60.
int DroppedNumbers(int inFrames)
{
    return inFrames / 30 * 2;
}

} // namespace

std::optional<Timecode> ParseTimecode(std::string_view inText)
{
    constexpr std::string_view kForm = "dd:dd:dd?dd";
    if (inText.size() != kForm.size())
    {
        return std::nullopt;
    }
    for (std::size_t index = 0; index < kForm.size(); ++index)
    {
        const char character = inText[index];
        const bool fits = kForm[index] == 'd'   ? character >= '0' && character <= '9'
                          : kForm[index] == '?' ? character == ':' || character == ';'
                                                : character == ':';
        if (!fits)
        {
            return std::nullopt;
        }
    }
    const auto number = [inText](std::size_t inAt) { return (inText[inAt] - '0') * 10 + (inText[inAt + 1] - '0'); };
    const Timecode timecode = {number(0), number(3), number(6), number(9), inText[8] == ';'};
    const bool isTime = timecode.hours < 24 && timecode.minutes < 60 && timecode.seconds < 60;
    return isTime ? std::optional(timecode) : std::nullopt;
}

std::string FormatTimecode(const Timecode& inTimecode)
{
    return fmt::format("{:02}:{:02}:{:02}{}{:02}", inTimecode.hours, inTimecode.minutes, inTimecode.seconds,
                       inTimecode.isDropFrame ? ';' : ':', inTimecode.frames);
}

int TimecodeFrames(AVRational inRate)
{
    return inRate.num > 0 && inRate.den > 0 ? static_cast<int>(std::lround(av_q2d(inRate))) : 0;
}

std::optional<TimecodeFault> FindTimecodeFault(const Timecode& inTimecode, AVRational inRate)
{
    constexpr int kMaximumFrames = 255; // 8 bits in the sample description
    const int frames = TimecodeFrames(inRate);
    if (frames < 1 || frames > kMaximumFrames)
    {
        return TimecodeFault{frames == 0 ? "the video has no constant frame rate to count by"
                                         : fmt::format("timecode cannot count {} frames per second", frames),
                             "leave the timecode out"};
    }
    if (inTimecode.isDropFrame && !HasDropFrame(inRate))
    {
        return TimecodeFault{
            fmt::format("drop-frame timecode does not exist at {:.6g} frames per second, only at 29.97 "
                        "and its multiples",
                        av_q2d(inRate)),
            "write a colon in front of the frames"};
    }
    if (inTimecode.frames >= frames)
    {
        return TimecodeFault{
            fmt::format("frame {} does not exist at {:.6g} frames per second", inTimecode.frames, av_q2d(inRate)),
            fmt::format("write one from 0 to {}", frames - 1)};
    }
    if (inTimecode.isDropFrame && inTimecode.minutes % 10 != 0 && inTimecode.seconds == 0 &&
        inTimecode.frames < DroppedNumbers(frames))
    {
        return TimecodeFault{"drop-frame counting passes over this number",
                             fmt::format("begin the minute with ;{:02}", DroppedNumbers(frames))};
    }
    return std::nullopt;
}

std::int64_t CountFrames(const Timecode& inTimecode, int inFrames)
{
    const std::int64_t minutes = inTimecode.hours * 60 + inTimecode.minutes;
    const std::int64_t number = (minutes * 60 + inTimecode.seconds) * inFrames + inTimecode.frames;
    return inTimecode.isDropFrame ? number - DroppedNumbers(inFrames) * (minutes - minutes / 10) : number;
}

} // namespace Host
