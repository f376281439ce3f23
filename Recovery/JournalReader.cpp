#include "JournalReader.h"

#include <Reelmill/Recovery.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

namespace QT
{

namespace
{

//! Reads up to `inSize` bytes; `outRead` tells how many there were.
Tolbin::Result ReadAt(Ventra::File& ioFile, std::uint64_t inOffset, void* outData, std::size_t inSize,
                      std::size_t& outRead)
{
    outRead = 0;
    Tolbin::Result result =
        ioFile.SetFilePointer(static_cast<long long>(inOffset), Ventra::FilePointerMoveMethod::kBegin);
    if (result >= 0)
    {
        unsigned int count = 0;
        result = ioFile.Read(outData, Low32(inSize), count);
        outRead = count;
    }
    return result;
}

} // namespace

Tolbin::Result JournalReader::Open(const Tolbin::UTF16String& inPath)
{
    Tolbin::Result result =
        mFile.Create(inPath, Ventra::FileAccessFlags::kRead, Ventra::FileShareModeFlags::kReadWrite,
                     Ventra::FileCreateDispositionFlags::kOpenExisting, Ventra::FileAttributesFlags::kNormal, false);
    long long size = 0;
    if (result >= 0)
    {
        result = mFile.GetSize(size);
    }
    JournalHeader header;
    std::size_t count = 0;
    if (result >= 0)
    {
        result = ReadAt(mFile, 0, &header, sizeof(header), count);
    }
    if (result < 0)
    {
        return result;
    }
    mSize = static_cast<std::uint64_t>(size);
    mOffset = sizeof(header);
    const JournalHeader expected;
    const bool isJournal =
        count == sizeof(header) && std::memcmp(header.magic, expected.magic, sizeof(header.magic)) == 0 &&
        header.version == kJournalVersion && header.checksum == ChecksumOf(&header, offsetof(JournalHeader, checksum));
    return isJournal ? Tolbin::kResultSuccess : kQTErrBadJournal;
}

Tolbin::Result JournalReader::Read(std::optional<JournalRecord>& outRecord)
{
    outRecord.reset();
    while (!mIsEnded && mGroupLeft == 0 && mPosition == mFrame.size())
    {
        bool isWhole = false;
        const Tolbin::Result result = ReadFrame(isWhole);
        if (result < 0)
        {
            return result;
        }
        mIsEnded = !isWhole;
    }
    JournalRecord record;
    if (!mIsEnded && ReadRecord(record))
    {
        outRecord = std::move(record);
    }
    mIsEnded = !outRecord;
    return Tolbin::kResultSuccess;
}

Tolbin::Result JournalReader::ReadFrame(bool& outIsWhole)
{
    outIsWhole = false;
    JournalFrameHeader header;
    std::size_t count = 0;
    Tolbin::Result result = ReadAt(mFile, mOffset, &header, sizeof(header), count);
    if (result < 0 || count != sizeof(header) || header.size == 0 || header.size > mSize - mOffset - sizeof(header))
    {
        return result;
    }
    mFrame.resize(header.size);
    mPosition = 0;
    result = ReadAt(mFile, mOffset + sizeof(header), mFrame.data(), mFrame.size(), count);
    outIsWhole = result >= 0 && count == mFrame.size() &&
                 header.checksum == ChecksumOfFrame(mOffset, mFrame.data(), header.size);
    if (outIsWhole)
    {
        mOffset += sizeof(header) + mFrame.size();
    }
    return result;
}

// ---- Records --------------------------------------------------------------------------------------------------------

template <typename T>
bool JournalReader::ReadNumber(T& outNumber)
{
    std::uint64_t number = 0;
    for (unsigned int shift = 0; shift < 64; shift += 7)
    {
        if (mPosition == mFrame.size())
        {
            return false;
        }
        const std::uint8_t byte = mFrame[mPosition++];
        number |= std::uint64_t{byte & 0x7Fu} << shift;
        if (byte < 0x80)
        {
            outNumber = static_cast<T>(number); // Signed ones as their bits.
            return number <= std::numeric_limits<std::make_unsigned_t<T>>::max();
        }
    }
    return false;
}

bool JournalReader::ReadBytes(Tolbin::utility::BinaryDataArray& outBytes)
{
    std::uint64_t size = 0;
    if (!ReadNumber(size) || size > mFrame.size() - mPosition)
    {
        return false;
    }
    const auto begin = mFrame.begin() + static_cast<std::ptrdiff_t>(mPosition);
    outBytes.assign(begin, begin + static_cast<std::ptrdiff_t>(size));
    mPosition += size;
    return true;
}

bool JournalReader::ReadTrack(std::uint64_t& outTrack)
{
    return ReadNumber(outTrack) && outTrack < mTracks.size();
}

bool JournalReader::ReadDescription(StoredDescription& outDescription)
{
    std::uint8_t hasGeometry = 0;
    if (!ReadBytes(outDescription.entry) || !ReadNumber(hasGeometry))
    {
        return false;
    }
    if (hasGeometry == 0)
    {
        return true;
    }
    StoredGeometry geometry;
    std::uint8_t hasAperture = 0;
    bool isRead = ReadNumber(geometry.width) && ReadNumber(geometry.height) && ReadNumber(geometry.aspectNumerator) &&
                  ReadNumber(geometry.aspectDenominator) && ReadNumber(hasAperture);
    if (isRead && hasAperture != 0)
    {
        StoredGeometry::CleanAperture aperture;
        isRead = ReadNumber(aperture.widthN) && ReadNumber(aperture.widthD) && ReadNumber(aperture.heightN) &&
                 ReadNumber(aperture.heightD) && ReadNumber(aperture.horizOffN) && ReadNumber(aperture.horizOffD) &&
                 ReadNumber(aperture.vertOffN) && ReadNumber(aperture.vertOffD);
        geometry.aperture = aperture;
    }
    outDescription.geometry = geometry;
    return isRead;
}

bool JournalReader::ReadSample(std::uint8_t inFlags, JournalSample& outSample)
{
    const auto has = [inFlags](std::uint8_t inFlag) { return (inFlags & inFlag) != 0; };
    if (mTracks.empty())
    {
        return false;
    }
    std::uint64_t track = mTracks[mTrack].next;
    if (has(kSampleTrackFlag) && !ReadTrack(track))
    {
        return false;
    }
    outSample = mTracks[track].last;
    outSample.track = track;
    outSample.zeros = 0;
    outSample.endsChunk = outSample.endsChunk != has(kSampleChunkFlag);
    return (!has(kSampleSizeFlag) || ReadNumber(outSample.size)) &&
           (!has(kSampleCountFlag) || ReadNumber(outSample.count)) &&
           (!has(kSampleDurationFlag) || ReadNumber(outSample.duration)) &&
           (!has(kSampleZerosFlag) || ReadNumber(outSample.zeros)) && TakeSample(outSample);
}

bool JournalReader::ReadSampleOfGroup(JournalSample& outSample)
{
    if (mTracks.empty())
    {
        return false;
    }
    const std::uint64_t track = mTracks[mTrack].next;
    outSample = mTracks[track].last;
    outSample.track = track;
    outSample.zeros = 0;
    std::uint64_t bytes = 0;
    if (!ReadNumber(bytes) || bytes / 2 > std::uint64_t{std::numeric_limits<std::int32_t>::max()})
    {
        return false;
    }
    outSample.size = static_cast<std::int32_t>(bytes / 2);
    return (bytes % 2 == 0 || ReadNumber(outSample.zeros)) && (!mGroupHasDurations || ReadNumber(outSample.duration)) &&
           TakeSample(outSample);
}

//! Remembers a sample for those behind it; not one that makes no sense.
bool JournalReader::TakeSample(const JournalSample& inSample)
{
    if (inSample.size < 0 || inSample.count < 0 || inSample.zeros > Bits32(inSample.size))
    {
        return false;
    }
    mTracks[mTrack].next = inSample.track;
    mTrack = inSample.track;
    mTracks[mTrack].last = inSample;
    return true;
}

bool JournalReader::ReadRecord(JournalRecord& outRecord)
{
    const std::uint8_t kind = mGroupLeft == 0 ? mFrame[mPosition++] : std::uint8_t{0};
    if ((kind & kSampleFlag) != 0)
    {
        return ReadSample(kind, outRecord.emplace<JournalSample>());
    }
    if ((kind & (kSizesFlag | kTimesFlag)) != 0)
    {
        mGroupHasDurations = (kind & kSizesFlag) == 0;
        mGroupLeft = kind % (mGroupHasDurations ? kMaxTimes : kMaxSizes) + 1;
    }
    if (mGroupLeft > 0)
    {
        --mGroupLeft;
        return ReadSampleOfGroup(outRecord.emplace<JournalSample>());
    }
    switch (static_cast<JournalKind>(kind))
    {
    case JournalKind::kRepetition:
        return ReadNumber(outRecord.emplace<JournalRepetition>().count);
    case JournalKind::kMovie: {
        auto& movie = outRecord.emplace<JournalMovie>();
        return ReadNumber(movie.timeScale) && ReadNumber(movie.placeholderSize) && ReadNumber(movie.creationTime);
    }
    case JournalKind::kTrack: {
        auto& track = outRecord.emplace<JournalTrack>();
        mTracks.push_back({.last = {}, .next = mTracks.size()});
        return ReadNumber(track.mediaType) && ReadNumber(track.timeScale) && ReadNumber(track.width) &&
               ReadNumber(track.height) && ReadDescription(track.description);
    }
    case JournalKind::kDescription: {
        auto& description = outRecord.emplace<JournalDescription>();
        return ReadTrack(description.track) && ReadDescription(description.description);
    }
    case JournalKind::kEndChunk:
        return ReadTrack(outRecord.emplace<JournalEndChunk>().track);
    case JournalKind::kTrimIn: {
        auto& trimIn = outRecord.emplace<JournalTrimIn>();
        return ReadTrack(trimIn.track) && ReadNumber(trimIn.trimIn);
    }
    case JournalKind::kUserData: {
        auto& userData = outRecord.emplace<JournalUserData>();
        return ReadNumber(userData.track) &&
               (userData.track == JournalUserData::kMovie || userData.track < mTracks.size()) &&
               ReadNumber(userData.type) && ReadBytes(userData.payload);
    }
    case JournalKind::kReference: {
        auto& reference = outRecord.emplace<JournalReference>();
        return ReadTrack(reference.track) && ReadTrack(reference.referenced) && ReadNumber(reference.type);
    }
    case JournalKind::kProbe: {
        auto& probe = outRecord.emplace<JournalProbe>();
        return ReadNumber(probe.offset) && ReadNumber(probe.size) && ReadNumber(probe.checksum);
    }
    case JournalKind::kRevocation:
        outRecord.emplace<JournalRevocation>();
        return true;
    case JournalKind::kClosing: {
        std::uint8_t endsWithMedia = 0;
        const bool isRead = ReadNumber(endsWithMedia);
        outRecord.emplace<JournalClosing>().endsWithMedia = endsWithMedia != 0;
        return isRead;
    }
    }
    return false;
}

} // namespace QT
