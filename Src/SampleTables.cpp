#include "SampleTables.h"

#include "QTAtomRecords.h"

#include <Reelmill/QTTypes.h>
#include <Tolbin/Debug.h>

#include <algorithm>
#include <new>

namespace QT
{

namespace
{

//! The size of each sample of a record, which has some.
std::int32_t SizePerSample(const MediaSampleRec& inRecord)
{
    // One sample is by far the most frequent, and a division costs more than all the rest.
    return inRecord.sampleCount == 1 ? inRecord.dataSize : inRecord.dataSize / inRecord.sampleCount;
}

bool HasSamples(const MediaSampleRec& inRecord)
{
    return inRecord.sampleCount != 0;
}

//! Records of equal duration share an entry of 'stts'; those of duration 0 join the next duration that is not.
class TimeRuns
{
public:
    template <typename Sink>
    void Add(const MediaSampleRec& inRecord, Sink& ioSink)
    {
        if (mDuration != 0 && inRecord.sampleDuration != mDuration)
        {
            ioSink.AddTimes(mCount, Bits32(mDuration));
            mCount = 0;
        }
        mDuration = inRecord.sampleDuration;
        mCount += Bits32(inRecord.sampleCount);
    }

    template <typename Sink>
    void End(Sink& ioSink)
    {
        if (mCount != 0)
        {
            ioSink.AddTimes(mCount, Bits32(mDuration));
        }
    }

private:
    std::int32_t mDuration = 0; // 0: not fixed yet.
    std::uint32_t mCount = 0;
};

//! One chunk for each record.
class SingleChunks
{
public:
    template <typename Sink>
    void Add(const MediaSampleRec& inRecord, Sink& ioSink)
    {
        ioSink.AddChunk(inRecord.fileOffset);
        ++mChunk;
        const std::uint32_t samples = Bits32(inRecord.sampleCount);
        if (mSamples != 0 && mSamples != samples)
        {
            ioSink.AddRun(mFirstChunk, mSamples);
            mFirstChunk = mChunk;
        }
        mSamples = samples;
    }

    template <typename Sink>
    void End(Sink& ioSink)
    {
        if (mChunk != 0)
        {
            ioSink.AddRun(mFirstChunk, mSamples);
        }
    }

private:
    std::uint32_t mChunk = 0;      // Number of the last chunk, from 1.
    std::uint32_t mFirstChunk = 1; // Of the run.
    std::uint32_t mSamples = 0;    // In each chunk of the run. 0: no run is open.
};

//! Chunks of records that lie back to back in the file, up to the records that end one.
class MergedChunks
{
public:
    template <typename Sink>
    void Add(const MediaSampleRec& inRecord, Sink& ioSink)
    {
        mHasRecords = true;
        if (mSamples != 0 && inRecord.fileOffset == mExpected && !mPreviousEnds)
        {
            mSamples += Bits32(inRecord.sampleCount);
            mExpected += inRecord.dataSize;
        }
        else
        {
            if (mSamples != 0)
            {
                Close(inRecord.fileOffset != mExpected, ioSink);
            }
            mSamples = Bits32(inRecord.sampleCount);
            mStart = inRecord.fileOffset;
            mExpected = inRecord.fileOffset + inRecord.dataSize;
        }
        mPreviousEnds = inRecord.endsChunk;
    }

    template <typename Sink>
    void End(Sink& ioSink)
    {
        if (mHasRecords)
        {
            Close(false, ioSink); // Also a chunk that a last record without samples has begun.
            ioSink.AddRun(mRunFirstChunk, mRunSamples);
        }
    }

private:
    //! A chunk in front of a gap begins an entry of 'stsc' of its own, whatever the entry before says.
    template <typename Sink>
    void Close(bool inGapFollows, Sink& ioSink)
    {
        ioSink.AddChunk(mStart);
        ++mChunk;
        if (mRunFirstChunk != 0 && mSamples == mRunSamples && !inGapFollows)
        {
            return;
        }
        if (mRunFirstChunk != 0)
        {
            ioSink.AddRun(mRunFirstChunk, mRunSamples);
        }
        mRunFirstChunk = mChunk;
        mRunSamples = mSamples;
    }

