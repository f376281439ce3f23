#include "FitTracks.h"
#include "JournalReader.h"
#include "PrivateReelmill.h"
#include "QTAtomRecords.h"

#include <Reelmill/Recovery.h>
#include <Ventra/File.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

namespace QT
{

namespace
{

constexpr TrackID kFirstTrackID = 256;
constexpr std::int64_t kLastTime = 253402300799; //!< Of the year 9999, in seconds since 1970.
constexpr std::int64_t kSpareSpace = 64 * 1024;  //!< Left out beside the size of 'moov' when there is no room for it.

Tolbin::Result OpenFile(Ventra::File& ioFile, const Tolbin::UTF16String& inPath, Ventra::FileAccessFlags::Type inAccess)
{
    return ioFile.Create(inPath, inAccess, Ventra::FileShareModeFlags::kReadWrite,
                         Ventra::FileCreateDispositionFlags::kOpenExisting, Ventra::FileAttributesFlags::kNormal,
                         false);
}

//! The movie file as it was found.
class FoundMovie
{
public:
    Tolbin::Result Open(const Tolbin::UTF16String& inPath)
    {
        Tolbin::Result result = OpenFile(mFile, inPath, Ventra::FileAccessFlags::kRead);
        long long size = 0;
        if (result >= 0)
        {
            result = mFile.GetSize(size);
        }
        mSize = size;
        return result >= 0 ? FindContentEnd() : result;
    }

    std::int64_t GetSize() const { return mSize; }

    //! Offset behind the last byte that is not zero.
    std::int64_t GetContentEnd() const { return mContentEnd; }

    //! Reads `inSize` bytes; `outIsWhole` is false where the file has fewer.
    Tolbin::Result Read(std::int64_t inOffset, void* outData, std::size_t inSize, bool& outIsWhole)
    {
        outIsWhole = false;
        Tolbin::Result result = mFile.SetFilePointer(inOffset, Ventra::FilePointerMoveMethod::kBegin);
        unsigned int count = 0;
        if (result >= 0)
        {
            result = mFile.Read(outData, Low32(inSize), count);
        }
        outIsWhole = result >= 0 && count == inSize;
        return result;
    }

    //! Offset at which the media ends as 'mdat' says; the end of the file where it was not told yet.
    Tolbin::Result GetMediaEnd(const MovieStart& inStart, std::int64_t& outEnd)
    {
        const std::int64_t wideOffset = inStart.GetMediaDataOffset() - std::int64_t{sizeof(qtn_MediaDataHeader64)};
        big_uint32_t words[4];
        bool isWhole = false;
        const Tolbin::Result result = Read(wideOffset, words, sizeof(words), isWhole);
        outEnd = mSize;
        if (result < 0 || !isWhole)
        {
            return result;
        }
        // What was being written when an earlier attempt ended tells nothing.
        const bool isLarge = words[0] == 1 && words[1] == FourCC("mdat") && words[3] != FourCC("mdat");
        const bool isSmall = words[0] == kAtomHeaderSize && words[1] == FourCC("wide") && words[3] == FourCC("mdat");
        if (!isLarge && !isSmall)
        {
            return result;
        }
        const std::uint64_t size = isLarge ? std::uint64_t{words[2]} << 32 | words[3] : std::uint64_t{words[2]};
        const std::int64_t start = isLarge ? wideOffset : wideOffset + kAtomHeaderSize;
        if (size > std::uint64_t{kAtomHeaderSize} && size < static_cast<std::uint64_t>(mSize - start))
        {
            outEnd = start + static_cast<std::int64_t>(size);
        }
        return result;
    }

private:
    Tolbin::Result FindContentEnd()
    {
        std::vector<char> piece(std::size_t{1} << 20);
        for (mContentEnd = mSize; mContentEnd > 0;)
        {
            const auto size = std::min(mContentEnd, static_cast<std::int64_t>(piece.size()));
            bool isWhole = false;
            const Tolbin::Result result =
                Read(mContentEnd - size, piece.data(), static_cast<std::size_t>(size), isWhole);
            if (result < 0)
            {
                return result;
            }
            const auto end = std::find_if(piece.rend() - size, piece.rend(), [](char inByte) { return inByte != 0; });
            mContentEnd -= end - (piece.rend() - size);
            if (end != piece.rend())
            {
                break;
            }
        }
        return Tolbin::kResultSuccess;
    }

