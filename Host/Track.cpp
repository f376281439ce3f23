#include "Track.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <new>
#include <string_view>
#include <utility>

namespace Host
{

namespace
{

constexpr double kMaximumFrameRate = 1000;

//! Containers that round all times to a common unit, whatever the media's own.
bool RoundsTimes(const MediaSource& inSource)
{
    const std::string_view name = inSource.GetFormat().iformat->name;
    return name.find("matroska") != std::string_view::npos || name == "flv";
}

bool IsSane(AVRational inRate)
{
    return inRate.num > 0 && inRate.den > 0 && av_q2d(inRate) <= kMaximumFrameRate;
}

//! The stream's frame rate where it is constant, as far as the input tells; else 0/1.
AVRational ConstantFrameRate(const AVStream& inStream)
{
    constexpr double kSame = 1e-3;
    const AVRational average = inStream.avg_frame_rate;
    const AVRational base = inStream.r_frame_rate;
    if (!IsSane(base))
    {
        return IsSane(average) ? average : AVRational{0, 1};
    }
    const bool isVariable = IsSane(average) && std::abs(av_q2d(average) / av_q2d(base) - 1) > kSame;
    return isVariable ? AVRational{0, 1} : base;
}

VideoTiming TimingOf(const MediaSource& inSource, const AVStream& inStream)
{
    VideoTiming timing = {};
    timing.timeBase = inStream.time_base;
    timing.frameRate = ConstantFrameRate(inStream);
    timing.isTimeBaseRounded = RoundsTimes(inSource);
    timing.expectedSeconds = inSource.GetExpectedSeconds();
    return timing;
}

//! Whether a packet holds a second JPEG image behind the first, as it does with one image for each field. Inside an
//! image an end marker is never followed by a start marker.
bool HasSecondImage(const AVPacket& inPacket)
{
    const std::string_view data(reinterpret_cast<const char*>(inPacket.data), static_cast<std::size_t>(inPacket.size));
    for (std::size_t end = data.find("\xFF\xD9"); end != std::string_view::npos; end = data.find("\xFF\xD9", end + 2))
    {
        const std::size_t next = data.find_first_not_of('\0', end + 2);
        if (next != std::string_view::npos && data.compare(next, 2, "\xFF\xD8") == 0)
        {
            return true;
        }
    }
    return false;
}

} // namespace

// ---- Any track ------------------------------------------------------------------------------------------------------

void Track::Push(PacketPtr inPacket)
{
    if ((inPacket->flags & AV_PKT_FLAG_DISCARD) != 0)
    {
        ++mDiscardedCount; // An edit of the input leaves it out, and no other frame needs it.
        PassOver(*inPacket);
        return;
    }
    mCorruptCount += (inPacket->flags & AV_PKT_FLAG_CORRUPT) != 0 ? 1 : 0;
    std::size_t size = 0;
    const std::uint8_t* extradata = av_packet_get_side_data(inPacket.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
    const AVCodecParameters& parameters = *mStream.codecpar;
    const bool isSame =
        extradata == nullptr || (size == static_cast<std::size_t>(std::max(parameters.extradata_size, 0)) &&
                                 (size == 0 || std::memcmp(extradata, parameters.extradata, size) == 0));
    if (!isSame || av_packet_get_side_data(inPacket.get(), AV_PKT_DATA_PARAM_CHANGE, &size) != nullptr)
    {
        RefuseStream(mSource, mStream, "its format changes on the way, and a track has one format",
                     "divide the input where it changes");
    }
    Take(std::move(inPacket));
}

void Track::Hold(Sample inSample)
{
    mHasStarted = true;
    mHorizon = inSample.start;
    mQueuedSize += static_cast<std::size_t>(inSample.size);
    if (mHeld)
    {
        mReady.push_back(std::move(*mHeld));
    }
    mHeld = std::move(inSample);
}

void Track::DropReady()
{
    mQueuedSize -= static_cast<std::size_t>(mReady.front().size);
    mReady.pop_front();
}

void Track::Finish()
{
    mIsFinished = true;
    if (mHeld)
    {
        SetFinalDuration(*mHeld);
        mReady.push_back(std::move(*mHeld));
        mHeld.reset();
    }
}

std::optional<std::int64_t> Track::GetOldest() const
{
    if (!mReady.empty())
    {
        return mReady.front().start;
    }
    return mHeld ? std::optional(mHeld->start) : std::nullopt;
}

std::vector<std::string> Track::GetNotes() const
{
    std::vector<std::string> notes;
    if (mCorruptCount > 0)
    {
        notes.push_back(fmt::format("{} packets are marked as damaged in the input; they were taken over as they are",
                                    mCorruptCount));
    }
    if (mDiscardedCount > 0)
    {
        notes.push_back(fmt::format("{} packets that the input's edit list leaves out were left out", mDiscardedCount));
    }
    AddNotes(notes);
    return notes;
}

// ---- Video ----------------------------------------------------------------------------------------------------------

VideoTrack::VideoTrack(const MediaSource& inSource, AVStream& ioStream, const VideoOptions& inOptions)
    : Track(inSource, ioStream),
      mFormat(DescribeVideo(inSource, ioStream, inOptions)),
      mClock(TimingOf(inSource, ioStream))
{
    if (ioStream.time_base.num <= 0 || ioStream.time_base.den <= 0)
    {
        RefuseStream(inSource, ioStream, "it has no time base", "rewrite the input in another container");
    }
}

std::string VideoTrack::GetSummary() const
{
    const AVRational rate = ConstantFrameRate(GetStream());
    return rate.num > 0 ? fmt::format("{}, {:.6g} frames per second", mFormat.summary, av_q2d(rate)) : mFormat.summary;
}

AVRational VideoTrack::GetFrameRate() const
{
    return ConstantFrameRate(GetStream());
}

std::int64_t VideoTrack::GetStatedDuration() const
{
    const bool isStated = GetStream().duration != AV_NOPTS_VALUE && !RoundsTimes(GetSource()) &&
                          GetSource().GetFormat().duration_estimation_method == AVFMT_DURATION_FROM_STREAM;
    return isStated ? mClock.UnitsOf(GetStream().duration) : 0;
}

void VideoTrack::Take(PacketPtr inPacket)
{
    if (inPacket->size == 0)
    {
        ++mEmptyCount; // The frame before it stays on, since it lasts up to the next that comes.
        return;
    }
    if (mFormat.needsKeyFlag && (inPacket->flags & AV_PKT_FLAG_KEY) == 0)
    {
        RefuseStream(GetSource(), GetStream(),
                     "it has frames that need others, and only frames that stand alone can be written",
                     "convert the video to intra frames only");
    }
    if (mFormat.frameSize != 0 && static_cast<std::size_t>(inPacket->size) != mFormat.frameSize)
    {
        RefuseStream(GetSource(), GetStream(),
                     fmt::format("a frame has {} bytes where its pixels take {}, and padding cannot be written",
                                 inPacket->size, mFormat.frameSize),
                     "rewrite the input without it");
    }
    if (mFormat.isOneImage && !HasStarted() && HasSecondImage(*inPacket))
    {
        RefuseStream(GetSource(), GetStream(), "its frames hold an image for each field, and 'jpeg' samples hold one",
                     "convert the video to another codec");
    }
    std::int64_t tick = inPacket->pts != AV_NOPTS_VALUE ? inPacket->pts : inPacket->dts;
    if (tick == AV_NOPTS_VALUE)
    {
        if (HasStarted() && mLastTickDuration <= 0)
        {
            RefuseStream(GetSource(), GetStream(), "a frame has no time, and the frame before it no duration",
                         "rewrite the input with a time for every frame");
        }
        tick = HasStarted() ? mLastTick + mLastTickDuration : 0;
    }
    if (!HasStarted())
    {
        mFirstTick = tick;
    }
    Sample sample;
    sample.start = mClock.UnitsSince(mFirstTick, tick);
    sample.data = inPacket->data;
    sample.size = inPacket->size;
    mLastTick = tick;
    mLastTickDuration = inPacket->duration;
    sample.packet = std::move(inPacket);
    if (mHeld)
    {
        mLastDuration = sample.start - mHeld->start;
        if (mLastDuration <= 0)
        {
            RefuseStream(GetSource(), GetStream(),
                         fmt::format("{} at {:.3f} s",
                                     mLastDuration == 0 ? "two frames have the same time" : "its times go backwards",
                                     static_cast<double>(tick) * av_q2d(GetStream().time_base)),
                         "rewrite the input with frames that follow each other in time");
        }
        mHeld->lastDuration = mLastDuration;
    }
    Hold(std::move(sample));
}

void VideoTrack::SetFinalDuration(Sample& ioSample)
{
    if (mLastTickDuration > 0)
    {
        ioSample.lastDuration = mClock.UnitsOf(mLastTickDuration);
    }
    if (ioSample.lastDuration <= 0)
    {
        ioSample.lastDuration = mClock.GetFrameUnits() > 0 ? mClock.GetFrameUnits() : mLastDuration;
    }
    if (ioSample.lastDuration <= 0)
    {
        RefuseStream(GetSource(), GetStream(), "it is one frame of which the input does not say how long it lasts",
                     "rewrite the input with its duration");
    }
}

void VideoTrack::AddNotes(std::vector<std::string>& ioNotes) const
{
    ioNotes.insert(ioNotes.end(), mFormat.notes.begin(), mFormat.notes.end());
    if (mEmptyCount > 0)
    {
        ioNotes.push_back(fmt::format("{} empty packets (repeated frames) became longer durations of the frames before "
                                      "them",
                                      mEmptyCount));
    }
    if (mClock.GetOffGridCount() > 0)
    {
        ioNotes.push_back(fmt::format("{} frames are off the frame rate's grid and keep the time that the input states",
                                      mClock.GetOffGridCount()));
    }
    if (mClock.IsRounded())
    {
        ioNotes.push_back(fmt::format("times are rounded to 1/{} s: exact ones would be too long for the format",
                                      mClock.GetTimeScale()));
    }
}

// ---- Sound ----------------------------------------------------------------------------------------------------------

SoundTrack::SoundTrack(const MediaSource& inSource, AVStream& ioStream, const AudioLabels* inLabels,
                       std::optional<int> inChannel)
    : Track(inSource, ioStream), mFormat(DescribeSound(inSource, ioStream, inLabels, inChannel)), mChannel(inChannel)
{
    const AVRational& base = ioStream.time_base;
    if (base.num <= 0 || base.den <= 0)
    {
        RefuseStream(inSource, ioStream, "it has no time base", "rewrite the input in another container");
    }
    const std::int64_t samplesPerTick = av_rescale_rnd(base.num, mFormat.sampleRate, base.den, AV_ROUND_UP);
    const bool isExact = static_cast<std::int64_t>(base.num) * mFormat.sampleRate == base.den;
    mTolerance = isExact ? 0 : samplesPerTick;
}

//! An edit of the input may begin or end inside a packet: side data tells how many samples to leave out from this
//! packet on, and how many at its end, 32 bits each.
void SoundTrack::ReadSkip(const AVPacket& inPacket, std::int64_t& outCut)
{
    constexpr std::size_t kSkipSize = 10;
    std::size_t size = 0;
    const std::uint8_t* skip = av_packet_get_side_data(&inPacket, AV_PKT_DATA_SKIP_SAMPLES, &size);
    const bool hasSkip = skip != nullptr && size >= kSkipSize;
    mSkip += hasSkip ? AV_RL32(skip) : 0;
    outCut = hasSkip ? AV_RL32(skip + 4) : 0;
}

void SoundTrack::PassOver(const AVPacket& inPacket)
{
    std::int64_t cut = 0; // The whole packet goes.
    ReadSkip(inPacket, cut);
    mSkip -= std::min<std::int64_t>(mSkip, inPacket.size / mFormat.bytesPerFrame);
}

void SoundTrack::TakeChannel(Sample& ioSample) const
{
    PacketPtr packet(av_packet_alloc());
    if (packet == nullptr || av_new_packet(packet.get(), ioSample.count * mFormat.bytesPerSample) < 0)
    {
        throw std::bad_alloc();
    }
    const auto bytes = static_cast<std::size_t>(mFormat.bytesPerSample);
    const std::uint8_t* source = ioSample.data + *mChannel * mFormat.bytesPerSample;
    for (std::uint8_t* target = packet->data; target != packet->data + packet->size;
         target += bytes, source += mFormat.bytesPerFrame)
    {
        std::memcpy(target, source, bytes);
    }
    ioSample.data = packet->data;
    ioSample.size = packet->size;
    ioSample.packet = std::move(packet);
}

void SoundTrack::Take(PacketPtr inPacket)
{
    std::uint8_t* data = inPacket->data;
    int size = inPacket->size;
    std::int64_t cut = 0;
    ReadSkip(*inPacket, cut);
    const std::int64_t skipped = std::min<std::int64_t>(mSkip, size / mFormat.bytesPerFrame);
    mSkip -= skipped;
    cut = std::min<std::int64_t>(cut, size / mFormat.bytesPerFrame - skipped);
    mSkippedCount += skipped + cut;
    data += skipped * mFormat.bytesPerFrame;
    size -= static_cast<int>((skipped + cut) * mFormat.bytesPerFrame);
    if (mPartialSize != 0)
    {
        RefuseStream(GetSource(), GetStream(), "a packet ends inside a sample frame",
                     "rewrite the input, or get a sound copy");
    }
    mPartialSize = size % mFormat.bytesPerFrame;
    const int count = size / mFormat.bytesPerFrame;
    if (count == 0)
    {
        return;
    }
    const std::int64_t tick = inPacket->pts != AV_NOPTS_VALUE ? inPacket->pts : inPacket->dts;
    if (tick != AV_NOPTS_VALUE)
    {
        const std::int64_t position = av_rescale_q(tick, GetStream().time_base, {1, mFormat.sampleRate}) + skipped;
        if (!HasStarted())
        {
            mFirstPosition = position;
        }
        else if (tick < mLastTick)
        {
            RefuseStream(GetSource(), GetStream(),
                         fmt::format("its times go backwards at {:.3f} s",
                                     static_cast<double>(tick) * av_q2d(GetStream().time_base)),
                         "rewrite the input with times that go forward");
        }
        mLastTick = tick;
        const std::int64_t gap = position - mFirstPosition - mNext;
        if (gap > mTolerance)
        {
            mHeld->lastDuration += gap; // The first packet has no gap, so there is one before this.
            mNext += gap;
            mGapSamples += gap;
            ++mGapCount;
        }
        else if (gap < -mTolerance)
        {
            mMaximumOverlap = std::max(mMaximumOverlap, -gap);
        }
    }
    Sample sample;
    sample.data = data;
    sample.size = count * mFormat.bytesPerFrame;
    sample.start = mNext;
    sample.count = count;
    sample.duration = 1;
    sample.lastDuration = 1;
    sample.packet = std::move(inPacket);
    if (mChannel)
    {
        TakeChannel(sample);
    }
    mNext += count;
    Hold(std::move(sample));
}

void SoundTrack::SetFinalDuration(Sample&) {} // A sample lasts one unit.

void SoundTrack::AddNotes(std::vector<std::string>& ioNotes) const
{
    ioNotes.insert(ioNotes.end(), mFormat.notes.begin(), mFormat.notes.end());
    if (mSkippedCount > 0)
    {
        ioNotes.push_back(fmt::format("{} samples that the input's edit list leaves out were left out", mSkippedCount));
    }
    if (mGapCount > 0)
    {
        ioNotes.push_back(fmt::format("{} gaps, {} samples in all, are kept by a longer duration of the sample before "
                                      "each",
                                      mGapCount, mGapSamples));
    }
    if (mMaximumOverlap > 0)
    {
        ioNotes.push_back(
            fmt::format("there are more samples than the input's times have room for, up to {:.3f} s; none "
                        "was left out",
                        static_cast<double>(mMaximumOverlap) / mFormat.sampleRate));
    }
    if (mPartialSize > 0)
    {
        ioNotes.push_back(fmt::format("its last {} bytes are no whole sample frame and were left out", mPartialSize));
    }
}

} // namespace Host
