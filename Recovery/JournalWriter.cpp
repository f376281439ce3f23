#include "JournalWriter.h"

#include <algorithm>
#include <cstring>

namespace QT
{

namespace
{

//! Writes an unsigned LEB128 number and returns what is behind it.
[[gnu::always_inline]] inline std::uint8_t* StoreNumber(std::uint8_t* outBytes, std::uint64_t inNumber)
{
    while (inNumber >= 0x80)
    {
        *outBytes++ = static_cast<std::uint8_t>(inNumber | 0x80);
        inNumber >>= 7;
    }
    *outBytes++ = static_cast<std::uint8_t>(inNumber);
    return outBytes;
}

//! Count and duration, to be compared at once; or the count alone.
template <bool kWithDuration>
std::uint64_t TimesOf(std::int32_t inCount, std::int32_t inDuration)
{
    return std::uint64_t{Bits32(inCount)} | (kWithDuration ? std::uint64_t{Bits32(inDuration)} << 32 : 0);
}

//! Whether a sample differs from its track's last in no more than a group can say.
template <std::uint8_t kGroupFlag>
bool FitsGroup(const MediaSampleRec& inSample, const JournalSample& inLast)
{
    constexpr bool kWithDuration = kGroupFlag == kSizesFlag;
    return TimesOf<kWithDuration>(inSample.sampleCount, inSample.sampleDuration) ==
               TimesOf<kWithDuration>(inLast.count, inLast.duration) &&
           inSample.endsChunk == inLast.endsChunk;
}

//! Writes what a group tells of a sample's bytes. No processor can foresee whether they end in zeros: no branch hangs
//! on it where samples are small.
[[gnu::always_inline]] inline std::uint8_t* StoreBytes(std::uint8_t* outBytes, const MediaSampleRec& inSample)
{
    const std::uint64_t bytes = 2 * std::uint64_t{Bits32(inSample.dataSize)} + (inSample.zeros != 0 ? 1 : 0);
    std::uint8_t* const end = StoreNumber(outBytes, bytes);
    if (bytes < 0x80)
    {
        *end = static_cast<std::uint8_t>(inSample.zeros);
        return end + bytes % 2;
    }
    return inSample.zeros != 0 ? StoreNumber(end, inSample.zeros) : end;
}

//! The samples in front that lie one behind the other, without those of other tracks in between.
JournalWriter::Samples BackToBack(JournalWriter::Samples inSamples)
{
    const auto isApart = [](const MediaSampleRec& inOne, const MediaSampleRec& inNext) {
        return inOne.fileOffset + inOne.dataSize != inNext.fileOffset;
    };
    const auto last = std::adjacent_find(inSamples.begin(), inSamples.end(), isApart);
    return last == inSamples.end() ? inSamples : JournalWriter::Samples(inSamples.begin(), last + 1);
}

} // namespace

Tolbin::Result JournalWriter::Create(const Tolbin::UTF16String& inPath)
{
    mFrame.resize(kFullSize + kMaxSampleSize);
    Tolbin::Result result =
        mFile.Create(inPath, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kRead,
                     Ventra::FileCreateDispositionFlags::kCreateNew, Ventra::FileAttributesFlags::kNormal, false);
    if (result < 0)
    {
        return result;
    }
    JournalHeader header;
    header.checksum = ChecksumOf(&header, offsetof(JournalHeader, checksum));
    unsigned int written = 0;
    result = mFile.Write(&header, sizeof(header), written);
    if (result >= 0 && written != sizeof(header))
    {
        result = Tolbin::kResultShortWrite;
    }
    if (result < 0)
    {
        static_cast<void>(mFile.Close());
        static_cast<void>(Ventra::File::Remove(inPath));
    }
    mOffset = sizeof(header);
    return result;
}

// ---- Records --------------------------------------------------------------------------------------------------------

void JournalWriter::AddSample(const JournalSample& inSample)
{
    if (mIsRepeatable && inSample == mTracks[mTrack].last && mRepeats < kMaxRepeats)
    {
        ++mRepeats;
        return;
    }
    PutSample(inSample);
    mIsRepeatable = inSample.size > 0;
}

void JournalWriter::AddSamples(std::span<Samples> ioSamples)
{
    const auto hasSamples = [](const Samples& inSamples) { return !inSamples.empty(); };
    const auto isBefore = [](const Samples& inOne, const Samples& inOther) {
        return !inOne.empty() && (inOther.empty() || inOne.front().fileOffset < inOther.front().fileOffset);
    };
    const bool isOneTrack = std::count_if(ioSamples.begin(), ioSamples.end(), hasSamples) == 1;
    std::int64_t offset = 0; // Behind the last sample.
    while (!IsFull())
    {
        auto first = ioSamples.begin() + static_cast<std::ptrdiff_t>(ioSamples.empty() ? 0 : mTracks[mTrack].next);
        if (first == ioSamples.end() || first->empty() || first->front().fileOffset != offset)
        {
            first = std::min_element(ioSamples.begin(), ioSamples.end(), isBefore); // Not the one that was foreseen.
        }
        if (first == ioSamples.end() || first->empty())
        {
            return;
        }
        const Samples most = first->first(std::min(first->size(), kFullSize)); // Others are looked through again.
        const Samples run = isOneTrack ? most : BackToBack(most);
        const std::size_t count = AddRun(static_cast<std::uint64_t>(first - ioSamples.begin()), run);
        offset = run[count - 1].fileOffset + run[count - 1].dataSize;
        *first = first->subspan(count);
        if (!isOneTrack && !IsFull() && PutTurns<kSizesFlag, kMaxSizes>(ioSamples, offset) == 0)
        {
            PutTurns<kTimesFlag, kMaxTimes>(ioSamples, offset);
        }
    }
}

//! Adds samples of one track. \return how many there was room for.
std::size_t JournalWriter::AddRun(std::uint64_t inTrack, Samples inSamples)
{
    Samples left = inSamples;
    while (!left.empty() && !IsFull())
    {
        std::size_t count = inTrack == mTrack ? AddRepeats(left) : 0;
        if (count == 0 && inTrack == mTrack && mTracks[inTrack].next == inTrack)
        {
            PutRepeats();
            count = PutGroup<kSizesFlag, kMaxSizes>(left);
            count = count < kFewSizes ? PutGroup<kTimesFlag, kMaxTimes>(left) : count;
        }
        if (count == 0)
        {
            const MediaSampleRec& sample = left.front();
            AddSample(
                {inTrack, sample.dataSize, sample.sampleCount, sample.sampleDuration, sample.zeros, sample.endsChunk});
            count = 1;
        }
        left = left.subspan(count);
    }
    return inSamples.size() - left.size();
}

//! Counts the samples in front that are as the last one. \return how many.
std::size_t JournalWriter::AddRepeats(Samples inSamples)
{
    const JournalSample last = mTracks[mTrack].last;
    const std::size_t most = mIsRepeatable ? std::min<std::size_t>(kMaxRepeats - mRepeats, inSamples.size()) : 0;
    std::size_t count = 0;
    while (count < most && inSamples[count].dataSize == last.size && inSamples[count].zeros == last.zeros &&
           FitsGroup<kSizesFlag>(inSamples[count], last))
    {
        ++count;
    }
    mRepeats += static_cast<std::uint32_t>(count);
    return count;
}

//! Puts the samples in front, which are of the last one's track, as long as a group can say what there is to say.
//! \return how many. Fewer sizes than `kFewSizes` are not put, though they are counted.
template <std::uint8_t kGroupFlag, std::size_t kMaxSamples>
std::size_t JournalWriter::PutGroup(Samples inSamples)
{
    const JournalSample last = mTracks[mTrack].last;
    std::uint8_t* const begin = mFrame.data() + mEnd;
    std::uint8_t* end = begin + 1;
    const std::size_t most = std::min(kMaxSamples, inSamples.size());
    std::size_t count = 0;
    for (; count < most; ++count)
    {
        const MediaSampleRec& sample = inSamples[count];
        if (!FitsGroup<kGroupFlag>(sample, last))
        {
            break;
        }
        end = StoreBytes(end, sample);
        if (kGroupFlag == kTimesFlag)
        {
            end = StoreNumber(end, Bits32(sample.sampleDuration));
        }
    }
    if (count >= (kGroupFlag == kSizesFlag ? kFewSizes : 1))
    {
        *begin = static_cast<std::uint8_t>(kGroupFlag + count - 1);
        mEnd = static_cast<std::size_t>(end - mFrame.data());
        mTracks[mTrack].last.size = inSamples[count - 1].dataSize;
        mTracks[mTrack].last.duration = inSamples[count - 1].sampleDuration;
        mTracks[mTrack].last.zeros = inSamples[count - 1].zeros;
        mIsRepeatable = true;
    }
    return count;
}

//! Puts samples of tracks in turn, the first of which lies at this place, as long as a group can say what there is to
//! say. \return how many.
template <std::uint8_t kGroupFlag, std::size_t kMaxSamples>
std::size_t JournalWriter::PutTurns(std::span<Samples> ioSamples, std::int64_t& ioOffset)
{
    PutRepeats();
    JournalTrackState* const tracks = mTracks.data(); // Held here, since stores of bytes might change any member.
    std::uint64_t track = mTrack;
    std::int64_t offset = ioOffset;
    std::uint8_t* const begin = mFrame.data() + mEnd;
    std::uint8_t* end = begin + 1;
    std::size_t count = 0;
    for (; count < kMaxSamples; ++count)
    {
        const std::uint64_t next = tracks[track].next;
        JournalSample& last = tracks[next].last;
        Samples& samples = ioSamples[next];
        if (samples.empty())
        {
            break;
        }
        const MediaSampleRec& sample = samples.front();
        if (sample.fileOffset != offset || !FitsGroup<kGroupFlag>(sample, last))
        {
            break;
        }
        end = StoreBytes(end, sample);
        if (kGroupFlag == kTimesFlag)
        {
            end = StoreNumber(end, Bits32(sample.sampleDuration));
            last.duration = sample.sampleDuration;
        }
        last.size = sample.dataSize;
        last.zeros = sample.zeros;
        offset += sample.dataSize;
        samples = samples.subspan(1);
        track = next;
    }
    if (count > 0)
    {
        *begin = static_cast<std::uint8_t>(kGroupFlag + count - 1);
        mEnd = static_cast<std::size_t>(end - mFrame.data());
        mTrack = track;
        mIsRepeatable = true;
        ioOffset = offset;
    }
    return count;
}

// Only single fields are copied: a whole sample that was put together a moment ago is not ready to be read as a whole.
void JournalWriter::PutSample(const JournalSample& inSample)
{
    PutRepeats();
    JournalSample& last = mTracks[inSample.track].last;
    std::uint8_t* const begin = mFrame.data() + mEnd;
    std::uint8_t* end = begin + 1;
    std::uint8_t flags = kSampleFlag;
    if (inSample.track != mTracks[mTrack].next)
    {
        flags |= kSampleTrackFlag;
        end = StoreNumber(end, inSample.track);
        mTracks[mTrack].next = inSample.track;
    }
    mTrack = inSample.track;
    if (inSample.size != last.size)
    {
        flags |= kSampleSizeFlag;
        end = StoreNumber(end, Bits32(inSample.size));
        last.size = inSample.size;
    }
    if (inSample.count != last.count)
    {
        flags |= kSampleCountFlag;
        end = StoreNumber(end, Bits32(inSample.count));
        last.count = inSample.count;
    }
    if (inSample.duration != last.duration)
    {
        flags |= kSampleDurationFlag;
        end = StoreNumber(end, Bits32(inSample.duration));
        last.duration = inSample.duration;
    }
    if (inSample.zeros != 0)
    {
        flags |= kSampleZerosFlag;
        end = StoreNumber(end, inSample.zeros);
    }
    last.zeros = inSample.zeros;
    if (inSample.endsChunk != last.endsChunk)
    {
        flags |= kSampleChunkFlag;
        last.endsChunk = inSample.endsChunk;
    }
    *begin = flags;
    mEnd = static_cast<std::size_t>(end - mFrame.data());
}

void JournalWriter::AddUncertainSample(const JournalSample& inSample)
{
    PutSample(inSample);
    mIsRepeatable = false;
}

void JournalWriter::Revoke()
{
    mFrame[mEnd++] = static_cast<std::uint8_t>(JournalKind::kRevocation);
}

//! Writes down how often the last sample came again.
void JournalWriter::PutRepeats()
{
    if (mRepeats > 0)
    {
        mFrame[mEnd++] = static_cast<std::uint8_t>(JournalKind::kRepetition);
        PutNumber(mRepeats);
        mRepeats = 0;
    }
}

void JournalWriter::Reserve(const JournalTrack& inTrack)
{
    mTracks.reserve(mTracks.size() + 1);
    ReserveFields(4 * kMaxNumberSize + MaxSizeOf(inTrack.description));
}

void JournalWriter::Reserve(const JournalUserDataView& inUserData)
{
    ReserveFields(3 * kMaxNumberSize + inUserData.payload.size());
}

void JournalWriter::Reserve(const JournalReference& /*inReference*/)
{
    ReserveFields(3 * kMaxNumberSize);
}

void JournalWriter::Reserve(const JournalTrimIn& /*inTrimIn*/)
{
    ReserveFields(2 * kMaxNumberSize);
}

void JournalWriter::Reserve(const JournalEndChunk& /*inEndChunk*/)
{
    ReserveFields(kMaxNumberSize);
}

Tolbin::Result JournalWriter::AddTrack(const JournalTrack& inTrack)
{
    Reserve(inTrack);
    PutRepeats();
    const std::size_t begin = mEnd;
    PutKind(JournalKind::kTrack);
    PutNumber(inTrack.mediaType);
    PutNumber(Bits32(inTrack.timeScale));
    PutNumber(Bits32(inTrack.width));
    PutNumber(Bits32(inTrack.height));
    PutDescription(inTrack.description);
    const Tolbin::Result result = Write();
    if (result < 0)
    {
        mEnd = begin;
        return result;
    }
    const std::uint64_t track = mTracks.size();
    mTracks.push_back({.last = {.track = track}, .next = track});
    return result;
}

void JournalWriter::Add(const JournalMovie& inMovie)
{
    ReserveFields(3 * kMaxNumberSize);
    PutKind(JournalKind::kMovie);
    PutNumber(Bits32(inMovie.timeScale));
    PutNumber(inMovie.placeholderSize);
    PutNumber(static_cast<std::uint64_t>(inMovie.creationTime));
}

void JournalWriter::Add(const JournalDescription& inDescription)
{
    ReserveFields(kMaxNumberSize + MaxSizeOf(inDescription.description));
    PutKind(JournalKind::kDescription);
    PutNumber(inDescription.track);
    PutDescription(inDescription.description);
}

void JournalWriter::Add(const JournalEndChunk& inEndChunk)
{
    Reserve(inEndChunk);
    PutKind(JournalKind::kEndChunk);
    PutNumber(inEndChunk.track);
}

void JournalWriter::Add(const JournalTrimIn& inTrimIn)
{
    Reserve(inTrimIn);
    PutKind(JournalKind::kTrimIn);
    PutNumber(inTrimIn.track);
    PutNumber(Bits32(inTrimIn.trimIn));
}

void JournalWriter::Add(const JournalUserDataView& inUserData)
{
    Reserve(inUserData);
    PutKind(JournalKind::kUserData);
    PutNumber(inUserData.track);
    PutNumber(Bits32(inUserData.type));
    PutBytes(inUserData.payload.data(), inUserData.payload.size());
}

void JournalWriter::Add(const JournalReference& inReference)
{
    Reserve(inReference);
    PutKind(JournalKind::kReference);
    PutNumber(inReference.track);
    PutNumber(inReference.referenced);
    PutNumber(inReference.type);
}

void JournalWriter::Add(const JournalProbe& inProbe)
{
    ReserveFields(3 * kMaxNumberSize);
    PutKind(JournalKind::kProbe);
    PutNumber(static_cast<std::uint64_t>(inProbe.offset));
    PutNumber(inProbe.size);
    PutNumber(inProbe.checksum);
}

void JournalWriter::Add(JournalClosing inClosing)
{
    ReserveFields(kMaxNumberSize);
    PutKind(JournalKind::kClosing);
    PutNumber(inClosing.endsWithMedia ? 1 : 0);
}

//! Makes room for a record whose fields take at most so many bytes, and for a sample behind it. Nothing has changed when
//! memory fails.
void JournalWriter::ReserveFields(std::size_t inFieldSize)
{
    const std::size_t needed = mEnd + 1 + inFieldSize + kMaxSampleSize;
    if (needed > mFrame.size())
    {
        mFrame.resize(std::max(needed, mFrame.size() + mFrame.size() / 2));
    }
}

//! Begins a record, for which there is room.
void JournalWriter::PutKind(JournalKind inKind)
{
    PutRepeats();
    mIsRepeatable = false;
    mFrame[mEnd++] = static_cast<std::uint8_t>(inKind);
}

void JournalWriter::PutNumber(std::uint64_t inNumber)
{
    mEnd = static_cast<std::size_t>(StoreNumber(mFrame.data() + mEnd, inNumber) - mFrame.data());
}

void JournalWriter::PutBytes(const void* inData, std::size_t inSize)
{
    PutNumber(inSize);
    if (inSize > 0)
    {
        std::memcpy(mFrame.data() + mEnd, inData, inSize);
        mEnd += inSize;
    }
}

std::size_t JournalWriter::MaxSizeOf(const StoredDescription& inDescription)
{
    constexpr std::size_t kNumbers = 16;
    return inDescription.entry.size() + kNumbers * kMaxNumberSize;
}

// description = entry hasGeometry [width height aspect(2) hasAperture [aperture(8)]]
void JournalWriter::PutDescription(const StoredDescription& inDescription)
{
    PutBytes(inDescription.entry.data(), inDescription.entry.size());
    PutNumber(inDescription.geometry ? 1 : 0);
    if (!inDescription.geometry)
    {
        return;
    }
    const StoredGeometry& geometry = *inDescription.geometry;
    PutNumber(Bits32(geometry.width));
    PutNumber(Bits32(geometry.height));
    PutNumber(geometry.aspectNumerator);
    PutNumber(geometry.aspectDenominator);
    PutNumber(geometry.aperture ? 1 : 0);
    if (!geometry.aperture)
    {
        return;
    }
    PutNumber(geometry.aperture->widthN);
    PutNumber(geometry.aperture->widthD);
    PutNumber(geometry.aperture->heightN);
    PutNumber(geometry.aperture->heightD);
    PutNumber(Bits32(geometry.aperture->horizOffN));
    PutNumber(geometry.aperture->horizOffD);
    PutNumber(Bits32(geometry.aperture->vertOffN));
    PutNumber(geometry.aperture->vertOffD);
}

// ---- File -----------------------------------------------------------------------------------------------------------

// On disk afterwards, behind the last whole frame: this one. After a failure perhaps a part of it, which no reader
// takes for a frame and the next attempt writes over.
Tolbin::Result JournalWriter::Write()
{
    PutRepeats();
    if (mEnd == sizeof(JournalFrameHeader))
    {
        return Tolbin::kResultSuccess;
    }
    JournalFrameHeader header;
    header.size = Low32(mEnd - sizeof(header)); // Items of user data stay below 2 GiB.
    header.checksum = ChecksumOfFrame(static_cast<std::uint64_t>(mOffset), mFrame.data() + sizeof(header), header.size);
    std::memcpy(mFrame.data(), &header, sizeof(header));

    Tolbin::Result result = mFile.SetFilePointer(mOffset, Ventra::FilePointerMoveMethod::kBegin);
    if (result < 0)
    {
        return result;
    }
    unsigned int written = 0;
    result = mFile.Write(mFrame.data(), Low32(mEnd), written);
    if (result < 0)
    {
        return result;
    }
    if (written != mEnd)
    {
        return Tolbin::kResultShortWrite;
    }
    mOffset += static_cast<std::int64_t>(mEnd);
    mEnd = sizeof(header);
    return Tolbin::kResultSuccess;
}

Tolbin::Result JournalWriter::WriteThrough()
{
    const Tolbin::Result result = Write();
    return result < 0 ? result : mFile.Sync();
}

Tolbin::Result JournalWriter::Close()
{
    mFrame = {};
    mEnd = sizeof(JournalFrameHeader);
    return mFile.Close();
}

} // namespace QT