    Ventra::File mFile;
    std::int64_t mSize = 0;
    std::int64_t mContentEnd = 0;
};

//! Plays a journal into a writer, as far as the media is in the file.
class Replay
{
public:
    //! \param inLimit  nothing behind this offset of the file counts
    Replay(FoundMovie& ioMovie, std::int64_t inLimit, RecoveryReport& outReport)
        : mMovie(ioMovie), mLimit(inLimit), mReport(outReport)
    {
    }

    Tolbin::Result Run(const Tolbin::UTF16String& inJournalPath)
    {
        JournalReader journal;
        Tolbin::Result result = journal.Open(inJournalPath);
        while (result >= 0)
        {
            std::optional<JournalRecord> record;
            result = journal.Read(record);
            if (!record)
            {
                break;
            }
            result = std::visit([this](auto& ioRecord) { return Take(ioRecord); }, *record);
            if (result == kQTErrBadState || result == kQTErrUnknownMediaType)
            {
                result = kQTErrBadJournal; // No writer has been told this.
            }
        }
        mReport.journalBytesTorn = result >= 0 ? journal.GetTornSize() : 0;
        return result >= 0 ? Finish() : result;
    }

    PrivateReelmill& GetWriter() { return *mWriter; }

    //! Where the media ends that is kept.
    std::int64_t GetMediaEnd() const { return mKeptEnd; }

private:
    Tolbin::Result Take(const JournalMovie& inMovie)
    {
        if (mIsStarted)
        {
            return kQTErrBadJournal;
        }
        mIsStarted = true;
        const MovieStart start{inMovie.timeScale, inMovie.placeholderSize,
                               std::clamp(inMovie.creationTime, std::int64_t{0}, kLastTime)};
        mEnd = mKeptEnd = mContentEnd = start.GetMediaDataOffset();
        mWriter->Resume(start);
        qtn_FileTypeAtom found;
        const qtn_FileTypeAtom expected;
        bool isWhole = false;
        Tolbin::Result result = mMovie.Read(0, &found, sizeof(found), isWhole);
        if (result >= 0 && (!isWhole || std::memcmp(&found, &expected, sizeof(found)) != 0))
        {
            result = kQTErrOtherMovie;
        }
        std::int64_t mediaEnd = mLimit;
        if (result >= 0)
        {
            result = mMovie.GetMediaEnd(start, mediaEnd);
        }
        mLimit = std::min(mLimit, mediaEnd); // An earlier recovery has put 'moov' where media was missing.
        return result;
    }

    Tolbin::Result Take(const JournalTrack& inTrack)
    {
        CommitSample();
        TrackID trackID = 0;
        return mWriter->NewMovieTrack(static_cast<MediaType>(inTrack.mediaType), inTrack.timeScale, inTrack.width,
                                      inTrack.height, MakeDescription(inTrack.description), trackID);
    }

