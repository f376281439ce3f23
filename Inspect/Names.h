#pragma once

#include <cstdint>
#include <string>

namespace Inspect
{

//! "Left", "LFE", "Discrete-3", ... for a channel label of 'chan'; its number when it has no name.
std::string ChannelLabelName(std::uint32_t inLabel);

//! The name of a common channel layout tag, such as "Stereo"; its number when it has none.
std::string ChannelLayoutTagName(std::uint32_t inTag);

//! "video", "sound", "timecode", ... for a media handler; the code in quotes when it has no name.
std::string HandlerName(std::uint32_t inHandlerType);

//! The scanning that a 'fiel' atom says.
std::string FieldName(std::uint8_t inCount, std::uint8_t inDetail);

//! A name for the usual combinations of 'colr' indices, such as "BT.709"; else the three numbers.
std::string ColorName(std::uint16_t inPrimaries, std::uint16_t inTransferFunction, std::uint16_t inMatrix);

} // namespace Inspect
