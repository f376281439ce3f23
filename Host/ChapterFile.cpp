#include "ChapterFile.h"

#include "CommandError.h"
#include "SideFile.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <optional>
#include <string_view>

namespace Host
{

namespace
{

constexpr const char* kOption = "--chapters";

//! HH:MM:SS.mmm at the start of a line, as the units of a cue.
std::optional<std::int64_t> ParseTime(std::string_view inLine)
{
    constexpr std::string_view kForm = "dd:dd:dd.ddd";
    if (inLine.size() < kForm.size())
    {
        return std::nullopt;
    }
    for (std::size_t index = 0; index < kForm.size(); ++index)
    {
        const bool isDigit = inLine[index] >= '0' && inLine[index] <= '9';
        if (kForm[index] == 'd' ? !isDigit : inLine[index] != kForm[index])
        {
            return std::nullopt;
        }
    }
    const auto digit = [inLine](std::size_t inAt) { return static_cast<std::int64_t>(inLine[inAt] - '0'); };
    const std::int64_t minutes = digit(3) * 10 + digit(4);
    const std::int64_t seconds = digit(6) * 10 + digit(7);
    if (minutes > 59 || seconds > 59)
    {
        return std::nullopt;
    }
    const std::int64_t hours = digit(0) * 10 + digit(1);
    const std::int64_t milliseconds = digit(9) * 100 + digit(10) * 10 + digit(11);
    return av_rescale(((hours * 60 + minutes) * 60 + seconds) * 1000 + milliseconds, kCueTimeScale, 1000);
}

std::vector<Cue> ParseLines(const std::string& inPath, const std::string& inText)
{
    std::vector<Cue> chapters;
    int number = 0;
    for (const std::string_view line : SplitLines(inText))
    {
        ++number;
        if (line.find_first_not_of(" \t") == std::string_view::npos)
        {
            continue;
        }
        constexpr std::size_t kTimeLength = 12;
        const std::optional<std::int64_t> time = ParseTime(line);
        const std::size_t title = line.find_first_not_of(" \t", kTimeLength);
        if (!time || title == std::string_view::npos || title == kTimeLength)
        {
            RefuseSideFile(kOption, inPath, fmt::format("line {} is no chapter", number),
                           "write ffmetadata, or lines such as \"00:01:30.000 The second chapter\"");
        }
        if (!chapters.empty() && *time <= chapters.back().start)
        {
            RefuseSideFile(kOption, inPath,
                           fmt::format("line {}: its time does not lie behind that of the chapter before it", number),
                           "sort the lines, and give each chapter a time of its own");
        }
        if (!chapters.empty())
        {
            chapters.back().end = *time;
        }
        chapters.push_back({*time, kOpenEnd, std::string(line.substr(title))});
    }
    return chapters;
}

//! Each chapter ends with the start of the next at the latest.
void Separate(std::vector<Cue>& ioChapters)
{
    std::stable_sort(ioChapters.begin(), ioChapters.end(),
                     [](const Cue& inLeft, const Cue& inRight) { return inLeft.start < inRight.start; });
    for (std::size_t index = 0; index + 1 < ioChapters.size(); ++index)
    {
        ioChapters[index].end = std::min(ioChapters[index].end, ioChapters[index + 1].start);
    }
}

} // namespace

std::vector<Cue> ChaptersOf(const AVFormatContext& inFormat, double inStart)
{
    const std::int64_t start = std::llround(inStart * kCueTimeScale);
    std::vector<Cue> chapters;
    for (unsigned int index = 0; index < inFormat.nb_chapters; ++index)
    {
        const AVChapter& chapter = *inFormat.chapters[index];
        const AVDictionaryEntry* title = av_dict_get(chapter.metadata, "title", nullptr, 0);
        Cue cue;
        cue.start =
            std::max<std::int64_t>(0, av_rescale_q(chapter.start, chapter.time_base, {1, kCueTimeScale}) - start);
        cue.end = chapter.end == AV_NOPTS_VALUE
                      ? kOpenEnd
                      : av_rescale_q(chapter.end, chapter.time_base, {1, kCueTimeScale}) - start;
        cue.text = title != nullptr ? title->value : fmt::format("Chapter {}", index + 1);
        chapters.push_back(std::move(cue));
    }
    Separate(chapters);
    chapters.erase(
        std::remove_if(chapters.begin(), chapters.end(), [](const Cue& inCue) { return inCue.end <= inCue.start; }),
        chapters.end());
    return chapters;
}

std::vector<Cue> ReadChapterFile(const std::string& inPath)
{
    const std::string text = ReadSideFile(kOption, inPath);
    if (!IsValidUTF8(text))
    {
        RefuseSideFile(kOption, inPath, "it is not valid UTF-8", "convert it");
    }
    std::vector<Cue> chapters;
    if (text.find(";FFMETADATA") == 0)
    {
        AVFormatContext* opened = nullptr;
        const int result =
            avformat_open_input(&opened, ("file:" + inPath).c_str(), av_find_input_format("ffmetadata"), nullptr);
        if (result < 0)
        {
            RefuseSideFile(kOption, inPath, fmt::format("it is no sound ffmetadata: {}", LibAVMessage(result)),
                           "mend it, or write lines such as \"00:01:30.000 Title\"");
        }
        for (unsigned int index = 0; index < opened->nb_chapters; ++index)
        {
            const AVChapter& chapter = *opened->chapters[index];
            if (chapter.start < 0 || (chapter.end != AV_NOPTS_VALUE && chapter.end <= chapter.start))
            {
                avformat_close_input(&opened);
                RefuseSideFile(kOption, inPath, fmt::format("chapter {} has no length", index + 1),
                               "give it a START of 0 or more and an END behind that");
            }
        }
        const unsigned int count = opened->nb_chapters;
        chapters = ChaptersOf(*opened, 0);
        avformat_close_input(&opened);
        if (chapters.size() < count)
        {
            RefuseSideFile(kOption, inPath, "two chapters start at the same time", "give each a START of its own");
        }
    }
    else
    {
        chapters = ParseLines(inPath, text);
    }
    if (chapters.empty())
    {
        RefuseSideFile(kOption, inPath, "it has no chapters", "name another file, or leave the option out");
    }
    return chapters;
}

} // namespace Host