    Tolbin::Result Take(const JournalDescription& inDescription)
    {
        mWriter->GetTracks().at(kFirstTrackID + inDescription.track).sampleDescription =
            MakeDescription(inDescription.description);
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Take(const JournalSample& inSample)
    {
        CommitSample();
        mSample = inSample;
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Take(const JournalRepetition& inRepetition)
    {
        const std::optional<JournalSample> sample = mSample;
        if (!sample || sample->size == 0)
        {
            return kQTErrBadJournal; // Only samples of some size are repeated.
        }
        std::uint32_t count = inRepetition.count;
        for (; count > 0 && !mIsBehindEnd; --count)
        {
            CommitSample();
            mSample = sample;
        }
        mReport.samplesDropped += std::uint64_t{count} * Bits32(sample->count);
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Take(JournalRevocation)
    {
        mSample.reset();
        std::erase_if(mProbes, [this](const JournalProbe& inProbe) { return inProbe.offset >= mEnd; });
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Take(const JournalEndChunk& inEndChunk)
    {
        CommitSample();
        return mIsBehindEnd ? Tolbin::kResultSuccess : mWriter->EndMediaChunk(kFirstTrackID + inEndChunk.track);
    }

    Tolbin::Result Take(const JournalTrimIn& inTrimIn)
    {
        return mWriter->SetTrackTrimIn(kFirstTrackID + inTrimIn.track, inTrimIn.trimIn);
    }

    Tolbin::Result Take(JournalUserData& ioUserData)
    {
        ioUserData.payload.reserve(1);                                // An empty item has a pointer too.
        const int size = static_cast<int>(ioUserData.payload.size()); // The writer has taken it once.
        return ioUserData.track == JournalUserData::kMovie
                   ? mWriter->AddUserData(ioUserData.type, ioUserData.payload.data(), size)
                   : mWriter->AddTrackUserData(kFirstTrackID + ioUserData.track, ioUserData.type,
                                               ioUserData.payload.data(), size);
    }

    Tolbin::Result Take(const JournalReference& inReference)
    {
        return mWriter->AddTrackReference(kFirstTrackID + inReference.track, kFirstTrackID + inReference.referenced,
                                          static_cast<TrackReferenceType>(inReference.type));
    }

    Tolbin::Result Take(const JournalProbe& inProbe)
    {
        mProbes.push_back(inProbe);
        return Tolbin::kResultSuccess;
    }

    Tolbin::Result Take(JournalClosing inClosing)
    {
        CommitSample();
        mIsClosing = true;
        mEndsWithMedia = inClosing.endsWithMedia;
        return Tolbin::kResultSuccess;
    }

    //! The latest sample was not revoked: it counts, if it is whole. Of several in one record, those in front may be.
    void CommitSample()
    {
        if (!mSample)
        {
            return;
        }
        const JournalSample sample = *mSample;
        mSample.reset();
        const std::int64_t offset = mEnd;
        mEnd += sample.size;
        if (sample.zeros != Bits32(sample.size))
        {
            mContentEnd = mEnd - sample.zeros;
        }
        const bool isWhole = !mIsBehindEnd && mEnd <= mLimit && mContentEnd <= mMovie.GetContentEnd();
        const std::int64_t room = std::min(mLimit, mMovie.GetContentEnd()) - offset;
        const std::int32_t whole = isWhole ? sample.count : mIsBehindEnd ? 0 : CountWhole(sample, room);
        mIsBehindEnd = !isWhole;
        mReport.samplesKept += static_cast<std::uint64_t>(whole);
        mReport.samplesDropped += static_cast<std::uint64_t>(sample.count - whole);
        if (isWhole || whole > 0)
        {
            const std::int32_t size = isWhole ? sample.size : sample.size / sample.count * whole;
            mWriter->RestoreMediaSample(kFirstTrackID + sample.track, offset, size, whole, sample.duration);
            mReport.bytesKept += Bits32(size);
            mKeptEnd = offset + size;
        }
        if (isWhole && sample.endsChunk)
        {
            static_cast<void>(mWriter->EndMediaChunk(kFirstTrackID + sample.track)); // The track is there.
        }
    }

    //! How many samples of a record fit into so many bytes.
    static std::int32_t CountWhole(const JournalSample& inSample, std::int64_t inRoom)
    {
        if (inSample.count < 2 || inSample.size < inSample.count || inSample.size % inSample.count != 0)
        {
            return 0;
        }
        const std::int64_t count = inRoom / (inSample.size / inSample.count);
        return static_cast<std::int32_t>(std::clamp<std::int64_t>(count, 0, inSample.count - 1));
    }

    Tolbin::Result Finish()
    {
        if (!mIsStarted)
        {
            return kQTErrNothingWhole;
        }
        CommitSample();
        const Tolbin::Result result = CheckProbes();
        if (result < 0)
        {
            return result;
        }
        for (auto& [trackID, track] : mWriter->GetTracks())
        {
            Tolbin::utility::BinaryDataArray entry;
            track.sampleDescription->GetAsBinary(entry);
            if (entry.empty())
            {
                track.samples.clear(); // The writer would not close the movie.
            }
        }
        if (!HasMedia())
        {
            return kQTErrNothingWhole;
        }
        if (!mIsClosing && !mIsBehindEnd)
        {
            // The journal has lost its end. What it does not tell of is not lost with it.
            const std::int64_t end = std::min(mLimit, mMovie.GetContentEnd());
            mReport.bytesUnknown = static_cast<std::uint64_t>(std::max<std::int64_t>(0, end - mKeptEnd));
            mKeptEnd = std::max(mKeptEnd, end);
        }
        if (!mIsClosing || mEndsWithMedia || mIsBehindEnd)
        {
            mReport.samplesCut = FitTracksToMedia(mWriter->GetTracks());
        }
        for (const auto& [trackID, track] : mWriter->GetTracks())
        {
            if (ListsTooMany(track))
            {
                return kQTErrTooLarge;
            }
            ++(track.samples.empty() ? mReport.tracksDropped : mReport.tracksKept);
        }
        mWriter->SetMediaEnd(mKeptEnd);
        return Tolbin::kResultSuccess;
    }

    //! Whether any sample is there; of picture or sound, where the movie was to have them.
    bool HasMedia() const
    {
        bool isMeantToHave = false;
        bool has = false;
        bool hasSamples = false;
        for (const auto& [trackID, track] : mWriter->GetTracks())
        {
            isMeantToHave = isMeantToHave || IsMedia(track);
            has = has || (IsMedia(track) && !track.samples.empty());
            hasSamples = hasSamples || !track.samples.empty();
        }
        return isMeantToHave ? has : hasSamples && mReport.samplesKept > 0;
    }

    //! Whether a track lists so many samples without bytes beside others that no movie of this size can mean them.
    //! Their sizes would take memory without end.
    bool ListsTooMany(const TrackRec& inTrack) const
    {
        std::int64_t emptyCount = 0;
        bool hasOthers = false;
        for (const MediaSampleRec& record : inTrack.samples)
        {
            const bool isEmpty = record.dataSize < record.sampleCount;
            emptyCount += isEmpty ? record.sampleCount : 0;
            hasOthers = hasOthers || (!isEmpty && record.sampleCount > 0);
        }
        return hasOthers && emptyCount / 16 > mMovie.GetSize();
    }

    //! The first place that can be looked at tells whether it is this movie.
    Tolbin::Result CheckProbes()
    {
        bool isKnown = false;
        for (const JournalProbe& probe : mProbes)
        {
            if (probe.offset < 0 || probe.size > std::numeric_limits<std::uint16_t>::max() ||
                probe.offset > mKeptEnd - probe.size)
            {
                continue;
            }
            std::vector<char> content(probe.size);
            bool isWhole = false;
            const Tolbin::Result result = mMovie.Read(probe.offset, content.data(), content.size(), isWhole);
            if (result < 0)
            {
                return result;
            }
            const bool isSame = isWhole && ChecksumOf(content.data(), content.size()) == probe.checksum;
            if (!isSame && !isKnown)
            {
                return kQTErrOtherMovie;
            }
            isKnown = true;
            mReport.damagedPlaces += isSame ? 0 : 1;
        }
        return Tolbin::kResultSuccess;
    }

    FoundMovie& mMovie;
    std::int64_t mLimit;
    RecoveryReport& mReport;
    boost::shared_ptr<PrivateReelmill> mWriter = boost::make_shared<PrivateReelmill>();
    std::optional<JournalSample> mSample; //!< The latest, which may still be revoked.
    std::vector<JournalProbe> mProbes;
    std::int64_t mEnd = 0;        //!< File offset behind the samples so far, whole or not.
    std::int64_t mKeptEnd = 0;    //!< Behind the last that is whole.
    std::int64_t mContentEnd = 0; //!< Behind the last byte of theirs that is not zero.
    bool mIsStarted = false;
    bool mIsClosing = false;
    bool mEndsWithMedia = false; //!< By `CloseMovieWithMedia`.
    bool mIsBehindEnd = false;   //!< A sample was not whole: those behind it are not either.
};

bool IsNoSpace(Tolbin::Result inResult)
{
    const int error = Tolbin::SystemErrorFromResult(inResult);
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

//! Finishes the file, which is cut to `inFileSize` bytes first and to its final size last.
Tolbin::Result FinishMovie(PrivateReelmill& ioWriter, const Tolbin::UTF16String& inPath, std::int64_t inFileSize,
                           std::uint64_t inFinalSize)
{
    Tolbin::Result result = ioWriter.OpenResumed(inPath, inFileSize);
    if (result >= 0)
    {
        result = ioWriter.Close();
    }
    if (result >= 0)
    {
        result = ioWriter.GetPlaceholderResult();
    }
    Ventra::File file;
    if (result >= 0)
    {
        result = OpenFile(file, inPath, Ventra::FileAccessFlags::kWrite);
    }
    if (result >= 0)
    {
        result = file.SetSize(static_cast<long long>(inFinalSize));
    }
    return result >= 0 ? file.Sync() : result;
}

//! One attempt to finish the movie with what lies in front of `inLimit`. `ioFileSize` is where the file is cut first:
//! at the end of the media, unless an earlier attempt has set it.
Tolbin::Result TryToRecover(const Tolbin::UTF16String& inMovie, const Tolbin::UTF16String& inJournal, bool inIsDryRun,
                            std::int64_t inLimit, std::int64_t& ioFileSize, RecoveryReport& outReport)
{
    outReport = RecoveryReport();
    FoundMovie movie;
    Tolbin::Result result = movie.Open(inMovie);
    if (result < 0)
    {
        return result;
    }
    Replay replay(movie, std::min(inLimit, movie.GetSize()), outReport);
    result = replay.Run(inJournal);
    if (result < 0)
    {
        return result;
    }
    PrivateReelmill& writer = replay.GetWriter();
    outReport.movieTimeScale = writer.GetStart().movieTimeScale;
    {
        Tolbin::utility::BinaryDataArray movieAtom;
        result = writer.MakeMooVAtom(movieAtom);
        if (result < 0)
        {
            return result;
        }
        outReport.movieDuration = writer.GetMovieDuration(); // Without the tracks that were dropped.
        outReport.movieAtomSize = movieAtom.size();
    }
    outReport.isMovieAtomInFront = writer.FitsPlaceholder(outReport.movieAtomSize);
    const std::int64_t mediaEnd = replay.GetMediaEnd();
    outReport.movieSize =
        static_cast<std::uint64_t>(mediaEnd) + (outReport.isMovieAtomInFront ? 0 : outReport.movieAtomSize);
    outReport.bytesCut = static_cast<std::uint64_t>(std::max<std::int64_t>(0, movie.GetSize() - mediaEnd));
    ioFileSize = std::max(ioFileSize, mediaEnd);
    return inIsDryRun ? result : FinishMovie(writer, inMovie, ioFileSize, outReport.movieSize);
}

} // namespace

Tolbin::Result RecoverMovie(const Tolbin::UTF16String& inMovie, RecoveryReport& outReport,
                            const RecoveryOptions& inOptions)
{
    const Tolbin::UTF16String journal = inOptions.journalPath.empty() ? inMovie + u".journal" : inOptions.journalPath;
    std::int64_t fileSize = 0;
    Tolbin::Result result =
        TryToRecover(inMovie, journal, inOptions.dryRun, std::numeric_limits<std::int64_t>::max(), fileSize, outReport);
    if (IsNoSpace(result) && inOptions.dropsForSpace && fileSize > 0 && !outReport.isMovieAtomInFront)
    {
        // 'moov' takes the place of the last samples, so that the file need not grow.
        const std::int64_t limit = fileSize - static_cast<std::int64_t>(outReport.movieAtomSize) - kSpareSpace;
        RecoveryReport report;
        const Tolbin::Result dropResult = TryToRecover(inMovie, journal, /*inIsDryRun*/ false, limit, fileSize, report);
        if (dropResult != kQTErrNothingWhole)
        {
            report.samplesDroppedForSpace = outReport.samplesKept - std::min(outReport.samplesKept, report.samplesKept);
            report.samplesDropped -= std::min(report.samplesDropped, report.samplesDroppedForSpace);
            outReport = report;
            result = dropResult;
        }
    }
    if (result >= 0 && !inOptions.dryRun && !inOptions.keepJournal)
    {
        result = Ventra::File::Remove(journal);
    }
    return result;
}

} // namespace QT
