#pragma once

#include <Reelmill/QTSampleDescription.h>
#include <Reelmill/QTTypes.h>
#include <Tolbin/Export.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>

namespace QT
{

//! Writes one QuickTime movie file.
//!
//! Order of calls: `Create`, then tracks, samples, user data and references in any mix, then `Close` once. Media goes
//! to disk as it arrives, in large blocks; only a small record per call stays in memory. The 'moov' atom is written by
//! `Close`: a movie that is not closed is not playable. One thread at a time; different writers are independent.
//!
//! Results common to all operations, checked in this order before anything is changed:
//! - `kQTErrBadState`: not between a successful `Create` and `Close` (`Create` itself: not the first), or made by a
//!   sample description while the writer asks for its bytes;
//! - `kQTErrUnknownTrackID`: a track ID that this writer did not give out (also reported as an assertion).
//!
//! Where memory for the bookkeeping of a call cannot be had, `std::bad_alloc` leaves the call, which has changed nothing
//! and may be made again; after one that leaves `Create` the writer is only destroyed. What a report handler of the
//! host's throws leaves the call as well, and so does a lack of memory for a report's text: samples whose duration is
//! reported on are in the movie then. A report handler must not call the movie.
//!
//! Errors of the system are results, `Tolbin::ResultFromSystemError(errno)`, once the host has seen to one thing: under
//! a limit on the size of files (RLIMIT_FSIZE, `ulimit -f`) the system ends a process that writes beyond it, with the
//! signal SIGXFSZ. A host that ignores the signal (`std::signal(SIGXFSZ, SIG_IGN)`) gets EFBIG instead.
class TOLBIN_EXPORT Reelmill
{
public:
    //! Releases the writer; writes nothing. Without `Close` the file stays as far as it was written.
    virtual ~Reelmill();

    //! Creates the movie file, or replaces the content of an existing one, and writes its head.
    //!
    //! \param inPath            path of the movie file, as of `Tolbin::string::PathToUTF16`, which keeps bytes that are
    //!                          not UTF-8. A path that no file can have (any other lone surrogate) is EILSEQ, as an
    //!                          error of the system, and nothing is created.
    //! \param inMovieTimeScale  movie time units per second, above 0
    //! \return 0 or above; `kQTErrBadArgument` when the volume's disk-buffer size is unusable; `kResultOutOfMemory`
    //!         when the block for media cannot be had; `kResultShortWrite` or an error of the system. After a failure
    //!         every call but destruction is refused, and a partial file may be left. The movie's creation time is the
    //!         file's: a file that is replaced keeps its own.
    virtual Tolbin::Result Create(Tolbin::UTF16String inPath, int inMovieTimeScale) = 0;

    //! Adds a track. A track that never gets a sample is left out of the movie.
    //!
    //! \param inTimeScale          media time units per second; every duration of the track counts in them
    //! \param inWidth, inHeight    size at which the track is shown, in pixels (0 for sound and timecode)
    //! \param inSampleDescription  the track's only sample description, shared; of any class
    //! \param outTrackID           names the track from now on; written on success only
    //! \return 0; `kQTErrUnknownMediaType` (also reported as an assertion); `kQTErrBadArgument` for an empty pointer.
    virtual Tolbin::Result NewMovieTrack(MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                                         boost::shared_ptr<QTSampleDescription> inSampleDescription,
                                         TrackID& outTrackID) = 0;

