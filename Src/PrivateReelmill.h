#pragma once

#include "AtomNode.h"
#include "QTDiskTypes.h"
#include "TrackRec.h"
#include "UnbufferedWriter.h"

#include <Reelmill/Reelmill.h>
#include <Tolbin/Allocator.h>
#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Debug.h>
#include <Ventra/File.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <ctime>
#include <functional>
#include <iterator>
#include <map>
#include <utility>

namespace QT
{

//! What a movie has from its `Create` on: all that must be known to write its tables anew.
struct MovieStart
{
    std::int32_t movieTimeScale = 0;   //!< Movie time units per second.
    std::uint32_t placeholderSize = 0; //!< Of the whole 'skip' atom.
    std::int64_t creationTime = 0;     //!< Seconds since 1970.

    std::int64_t GetMediaDataOffset() const;
};

//! The bytes of a text sample. \return 0; `kQTErrBadArgument` for a text of more than 32 766 code units.
Tolbin::Result MakeTextSample(const Tolbin::UTF16String& inText, Tolbin::utility::BinaryDataArray& outSample);

//! Whether `inSize` bytes at `inData` can be read at all.
inline bool IsValidBuffer(const void* inData, int inSize)
{
    return inSize >= 0 && (inData != nullptr || inSize == 0);
}

//! The writer. Every direct write to the file goes through `VentraFileWriteChk::Write`; media goes through the
//! `UnbufferedWriter`. The members stand so that destruction releases user data, writer, tracks, file and path in that
//! order.
class PrivateReelmill final : public Reelmill
{
    enum class State
    {
        Constructed, //!< No file yet.
        Streaming,   //!< Head written; media may be added.
        Paused,      //!< The same, but not now.
        MediaClosed, //!< All media is written; `Close` has yet to come.
        Finished     //!< `Close` was called, or `Create` failed.
    };

public:
    using TrackMap =
        std::map<TrackID, TrackRec, std::less<>, Tolbin::allocator::STLAllocator<std::pair<const TrackID, TrackRec>>>;

    Tolbin::Result Create(Tolbin::UTF16String inPath, int inMovieTimeScale) override;
    Tolbin::Result NewMovieTrack(MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                                 boost::shared_ptr<QTSampleDescription> inSampleDescription,
                                 TrackID& outTrackID) override;
    Tolbin::Result AddMediaSample(TrackID inTrackID, void* inData, int inDataSize, std::int32_t inSampleCount,
                                  std::int32_t inSampleDuration, std::int32_t inAuxValue, bool inAuxFlag) override;
    Tolbin::Result EndMediaChunk(TrackID inTrackID) override;
    Tolbin::Result AddTextMediaSample(TrackID inTrackID, const Tolbin::UTF16String& inText, int inDuration) override;
    Tolbin::Result AddTrackUserData(TrackID inTrackID, int inUserDataType, void* inData, int inDataSize) override;
    Tolbin::Result AddUserData(int inUserDataType, void* inData, int inDataSize) override;
    Tolbin::Result AddTrackReference(TrackID inTrackID, TrackID inReferencedTrackID,
                                     TrackReferenceType inReferenceType) override;
    Tolbin::Result SetTrackTrimIn(TrackID inTrackID, int inTrimIn) override;
    Tolbin::Result Close() override;
    Tolbin::Result Flush() override;
    int GetMovieDuration() override;

    //! \name For those who know what lies in the file and what does not
    //! @{

    MovieStart GetStart() const;

    //! The track of an ID. \return 0; `kQTErrBadState`; `kQTErrUnknownTrackID`, and reports it. Null on failure.
    Tolbin::Result GetTrackPtr(TrackID inTrackID, TrackPtr& outTrackPtr);

    //! `AddMediaSample` for whoever has found the track, knows where the media ends and has checked the rest.
    //! \param inCountZeros  gives the record's `zeros`, once the bytes are in the block
    template <typename CountZeros>
    Tolbin::Result AddToTrack(TrackRec& ioTrack, std::int64_t inFileOffset, void* inData, int inDataSize,
                              std::int32_t inSampleCount, std::int32_t inSampleDuration, std::int32_t inAuxValue,
                              bool inAuxFlag, CountZeros inCountZeros);

