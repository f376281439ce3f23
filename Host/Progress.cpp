#include "Progress.h"

#include <Tolbin/String.h>

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <ostream>

namespace Host
{

namespace
{
constexpr std::chrono::milliseconds kTerminalInterval{100};
constexpr std::chrono::milliseconds kLinesInterval{5000};
constexpr std::chrono::milliseconds kJsonInterval{1000};
} // namespace

Progress::Progress(std::ostream& inStream, Style inStyle) : mStream(inStream), mStyle(inStyle) {}

Progress::~Progress()
{
    if (mShownLength > 0)
    {
        mStream << '\n' << std::flush;
    }
}

void Progress::Update(TimePoint inNow, double inSeconds, std::uint64_t inBytes)
{
    if (mStyle == Style::kQuiet)
    {
        return;
    }
    const std::chrono::milliseconds interval = mStyle == Style::kTerminal ? kTerminalInterval
                                               : mStyle == Style::kJson   ? kJsonInterval
                                                                          : kLinesInterval;
    if (!mStarted)
    {
        mStarted = true;
        mStart = inNow;
        mNextShow = inNow + interval;
        return;
    }
    if (inNow < mNextShow)
    {
        return;
    }
    mNextShow = inNow + interval;
    const double elapsed = std::chrono::duration<double>(inNow - mStart).count();
    if (mStyle == Style::kJson)
    {
        ShowJson(elapsed, inSeconds, inBytes, false);
        return;
    }
    std::string line = FormatSeconds(inSeconds);
    if (mExpectedSeconds > 0)
    {
        line += fmt::format(" ({:.0f} %)", 100 * std::min(1.0, inSeconds / mExpectedSeconds));
    }
    line += fmt::format(", {}", FormatBytes(inBytes));
    if (elapsed > 0)
    {
        line += fmt::format(", {}/s", FormatBytes(static_cast<std::uint64_t>(static_cast<double>(inBytes) / elapsed)));
    }
    if (mStyle == Style::kTerminal)
    {
        const std::size_t length = line.size();
        line.resize(std::max(length, mShownLength), ' ');
        mStream << '\r' << line << std::flush;
        mShownLength = length;
    }
    else
    {
        mStream << line << std::endl;
    }
}

void Progress::Finish(TimePoint inNow, double inSeconds, std::uint64_t inBytes)
{
    if (mStyle == Style::kJson)
    {
        mExpectedSeconds = inSeconds;
        ShowJson(mStarted ? std::chrono::duration<double>(inNow - mStart).count() : 0, inSeconds, inBytes, true);
    }
}

void Progress::ShowJson(double inElapsed, double inSeconds, std::uint64_t inBytes, bool inIsDone)
{
    const std::string expected = mExpectedSeconds > 0 ? fmt::format("{:.3f}", mExpectedSeconds) : "null";
    const double rate = inElapsed > 0 ? static_cast<double>(inBytes) / inElapsed : 0;
    mStream << fmt::format(
                   R"({{"seconds": {:.3f}, "expectedSeconds": {}, "bytes": {}, "bytesPerSecond": {:.0f}, "done": {}}})",
                   inSeconds, expected, inBytes, rate, inIsDone)
            << std::endl;
}

std::string FormatBytes(std::uint64_t inBytes)
{
    constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    if (inBytes < 1024)
    {
        return fmt::format("{} bytes", inBytes);
    }
    double value = static_cast<double>(inBytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(kUnits))
    {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string FormatSeconds(double inSeconds)
{
    const long long milliseconds = std::llround(inSeconds * 1000);
    return fmt::format("{}:{:02}:{:02}.{:03}", milliseconds / 3600000, milliseconds / 60000 % 60,
                       milliseconds / 1000 % 60, milliseconds % 1000);
}

std::string FormatNames(std::string_view inText)
{
    std::string text;
    Tolbin::UTF16String valid; // Since the last byte that is not.
    for (const char16_t unit : Tolbin::string::PathToUTF16(inText))
    {
        const bool isSecondHalf = !valid.empty() && (valid.back() & 0xFC00) == 0xD800;
        if ((unit & 0xFC00) == 0xDC00 && !isSecondHalf)
        {
            text += fmt::format("{}\\x{:02X}", Tolbin::string::UTF16to8(valid), unit & 0xFF);
            valid.clear();
        }
        else
        {
            valid.push_back(unit);
        }
    }
    return text + Tolbin::string::UTF16to8(valid);
}

} // namespace Host
