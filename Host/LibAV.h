#pragma once

// The headers of libav are C and do not say so themselves.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/mathematics.h>
#include <libavutil/parseutils.h>
#include <libavutil/pixdesc.h>
#include <libavutil/rational.h>
}

#include <memory>
#include <string>

namespace Host
{

struct PacketDeleter
{
    void operator()(AVPacket* inPacket) const { av_packet_free(&inPacket); }
};

using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

//! What libav says about one of its error numbers.
inline std::string LibAVMessage(int inError)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(inError, text, sizeof(text));
    return text;
}

} // namespace Host