    //! The checks of the calls of these names, after which only memory can fail. \return the result of the call.
    Tolbin::Result CheckNewTrack(MediaType inMediaType,
                                 const boost::shared_ptr<QTSampleDescription>& inSampleDescription) const;
    Tolbin::Result CheckUserData(int inUserDataType, const void* inData, int inDataSize) const;
    Tolbin::Result CheckTrackUserData(TrackID inTrackID, int inUserDataType, const void* inData, int inDataSize);

    //! Takes back the track that was added last and has no samples.
    void RemoveLastTrack() { tracks.erase(std::prev(tracks.end())); }

    //! For a scope, every call is refused with `kQTErrBadState`: code of the host's runs amid one.
    class Pause
    {
    public:
        explicit Pause(PrivateReelmill& ioMovie) : mMovie(ioMovie), mState(ioMovie.state)
        {
            mMovie.state = State::Paused;
        }

        ~Pause() { mMovie.state = mState; }

        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

    private:
        PrivateReelmill& mMovie;
        State mState;
    };

    //! Closes the file as it is. Every later call is out of order. Throws nothing.
    void Abandon() noexcept;

    //! File offset of the next byte of media, as long as no write has failed.
    std::int64_t GetMediaEnd() const { return mediaDataOffset + mediaDataSize; }

    //! Bytes of media that can be added before a block goes to disk.
    std::size_t GetBlockRoom() { return unbufferedWriter->GetBlockRoom(); }

    //! The first part of `Close`, on its own for whoever must know its result: writes the media that is still in
    //! memory. `Close` is the only call that is in order after it.
    Tolbin::Result CloseMedia();

    //! The failure of `Close` that its result does not tell: what is left of the placeholder was not written.
    Tolbin::Result GetPlaceholderResult() const { return placeholderResult; }

    //! Takes up a movie whose head and media are in the file already, in place of `Create`. Tracks, user data,
    //! references and trim-ins are then added as ever, media by `RestoreMediaSample`; `Close` finishes the file.
    void Resume(const MovieStart& inStart);

    //! Opens the file of a movie that was resumed, and cuts it to `inFileSize` bytes, which hold all its media. `Close`
    //! does not cut what is left behind media and 'moov'.
    Tolbin::Result OpenResumed(const Tolbin::UTF16String& inPath, std::int64_t inFileSize);

    //! Records samples that lie in the file at `inFileOffset`.
    void RestoreMediaSample(TrackID inTrackID, std::int64_t inFileOffset, std::int32_t inDataSize,
                            std::int32_t inSampleCount, std::int32_t inSampleDuration);

    //! Lets 'mdat' end here.
    void SetMediaEnd(std::int64_t inFileOffset) { mediaDataSize = inFileOffset - mediaDataOffset; }

    //! Their samples may be changed; tracks neither come nor go.
    TrackMap& GetTracks() { return tracks; }

    //! Builds the 'moov' atom. Drops the tracks without samples.
    Tolbin::Result MakeMooVAtom(Tolbin::utility::BinaryDataArray& outMooVAtom);

    //! Whether a 'moov' atom of this size goes in front of the media.
    bool FitsPlaceholder(std::uint64_t inSize) const { return inSize + kAtomHeaderSize <= placeholderSize; }

    //! @}

private:
    using UserDataMap = std::map<int, Tolbin::utility::BinaryDataArray>;

