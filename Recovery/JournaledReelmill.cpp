#include "FitTracks.h"
#include "JournalWriter.h"
#include "PrivateReelmill.h"

#include <Reelmill/Recovery.h>
#include <Ventra/File.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace QT
{

namespace
{

constexpr TrackID kFirstTrackID = 256;
constexpr std::uint32_t kMaxProbeSize = 4096;
constexpr std::int64_t kMinPendingSize = 64 * 1024; //!< Bytes of media.
constexpr std::int64_t kMaxPendingSize = 4 << 20;   //!< Which may be millions of samples.
constexpr std::size_t kFewPending = 512;            //!< Records, of which more take the journal no less time each.

//! Brings a file that others write to the device.
Tolbin::Result SyncFile(const Tolbin::UTF16String& inPath)
{
    Ventra::File file;
    const Tolbin::Result result =
        file.Create(inPath, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                    Ventra::FileCreateDispositionFlags::kOpenExisting, Ventra::FileAttributesFlags::kNormal, false);
    return result < 0 ? result : file.Sync();
}

//! How many bytes at the end are zero. Silence and black are nothing but zeros: they are looked through
//! 32 bytes at a time.
[[gnu::noinline]] std::uint32_t CountSomeZeros(const char* inData, std::size_t inSize)
{
    using Step = std::array<std::uint64_t, 4>;
    std::size_t size = inSize;
    for (; size >= sizeof(Step); size -= sizeof(Step))
    {
        Step step;
        std::memcpy(&step, inData + size - sizeof(step), sizeof(step));
        if ((step[0] | step[1] | step[2] | step[3]) != 0)
        {
            break;
        }
    }
    while (size > 0 && inData[size - 1] == 0)
    {
        --size;
    }
    return static_cast<std::uint32_t>(inSize - size);
}

//! How many bytes at the end are zero. No processor can foresee whether some are: no branch hangs on a few.
inline std::uint32_t CountZeros(const void* inData, int inSize)
{
    const auto* const data = static_cast<const char*>(inData);
    const auto size = static_cast<std::size_t>(inSize);
    boost::endian::little_uint64_t last = 0;
    if (size >= sizeof(last))
    {
        std::memcpy(&last, data + size - sizeof(last), sizeof(last));
    }
    return last != 0 ? static_cast<std::uint32_t>(std::countl_zero(last.value())) / 8 : CountSomeZeros(data, size);
}

//! Calls a function at the end of a scope, exceptions included. Takes no memory.
template <typename Function>
class AtExit
{
public:
    explicit AtExit(Function inFunction) : mFunction(inFunction) {}
    ~AtExit() { mFunction(); }

    AtExit(const AtExit&) = delete;
    AtExit& operator=(const AtExit&) = delete;

private:
    Function mFunction;
};

} // namespace

//! Forwards every call to a writer and puts what succeeded into the journal. A sample's record is written before the
//! sample whose bytes make a block go to disk, so that no media on disk is unknown to the journal on disk. Until then
//! the journal need not know a sample: they stay pending for a while, and are put into it together,
//! from what the writer keeps of them anyway.
class JournaledReelmill final : public Reelmill
{
public:
    explicit JournaledReelmill(const Tolbin::UTF16String& inJournalPath) : mJournalPath(inJournalPath) {}

    Tolbin::Result Create(Tolbin::UTF16String inPath, int inMovieTimeScale) override
    {
        if (mWasCreated)
        {
            return kQTErrBadState;
        }
        mWasCreated = true;
        mPath = inPath;
        if (mJournalPath.empty())
        {
            mJournalPath = inPath + u".journal";
        }
        Tolbin::Result result = mJournal.Create(mJournalPath);
        if (result < 0)
        {
            // One that was there before is left alone.
            static_cast<void>(mJournal.Close());
            return result;
        }
        try
        {
            result = CreateMovie(inPath, inMovieTimeScale);
        }
        catch (...)
        {
            TakeBackCreate();
            throw;
        }
        if (result < 0)
        {
            TakeBackCreate();
        }
        return result;
    }

    Tolbin::Result NewMovieTrack(MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                                 boost::shared_ptr<QTSampleDescription> inSampleDescription,
                                 TrackID& outTrackID) override
    {
        Tolbin::Result result = mWriter->CheckNewTrack(inMediaType, inSampleDescription);
        if (result < 0)
        {
            return result;
        }
        // All that takes memory comes first: the writer must have no track that the journal lacks.
        const JournalTrack record{inMediaType, inTimeScale, inWidth, inHeight, AskDescription(*inSampleDescription)};
        Track track{inSampleDescription, record.description};
        mTracks.reserve(mTracks.size() + 1);
        mWriterTracks.reserve(mTracks.size() + 1);
        mPending.reserve(mTracks.size() + 1);
        mJournal.Reserve(record);
        TrackID trackID = 0;
        result = mWriter->NewMovieTrack(inMediaType, inTimeScale, inWidth, inHeight, inSampleDescription, trackID);
        if (result >= 0)
        {
            result = mJournal.AddTrack(record);
            if (result < 0)
            {
                mWriter->RemoveLastTrack();
            }
        }
        if (result < 0)
        {
            return result;
        }
        TrackPtr writerTrack = nullptr;
        static_cast<void>(mWriter->GetTrackPtr(trackID, writerTrack)); // It is there.
        mTracks.push_back(std::move(track));
        mWriterTracks.push_back(writerTrack);
        mPending.emplace_back();
        outTrackID = trackID;
        return result;
    }

    // Flattened: a call would cost as much as what it does.
    [[gnu::flatten]] Tolbin::Result AddMediaSample(TrackID inTrackID, void* inData, int inDataSize,
                                                   std::int32_t inSampleCount, std::int32_t inSampleDuration,
                                                   std::int32_t inAuxValue, bool inAuxFlag) override
    {
        const TrackID track = inTrackID - kFirstTrackID;
        const std::int64_t offset = mWriter->GetMediaEnd();
        if (track >= mWriterTracks.size() || inData == nullptr || inDataSize <= 0 || inSampleCount < 0 ||
            offset + inDataSize >= mPendingEnd)
        {
            return AddNow(inTrackID, inData, inDataSize, inSampleCount, inSampleDuration, inAuxValue, inAuxFlag);
        }
        // Copied a moment ago, the last bytes are in the caches when their zeros are counted.
        return mWriter->AddToTrack(*mWriterTracks[track], offset, inData, inDataSize, inSampleCount, inSampleDuration,
                                   inAuxValue, inAuxFlag, [&] { return CountZeros(inData, inDataSize); });
    }

    Tolbin::Result EndMediaChunk(TrackID inTrackID) override
    {
        const JournalEndChunk record{inTrackID - kFirstTrackID};
        mJournal.Reserve(record);
        const Tolbin::Result result = mWriter->EndMediaChunk(inTrackID);
        // A sample that is pending says so itself.
        if (result >= 0 && GetPending(record.track).empty())
        {
            mJournal.Add(record);
        }
        return result;
    }

    Tolbin::Result AddTextMediaSample(TrackID inTrackID, const Tolbin::UTF16String& inText, int inDuration) override
    {
        Tolbin::utility::BinaryDataArray sample;
        if (inTrackID - kFirstTrackID >= mTracks.size() || MakeTextSample(inText, sample) < 0)
        {
            return mWriter->AddTextMediaSample(inTrackID, inText, inDuration); // Refuses.
        }
        return AddMediaSample(inTrackID, sample.data(), static_cast<int>(sample.size()), 1, inDuration, 0, false);
    }

    Tolbin::Result AddTrackUserData(TrackID inTrackID, int inUserDataType, void* inData, int inDataSize) override
    {
        const Tolbin::Result result = mWriter->CheckTrackUserData(inTrackID, inUserDataType, inData, inDataSize);
        return result < 0 ? result
                          : AddRecord(MakeUserData(inTrackID - kFirstTrackID, inUserDataType, inData, inDataSize), [&] {
                                return mWriter->AddTrackUserData(inTrackID, inUserDataType, inData, inDataSize);
                            });
    }

    Tolbin::Result AddUserData(int inUserDataType, void* inData, int inDataSize) override
    {
        const Tolbin::Result result = mWriter->CheckUserData(inUserDataType, inData, inDataSize);
        return result < 0 ? result
                          : AddRecord(MakeUserData(JournalUserData::kMovie, inUserDataType, inData, inDataSize),
                                      [&] { return mWriter->AddUserData(inUserDataType, inData, inDataSize); });
    }

    Tolbin::Result AddTrackReference(TrackID inTrackID, TrackID inReferencedTrackID,
                                     TrackReferenceType inReferenceType) override
    {
        const JournalReference record{inTrackID - kFirstTrackID, inReferencedTrackID - kFirstTrackID,
                                      static_cast<std::uint32_t>(inReferenceType)};
        return AddRecord(record,
                         [&] { return mWriter->AddTrackReference(inTrackID, inReferencedTrackID, inReferenceType); });
    }

    Tolbin::Result SetTrackTrimIn(TrackID inTrackID, int inTrimIn) override
    {
        return AddRecord(JournalTrimIn{inTrackID - kFirstTrackID, inTrimIn},
                         [&] { return mWriter->SetTrackTrimIn(inTrackID, inTrimIn); });
    }

    // On disk before: the movie as far as it was written, the journal. Afterwards: the finished movie; or the journal,
    // complete, and a movie that holds no more and no less media than before the step that failed.
    Tolbin::Result Close() override { return CloseAt(/*inEndsWithMedia*/ false); }

    //! See `CloseMovieWithMedia`.
    Tolbin::Result CloseAt(bool inEndsWithMedia)
    {
        Tolbin::Result result = mWriter->Flush(); // Tells whether the movie is open.
        if (result < 0)
        {
            return result;
        }
        result = mFailure;
        if (result >= 0)
        {
            result = AddPending();
        }
        if (result >= 0)
        {
            AddChangedDescriptions(std::nullopt);
            mJournal.Add(JournalClosing{inEndsWithMedia});
            result = mJournal.WriteThrough();
        }
        if (result >= 0)
        {
            result = mWriter->CloseMedia();
        }
        if (result < 0)
        {
            Abandon();
            return result;
        }
        ForgetTracks();
        if (inEndsWithMedia)
        {
            FitTracksToMedia(mWriter->GetTracks());
        }
        const Tolbin::Result closeResult = mWriter->Close();
        result = closeResult < 0 ? closeResult : mWriter->GetPlaceholderResult();
        static_cast<void>(mJournal.Close()); // All of it was brought to the device.
        if (result >= 0)
        {
            result = EndJournal();
        }
        return result < 0 ? result : closeResult;
    }

    Tolbin::Result Flush() override { return mWriter->Flush(); }

    int GetMovieDuration() override { return mWriter->GetMovieDuration(); }

private:
    struct Track
    {
        boost::shared_ptr<QTSampleDescription> description;
        StoredDescription stored;  //!< As the journal has it.
        std::size_t journaled = 0; //!< How many of its samples the journal has; the others are pending.
    };

    //! The part of `Create` after the journal is there. On disk afterwards: the movie's head, on the device, and the
    //! record of it in the journal.
    Tolbin::Result CreateMovie(const Tolbin::UTF16String& inPath, int inMovieTimeScale)
    {
        const Tolbin::Result result = mWriter->Create(inPath, inMovieTimeScale);
        if (result < 0)
        {
            return result;
        }
        const MovieStart start = mWriter->GetStart();
        mJournal.Add(JournalMovie{start.movieTimeScale, start.placeholderSize, start.creationTime});
        const Tolbin::Result journalResult = mJournal.WriteThrough();
        if (journalResult < 0)
        {
            return journalResult;
        }
        const Tolbin::Result syncResult = SyncFile(mPath);
        return syncResult < 0 ? syncResult : result;
    }

    //! Brings the finished movie to the device and removes the journal, which stays after a failure.
    Tolbin::Result EndJournal() const
    {
        try
        {
            const Tolbin::Result result = SyncFile(mPath);
            return result < 0 ? result : Ventra::File::Remove(mJournalPath);
        }
        catch (const std::bad_alloc&)
        {
            return Tolbin::kResultOutOfMemory;
        }
    }

    //! Makes a call of the writer and puts its record into the journal. Memory for the record comes first: what the
    //! movie has taken the journal must not lack.
    template <typename Record, typename Call>
    Tolbin::Result AddRecord(const Record& inRecord, Call inCall)
    {
        mJournal.Reserve(inRecord);
        const Tolbin::Result result = inCall();
        if (result < 0)
        {
            return result;
        }
        mJournal.Add(inRecord);
        return mJournal.Write();
    }

    static JournalUserDataView MakeUserData(std::uint64_t inTrack, int inType, const void* inData, int inSize)
    {
        return {inTrack, inType, {static_cast<const std::uint8_t*>(inData), static_cast<std::size_t>(inSize)}};
    }

    JournalWriter::Samples GetPending(std::size_t inTrack) const
    {
        return JournalWriter::Samples(mWriterTracks[inTrack]->samples).subspan(mTracks[inTrack].journaled);
    }

    //! `AddMediaSample` for all that do not stay pending.
    [[gnu::noinline]] Tolbin::Result AddNow(TrackID inTrackID, void* inData, int inDataSize, std::int32_t inSampleCount,
                                            std::int32_t inSampleDuration, std::int32_t inAuxValue, bool inAuxFlag)
    {
        const TrackID track = inTrackID - kFirstTrackID;
        if (mWriter->Flush() < 0 || track >= mTracks.size() || !IsValidBuffer(inData, inDataSize) || inSampleCount < 0)
        {
            return mWriter->AddMediaSample(inTrackID, inData, inDataSize, inSampleCount, inSampleDuration, inAuxValue,
                                           inAuxFlag); // Refuses.
        }
        Tolbin::Result result = mFailure;
        if (result >= 0)
        {
            result = AddPending();
        }
        if (result < 0)
        {
            return result;
        }
        mPendingEnd = 0; // What the host's code may call meanwhile comes here, and is refused.
        // Also after an exception, which need not mean that the movie lacks the sample.
        const AtExit settle([&] {
            mTracks[track].journaled = mWriterTracks[track]->samples.size();
            mPendingEnd = mFailure < 0 ? 0 : std::min(mBlockEnd, mWriter->GetMediaEnd() + mPendingSize);
        });
        const JournalSample sample{
            track, inDataSize, inSampleCount, inSampleDuration, CountZeros(inData, inDataSize), /*endsChunk*/ false};
        return mWriter->GetMediaEnd() + inDataSize < mBlockEnd ? AddSampleToBlock(sample, inData, inAuxValue, inAuxFlag)
                                                               : AddProbedSample(sample, inData, inAuxValue, inAuxFlag);
    }

    //! Adds a sample that stays in the block.
    Tolbin::Result AddSampleToBlock(const JournalSample& inSample, void* inData, std::int32_t inAuxValue,
                                    bool inAuxFlag)
    {
        const MediaSampleVector& samples = mWriterTracks[inSample.track]->samples;
        const AtExit settle([&, count = samples.size()] {
            if (samples.size() > count)
            {
                mJournal.AddSample(inSample);
            }
        });
        return mWriter->AddToTrack(*mWriterTracks[inSample.track], mWriter->GetMediaEnd(), inData, inSample.size,
                                   inSample.count, inSample.duration, inAuxValue, inAuxFlag,
                                   [&] { return inSample.zeros; });
    }

    //! Puts what is pending into the journal, and leaves room for a sample there.
    Tolbin::Result AddPending()
    {
        std::size_t count = 0;
        for (std::size_t track = 0; track < mTracks.size(); ++track)
        {
            mPending[track] = GetPending(track);
            count += mPending[track].size();
        }
        mPendingSize = count < kFewPending ? std::min(2 * mPendingSize, kMaxPendingSize)
                                           : std::max(mPendingSize / 2, kMinPendingSize);
        Tolbin::Result result = Tolbin::kResultSuccess;
        mJournal.AddSamples(mPending);
        while (result >= 0 && mJournal.IsFull())
        {
            result = mJournal.Write();
            mJournal.AddSamples(mPending);
        }
        for (std::size_t track = 0; track < mTracks.size(); ++track)
        {
            mTracks[track].journaled = mWriterTracks[track]->samples.size() - mPending[track].size();
        }
        return result;
    }

    //! Adds a sample that makes a block go to disk, or the first: once the journal is on the device.
    Tolbin::Result AddProbedSample(const JournalSample& inSample, void* inData, std::int32_t inAuxValue, bool inAuxFlag)
    {
        AddChangedDescriptions(inSample.track);
        if (const std::uint32_t size = std::min(Bits32(inSample.size), kMaxProbeSize); size > 0)
        {
            mJournal.Add(JournalProbe{mWriter->GetMediaEnd(), size, ChecksumOf(inData, size)});
        }
        mJournal.AddUncertainSample(inSample);
        const MediaSampleVector& samples = mWriterTracks[inSample.track]->samples;
        bool isTried = false; // To write it.
        const AtExit settle([&, count = samples.size()] {
            if (samples.size() == count)
            {
                mJournal.Revoke();
                static_cast<void>(isTried ? mJournal.Write() : 0); // The file ends before the sample does anyway.
            }
            else if (inSample.size > 0)
            {
                mBlockEnd = mWriter->GetMediaEnd() + static_cast<std::int64_t>(mWriter->GetBlockRoom());
            }
        });
        Tolbin::Result result = mJournal.WriteThrough();
        if (result >= 0)
        {
            isTried = true;
            result = mWriter->AddToTrack(*mWriterTracks[inSample.track], mWriter->GetMediaEnd(), inData, inSample.size,
                                         inSample.count, inSample.duration, inAuxValue, inAuxFlag,
                                         [&] { return inSample.zeros; });
            mFailure = std::min(result, Tolbin::kResultSuccess);
        }
        return result;
    }

    //! The writer asks for a description's bytes when it closes the movie: until then a host may change it. A track
    //! without samples needs none. One that gives no bytes, if only for want of memory, leaves the one before in force.
    //! \param inNext  the track of a sample that is about to be added; none when the movie is closed
    void AddChangedDescriptions(std::optional<std::size_t> inNext)
    {
        for (std::size_t track = 0; track < mTracks.size(); ++track)
        {
            if (mWriterTracks[track]->samples.empty() && track != inNext)
            {
                continue;
            }
            StoredDescription stored = AskDescription(*mTracks[track].description);
            if (!stored.entry.empty() && !(stored == mTracks[track].stored))
            {
                mJournal.Add(JournalDescription{track, stored});
                mTracks[track].stored = std::move(stored);
            }
        }
    }

    //! What a description says. It may be the host's own: what it calls of this movie meanwhile is refused.
    StoredDescription AskDescription(QTSampleDescription& inDescription)
    {
        const PrivateReelmill::Pause pause(*mWriter);
        const std::int64_t pendingEnd = std::exchange(mPendingEnd, 0);
        StoredDescription stored = StoreDescription(inDescription);
        mPendingEnd = pendingEnd;
        return stored;
    }

    //! Later calls are for the writer to refuse.
    void ForgetTracks()
    {
        mTracks.clear();
        mWriterTracks.clear();
    }

    //! Lets go of both files without writing to them. Every later call is out of order.
    void Abandon()
    {
        ForgetTracks();
        mWriter->Abandon();
        static_cast<void>(mJournal.Close());
    }

    //! After a `Create` that failed: there is nothing to recover.
    void TakeBackCreate()
    {
        Abandon();
        try
        {
            static_cast<void>(Ventra::File::Remove(mJournalPath));
        }
        catch (const std::bad_alloc&) // NOLINT(bugprone-empty-catch): the host is told of the first failure.
        {
        }
    }

    Tolbin::UTF16String mJournalPath;
    Tolbin::UTF16String mPath;
    boost::shared_ptr<PrivateReelmill> mWriter = boost::make_shared<PrivateReelmill>();
    JournalWriter mJournal;
    std::vector<Track> mTracks;
    std::vector<JournalWriter::Samples> mPending; //!< By track; for `AddPending`.
    std::vector<TrackPtr> mWriterTracks;          //!< As `mTracks`; apart, since each sample asks for it.
    std::int64_t mBlockEnd = 0;   //!< File offset: media that reaches it makes a block go to disk. 0 before any media.
    std::int64_t mPendingEnd = 0; //!< File offset: samples that end before it may stay pending.
    std::int64_t mPendingSize = kMinPendingSize;      //!< Bytes of media that may be pending, if no block ends before.
    Tolbin::Result mFailure = Tolbin::kResultSuccess; //!< Of a write of media.
    bool mWasCreated = false;
};

boost::shared_ptr<Reelmill> CreateJournaledReelmill(Tolbin::UTF16String inJournalPath)
{
    return boost::make_shared<JournaledReelmill>(inJournalPath);
}

Tolbin::Result CloseMovieWithMedia(Reelmill& ioMovie)
{
    if (auto* const journaled = dynamic_cast<JournaledReelmill*>(&ioMovie))
    {
        return journaled->CloseAt(/*inEndsWithMedia*/ true);
    }
    if (auto* const plain = dynamic_cast<PrivateReelmill*>(&ioMovie); plain != nullptr && plain->Flush() >= 0)
    {
        FitTracksToMedia(plain->GetTracks());
    }
    return ioMovie.Close();
}

} // namespace QT
