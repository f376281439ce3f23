#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Host
{

//! Units per second of text and chapter tracks: whole milliseconds, and whole frames at every usual rate. 31 bits of
//! them are 6.6 hours, `kLongCueTimeScale` then counts instead.
constexpr int kCueTimeScale = 90000;
constexpr int kLongCueTimeScale = 1000;

//! The end of a text that lasts as long as the movie.
constexpr std::int64_t kOpenEnd = std::numeric_limits<std::int64_t>::max();

//! A text and when it is shown, in units of `kCueTimeScale` since the start of the movie.
struct Cue
{
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::string text; //!< UTF-8, empty for a gap
};

struct CueFile
{
    std::vector<Cue> cues;
    bool hasFormatting = false; //!< Some of it was left out: a text track holds plain text.
};

//! Reads subtitles of any text form that libavformat knows, SRT and WebVTT among them, in order of their start.
//!
//! Throws CommandError: `kIOFailed` when the file cannot be read, `kInputRefused` when it holds no such texts.
CueFile ReadTextFile(const std::string& inPath);

//! The text of an ASS event without its override blocks; `ioHasFormatting` becomes true where there were any.
std::string PlainText(const std::string& inEvent, bool& ioHasFormatting);

//! The samples of a text track, which follow each other without gap or overlap from 0 on: gaps become empty texts, and
//! where texts overlap their lines stand together.
std::vector<Cue> MakeTextSamples(const std::vector<Cue>& inCues);

} // namespace Host