    Tolbin::Result OpenMovieFile();
    int GetLongestDuration() const;
    void ReadCreationTime();
    Tolbin::Result WriteMovieStart(unsigned int inDiskBufferSize);
    Tolbin::Result WriteMediaDataStart();
    Tolbin::Result WritePlaceholderAtom(int inAtomType, int inAtomSize);
    Tolbin::Result PatchMediaDataSize();
    Tolbin::Result PlaceMooVAtom(Tolbin::utility::BinaryDataArray& inMooVAtom);
    Tolbin::Result MakeTrackAtom(TrackID inTrackID, TrackRec& inTrack, std::map<TrackID, int>& inTrackIndexByID,
                                 AtomNode& outTrackAtom);
    void RecordMediaSample(TrackRec& ioTrack, const MediaSampleRec& inSample);
    static void ReserveOneMore(MediaSampleVector& ioSamples);
    static void Grow(MediaSampleVector& ioSamples);
    Tolbin::Result Write(void* inData, std::size_t inLength);

    Tolbin::UTF16String path;
    boost::shared_ptr<Ventra::File> file;
    std::int32_t movieTimeScale = 0; //!< Movie time units per second.
    TrackMap tracks;
    std::int64_t placeholderOffset = 0;
    std::int64_t wideOffset = 0;      //!< Of the 'wide' atom, right behind the placeholder.
    std::int64_t mediaDataSize = 0;   //!< Media bytes recorded so far.
    std::int64_t mediaDataOffset = 0; //!< Of the first media byte.
    std::uint32_t diskBufferSize = 0;
    std::uint32_t placeholderSize = 0; //!< Of the whole 'skip' atom.
    std::tm creationTime{};            //!< Of the file, in UTC.
    boost::shared_ptr<UnbufferedWriter> unbufferedWriter;
    UserDataMap userData; //!< The movie's, by four-character type.
    State state = State::Constructed;
    bool isResumed = false;
    Tolbin::Result placeholderResult = Tolbin::kResultSuccess;
};

// ---- What every sample passes through, inlined: a call would cost as much as what it does ---------------------------

//! Makes room for one more record, so that adding it cannot fail.
inline void PrivateReelmill::ReserveOneMore(MediaSampleVector& ioSamples)
{
    if (ioSamples.size() == ioSamples.capacity())
    {
        Grow(ioSamples);
    }
}

//! Room for the record was made before. It goes straight to its place: one that is put together on the stack first is
//! read back before its parts have left the store buffer, which costs more than all the rest. The report comes last,
//! since its handler may throw.
[[gnu::always_inline]] inline void PrivateReelmill::RecordMediaSample(TrackRec& ioTrack, const MediaSampleRec& inSample)
{
    ioTrack.samples.emplace_back() = inSample;
    ioTrack.summary.Add(inSample);
    mediaDataSize += inSample.dataSize;
    const auto newDuration =
        static_cast<std::uint64_t>(ioTrack.duration + std::int64_t{inSample.sampleCount} * inSample.sampleDuration);
    ioTrack.duration = static_cast<std::int32_t>(Low32(newDuration));
    if ((newDuration & 0xFFFFFFFF80000000LL) != 0)
    {
        const Pause pause(*this); // Inline: a call of a member costs each sample sixteen instructions.
        TOLBIN_REPORT(
            "(newDuration & 0xFFFFFFFF80000000LL) == 0",
            "Signed 32-bit overflow in PrivateReelmill::AddMediaSample.  Do not ignore this problem.  The file is "
            "being written in an invalid state.\n");
    }
}

template <typename CountZeros>
[[gnu::always_inline]] inline Tolbin::Result
PrivateReelmill::AddToTrack(TrackRec& ioTrack, std::int64_t inFileOffset, void* inData, int inDataSize,
                            std::int32_t inSampleCount, std::int32_t inSampleDuration, std::int32_t inAuxValue,
                            bool inAuxFlag, CountZeros inCountZeros)
{
    ReserveOneMore(ioTrack.samples); // Once the bytes are on their way nothing may keep them from being recorded.
    const Tolbin::Result result =
        unbufferedWriter->Write(static_cast<char*>(inData), static_cast<std::size_t>(inDataSize));
    if (result >= 0)
    {
        RecordMediaSample(ioTrack, {inFileOffset, inSampleCount, inSampleDuration, inAuxValue, inDataSize, inAuxFlag,
                                    /*endsChunk*/ false, inCountZeros()});
    }
    return result;
}

} // namespace QT
