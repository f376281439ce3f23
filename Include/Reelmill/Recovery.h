#pragma once

#include <Reelmill/QTTypes.h>
#include <Reelmill/Reelmill.h>
#include <Tolbin/Export.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>

namespace QT
{

//! A writer that also keeps a journal beside the movie: all that `Close` needs and that is not in the file before. When
//! the process or the machine dies, `RecoverMovie` finishes the movie from it. The movie's bytes are those of
//! `CreateReelmill`.
//!
//! The journal on disk is never behind the media on disk: it is brought to the device before each block of media is
//! written. What a crash can cost is the block in memory and the ends of chunks behind the last sample on disk; when
//! the machine dies also what was said of the movie since then (user data, references, trim-ins).
//!
//! A sample description is asked for its bytes by `NewMovieTrack`, and once its track has samples before each block of
//! media and by `Close`: a recovered movie has it as it was when the last block went to disk.
//!
//! The calls give the results of `Reelmill`, and besides:
//! - `Create`: EEXIST (as an error of the system) when the journal exists: an unfinished movie's, to be recovered or
//!   removed first; nothing is touched then. An error of the system or `kResultShortWrite` when the journal cannot be
//!   written.
//! - `AddMediaSample`, `AddTextMediaSample`: an error of the system when the journal cannot be written; the samples are
//!   not part of the movie then, and adding them again is a new attempt. After a failed write of media, its result
//!   again.
//! - `NewMovieTrack`: an error of the system when the journal cannot be written; the movie has no such track then.
//! - the other calls: an error of the system when the journal cannot be written; the movie has taken the call all the
//!   same, and its record goes with the next.
//! - `Close`: brings the movie to the device and removes the journal, in that order. On any failure, also one that a
//!   plain writer's `Close` does not tell, the journal stays, and so does what it needs of the movie. After a failed
//!   write of media: its result; nothing more is written.
//!
//! \param inJournalPath  path of the journal, as of `Tolbin::string::PathToUTF16`; empty: the movie's with ".journal"
//!                       behind it
TOLBIN_EXPORT boost::shared_ptr<Reelmill> CreateJournaledReelmill(Tolbin::UTF16String inJournalPath = {});

//! Closes a movie whose end was not known before, or came early: `Close`, after timecode, text and captions were cut
//! where picture and sound end, and timecode was made to last until the end of the tracks that refer to it. A host may
//! so give any duration to the only sample of a timecode track. Takes a writer of `CreateReelmill` or
//! `CreateJournaledReelmill`; any other is closed as it is. \return what `Close` returns.
TOLBIN_EXPORT Tolbin::Result CloseMovieWithMedia(Reelmill& ioMovie);

struct RecoveryOptions
{
    Tolbin::UTF16String journalPath; //!< As that of the movie; empty: the movie's with ".journal" behind it.
    bool dryRun = false;             //!< Reports only; writes nothing.
    bool keepJournal = false;        //!< Does not remove the journal afterwards.

    //! Where there is no room for 'moov' behind the media, it takes the place of the last samples.
    bool dropsForSpace = false;
};

//! What `RecoverMovie` found and did.
struct RecoveryReport
{
    std::uint64_t samplesKept = 0;
    std::uint64_t samplesDropped = 0; //!< Not whole in the file.
    std::uint64_t samplesCut = 0;     //!< Timecode, text and captions that begin behind the end of picture and sound.
    std::uint64_t samplesDroppedForSpace = 0;
    int tracksKept = 0;
    int tracksDropped = 0;              //!< Without any sample, or without a usable description.
    std::uint64_t bytesKept = 0;        //!< Of media.
    std::uint64_t bytesCut = 0;         //!< Of the file, behind the last whole sample.
    std::uint64_t bytesUnknown = 0;     //!< Of media that the journal does not tell of; kept in 'mdat'.
    std::uint64_t journalBytesTorn = 0; //!< At the journal's end, not readable.
    std::uint64_t damagedPlaces = 0;    //!< Where media is not what was written, of those that were looked at.
    std::int32_t movieTimeScale = 0;    //!< Units per second.
    std::int32_t movieDuration = 0;     //!< In those units.
    std::uint64_t movieSize = 0;        //!< Of the finished file.
    std::uint64_t movieAtomSize = 0;    //!< Of 'moov'.
    bool isMovieAtomInFront = false;    //!< It lies in front of the media.
};

//! Finishes a movie whose writer did not: makes 'moov' from the journal for every sample that is whole in the file, and
//! writes it with the writer's own closing code. May be run again, on a movie that it finished already and after an
//! attempt that failed or was interrupted.
//!
//! A sample is whole when the file holds all of its bytes; a tail of zeros that the media did not have counts as
//! missing. As soon as one is not, those behind it are not either. Of samples that were added together, and are of one
//! size, those in front are kept. Where the movie ends earlier than its journal, timecode, text and captions are cut to
//! the end of picture and sound. The file is cut behind the last whole sample, unless the journal lost its end: what it
//! does not tell of stays in 'mdat'.
//!
//! \param inMovie    path of the movie, changed in place; as of `Tolbin::string::PathToUTF16`, any other is EILSEQ
//! \param outReport  filled as far as recovery came
//! \return 0; an error of the system (ENOENT: there is no movie, or no journal); `kQTErrBadJournal`;
//!         `kQTErrOtherMovie`; `kQTErrNothingWhole` (no sample, or none of picture and sound in a movie that has such
//!         tracks, in any track whose description is usable);
//!         `kQTErrTooLarge` for a journal whose tables no file can mean: nothing was changed. An error of the system or
//!         `kResultShortWrite` (ENOSPC: there is no room for 'moov' behind the media): the journal stays and recovery
//!         may be tried again. What else `Reelmill::Close` returns.
TOLBIN_EXPORT Tolbin::Result RecoverMovie(const Tolbin::UTF16String& inMovie, RecoveryReport& outReport,
                                          const RecoveryOptions& inOptions = {});

} // namespace QT
