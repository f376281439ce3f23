#include "Names.h"

#include "AtomTree.h"

#include <array>
#include <fmt/format.h>
#include <utility>

namespace Inspect
{

std::string ChannelLabelName(std::uint32_t inLabel)
{
    static constexpr std::pair<std::uint32_t, const char*> kNames[] = {
        {1, "Left"},
        {2, "Right"},
        {3, "Center"},
        {4, "LFE"},
        {5, "Left surround"},
        {6, "Right surround"},
        {7, "Left center"},
        {8, "Right center"},
        {9, "Center surround"},
        {10, "Left surround direct"},
        {11, "Right surround direct"},
        {12, "Top center surround"},
        {13, "Vertical height left"},
        {14, "Vertical height center"},
        {15, "Vertical height right"},
        {16, "Top back left"},
        {17, "Top back center"},
        {18, "Top back right"},
        {33, "Rear surround left"},
        {34, "Rear surround right"},
        {35, "Left wide"},
        {36, "Right wide"},
        {37, "LFE 2"},
        {38, "Left total"},
        {39, "Right total"},
        {42, "Mono"},
        {200, "Ambisonic W"},
        {201, "Ambisonic X"},
        {202, "Ambisonic Y"},
        {203, "Ambisonic Z"},
        {0xFFFFFFFF, "Unknown"},
    };
    for (const auto& [label, name] : kNames)
    {
        if (label == inLabel)
        {
            return name;
        }
    }
    constexpr std::uint32_t kDiscrete0 = 0x10000;
    if (inLabel >= kDiscrete0 && inLabel <= kDiscrete0 + 0xFFFF)
    {
        return fmt::format("Discrete-{}", inLabel - kDiscrete0);
    }
    return fmt::format("label {}", inLabel);
}

std::string ChannelLayoutTagName(std::uint32_t inTag)
{
    switch (inTag >> 16)
    {
    case 100:
        return "Mono";
    case 101:
        return "Stereo";
    case 121:
        return "5.1";
    case 147:
        return fmt::format("{} discrete channels", inTag & 0xFFFF);
    default:
        return fmt::format("layout {} of {} channels", inTag >> 16, inTag & 0xFFFF);
    }
}

std::string HandlerName(std::uint32_t inHandlerType)
{
    switch (inHandlerType)
    {
    case FourCC("vide"):
        return "video";
    case FourCC("soun"):
        return "sound";
    case FourCC("tmcd"):
        return "timecode";
    case FourCC("clcp"):
        return "closed captions";
    case FourCC("text"):
        return "text";
    default:
        return FourCCText(inHandlerType);
    }
}

std::string FieldName(std::uint8_t inCount, std::uint8_t inDetail)
{
    if (inCount == 1)
    {
        return "progressive";
    }
    switch (inDetail)
    {
    case 1:
    case 9:
        return inDetail == 1 ? "interlaced, top field first" : "interlaced, bottom field first, stored top first";
    case 6:
    case 14:
        return inDetail == 6 ? "interlaced, bottom field first" : "interlaced, top field first, stored bottom first";
    default:
        return fmt::format("{} fields, detail {}", inCount, inDetail);
    }
}

std::string ColorName(std::uint16_t inPrimaries, std::uint16_t inTransferFunction, std::uint16_t inMatrix)
{
    static constexpr std::pair<std::array<std::uint16_t, 3>, const char*> kNames[] = {
        {{1, 1, 1}, "BT.709"},     {{6, 1, 6}, "BT.601 525"},       {{5, 1, 6}, "BT.601 625"},
        {{6, 6, 6}, "BT.601 525"}, {{5, 6, 6}, "BT.601 625"},       {{9, 1, 9}, "BT.2020"},
        {{9, 14, 9}, "BT.2020"},   {{9, 16, 9}, "BT.2020 with PQ"}, {{9, 18, 9}, "BT.2020 with HLG"},
    };
    for (const auto& [indices, name] : kNames)
    {
        if (indices == std::array<std::uint16_t, 3>{inPrimaries, inTransferFunction, inMatrix})
        {
            return name;
        }
    }
    return fmt::format("{},{},{}", inPrimaries, inTransferFunction, inMatrix);
}

} // namespace Inspect
