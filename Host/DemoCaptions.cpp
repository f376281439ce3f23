#include "DemoCaptions.h"

#include <bitset>
#include <cstddef>
#include <stdexcept>

namespace Host
{

namespace
{

constexpr int kColumns = 32;
constexpr int kLastRows = 2; // rows 14 and 15

// Control codes of channel 1. Each is sent twice in a row; a receiver acts on the first that it gets.
constexpr CaptionPair kResumeCaptionLoading = {0x14, 0x20};
constexpr CaptionPair kEraseDisplayedMemory = {0x14, 0x2C};
constexpr CaptionPair kEraseNonDisplayedMemory = {0x14, 0x2E};
constexpr CaptionPair kEndOfCaption = {0x14, 0x2F};
constexpr CaptionPair kPadding = {0x00, 0x00};

std::uint8_t WithOddParity(std::uint8_t inByte)
{
    return std::bitset<7>(inByte).count() % 2 == 0 ? static_cast<std::uint8_t>(inByte | 0x80U) : inByte;
}

void AppendControl(std::vector<CaptionPair>& ioPairs, const CaptionPair& inCode)
{
    ioPairs.insert(ioPairs.end(), 2, inCode);
}

// Moves to a column: the row's preamble indents by fours, a tab offset by the one to three columns that are left.
void AppendPosition(std::vector<CaptionPair>& ioPairs, std::size_t inRowFromBottom, std::size_t inColumn)
{
    const unsigned int rowBits = inRowFromBottom == 0 ? 0x70U : 0x50U;
    AppendControl(ioPairs, {0x14, static_cast<std::uint8_t>(rowBits | (inColumn / 4) << 1U)});
    if (inColumn % 4 != 0)
    {
        AppendControl(ioPairs, {0x17, static_cast<std::uint8_t>(0x20U + inColumn % 4)});
    }
}

void AppendText(std::vector<CaptionPair>& ioPairs, std::string_view inText)
{
    for (std::size_t i = 0; i < inText.size(); i += 2)
    {
        const char second = i + 1 < inText.size() ? inText[i + 1] : '\0';
        ioPairs.push_back({static_cast<std::uint8_t>(inText[i]), static_cast<std::uint8_t>(second)});
    }
}

// Everything that has to be sent before the caption can be shown.
std::vector<CaptionPair> LoadCaption(const Caption& inCaption)
{
    if (inCaption.lines.size() > kLastRows)
    {
        throw std::logic_error("a caption has too many lines");
    }
    std::vector<CaptionPair> pairs;
    AppendControl(pairs, kResumeCaptionLoading);
    AppendControl(pairs, kEraseNonDisplayedMemory);
    for (std::size_t line = 0; line < inCaption.lines.size(); ++line)
    {
        const std::string_view text = inCaption.lines[line];
        if (text.size() > kColumns)
        {
            throw std::logic_error("a caption line is too long");
        }
        AppendPosition(pairs, inCaption.lines.size() - 1 - line, (kColumns - text.size()) / 2);
        AppendText(pairs, text);
    }
    return pairs;
}

// Puts the pairs into consecutive frames, none of which may carry data already.
void Place(const std::vector<CaptionPair>& inPairs, int inFirstFrame, std::vector<CaptionPair>& ioFrames)
{
    int frame = inFirstFrame;
    for (const CaptionPair& pair : inPairs)
    {
        CaptionPair& slot = ioFrames.at(static_cast<std::size_t>(frame));
        if (slot != kPadding)
        {
            throw std::logic_error("captions stand too close");
        }
        slot = pair;
        ++frame;
    }
}

} // namespace

std::vector<CaptionPair> EncodeCaptions(const std::vector<Caption>& inCaptions, int inFrameCount)
{
    std::vector<CaptionPair> frames(static_cast<std::size_t>(inFrameCount), kPadding);
    for (const Caption& caption : inCaptions)
    {
        const std::vector<CaptionPair> load = LoadCaption(caption);
        Place(load, caption.firstFrame - static_cast<int>(load.size()), frames);
        Place({kEndOfCaption, kEndOfCaption}, caption.firstFrame, frames);
        Place({kEraseDisplayedMemory, kEraseDisplayedMemory}, caption.endFrame, frames);
    }
    for (CaptionPair& pair : frames)
    {
        pair = {WithOddParity(pair[0]), WithOddParity(pair[1])};
    }
    return frames;
}

} // namespace Host
