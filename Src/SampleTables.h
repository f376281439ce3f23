#pragma once

#include "TrackRec.h"

#include <Tolbin/Result.h>

#include <cstdint>

namespace QT
{

//! The sample tables of one track: 'stts', 'stsc', 'stsz', and 'stco' or 'co64'. They are most of a long movie's
//! 'moov', so nothing is collected on the way: first it is found out how long each table gets, for ordinary tracks from
//! the summary and for others in a pass over the records; then a pass stores every entry where it ends. In between the
//! records must stay as they are.
class SampleTables
{
public:
    //! Where the atoms begin.
    struct Places
    {
        std::uint8_t* timeToSample;
        std::uint8_t* sampleToChunk;
        std::uint8_t* sampleSize;
        std::uint8_t* chunkOffset; //!< Of 'stco' or 'co64'.
    };

    explicit SampleTables(const TrackRec& inTrack);

    //! 0; `kQTErrTooLarge` when an atom would reach 2 GiB: then nothing may be written.
    Tolbin::Result GetResult() const;

    // Bytes of each atom, and of the four together.
    std::uint64_t GetTimeToSampleSize() const;
    std::uint64_t GetSampleToChunkSize() const;
    std::uint64_t GetSampleSizeSize() const;
    std::uint64_t GetChunkOffsetSize() const;
    std::uint64_t GetSize() const;

    bool Needs64Bits() const { return mNeeds64Bits; } //!< 'co64' takes the place of 'stco'.

    //! Stores each atom at its own place.
    void Write(const Places& inPlaces) const;

    //! Stores the atoms one behind the other, in the order in which they stand in 'stbl'.
    void Write(std::uint8_t* outAtoms) const;

private:
    struct Counter;
    class Writer;

    bool MeasureBySummary(const SampleSummary& inSummary);
    void MeasureByRecords();

    template <typename Sink>
    Sink Walk(Sink inSink) const;

    const MediaSampleVector* mRecords;
    bool mIsMerged;                 //!< Chunks are not simply the records.
    std::uint64_t mSampleCount = 0; //!< Of all records together.
    std::uint64_t mTimeCount = 0;   //!< Entries of 'stts'.
    std::uint64_t mRunCount = 0;    //!< Entries of 'stsc'.
    std::uint64_t mChunkCount = 0;  //!< Entries of 'stco' or 'co64'.
    std::int32_t mUniformSize = 0;  //!< Of every sample, if `mIsUniform`.
    bool mIsUniform = true;         //!< 'stsz' has no table.
    bool mNeeds64Bits = false;
};

} // namespace QT
