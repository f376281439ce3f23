// libavformat's mov muxer.

#include "Contestant.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/channel_layout.h>
}

#include <stdexcept>

namespace
{

void Check(int inResult, const char* inWhat)
{
    if (inResult < 0)
    {
        char message[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(inResult, message, sizeof(message));
        throw std::runtime_error(std::string(inWhat) + ": " + message);
    }
}

template <class T>
T* NotNull(T* inPointer)
{
    return inPointer != nullptr ? inPointer : throw std::bad_alloc();
}

class Libavformat final : public Bench::Contestant
{
public:
    ~Libavformat() override
    {
        av_packet_free(&mPacket);
        if (mContext != nullptr)
        {
            avio_closep(&mContext->pb);
        }
        avformat_free_context(mContext);
    }

    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        Check(avformat_alloc_output_context2(&mContext, nullptr, "mov", inPath.c_str()), "mov");
        for (const Bench::Track& track : inLoad.Tracks())
        {
            AddStream(track);
        }
        const int flags = AVIO_FLAG_WRITE | (inLoad.HasLargePieces() ? AVIO_FLAG_DIRECT : 0);
        Check(avio_open(&mContext->pb, inPath.c_str(), flags), "avio_open");
        mContext->flush_packets = 0;
        Check(avformat_write_header(mContext, nullptr), "avformat_write_header");
        for (std::size_t i = 0; i < mClocks.size(); ++i)
        {
            const AVRational& base = mContext->streams[i]->time_base;
            if (base.num != 1 || base.den % inLoad.Tracks()[i].timeScale != 0)
            {
                throw std::runtime_error("the muxer took another time scale");
            }
            mClocks[i].ticksPerUnit = base.den / inLoad.Tracks()[i].timeScale;
        }
        mPacket = NotNull(av_packet_alloc());
    }

    void Write(const Bench::Load& inLoad) override
    {
        inLoad.ForEach([this](const Bench::Piece& inPiece, unsigned char* inData) {
            Clock& clock = mClocks[inPiece.track];
            mPacket->data = inData; // Without a reference: it stays.
            mPacket->size = static_cast<int>(inPiece.size);
            mPacket->stream_index = static_cast<int>(inPiece.track);
            mPacket->pts = mPacket->dts = clock.now;
            mPacket->duration = clock.ticksPerUnit * inPiece.sampleCount * inPiece.sampleDuration;
            mPacket->flags = AV_PKT_FLAG_KEY;
            clock.now += mPacket->duration;
            Check(av_write_frame(mContext, mPacket), "av_write_frame");
        });
    }

    void Close() override
    {
        Check(av_write_trailer(mContext), "av_write_trailer");
        Check(avio_closep(&mContext->pb), "avio_closep");
    }

    std::string Version() const override { return std::string("libavformat ") + av_version_info(); }

private:
    struct Clock
    {
        std::int64_t ticksPerUnit = 1;
        std::int64_t now = 0;
    };

    void AddStream(const Bench::Track& inTrack)
    {
        AVStream* stream = NotNull(avformat_new_stream(mContext, nullptr));
        AVCodecParameters& parameters = *stream->codecpar;
        stream->time_base = {1, inTrack.timeScale};
        if (inTrack.kind == Bench::TrackKind::Sound)
        {
            parameters.codec_type = AVMEDIA_TYPE_AUDIO;
            parameters.codec_id = AV_CODEC_ID_PCM_S16LE;
            parameters.sample_rate = inTrack.timeScale;
            parameters.bits_per_coded_sample = 16;
            parameters.block_align = Bench::kSoundFrameSize;
            av_channel_layout_default(&parameters.ch_layout, 2);
        }
        else
        {
            parameters.codec_type = AVMEDIA_TYPE_VIDEO;
            parameters.codec_id = AV_CODEC_ID_PRORES;
            parameters.codec_tag = MKTAG('a', 'p', 'c', 'n');
            parameters.width = Bench::kWidth;
            parameters.height = Bench::kHeight;
            stream->avg_frame_rate = {inTrack.timeScale, 1};
        }
        mClocks.emplace_back();
    }

    AVFormatContext* mContext = nullptr;
    AVPacket* mPacket = nullptr;
    std::vector<Clock> mClocks; //!< Of each track.
};

} // namespace

int main(int argc, char** argv)
{
    return Bench::Run(argc, argv, {{"libavformat", [] { return std::make_unique<Libavformat>(); }}});
}