    //! Writes encoded samples behind what was written last, whatever its track, and records them. 32 bytes of each call
    //! stay in memory until `Close`. A track of more than 32 768 calls takes address space ahead, 64 MiB and then four
    //! times what it has; it takes no memory until it is used, unless the host has locked all memory to come.
    //!
    //! \param inData            `inDataSize` bytes, written unchanged; copied before the call returns
    //! \param inSampleCount     how many samples of equal size and duration the bytes hold; a call with 0 has no part in
    //!                          'stsz'
    //! \param inSampleDuration  duration of each of them in the track's media units
    //! \param inAuxValue, inAuxFlag  stored with the record; no atom uses them
    //! \return 0 or above; `kQTErrBadArgument` for a negative size or count, or a null pointer with a size above 0;
    //!         `kResultShortWrite` or an error of the system, and the samples are not part of the movie. After a failed
    //!         write the movie is to be abandoned: samples added later may not lie where they are recorded.
    virtual Tolbin::Result AddMediaSample(TrackID inTrackID, void* inData, int inDataSize, std::int32_t inSampleCount,
                                          std::int32_t inSampleDuration, std::int32_t inAuxValue, bool inAuxFlag) = 0;

    //! Ends the track's current chunk behind its last sample. Without any such call each `AddMediaSample` makes a
    //! chunk; with it, samples that lie back to back in the file share chunks up to the marks. Does nothing on a track
    //! without samples. \return 0.
    virtual Tolbin::Result EndMediaChunk(TrackID inTrackID) = 0;

    //! Writes one sample of a text track: the text as little-endian UTF-16 with its length and an 'encd' atom.
    //!
    //! \param inText      at most 32 766 code units
    //! \param inDuration  in the track's media units
    //! \return what `AddMediaSample` returns; `kQTErrBadArgument` for a longer text.
    virtual Tolbin::Result AddTextMediaSample(TrackID inTrackID, const Tolbin::UTF16String& inText, int inDuration) = 0;

    //! Attaches an item to the track's 'udta'. An item of the same type is replaced.
    //!
    //! \param inUserDataType  four-character code
    //! \param inData          `inDataSize` bytes (0 is allowed), copied
    //! \return 0; `kQTErrNullUserData` for a null pointer; `kQTErrBadArgument` for a negative size; `kQTErrTooLarge`
    //!         when the items together would pass 2 GiB.
    virtual Tolbin::Result AddTrackUserData(TrackID inTrackID, int inUserDataType, void* inData, int inDataSize) = 0;

    //! Attaches an item to the movie's 'udta'. As `AddTrackUserData`.
    virtual Tolbin::Result AddUserData(int inUserDataType, void* inData, int inDataSize) = 0;

    //! Records that `inTrackID` refers to `inReferencedTrackID` ('tref'). Adding twice records twice.
    //! \return 0.
    virtual Tolbin::Result AddTrackReference(TrackID inTrackID, TrackID inReferencedTrackID,
                                             TrackReferenceType inReferenceType) = 0;

    //! Delays the track's media by `inTrimIn` media units, as a leading empty edit ('elst'). 0 or less means no delay.
    //! The last call counts.
    //! \return 0.
    virtual Tolbin::Result SetTrackTrimIn(TrackID inTrackID, int inTrimIn) = 0;

    //! Finishes the movie: writes what media is still in memory, the size of 'mdat' and the 'moov' atom, in front of
    //! the media when it fits the space kept there and behind it otherwise; closes the file whatever the result.
    //!
    //! \return 0 or above; `kResultFailed` when a track's description gives no bytes; `kQTErrTooLarge` when a table or
    //!         the 'moov' atom would reach 2 GiB; `kResultOutOfMemory`, also for anything else that a description or a
    //!         report handler throws; `kResultShortWrite` or an error of the system.
    //!         After a failure the file has no usable 'moov' atom; its media is still there. A failure to write the
    //!         last media block is not part of the result: 'mdat' then reaches beyond the end of the file, or over the
    //!         'moov' atom behind it.
    virtual Tolbin::Result Close() = 0;

    //! Does nothing: media already goes to disk by itself.
    //! \return 0; `kQTErrBadState` out of order.
    virtual Tolbin::Result Flush() = 0;

    //! The longest track's duration in movie time units, trim-ins not counted; 0 out of order.
    virtual int GetMovieDuration() = 0;
};

//! A new writer, which needs `Reelmill::Create` first. Throws `std::bad_alloc` only.
TOLBIN_EXPORT boost::shared_ptr<Reelmill> CreateReelmill();

} // namespace QT
