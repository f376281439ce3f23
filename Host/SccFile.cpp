#include "SccFile.h"

#include "SideFile.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace Host
{

namespace
{

constexpr const char* kOption = "--captions";
constexpr AVRational kNtscRate = {30000, 1001};
constexpr int kFrames = 30; //!< that a second of the file's timecode counts
constexpr CaptionBytes kPadding = {0x80, 0x80};

[[noreturn]] void RefuseLine(const std::string& inPath, int inNumber, const std::string& inReason,
                             const std::string& inRemedy)
{
    RefuseSideFile(kOption, inPath, fmt::format("line {}: {}", inNumber, inReason), inRemedy);
}

std::string_view Trimmed(std::string_view inText)
{
    const std::size_t begin = inText.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view()
                                           : inText.substr(begin, inText.find_last_not_of(" \t") + 1 - begin);
}

//! Takes the first word off a line.
std::string_view TakeWord(std::string_view& ioLine)
{
    const std::size_t end = std::min(ioLine.find_first_of(" \t"), ioLine.size());
    const std::string_view word = ioLine.substr(0, end);
    ioLine = Trimmed(ioLine.substr(end));
    return word;
}

std::optional<CaptionBytes> ParsePair(std::string_view inWord)
{
    unsigned int value = 0;
    const auto [end, error] = std::from_chars(inWord.data(), inWord.data() + inWord.size(), value, 16);
    if (inWord.size() != 4 || error != std::errc() || end != inWord.data() + inWord.size())
    {
        return std::nullopt;
    }
    return CaptionBytes{static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value & 0xFFU)};
}

} // namespace

std::vector<SccLine> ParseScc(const std::string& inPath, std::string_view inText)
{
    const std::vector<std::string_view> texts = SplitLines(inText);
    if (texts.empty() || Trimmed(texts.front()) != "Scenarist_SCC V1.0")
    {
        RefuseSideFile(kOption, inPath, "it is no SCC file, whose first line is \"Scenarist_SCC V1.0\"",
                       "convert the captions to SCC");
    }
    std::vector<SccLine> lines;
    for (std::size_t index = 1; index < texts.size(); ++index)
    {
        std::string_view text = Trimmed(texts[index]);
        if (text.empty())
        {
            continue;
        }
        SccLine line;
        line.number = static_cast<int>(index + 1);
        const std::string_view time = TakeWord(text);
        const std::optional<Timecode> timecode = ParseTimecode(time);
        if (!timecode)
        {
            RefuseLine(inPath, line.number, fmt::format("\"{}\" is no timecode", time),
                       "write it as HH:MM:SS:FF or HH:MM:SS;FF");
        }
        if (const auto fault = FindTimecodeFault(*timecode, kNtscRate))
        {
            RefuseLine(inPath, line.number, fmt::format("{}: {}", time, fault->reason), fault->remedy);
        }
        line.timecode = *timecode;
        while (!text.empty())
        {
            const std::string_view word = TakeWord(text);
            const std::optional<CaptionBytes> pair = ParsePair(word);
            if (!pair)
            {
                RefuseLine(inPath, line.number, fmt::format("\"{}\" is no pair of bytes", word),
                           "write each pair as four hexadecimal digits");
            }
            line.pairs.push_back(*pair);
        }
        if (!lines.empty() && CountFrames(line.timecode, kFrames) < CountFrames(lines.back().timecode, kFrames))
        {
            RefuseLine(inPath, line.number, "its timecode is before that of the line above it",
                       "sort the lines by their timecodes");
        }
        if (!lines.empty() && line.timecode.isDropFrame != lines.back().timecode.isDropFrame)
        {
            RefuseLine(inPath, line.number, "drop-frame and other timecodes stand in one file",
                       "write all with a semicolon in front of the frames, or all with a colon");
        }
        lines.push_back(std::move(line));
    }
    const bool isEmpty =
        std::all_of(lines.begin(), lines.end(), [](const SccLine& inLine) { return inLine.pairs.empty(); });
    if (isEmpty)
    {
        RefuseSideFile(kOption, inPath, "it has no captions", "name another file, or leave the option out");
    }
    return lines;
}

CaptionQueue::CaptionQueue(const std::string& inPath, const std::vector<SccLine>& inLines, const Timecode& inStart,
                           AVRational inVideoRate)
    : mRate(kNtscRate)
{
    const bool isTrue30 = av_cmp_q(inVideoRate, {30, 1}) == 0 || av_cmp_q(inVideoRate, {60, 1}) == 0;
    if (isTrue30)
    {
        mRate = {30, 1};
    }
    std::int64_t next = 0; // The first frame that is free.
    for (const SccLine& line : inLines)
    {
        if (isTrue30 && line.timecode.isDropFrame)
        {
            RefuseLine(
                inPath, line.number,
                fmt::format("drop-frame timecode does not exist beside video of {} frames per second", inVideoRate.num),
                "convert the captions to timecodes with a colon in front of the frames");
        }
        Timecode start = inStart;
        start.isDropFrame = line.timecode.isDropFrame;
        const std::int64_t first = CountFrames(line.timecode, kFrames) - CountFrames(start, kFrames);
        if (first < 0)
        {
            RefuseLine(inPath, line.number,
                       fmt::format("{} is before {}, where the video begins", FormatTimecode(line.timecode),
                                   FormatTimecode(inStart)),
                       "say with --start which timecode is on the first video frame");
        }
        next = std::max(next, first);
        for (const CaptionBytes& bytes : line.pairs)
        {
            mPairs.push_back({next++, bytes});
        }
    }
}

std::vector<CaptionBytes> CaptionQueue::TakeUpTo(std::int64_t inEnd, int inTimeScale)
{
    // A quarter into its frame a pair is inside the right video frame at every multiple of the rate, even where the
    // frames' times are rounded.
    const AVRational quarterFrame = av_div_q({1, 4}, mRate);
    std::vector<CaptionBytes> pairs;
    while (!mPairs.empty() &&
           av_compare_ts(4 * mPairs.front().frame + 1, quarterFrame, inEnd, AVRational{1, inTimeScale}) < 0)
    {
        pairs.push_back(mPairs.front().bytes);
        mPairs.pop_front();
    }
    return pairs;
}

double CaptionQueue::GetFirstSeconds() const
{
    return mPairs.empty() ? 0 : static_cast<double>(mPairs.front().frame) / av_q2d(mRate);
}

std::vector<std::uint8_t> MakeCaptionSample(const std::vector<CaptionBytes>& inPairs)
{
    const std::vector<CaptionBytes> padding = {kPadding};
    const std::vector<CaptionBytes>& pairs = inPairs.empty() ? padding : inPairs;
    constexpr std::size_t kHeaderSize = 8;
    const std::size_t size = kHeaderSize + 2 * pairs.size();
    std::vector<std::uint8_t> sample = {static_cast<std::uint8_t>(size >> 24U & 0xFFU),
                                        static_cast<std::uint8_t>(size >> 16U & 0xFFU),
                                        static_cast<std::uint8_t>(size >> 8U & 0xFFU),
                                        static_cast<std::uint8_t>(size & 0xFFU),
                                        'c',
                                        'd',
                                        'a',
                                        't'};
    for (const CaptionBytes& bytes : pairs)
    {
        sample.insert(sample.end(), bytes.begin(), bytes.end());
    }
    return sample;
}

} // namespace Host
