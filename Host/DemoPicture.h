#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Host
{

//! The demo's picture: 75 % colour bars for 16:9 frames (SMPTE RP 219) with a box that shows the timecode and a mark
//! that crosses it once a second. Frames are '2vuy': Cb Y Cr Y for each two pixels, 8 bits, 16 to 235, no row padding.
class DemoPicture
{
public:
    static constexpr int kWidth = 640;
    static constexpr int kHeight = 360;

    DemoPicture();

    //! Draws one frame; the bytes stay valid until the next call.
    //!
    //! \param inTimecode  digits, ':' and ';'
    //! \param inPhase     how far the mark has come, 0 to below 1
    std::vector<std::uint8_t>& Draw(std::string_view inTimecode, double inPhase);

private:
    //! 8-bit BT.709 components.
    struct Colour
    {
        std::uint8_t y, cb, cr;
    };

    //! A rectangle in pixels; x and width are even, because two pixels share their chroma.
    struct Area
    {
        int x, y, width, height;
    };

    //! A patch of colour in a row of the bars.
    struct Patch
    {
        double bars; //!< Width in bar widths, of which 7 make up three quarters of the frame.
        Colour colour;
    };

    static Colour FromRGB(double inRed, double inGreen, double inBlue);
    static Colour Grey(double inLevel) { return FromRGB(inLevel, inLevel, inLevel); }

    void DrawBars();
    void DrawRow(int inTop, int inHeight, const std::vector<Patch>& inPatches);

    //! Changes luma only: for text on a neutral ground.
    void DrawText(std::string_view inText, int inX, int inY, int inScale, std::uint8_t inLuma);

    void Fill(const Area& inArea, Colour inColour);
    void SetLuma(int inX, int inY, std::uint8_t inLuma);

    std::vector<std::uint8_t> mFrame;
};

} // namespace Host
