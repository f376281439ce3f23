#pragma once

#include "QTDiskTypes.h"
#include "StoredDescription.h"

#include <Tolbin/BinaryDataArray.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

// The journal of a movie.
//
//   journal  = header frame*
//   header   = JournalHeader
//   frame    = JournalFrameHeader record*          what was collected and written in one go
//   record   = sample | group | kind field*        kind: one byte, below 0x20
//   sample   = flags [track] [size] [count] [duration] [zeros]
//   group    = number (bytes [zeros])*             number: one byte, 0x40 for one sample to 0x7F for 64
//            | number (bytes [zeros] duration)*    number: one byte, 0x20 for one sample to 0x3F for 32
//
// A field is an unsigned LEB128 number of at most 64 bits (signed ones as their two's-complement bits), or a number of
// bytes and the bytes. A sample's flags say which of its fields are there. What is missing is as in the track's sample
// before (size, count, duration, whether it ends its chunk; 0 each for its first) or 0 (zeros). A track that is missing
// is the one that came last time behind a sample of the same track as the sample before, or else that track again
// (repetitions do not count, and the first sample of all is of track 0): so tracks in turn need not be named. Samples
// that give nothing but size and zeros, or duration as well, may stand together as a group; its bytes are twice the
// size, and 1 more where zeros follow. Samples that are as the one right before may be a repetition.
//
// A journal ends where the next frame is not whole: at the end of the file, at a length of 0, at a checksum that does
// not agree. Everything before that counts.

namespace QT
{

using boost::endian::big_uint32_t;
using boost::endian::big_uint64_t;

constexpr std::uint32_t kJournalVersion = 2;

struct JournalHeader
{
    char magic[8] = {'r', 'e', 'e', 'l', 'j', 'r', 'n', 'l'}; //  0  8
    big_uint32_t version = kJournalVersion;                   //  8  4
    big_uint32_t checksum = 0;                                // 12  4  CRC-32C of what stands before
};
static_assert(IsDiskRecord<JournalHeader> && sizeof(JournalHeader) == 16);

struct JournalFrameHeader
{
    big_uint32_t size = 0;     //  0  4  of the records
    big_uint32_t checksum = 0; //  4  4  CRC-32C of the frame's offset in the journal (64 bits), `size` and the records
};
static_assert(IsDiskRecord<JournalFrameHeader> && sizeof(JournalFrameHeader) == 8);

//! CRC-32C. Goes on from the checksum of what stands before.
std::uint32_t ChecksumOf(const void* inData, std::size_t inSize, std::uint32_t inBefore = 0);

std::uint32_t ChecksumOfFrame(std::uint64_t inOffset, const void* inRecords, std::uint32_t inSize);

//! The flags of a sample, the first of which every sample has and no other record.
constexpr std::uint8_t kSampleFlag = 0x80;
constexpr std::uint8_t kSampleTrackFlag = 0x01;
constexpr std::uint8_t kSampleSizeFlag = 0x02;
constexpr std::uint8_t kSampleCountFlag = 0x04;
constexpr std::uint8_t kSampleDurationFlag = 0x08;
constexpr std::uint8_t kSampleZerosFlag = 0x10;
constexpr std::uint8_t kSampleChunkFlag = 0x20; //!< The other way round: whether it ends its chunk.

//! The marks of groups; the bits below them are the number of samples less one.
constexpr std::uint8_t kSizesFlag = 0x40;
constexpr std::uint8_t kTimesFlag = 0x20; //!< With durations.
constexpr std::size_t kMaxSizes = 64;
constexpr std::size_t kMaxTimes = 32;

enum class JournalKind : std::uint8_t
{
    kMovie = 1,
    kTrack = 2,
    kDescription = 3,
    kEndChunk = 4,
    kTrimIn = 5,
    kUserData = 6,
    kReference = 7,
    kProbe = 8,
    kRevocation = 9,
    kClosing = 10,
    kRepetition = 11
};

//! Tracks are counted from 0, in the order of their creation.
struct JournalSample
{
    std::uint64_t track = 0;
    std::int32_t size = 0; //!< Bytes of all its samples together.
    std::int32_t count = 0;
    std::int32_t duration = 0; //!< Of each.
    std::uint32_t zeros = 0;   //!< Bytes at its end that are zero.
    bool endsChunk = false;

    bool operator==(const JournalSample&) const = default;
};

//! What samples leave out, by track.
struct JournalTrackState
{
    JournalSample last;     //!< Its last sample.
    std::uint64_t next = 0; //!< The track of the sample behind, unless that says another.
};

//! The sample before came so many times more.
struct JournalRepetition
{
    std::uint32_t count = 0;
};

//! The movie was created. The first record.
struct JournalMovie
{
    std::int32_t timeScale = 0;
    std::uint32_t placeholderSize = 0;
    std::int64_t creationTime = 0; //!< Seconds since 1970.
};

struct JournalTrack
{
    std::uint32_t mediaType = 0;
    std::int32_t timeScale = 0;
    std::int32_t width = 0;
    std::int32_t height = 0;
    StoredDescription description;
};

//! The description of a track has changed.
struct JournalDescription
{
    std::uint64_t track = 0;
    StoredDescription description;
};

struct JournalEndChunk
{
    std::uint64_t track = 0;
};

struct JournalTrimIn
{
    std::uint64_t track = 0;
    std::int32_t trimIn = 0;
};

struct JournalUserData
{
    static constexpr std::uint64_t kMovie = ~std::uint64_t{0};

    std::uint64_t track = kMovie; //!< Or the movie.
    std::int32_t type = 0;
    Tolbin::utility::BinaryDataArray payload;
};

//! The same, with a payload that is somebody else's.
struct JournalUserDataView
{
    std::uint64_t track = JournalUserData::kMovie;
    std::int32_t type = 0;
    std::span<const std::uint8_t> payload;
};

struct JournalReference
{
    std::uint64_t track = 0;
    std::uint64_t referenced = 0;
    std::uint32_t type = 0;
};

//! What media looks like somewhere in the movie, to tell whether a file is the journal's.
struct JournalProbe
{
    std::int64_t offset = 0;
    std::uint32_t size = 0;
    std::uint32_t checksum = 0; //!< CRC-32C
};

//! The sample right before, and what was said of its bytes, never became part of the movie.
struct JournalRevocation
{
};

//! `Close` was called: nothing comes behind.
struct JournalClosing
{
    bool endsWithMedia = false; //!< By `CloseMovieWithMedia`.
};

using JournalRecord =
    std::variant<JournalSample, JournalRepetition, JournalMovie, JournalTrack, JournalDescription, JournalEndChunk,
                 JournalTrimIn, JournalUserData, JournalReference, JournalProbe, JournalRevocation, JournalClosing>;

} // namespace QT
