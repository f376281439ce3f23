#pragma once

#include <Reelmill/QTSampleDescription.h>
#include <Reelmill/QTTypes.h>
#include <Tolbin/Allocator.h>
#include <Tolbin/BinaryDataArray.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <map>
#include <vector>

namespace QT
{

//! What stays in memory of one `AddMediaSample`.
struct MediaSampleRec
{
    std::int64_t fileOffset;     //!< Absolute offset of the first byte.
    std::int32_t sampleCount;    //!< Samples that the bytes hold.
    std::int32_t sampleDuration; //!< Of each sample, in the track's media units.
    std::int32_t auxValue;       //!< The host's; no atom uses it.
    std::int32_t dataSize;       //!< Bytes of all samples together.
    bool auxFlag;                //!< The host's; no atom uses it.
    bool endsChunk;              //!< In tracks with explicit chunking: the chunk ends behind this record.
    std::uint32_t zeros = 0;     //!< The journal's: bytes at the end that are zero, until it has the record.
};
static_assert(sizeof(MediaSampleRec) == 32);

using MediaSampleVector = std::vector<MediaSampleRec, Tolbin::allocator::STLAllocator<MediaSampleRec>>;

//! What the records of a track have in common, kept as they are added. The tables of an ordinary track, whose records
//! all hold as many samples of one duration, are measured by it alone.
struct SampleSummary
{
    std::uint64_t recordCount = 0; //!< Where the track has another number of records, the summary tells nothing.
    std::int32_t sampleCount = 0;  //!< Of the first record, as the next two.
    std::int32_t sampleDuration = 0;
    std::int32_t dataSize = 0;
    std::int32_t otherTimes = 0; //!< Bits in which any count or duration is another than the first.
    std::int32_t otherSizes = 0; //!< The same for the sizes of data.

    void Add(const MediaSampleRec& inRecord)
    {
        if (recordCount == 0)
        {
            sampleCount = inRecord.sampleCount;
            sampleDuration = inRecord.sampleDuration;
            dataSize = inRecord.dataSize;
        }
        ++recordCount;
        otherTimes |= (inRecord.sampleCount ^ sampleCount) | (inRecord.sampleDuration ^ sampleDuration);
        otherSizes |= inRecord.dataSize ^ dataSize;
    }
};

//! One track of a movie that is being written.
struct TrackRec
{
    TrackRec(MediaType inMediaType, std::int32_t inTimeScale, std::int32_t inWidth, std::int32_t inHeight,
             boost::shared_ptr<QTSampleDescription> inSampleDescription)
        : mediaType(inMediaType),
          timeScale(inTimeScale),
          width(inWidth),
          height(inHeight),
          sampleDescription(inSampleDescription)
    {
    }

    MediaType mediaType;
    std::int32_t timeScale;    //!< Media time units per second; all durations of the track count in them.
    std::int32_t width;        //!< Of the track, in pixels.
    std::int32_t height;       //!< Of the track, in pixels.
    std::int32_t duration = 0; //!< Sum over the samples, in media units.
    std::int32_t trimIn = 0;   //!< Delay of the media, in media units; none when 0 or below.
    std::map<TrackReferenceType, std::vector<TrackID>> trackReferences;
    std::map<int, Tolbin::utility::BinaryDataArray> userData; //!< By four-character type.
    boost::shared_ptr<QTSampleDescription> sampleDescription;
    MediaSampleVector samples;     //!< In order of the calls.
    SampleSummary summary;         //!< To be cleared by whoever changes records that were added.
    bool explicitChunking = false; //!< Chunks merge what lies back to back, up to the records that end one.
};

//! Points into the writer's map of tracks; valid while the writer lives, since tracks are removed by `Close` only.
using TrackPtr = TrackRec*;

} // namespace QT
