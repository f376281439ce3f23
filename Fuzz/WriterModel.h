#pragma once

#include "Support.h"

#include <Reelmill/Recovery.h>
#include <Reelmill/Reelmill.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

//! What a writer was told and accepted, and what its file must hold for it. Knows nothing of how the library does it.
namespace WriterModel
{

constexpr QT::TrackID kFirstTrackID = 256;

struct Description
{
    boost::shared_ptr<QT::QTSampleDescription> object;
    QT::MediaType mediaType = QT::kQTMediaTypeText; //!< Of the tracks that it is for.
    int sampleSize = 0;                             //!< Bytes of a sample where the description fixes them, else 0.
};

//! One accepted call that added samples.
struct Record
{
    std::size_t number = 0;   //!< Of all tracks' in the order of the calls.
    std::uint64_t offset = 0; //!< In the media.
    int size = 0;             //!< Bytes of all samples together.
    int count = 0;
    int duration = 0; //!< Of each sample, in media units.
    bool endsChunk = false;
};

struct Track
{
    QT::MediaType mediaType = QT::kQTMediaTypeVideo;
    int timeScale = 0;
    std::size_t description = 0; //!< Index into the movie's.
    std::optional<Bytes> entry;  //!< What the description gave when it was last asked; none when it threw.
    Bytes lastEntry;             //!< The last that was not empty, which a journal keeps.
    std::vector<Record> records;
    std::int32_t duration = 0; //!< Media units; wraps as its field does.
    int trimIn = 0;
    std::map<int, Bytes> userData;
    std::map<std::uint32_t, std::vector<QT::TrackID>> references; //!< By `TrackReferenceType`.

    //! True when the duration has left 31 bits, which the writer reports.
    bool Add(const Record& inRecord);
};

struct Movie
{
    bool isNew = true; //!< `Create` was not called.
    bool isOpen = false;
    bool isOdd = false; //!< The host gave values that make no sense.
    int timeScale = 0;
    std::uint64_t mediaOffset = 0; //!< Of the first media byte, in the file.
    std::uint64_t blockSize = 0;   //!< Bytes that are written at once.
    std::vector<Description> descriptions;
    std::vector<Track> tracks; //!< The first has the ID `kFirstTrackID`, the next the ID above, and so on.
    std::map<int, Bytes> userData;
    Bytes media; //!< All samples in the order of the calls.
    std::size_t recordCount = 0;
    bool isJournaled = false;
    bool isRecovered = false;
    bool isNothing = false; //!< Recovered: no sample is left, or none of picture and sound.

    //! Null when the writer has not given out the ID.
    Track* FindTrack(QT::TrackID inID);

    //! As `Track::Add`. A journal has the descriptions as they are when a block goes to disk.
    bool AddRecord(Track& ioTrack, const Bytes& inData, int inSize, int inCount, int inDuration);

    void AskDescriptions(std::size_t inFirstTrack = 0);

    //! What `GetMovieDuration` gives, and whether it reports.
    int GetDuration(bool& outIsReported) const;
};

//! What closing an open movie gives on a disk without faults.
Tolbin::Result ExpectClose(const Movie& inMovie);

//! Whether closing may report: the host's values do not fit the headers, or mean nothing.
bool MayReportOnClose(const Movie& inMovie);

//! Requires that the file of a movie that was closed, or recovered, holds what the model does.
void CheckClosed(const Movie& inMovie, Tolbin::Result inCloseResult, const Bytes& inFile);

//! Requires that the file of a movie that was created but not closed holds the media of all full blocks.
void CheckAbandoned(const Movie& inMovie, const Bytes& inFile);

//! The movie that recovery makes of a file, given how much it kept: requires that these are the first samples, and all
//! that are whole.
Movie Recover(const Movie& inMovie, bool inWasClosed, const Bytes& inFile, const QT::RecoveryReport& inReport);

} // namespace WriterModel