    bool mHasRecords = false;
    bool mPreviousEnds = false;
    std::uint32_t mSamples = 0;       // In the chunk. 0: no chunk is open.
    std::int64_t mStart = 0;          // Of the chunk.
    std::int64_t mExpected = 0;       // Where its data ends.
    std::uint32_t mChunk = 0;         // Number of the last closed chunk, from 1.
    std::uint32_t mRunFirstChunk = 0; // 0: no run is open.
    std::uint32_t mRunSamples = 0;
};

//! Bytes of a table atom, also of one that is too large to be written.
template <typename Atom, typename Entry>
std::uint64_t TableSize(std::uint64_t inEntryCount)
{
    static_assert(IsDiskRecord<Atom> && IsDiskRecord<Entry>);
    return sizeof(Atom) + inEntryCount * sizeof(Entry);
}

//! Stores the head of a table atom of `inSize` bytes. \return Behind it.
template <typename Atom>
std::uint8_t* StoreHead(std::uint8_t* outPlace, std::uint64_t inSize, Atom inHead)
{
    inHead.header.atomSize = TO_BIG(Low32(inSize));
    new (outPlace) Atom(inHead);
    return outPlace + sizeof(Atom);
}

//! Stores an entry and moves behind it.
template <typename Entry>
void StoreEntry(std::uint8_t*& ioPlace, const Entry& inEntry)
{
    new (ioPlace) Entry(inEntry);
    ioPlace += sizeof(Entry);
}

} // namespace

//! Finds how long the tables get.
struct SampleTables::Counter
{
    std::uint64_t sampleCount = 0;
    std::uint64_t timeCount = 0;
    std::uint64_t runCount = 0;
    std::uint64_t chunkCount = 0;
    std::int32_t firstSize = 0;
    std::int32_t differentBits = 0; //!< Of any size from the first.
    std::int64_t lastOffset = 0;    //!< Of any record, not only those that begin a chunk.

    void AddRecord(const MediaSampleRec& inRecord)
    {
        sampleCount += static_cast<std::uint64_t>(std::max(inRecord.sampleCount, 0));
        differentBits |= HasSamples(inRecord) ? SizePerSample(inRecord) ^ firstSize : 0;
        lastOffset = std::max(lastOffset, inRecord.fileOffset);
    }

    void AddTimes(std::uint32_t /*inCount*/, std::uint32_t /*inDuration*/) { ++timeCount; }
    void AddRun(std::uint32_t /*inFirstChunk*/, std::uint32_t /*inSamples*/) { ++runCount; }
    void AddChunk(std::int64_t /*inOffset*/) { ++chunkCount; }
};

//! Stores the tables.
class SampleTables::Writer
{
public:
    Writer(const SampleTables& inTables, const Places& inPlaces)
        : mIsUniform(inTables.mIsUniform), mNeeds64Bits(inTables.mNeeds64Bits)
    {
        qtn_TimeToSampleAtom times;
        times.entryCount = Low32(inTables.mTimeCount);
        mTimes = StoreHead(inPlaces.timeToSample, inTables.GetTimeToSampleSize(), times);

        qtn_SampleToChunkAtom runs;
        runs.entryCount = Low32(inTables.mRunCount);
        mRuns = StoreHead(inPlaces.sampleToChunk, inTables.GetSampleToChunkSize(), runs);

        qtn_SampleSizeAtom sizes;
        sizes.sampleSize = mIsUniform ? Bits32(inTables.mUniformSize) : 0;
        sizes.sampleCount = Low32(inTables.mSampleCount);
        mSizes = StoreHead(inPlaces.sampleSize, inTables.GetSampleSizeSize(), sizes);

        qtn_ChunkOffsetAtom offsets;
        qtn_ChunkOffsetAtom64 offsets64;
        offsets.entryCount = Low32(inTables.mChunkCount);
        offsets64.entryCount = offsets.entryCount;
        mOffsets = mNeeds64Bits ? StoreHead(inPlaces.chunkOffset, inTables.GetChunkOffsetSize(), offsets64)
                                : StoreHead(inPlaces.chunkOffset, inTables.GetChunkOffsetSize(), offsets);
    }

    void AddRecord(const MediaSampleRec& inRecord)
    {
        if (mIsUniform || !HasSamples(inRecord))
        {
            return;
        }
        const big_uint32_t size = Bits32(SizePerSample(inRecord));
        for (std::int32_t i = 0; i < inRecord.sampleCount; ++i)
        {
            StoreEntry(mSizes, size);
        }
    }

    void AddTimes(std::uint32_t inCount, std::uint32_t inDuration)
    {
        StoreEntry(mTimes, qtn_TimeToSampleEntry{inCount, inDuration});
    }

    void AddRun(std::uint32_t inFirstChunk, std::uint32_t inSamples)
    {
        StoreEntry(mRuns, qtn_SampleToChunkEntry{inFirstChunk, inSamples});
    }

    void AddChunk(std::int64_t inOffset)
    {
        const auto offset = static_cast<std::uint64_t>(inOffset);
        if (mNeeds64Bits)
        {
            StoreEntry(mOffsets, big_uint64_t(offset));
        }
        else
        {
            StoreEntry(mOffsets, big_uint32_t(Low32(offset)));
        }
    }

