#include "DemoPicture.h"

#include <algorithm>
#include <cmath>

namespace Host
{

namespace
{

constexpr int kBytesPerPixel = 2;
constexpr double kSideWidth = 7.0 / 6; // in bar widths: an eighth of the frame on either side of the seven bars

// One character of 5 by 7 dots: seven rows from the top, the leftmost dot in bit 4.
struct Glyph
{
    char character;
    std::array<std::uint8_t, 7> rows;
};

constexpr int kGlyphAdvance = 6;

// What the timecode and the title need.
constexpr Glyph kGlyphs[] = {
    {'0', {0b01110, 0b10001, 0b10011, 0b10101, 0b11001, 0b10001, 0b01110}},
    {'1', {0b00100, 0b01100, 0b00100, 0b00100, 0b00100, 0b00100, 0b01110}},
    {'2', {0b01110, 0b10001, 0b00001, 0b00110, 0b01000, 0b10000, 0b11111}},
    {'3', {0b01110, 0b10001, 0b00001, 0b00110, 0b00001, 0b10001, 0b01110}},
    {'4', {0b00010, 0b00110, 0b01010, 0b10010, 0b11111, 0b00010, 0b00010}},
    {'5', {0b11111, 0b10000, 0b11110, 0b00001, 0b00001, 0b10001, 0b01110}},
    {'6', {0b00110, 0b01000, 0b10000, 0b11110, 0b10001, 0b10001, 0b01110}},
    {'7', {0b11111, 0b00001, 0b00010, 0b00100, 0b01000, 0b01000, 0b01000}},
    {'8', {0b01110, 0b10001, 0b10001, 0b01110, 0b10001, 0b10001, 0b01110}},
    {'9', {0b01110, 0b10001, 0b10001, 0b01111, 0b00001, 0b00010, 0b01100}},
    {':', {0b00000, 0b00100, 0b00100, 0b00000, 0b00100, 0b00100, 0b00000}},
    {';', {0b00000, 0b00100, 0b00100, 0b00000, 0b00100, 0b00100, 0b01000}},
    {'E', {0b11111, 0b10000, 0b10000, 0b11110, 0b10000, 0b10000, 0b11111}},
    {'I', {0b01110, 0b00100, 0b00100, 0b00100, 0b00100, 0b00100, 0b01110}},
    {'L', {0b10000, 0b10000, 0b10000, 0b10000, 0b10000, 0b10000, 0b11111}},
    {'M', {0b10001, 0b11011, 0b10101, 0b10101, 0b10001, 0b10001, 0b10001}},
    {'R', {0b11110, 0b10001, 0b10001, 0b11110, 0b10100, 0b10010, 0b10001}},
};

constexpr int kBoxWidth = 288;
constexpr int kBoxHeight = 88;
constexpr int kBoxX = (DemoPicture::kWidth - kBoxWidth) / 2;
constexpr int kBoxY = 76;
constexpr int kBoxMargin = 12;
constexpr int kTitleScale = 2;
constexpr int kTimecodeScale = 4;
constexpr int kMarkWidth = 8;
constexpr int kMarkHeight = 8;

int TextWidth(std::string_view inText, int inScale)
{
    return (static_cast<int>(inText.size()) * kGlyphAdvance - 1) * inScale;
}

int RoundToPair(double inX)
{
    return 2 * static_cast<int>(std::lround(inX / 2));
}

std::uint8_t Quantise(double inValue)
{
    return static_cast<std::uint8_t>(std::lround(inValue));
}

} // namespace

DemoPicture::DemoPicture() : mFrame(static_cast<std::size_t>(kWidth) * kHeight * kBytesPerPixel)
{
    DrawBars();
}

std::vector<std::uint8_t>& DemoPicture::Draw(std::string_view inTimecode, double inPhase)
{
    constexpr std::string_view kTitle = "REELMILL";
    const Colour white = Grey(0.9);

    Fill({kBoxX, kBoxY, kBoxWidth, kBoxHeight}, Grey(0));
    DrawText(kTitle, (kWidth - TextWidth(kTitle, kTitleScale)) / 2, kBoxY + 10, kTitleScale, Grey(0.5).y);
    DrawText(inTimecode, (kWidth - TextWidth(inTimecode, kTimecodeScale)) / 2, kBoxY + 34, kTimecodeScale, white.y);

    const Area rail{kBoxX + kBoxMargin, kBoxY + kBoxHeight - 18, kBoxWidth - 2 * kBoxMargin, kMarkHeight};
    Fill({rail.x, rail.y + kMarkHeight / 2 - 1, rail.width, 2}, Grey(0.3));
    Fill({rail.x + RoundToPair(inPhase * (rail.width - kMarkWidth)), rail.y, kMarkWidth, kMarkHeight}, white);
    return mFrame;
}

DemoPicture::Colour DemoPicture::FromRGB(double inRed, double inGreen, double inBlue)
{
    const double luma = 0.2126 * inRed + 0.7152 * inGreen + 0.0722 * inBlue;
    return {Quantise(16 + 219 * luma), Quantise(128 + 224 * (inBlue - luma) / 1.8556),
            Quantise(128 + 224 * (inRed - luma) / 1.5748)};
}

void DemoPicture::DrawBars()
{
    constexpr Colour kMinusI{61, 153, 99};
    constexpr Colour kPlusQ{35, 174, 152};
    constexpr double kLevel = 0.75;
    constexpr int kTwelfth = kHeight / 12;
    const Colour black = Grey(0);
    const Colour white = Grey(1);

    DrawRow(0, 7 * kTwelfth,
            {{kSideWidth, Grey(0.4)},
             {1, Grey(kLevel)},
             {1, FromRGB(kLevel, kLevel, 0)},
             {1, FromRGB(0, kLevel, kLevel)},
             {1, FromRGB(0, kLevel, 0)},
             {1, FromRGB(kLevel, 0, kLevel)},
             {1, FromRGB(kLevel, 0, 0)},
             {1, FromRGB(0, 0, kLevel)},
             {kSideWidth, Grey(0.4)}});

    DrawRow(7 * kTwelfth, kTwelfth,
            {{kSideWidth, FromRGB(0, 1, 1)}, {1, kMinusI}, {6, Grey(kLevel)}, {kSideWidth, FromRGB(0, 0, 1)}});

    std::vector<Patch> ramp = {{kSideWidth, FromRGB(1, 1, 0)}, {1, kPlusQ}};
    constexpr int kRampSteps = 200; // more than the 8-bit levels between two pixel pairs can show
    for (int step = 0; step < kRampSteps; ++step)
    {
        ramp.push_back({5.0 / kRampSteps, Grey(static_cast<double>(step) / kRampSteps)});
    }
    ramp.push_back({1, white});
    ramp.push_back({kSideWidth, FromRGB(1, 0, 0)});
    DrawRow(8 * kTwelfth, kTwelfth, ramp);

    // The narrow steps around black (-2 %, +2 %, +4 %) set a monitor's brightness.
    DrawRow(9 * kTwelfth, 3 * kTwelfth,
            {{kSideWidth, Grey(0.15)},
             {1.5, black},
             {2, white},
             {5.0 / 6, black},
             {1.0 / 3, Grey(-0.02)},
             {1.0 / 3, black},
             {1.0 / 3, Grey(0.02)},
             {1.0 / 3, black},
             {1.0 / 3, Grey(0.04)},
             {1, black},
             {kSideWidth, Grey(0.15)}});
}

void DemoPicture::DrawRow(int inTop, int inHeight, const std::vector<Patch>& inPatches)
{
    constexpr double kBarWidth = 0.75 * kWidth / 7;
    double x = 0;
    for (const Patch& patch : inPatches)
    {
        const int left = RoundToPair(x);
        x += patch.bars * kBarWidth;
        Fill({left, inTop, RoundToPair(x) - left, inHeight}, patch.colour);
    }
}

void DemoPicture::DrawText(std::string_view inText, int inX, int inY, int inScale, std::uint8_t inLuma)
{
    int left = inX;
    for (const char character : inText)
    {
        const auto glyph = std::find_if(std::begin(kGlyphs), std::end(kGlyphs),
                                        [character](const Glyph& inGlyph) { return inGlyph.character == character; });
        for (int y = 0; glyph != std::end(kGlyphs) && y < 7 * inScale; ++y)
        {
            const unsigned int row = glyph->rows[static_cast<std::size_t>(y / inScale)];
            for (int x = 0; x < 5 * inScale; ++x)
            {
                if ((row >> (4 - x / inScale)) & 1U)
                {
                    SetLuma(left + x, inY + y, inLuma);
                }
            }
        }
        left += kGlyphAdvance * inScale;
    }
}

void DemoPicture::Fill(const Area& inArea, Colour inColour)
{
    for (int y = inArea.y; y < inArea.y + inArea.height; ++y)
    {
        for (int x = inArea.x; x < inArea.x + inArea.width; x += 2)
        {
            const std::array<std::uint8_t, 4> pair = {inColour.cb, inColour.y, inColour.cr, inColour.y};
            std::copy(pair.begin(), pair.end(), mFrame.begin() + (y * kWidth + x) * kBytesPerPixel);
        }
    }
}

void DemoPicture::SetLuma(int inX, int inY, std::uint8_t inLuma)
{
    const auto pixel = static_cast<std::size_t>(inY) * kWidth + static_cast<std::size_t>(inX);
    mFrame[pixel * kBytesPerPixel + 1] = inLuma;
}

} // namespace Host
