#pragma once

#include "QTAtomRecords.h"
#include "TrackRec.h"

#include <Reelmill/QTSampleDescription.h>
#include <Reelmill/QTTypes.h>
#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Result.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <type_traits>
#include <vector>

//! Seconds from 1904-01-01 00:00:00 to a date and time; no time zone is applied. `inDay` and `inMonth` count from 1,
//! `inYear` is the full year. Hours, minutes and seconds beyond their range simply add up.
std::uint64_t DateTimeToQTTimeSeconds(int inDay, int inMonth, int inYear, int inHour, int inMinute, int inSecond);

namespace QT
{

// Builders replace the content of their output, keep no reference to anything they are given, and cannot fail but for
// lack of memory. An array that a builder has filled holds exactly one atom.

// ---- Bytes ----------------------------------------------------------------------------------------------------------

//! Stores a record at an offset of an array that holds room for it.
template <typename Record>
void StoreRecord(Tolbin::utility::BinaryDataArray& ioBytes, std::size_t inOffset, const Record& inRecord)
{
    static_assert(IsDiskRecord<Record>);
    std::memcpy(ioBytes.data() + inOffset, &inRecord, sizeof(Record));
}

//! Makes a record the whole content of an array.
template <typename Record>
void ReplaceWithRecord(Tolbin::utility::BinaryDataArray& outBytes, const Record& inRecord)
{
    outBytes.resize(sizeof(Record));
    StoreRecord(outBytes, 0, inRecord);
}

//! Appends a record to an array.
template <typename Record>
void AppendRecord(Tolbin::utility::BinaryDataArray& ioBytes, const Record& inRecord)
{
    static_assert(IsDiskRecord<Record>);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&inRecord);
    ioBytes.insert(ioBytes.end(), bytes, bytes + sizeof(Record));
}

//! Views an array that holds an atom as its header.
qtn_GenericAtomHeaderPtr AtomHeader(Tolbin::utility::BinaryDataArray& inAtom);

// ---- Containers -----------------------------------------------------------------------------------------------------

//! Fills `outContainer` with an atom of type `inType` whose payload is the atoms of `inAtoms` in order; null entries
//! are skipped. Throws `std::length_error` when the container would reach 2 GiB.
void ConcatenateAtomsToAtomContainer(int inType, std::vector<qtn_GenericAtomHeader*>& inAtoms,
                                     Tolbin::utility::BinaryDataArray& outContainer);

// ---- Media types and handlers ---------------------------------------------------------------------------------------

//! Whether the value is one of the five media types; reports it if not.
bool IsKnownMediaType(MediaType inMediaType);

//! The media 'hdlr'.
void MakeMediaHandlerAtom(Tolbin::utility::BinaryDataArray& outAtom, MediaType inMediaType);

//! The data 'hdlr' and the 'dinf' that say that the media lies in the movie file itself.
void MakeSelfReferencingDataHandlerAtom(qtn_CanonicalDataHandlerAtom& outHandler, qtn_OneDataRef& outDataInfo);

// ---- Time -----------------------------------------------------------------------------------------------------------

//! A time in other units, truncated toward zero. Reports a result outside 0 to 2^31 - 1 and returns its low 32 bits;
//! reports a source time scale of 0 and returns 0.
std::int32_t ConvertSrcTimeToDestTimescale(std::int32_t inSrcTime, std::int32_t inSrcTimeScale,
                                           std::int32_t inDestTimeScale);

// ---- Headers --------------------------------------------------------------------------------------------------------

//! 'mvhd'; `inDuration` in movie units.
void MakeMovieHeader(qtn_MovieHeaderAtom& outAtom, int inTimeScale, int inDuration, int inTrackCount, std::tm& inDate);

//! 'tkhd'; `inTrackID` from 1, size in pixels, duration and trim-in in media units.
void MakeTrackHeaderAtom(qtn_TrackHeaderAtom& outAtom, int inMovieTimeScale, int inMediaTimeScale, int inTrackID,
                         MediaType inMediaType, int inWidth, int inHeight, int inMediaDuration, int inTrimIn,
                         std::tm& inDate);

//! 'mdhd'; `inDuration` in media units.
void MakeMediaHeaderAtom(qtn_MediaHeaderAtom& outAtom, int inTimeScale, int inDuration, std::tm& inDate);

//! 'edts': the whole media, behind an empty edit when `inTrimIn` (media units) is above 0.
void MakeEditsAtom(Tolbin::utility::BinaryDataArray& outAtom, int inMovieTimeScale, int inMediaTimeScale,
                   int inMediaDuration, int inTrimIn);

// ---- Media information and apertures --------------------------------------------------------------------------------

//! 'vmhd', 'smhd' or 'gmhd'. Any other media type is reported and leaves `outAtom` alone.
void MakeMediaSpecificMediaInfoHeaderAtom(Tolbin::utility::BinaryDataArray& outAtom, MediaType inMediaType);

//! 'tapt' for video whose image description has a clean aperture and pixels that are not square; leaves `outAtom` alone
//! for everything else, descriptions of another class included.
void MakeOptionalTrackApertureAtom(boost::shared_ptr<QTSampleDescription> inDescription, MediaType inMediaType,
                                   Tolbin::utility::BinaryDataArray& outAtom);

// ---- References and user data ---------------------------------------------------------------------------------------

//! 'tref'; an ID without a track number is written as 0.
void MakeTrackReferencesAtom(Tolbin::utility::BinaryDataArray& outAtom,
                             std::map<TrackReferenceType, std::vector<TrackID>>& inReferences,
                             std::map<TrackID, int>& inTrackNumbers);

//! 'udta'
void MakeUserDataAtom(Tolbin::utility::BinaryDataArray& outAtom,
                      std::map<int, Tolbin::utility::BinaryDataArray>& inItems);

// ---- Sample tables --------------------------------------------------------------------------------------------------

// The tables by themselves, each in an array of its own. The writer builds them inside 'moov' instead: see
// `SampleTables`.

//! The sample-table atoms of one track. Each slot that is not null owns an array of `std::uint8_t` as long as its
//! atom's size says; copies share them, and `DisposeSampleTableItems` frees them.
struct SampleTableItemsRec
{
    qtn_SampleSizeAtom* sampleSizeAtom = nullptr;
    qtn_TimeToSampleAtom* timeToSampleAtom = nullptr;
    qtn_GenericAtomHeader* spare1 = nullptr; //!< Always null, as the other two.
    qtn_SampleToChunkAtom* sampleToChunkAtom = nullptr;
    qtn_ChunkOffsetAtom* chunkOffsetAtom = nullptr;     //!< Null when 'co64' is used.
    qtn_ChunkOffsetAtom64* chunkOffset64Atom = nullptr; //!< Null when 'stco' is used.
    qtn_GenericAtomHeader* spare2 = nullptr;
    qtn_GenericAtomHeader* spare3 = nullptr;
};

//! Builds 'stsz', 'stts', 'stsc' and 'stco' or 'co64' from the track's sample records, each in an array of its own;
//! overwrites `items` without freeing what it held. On an exception or a failure `items` owns what was built so far.
//!
//! \return 0; `kQTErrTooLarge` when an atom would reach 2 GiB.
Tolbin::Result MakeSampleTableItems(TrackRec& track, SampleTableItemsRec& items);

//! Appends all eight slots, null ones included, in the order in which they stand in 'stbl'.
void PushSampleTableItemsToAtomVector(std::vector<qtn_GenericAtomHeader*>& atoms, SampleTableItemsRec items);

//! Frees what the slots own; does not clear them.
void DisposeSampleTableItems(SampleTableItemsRec& items);

} // namespace QT