    //! Whether the tables end there, as they were measured.
    bool IsAt(const Places& inEnds) const
    {
        return mTimes == inEnds.timeToSample && mRuns == inEnds.sampleToChunk && mSizes == inEnds.sampleSize &&
               mOffsets == inEnds.chunkOffset;
    }

private:
    bool mIsUniform;
    bool mNeeds64Bits;
    // Where the next entry goes.
    std::uint8_t* mTimes;
    std::uint8_t* mRuns;
    std::uint8_t* mSizes;
    std::uint8_t* mOffsets;
};

//! Hands the entries of all tables to a sink, those of each in order. The sink is taken and given back by value: its
//! members then live in registers.
template <typename Sink>
Sink SampleTables::Walk(Sink inSink) const
{
    const auto walk = [&](auto inChunks) {
        TimeRuns times;
        for (const MediaSampleRec& record : *mRecords)
        {
            inSink.AddRecord(record);
            times.Add(record, inSink);
            inChunks.Add(record, inSink);
        }
        times.End(inSink);
        inChunks.End(inSink);
        return inSink;
    };
    return mIsMerged ? walk(MergedChunks()) : walk(SingleChunks());
}

SampleTables::SampleTables(const TrackRec& inTrack) : mRecords(&inTrack.samples), mIsMerged(inTrack.explicitChunking)
{
    if (!MeasureBySummary(inTrack.summary))
    {
        MeasureByRecords();
    }
}

//! False for a track that is not ordinary enough: then nothing has changed.
bool SampleTables::MeasureBySummary(const SampleSummary& inSummary)
{
    const std::uint64_t records = mRecords->size();
    if (mIsMerged || records == 0 || inSummary.recordCount != records || inSummary.sampleCount < 1 ||
        inSummary.otherTimes != 0)
    {
        return false;
    }
    // Several samples in a record may be of one size though the sizes of data are not; a count of samples beyond its
    // field may come out as none.
    const std::uint64_t samples = records * static_cast<std::uint64_t>(inSummary.sampleCount);
    if ((inSummary.sampleCount > 1 && inSummary.otherSizes != 0) || samples > 0xFFFFFFFF)
    {
        return false;
    }
    mSampleCount = samples;
    mTimeCount = 1;
    mRunCount = 1;
    mChunkCount = records;
    mUniformSize = SizePerSample(mRecords->front());
    mIsUniform = inSummary.otherSizes == 0;
    mNeeds64Bits = mRecords->back().fileOffset > 0xFFFFFFFF; // They only grow.
    return true;
}

void SampleTables::MeasureByRecords()
{
    Counter counter;
    const auto first = std::find_if(mRecords->begin(), mRecords->end(), HasSamples);
    counter.firstSize = first == mRecords->end() ? 0 : SizePerSample(*first);
    counter = Walk(counter);
    mSampleCount = counter.sampleCount;
    mTimeCount = counter.timeCount;
    mRunCount = counter.runCount;
    mChunkCount = counter.chunkCount;
    mUniformSize = counter.firstSize;
    mIsUniform = counter.differentBits == 0;
    mNeeds64Bits = counter.lastOffset > 0xFFFFFFFF;
}

Tolbin::Result SampleTables::GetResult() const
{
    const std::uint64_t largest =
        std::max({GetTimeToSampleSize(), GetSampleToChunkSize(), GetSampleSizeSize(), GetChunkOffsetSize()});
    return largest > kMaxAtomSize ? kQTErrTooLarge : Tolbin::kResultSuccess;
}

std::uint64_t SampleTables::GetTimeToSampleSize() const
{
    return TableSize<qtn_TimeToSampleAtom, qtn_TimeToSampleEntry>(mTimeCount);
}

std::uint64_t SampleTables::GetSampleToChunkSize() const
{
    return TableSize<qtn_SampleToChunkAtom, qtn_SampleToChunkEntry>(mRunCount);
}

std::uint64_t SampleTables::GetSampleSizeSize() const
{
    return TableSize<qtn_SampleSizeAtom, big_uint32_t>(mIsUniform ? 0 : mSampleCount);
}

std::uint64_t SampleTables::GetChunkOffsetSize() const
{
    return mNeeds64Bits ? TableSize<qtn_ChunkOffsetAtom64, big_uint64_t>(mChunkCount)
                        : TableSize<qtn_ChunkOffsetAtom, big_uint32_t>(mChunkCount);
}

std::uint64_t SampleTables::GetSize() const
{
    return GetTimeToSampleSize() + GetSampleToChunkSize() + GetSampleSizeSize() + GetChunkOffsetSize();
}

void SampleTables::Write(const Places& inPlaces) const
{
    const Writer writer = Walk(Writer(*this, inPlaces));
    TOLBIN_ASSERT(
        writer.IsAt({inPlaces.timeToSample + GetTimeToSampleSize(), inPlaces.sampleToChunk + GetSampleToChunkSize(),
                     inPlaces.sampleSize + GetSampleSizeSize(), inPlaces.chunkOffset + GetChunkOffsetSize()}),
        "");
}

void SampleTables::Write(std::uint8_t* outAtoms) const
{
    Places places{};
    places.timeToSample = outAtoms;
    places.sampleToChunk = places.timeToSample + GetTimeToSampleSize();
    places.sampleSize = places.sampleToChunk + GetSampleToChunkSize();
    places.chunkOffset = places.sampleSize + GetSampleSizeSize();
    Write(places);
}

} // namespace QT
