#pragma once

#include <Reelmill/Reelmill.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

//! What a writer was told and accepted, and what its file must hold for it. Knows nothing of how the library does it.
namespace WriterModel
{

using Bytes = std::vector<std::uint8_t>;

constexpr QT::TrackID kFirstTrackID = 256;

//! Ends the process with a sentence unless the condition holds.
void Require(bool inCondition, std::string_view inWhat);

struct Description
{
    boost::shared_ptr<QT::QTSampleDescription> object;
    QT::MediaType mediaType = QT::kQTMediaTypeText; //!< Of the tracks that it is for.
    int sampleSize = 0;                             //!< Bytes of a sample where the description fixes them, else 0.
    bool isSane = true;                             //!< Was never given what its format does not allow.
};

//! One accepted call that added samples.
struct Record
{
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
    std::vector<Record> records;
    std::int32_t duration = 0; //!< Media units; wraps as its field does.
    bool hasWrapped = false;
    bool isChunkedByHand = false;
    int trimIn = 0;
    std::map<int, Bytes> userData;
    std::map<std::uint32_t, std::vector<QT::TrackID>> references; //!< By `TrackReferenceType`.
};

struct Movie
{
    enum class State
    {
        kNew,
        kOpen,
        kFinished
    };

    State state = State::kNew;
    int timeScale = 0;
    std::uint64_t mediaOffset = 0; //!< Of the first media byte, in the file.
    std::uint64_t blockSize = 0;   //!< Bytes that are written at once.
    std::vector<Description> descriptions;
    std::vector<Track> tracks; //!< The first has the ID `kFirstTrackID`, the next the ID above, and so on.
    std::map<int, Bytes> userData;
    Bytes media; //!< All samples in the order of the calls.

    //! Null when the writer has not given out the ID.
    Track* FindTrack(QT::TrackID inID);

    //! True when the track's duration has left 31 bits, which the writer reports.
    bool AddRecord(Track& ioTrack, const std::uint8_t* inData, int inSize, int inCount, int inDuration);

    //! What `GetMovieDuration` gives, and whether it reports.
    int GetDuration(bool& outIsReported) const;
};

//! The 'stsd' entry of a description; none when it throws.
std::optional<Bytes> GetEntry(const Description& inDescription);

//! What closing an open movie gives on a disk without faults.
Tolbin::Result ExpectClose(const Movie& inMovie);

//! Whether closing may report: the host's values do not fit the headers, or mean nothing.
bool MayReportOnClose(const Movie& inMovie);

//! The checks of Inspect that the host's own values may make fail. Empty for a sequence of sane calls.
std::set<std::string_view> GetExcuses(const Movie& inMovie);

//! Requires that the file of a movie that was closed holds what the model does.
void CheckClosed(const Movie& inMovie, Tolbin::Result inCloseResult, const Bytes& inFile);

//! Requires that the file of a movie that was created but not closed holds the media of all full blocks.
void CheckAbandoned(const Movie& inMovie, const Bytes& inFile);

} // namespace WriterModel
