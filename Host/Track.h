#pragma once

#include "MediaSource.h"
#include "SoundFormat.h"
#include "Timing.h"
#include "VideoFormat.h"

#include <Reelmill/Reelmill.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Host
{

//! Samples of a packet with their times in the movie, in units of their track.
struct Sample
{
    PacketPtr packet;
    std::uint8_t* data = nullptr; //!< in the packet
    int size = 0;
    std::int64_t start = 0; //!< since the track's first sample
    int count = 1;
    std::int64_t duration = 0;     //!< of every sample but the last
    std::int64_t lastDuration = 0; //!< of the last
};

//! One stream on its way into a movie: takes packets as they are read and turns them into samples once their durations
//! are known, that is when the next packet has come.
class Track
{
public:
    virtual ~Track() = default;

    Track(const Track&) = delete;
    Track& operator=(const Track&) = delete;

    //! Takes the stream's next packet. Refuses (RefuseStream) what no track can hold.
    void Push(PacketPtr inPacket);

    //! The stream has ended: the last samples get their durations.
    void Finish();

    const MediaSource& GetSource() const { return mSource; }
    AVStream& GetStream() const { return mStream; }
    bool IsFinished() const { return mIsFinished; }

    //! Whether any packet has come.
    bool HasStarted() const { return mHasStarted; }

    //! Time of the first sample, in units of the stream; only once started.
    virtual std::int64_t GetFirstTime() const = 0;
    virtual AVRational GetFirstTimeBase() const = 0;

    //! Units per second.
    virtual int GetTimeScale() const = 0;

    //! Frames per second of video where they are constant, as far as the input tells; else 0/1.
    virtual AVRational GetFrameRate() const { return {0, 1}; }

    //! Length in units of video as the input states it, exactly; 0 when it does not.
    virtual std::int64_t GetStatedDuration() const { return 0; }

    virtual QT::MediaType GetMediaType() const = 0;
    virtual int GetWidth() const { return 0; }
    virtual int GetHeight() const { return 0; }
    virtual boost::shared_ptr<QT::QTSampleDescription> GetDescription() const = 0;

    //! The format, for people.
    virtual std::string GetSummary() const = 0;

    //! What the user should know about how the stream was taken over, one sentence each.
    std::vector<std::string> GetNotes() const;

    //! The oldest sample that is ready to be written; null when there is none.
    const Sample* GetReady() const { return mReady.empty() ? nullptr : &mReady.front(); }

    //! Lets go of it.
    void DropReady();

    //! Bytes of all samples that wait here.
    std::size_t GetQueuedSize() const { return mQueuedSize; }

    //! Bytes of those that are ready, and how many packets of the input they come from.
    std::size_t GetReadySize() const { return mQueuedSize - (mHeld ? static_cast<std::size_t>(mHeld->size) : 0); }
    std::size_t GetReadyCount() const { return mReady.size(); }

    //! Start of the latest sample that has come.
    std::int64_t GetHorizon() const { return mHorizon; }

    //! Start of the oldest sample that waits; none when nothing waits.
    std::optional<std::int64_t> GetOldest() const;

protected:
    Track(const MediaSource& inSource, AVStream& ioStream) : mSource(inSource), mStream(ioStream) {}

    //! Does what differs between video and sound.
    virtual void Take(PacketPtr inPacket) = 0;
    virtual void PassOver(const AVPacket&) {} //!< A packet that is left out.
    virtual void SetFinalDuration(Sample& ioSample) = 0;
    virtual void AddNotes(std::vector<std::string>& ioNotes) const = 0;

    //! Makes a sample the latest; the one before, whose durations are known now, becomes ready.
    void Hold(Sample inSample);

    std::optional<Sample> mHeld; //!< The latest sample.

private:
    const MediaSource& mSource;
    AVStream& mStream;
    std::deque<Sample> mReady;
    std::size_t mQueuedSize = 0;
    std::int64_t mHorizon = 0;
    std::int64_t mCorruptCount = 0;
    std::int64_t mDiscardedCount = 0;
    bool mHasStarted = false;
    bool mIsFinished = false;
};

class VideoTrack final : public Track
{
public:
    VideoTrack(const MediaSource& inSource, AVStream& ioStream, const VideoOptions& inOptions);

    std::int64_t GetFirstTime() const override { return mFirstTick; }
    AVRational GetFirstTimeBase() const override { return GetStream().time_base; }
    int GetTimeScale() const override { return mClock.GetTimeScale(); }
    AVRational GetFrameRate() const override;
    std::int64_t GetStatedDuration() const override;
    QT::MediaType GetMediaType() const override { return QT::kQTMediaTypeVideo; }
    int GetWidth() const override { return mFormat.trackWidth; }
    int GetHeight() const override { return mFormat.trackHeight; }
    boost::shared_ptr<QT::QTSampleDescription> GetDescription() const override { return mFormat.description; }
    std::string GetSummary() const override;

private:
    void Take(PacketPtr inPacket) override;
    void SetFinalDuration(Sample& ioSample) override;
    void AddNotes(std::vector<std::string>& ioNotes) const override;

    VideoFormat mFormat;
    VideoClock mClock;
    std::int64_t mFirstTick = 0;
    std::int64_t mLastTick = 0;
    std::int64_t mLastTickDuration = 0; //!< 0 when the input did not state it
    std::int64_t mLastDuration = 0;     //!< of the sample before the latest, in units
    std::int64_t mEmptyCount = 0;
};

class SoundTrack final : public Track
{
public:
    //! \param inLabels   see DescribeSound
    //! \param inChannel  takes this channel of the stream only
    SoundTrack(const MediaSource& inSource, AVStream& ioStream, const AudioLabels* inLabels,
               std::optional<int> inChannel);

    std::int64_t GetFirstTime() const override { return mFirstPosition; }
    AVRational GetFirstTimeBase() const override { return {1, mFormat.sampleRate}; }
    int GetTimeScale() const override { return mFormat.sampleRate; }
    QT::MediaType GetMediaType() const override { return QT::kQTMediaTypeSound; }
    boost::shared_ptr<QT::QTSampleDescription> GetDescription() const override { return mFormat.description; }
    std::string GetSummary() const override { return mFormat.summary; }

private:
    void Take(PacketPtr inPacket) override;
    void SetFinalDuration(Sample& ioSample) override;
    void AddNotes(std::vector<std::string>& ioNotes) const override;

    void PassOver(const AVPacket& inPacket) override;
    void ReadSkip(const AVPacket& inPacket, std::int64_t& outCut);

    //! Replaces a sample's data with those of the track's channel.
    void TakeChannel(Sample& ioSample) const;

    SoundFormat mFormat;
    std::optional<int> mChannel;
    std::int64_t mSkip = 0;          //!< Samples still to leave out.
    std::int64_t mTolerance = 0;     //!< How far, in samples, a stated time may be off for having been rounded.
    std::int64_t mFirstPosition = 0; //!< Time of the first sample, in samples.
    std::int64_t mNext = 0;          //!< Where the next sample is due, in samples since the first.
    std::int64_t mLastTick = 0;
    int mPartialSize = 0; //!< Bytes of an incomplete sample frame at the end.
    std::int64_t mSkippedCount = 0;
    std::int64_t mGapCount = 0;
    std::int64_t mGapSamples = 0;
    std::int64_t mMaximumOverlap = 0;
};

} // namespace Host
