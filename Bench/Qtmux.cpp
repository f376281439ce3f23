// GStreamer's qtmux, fed by one appsrc a track.

#include "Contestant.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <semaphore>
#include <stdexcept>
#include <utility>

namespace
{

//! How far a track may be ahead of the muxer; more than the half second that `chunks` writes of one track alone.
constexpr std::uint64_t kQueuedPieces = 2000;

class Qtmux final : public Bench::Contestant
{
public:
    Qtmux() { gst_init(nullptr, nullptr); }

    ~Qtmux() override
    {
        if (mPipeline != nullptr)
        {
            mMayEnd.release();
            gst_element_set_state(mPipeline, GST_STATE_NULL);
            gst_object_unref(mPipeline);
        }
    }

    void Create(const Bench::Load& inLoad, const std::string& inPath) override
    {
        mPipeline = gst_pipeline_new(nullptr);
        GstElement* muxer = Make("qtmux");
        if (inLoad.Alternates())
        {
            g_object_set(muxer, "interleave-time", guint64{1}, nullptr); // ns; it would reorder the samples.
        }
        GstElement* sink = Make("filesink");
        g_object_set(sink, "location", inPath.c_str(), "async", FALSE, "sync", FALSE, "enable-last-sample", FALSE,
                     "buffer-mode", inLoad.HasLargePieces() ? 2 : 0 /* unbuffered, full */, "buffer-size", 1u << 20,
                     nullptr);
        if (gst_element_link(muxer, sink) == FALSE)
        {
            throw std::runtime_error("qtmux and filesink do not fit");
        }
        for (const Bench::Track& track : inLoad.Tracks())
        {
            AddSource(track, muxer);
        }
        if (gst_element_set_state(mPipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        {
            Listen(GST_MESSAGE_ERROR, GST_SECOND);
            throw std::runtime_error("the pipeline does not start");
        }
    }

    void Write(const Bench::Load& inLoad) override
    {
        inLoad.ForEach([this](const Bench::Piece& inPiece, unsigned char* inData) {
            Source& source = mSources[inPiece.track];
            // Wraps the memory, which stays.
            GstBuffer* buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, inData, inPiece.size, 0,
                                                            inPiece.size, nullptr, nullptr);
            const auto toTime = [&source](std::uint64_t inUnits) {
                return gst_util_uint64_scale(inUnits, GST_SECOND, source.timeScale);
            };
            GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = toTime(source.now);
            source.now +=
                static_cast<std::uint64_t>(inPiece.sampleCount) * static_cast<std::uint64_t>(inPiece.sampleDuration);
            GST_BUFFER_DURATION(buffer) = toTime(source.now) - GST_BUFFER_PTS(buffer);
            if (gst_app_src_push_buffer(source.element, buffer) != GST_FLOW_OK)
            {
                Listen(GST_MESSAGE_ERROR, GST_SECOND);
                throw std::runtime_error("the pipeline takes no more samples");
            }
        });
        for (const Source& source : mSources)
        {
            gst_app_src_end_of_stream(source.element);
        }
        while (!mAllIsIn.try_acquire_for(std::chrono::milliseconds(100)))
        {
            Listen(GST_MESSAGE_ERROR, 0);
        }
    }

    void Close() override
    {
        mMayEnd.release();
        Listen(GST_MESSAGE_EOS, GST_CLOCK_TIME_NONE);
        gst_element_set_state(mPipeline, GST_STATE_NULL);
        gst_object_unref(std::exchange(mPipeline, nullptr));
    }

    std::string Version() const override
    {
        guint major = 0;
        guint minor = 0;
        guint micro = 0;
        guint nano = 0;
        gst_version(&major, &minor, &micro, &nano);
        return "GStreamer " + std::to_string(major) + '.' + std::to_string(minor) + '.' + std::to_string(micro);
    }

private:
    struct Source
    {
        GstAppSrc* element = nullptr;
        std::uint64_t timeScale = 1;
        std::uint64_t now = 0; //!< In units of it.
    };

    //! The pipeline owns what is made.
    GstElement* Make(const char* inFactory)
    {
        GstElement* element = gst_element_factory_make(inFactory, nullptr);
        if (element == nullptr)
        {
            throw std::runtime_error(std::string("GStreamer has no element ") + inFactory);
        }
        gst_bin_add(GST_BIN(mPipeline), element);
        return element;
    }

    void AddSource(const Bench::Track& inTrack, GstElement* inMuxer)
    {
        const bool isVideo = inTrack.kind == Bench::TrackKind::Video;
        const std::string caps =
            isVideo ? "video/x-prores,variant=standard,width=1920,height=1080,framerate=" +
                          std::to_string(inTrack.timeScale) + "/1"
                    : "audio/x-raw,format=S16LE,layout=interleaved,channels=2,channel-mask=(bitmask)3,rate=" +
                          std::to_string(inTrack.timeScale);
        GstElement* element = Make("appsrc");
        GstCaps* parsed = gst_caps_from_string(caps.c_str());
        g_object_set(element, "caps", parsed, "format", GST_FORMAT_TIME, "block", TRUE, "max-bytes", guint64{0},
                     "max-buffers", guint64{kQueuedPieces}, nullptr);
        gst_caps_unref(parsed);
        if (gst_element_link_pads(element, "src", inMuxer, isVideo ? "video_%u" : "audio_%u") == FALSE)
        {
            throw std::runtime_error("qtmux does not take " + caps);
        }
        GstPad* pad = gst_element_get_static_pad(element, "src");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnEvent, this, nullptr);
        gst_object_unref(pad);
        mSources.push_back({GST_APP_SRC(element), static_cast<std::uint64_t>(inTrack.timeScale)});
    }

    //! Holds back the end of the last track, so that what is still queued counts as samples and not as `Close`.
    static GstPadProbeReturn OnEvent(GstPad*, GstPadProbeInfo* inInfo, gpointer ioThis)
    {
        auto& self = *static_cast<Qtmux*>(ioThis);
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(inInfo)) == GST_EVENT_EOS &&
            ++self.mEndedTracks == self.mSources.size())
        {
            self.mAllIsIn.release();
            self.mMayEnd.acquire();
        }
        return GST_PAD_PROBE_OK;
    }

    //! Returns when the pipeline has said so, or after a time, in nanoseconds; throws what it says of a failure.
    void Listen(GstMessageType inMessage, GstClockTime inTimeout)
    {
        GstBus* bus = gst_element_get_bus(mPipeline);
        GstMessage* message =
            gst_bus_timed_pop_filtered(bus, inTimeout, static_cast<GstMessageType>(inMessage | GST_MESSAGE_ERROR));
        gst_object_unref(bus);
        if (message == nullptr || GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR)
        {
            gst_clear_message(&message);
            return;
        }
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        const std::string text = error->message;
        g_error_free(error);
        gst_message_unref(message);
        throw std::runtime_error(text);
    }

    std::atomic<std::size_t> mEndedTracks{0};
    std::binary_semaphore mAllIsIn{0};
    std::binary_semaphore mMayEnd{0};
    GstElement* mPipeline = nullptr;
    std::vector<Source> mSources;
};

} // namespace

int main(int argc, char** argv)
{
    return Bench::Run(argc, argv, {{"qtmux", [] { return std::make_unique<Qtmux>(); }}});
}
