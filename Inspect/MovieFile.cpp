#include "MovieFile.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <numeric>

namespace Inspect
{

namespace
{

constexpr std::size_t kPlainEntrySize = 16; //!< Size, format, reserved bytes and data reference of every entry.
constexpr std::size_t kVideoEntrySize = 86;
constexpr std::size_t kSoundEntrySizeV0 = 36;
constexpr std::size_t kSoundEntrySizeV1 = 52;
constexpr std::size_t kSoundEntrySizeV2 = 72;
constexpr std::size_t kTimecodeEntrySize = 34;
constexpr std::uint64_t kMaxSmallPayload = 1u << 20; //!< Ample for any atom that is not a table.

std::string Text(std::span<const std::uint8_t> inBytes)
{
    return {inBytes.begin(), inBytes.end()};
}

double Fixed(std::uint32_t inValue)
{
    return static_cast<std::int32_t>(inValue) / 65536.0;
}

//! Version 0 has 32-bit times and durations, version 1 has 64-bit ones.
std::uint64_t ReadTime(ByteReader& ioReader, std::uint8_t inVersion)
{
    return inVersion == 1 ? ioReader.U64() : ioReader.U32();
}

bool IsPrintable(const std::string& inText)
{
    return std::none_of(inText.begin(), inText.end(), [](char inCharacter) {
        const auto byte = static_cast<unsigned char>(inCharacter);
        return byte < 0x20 && byte != '\n' && byte != '\r' && byte != '\t';
    });
}

bool IsUncompressed(std::uint32_t inFormat)
{
    static constexpr std::array<std::uint32_t, 9> kFormats = {FourCC("raw "), FourCC("twos"), FourCC("sowt"),
                                                              FourCC("in24"), FourCC("in32"), FourCC("fl32"),
                                                              FourCC("fl64"), FourCC("lpcm"), FourCC("NONE")};
    return std::find(kFormats.begin(), kFormats.end(), inFormat) != kFormats.end();
}

//! The format of sound whose 'stsz' counts frames of a size that only the description says; else null.
const SoundFormat* FormatOfFrames(const Track& inTrack)
{
    if (inTrack.uniformSampleSize != 1 || inTrack.entries.empty() || !inTrack.entries.front().sound)
    {
        return nullptr;
    }
    const SoundFormat& sound = *inTrack.entries.front().sound;
    return sound.framesPerPacket != 0 && sound.bytesPerFrame != 0 ? &sound : nullptr;
}

} // namespace

// ---- Track ----

bool Track::IsSelfContained() const
{
    const std::size_t index = entries.empty() ? 1 : entries.front().dataReference;
    return index == 0 || index > dataReferences.size() || dataReferences[index - 1].isSelf;
}

std::uint64_t Track::GetSampleSize(std::uint64_t inIndex) const
{
    if (uniformSampleSize == 0)
    {
        return inIndex < sampleSizes.size() ? sampleSizes[inIndex] : 0;
    }
    const SoundFormat* sound = FormatOfFrames(*this);
    if (sound == nullptr)
    {
        return uniformSampleSize;
    }
    return sound->framesPerPacket == 1 ? sound->bytesPerFrame : 0;
}

std::uint64_t Track::GetSize(std::uint64_t inFirst, std::uint64_t inCount) const
{
    if (uniformSampleSize == 0)
    {
        const auto begin = sampleSizes.begin() + static_cast<std::ptrdiff_t>(std::min(inFirst, sampleSizes.size()));
        const std::size_t count = std::min(inCount, sampleSizes.size() - std::min(inFirst, sampleSizes.size()));
        return std::accumulate(begin, begin + static_cast<std::ptrdiff_t>(count), std::uint64_t{0});
    }
    if (const SoundFormat* sound = FormatOfFrames(*this))
    {
        return inCount / sound->framesPerPacket * sound->bytesPerFrame;
    }
    return inCount * uniformSampleSize;
}

const Atom* Track::FindTable(std::uint32_t inType) const
{
    const Atom* found = atom;
    for (const std::uint32_t type : {FourCC("mdia"), FourCC("minf"), FourCC("stbl"), inType})
    {
        found = found != nullptr ? found->Find(type) : nullptr;
    }
    return found;
}

void Track::VisitChunks(const std::function<bool(const Chunk&)>& inVisit) const
{
    Chunk chunk;
    std::size_t runIndex = 0;   // In 'stsc'.
    std::size_t timeIndex = 0;  // In 'stts'.
    std::uint64_t timeUsed = 0; // Samples of that entry that are used up.
    std::uint64_t samplesLeft = sampleCount;
    for (std::size_t index = 0; index < chunkOffsets.size() && samplesLeft != 0; ++index)
    {
        while (runIndex + 1 < sampleToChunk.size() && sampleToChunk[runIndex + 1].firstChunk <= index + 1)
        {
            ++runIndex;
        }
        if (runIndex >= sampleToChunk.size())
        {
            return;
        }
        chunk.offset = chunkOffsets[index];
        chunk.descriptionID = sampleToChunk[runIndex].descriptionID;
        chunk.sampleCount = std::min<std::uint64_t>(sampleToChunk[runIndex].samplesPerChunk, samplesLeft);
        chunk.size = GetSize(chunk.firstSample, chunk.sampleCount);
        chunk.duration = 0;
        for (std::uint64_t left = chunk.sampleCount; left != 0 && timeIndex < timeToSample.size();)
        {
            const TimeToSample& entry = timeToSample[timeIndex];
            const std::uint64_t count = std::min(left, entry.sampleCount - timeUsed);
            chunk.duration += count * entry.sampleDuration;
            left -= count;
            timeUsed += count;
            if (timeUsed == entry.sampleCount)
            {
                ++timeIndex;
                timeUsed = 0;
            }
        }
        if (!inVisit(chunk))
        {
            return;
        }
        chunk.time += chunk.duration;
        chunk.firstSample += chunk.sampleCount;
        samplesLeft -= chunk.sampleCount;
    }
}

void Track::VisitSamples(const std::function<bool(const Sample&)>& inVisit) const
{
    Sample sample;
    std::size_t timeIndex = 0;
    std::uint64_t timeUsed = 0;
    bool goesOn = true;
    VisitChunks([&](const Chunk& inChunk) {
        sample.offset = inChunk.offset;
        for (std::uint64_t i = 0; i < inChunk.sampleCount && goesOn; ++i)
        {
            while (timeIndex < timeToSample.size() && timeUsed == timeToSample[timeIndex].sampleCount)
            {
                ++timeIndex;
                timeUsed = 0;
            }
            sample.size = GetSampleSize(sample.index);
            sample.duration = timeIndex < timeToSample.size() ? timeToSample[timeIndex].sampleDuration : 0;
            goesOn = inVisit(sample);
            ++timeUsed;
            ++sample.index;
            sample.offset += sample.size;
            sample.time += sample.duration;
        }
        ++sample.chunk;
        return goesOn;
    });
}

// ---- Movie ----

MovieFile::MovieFile(const ByteSource& inSource, Findings& ioFindings)
    : mSource(inSource), mFindings(ioFindings), mTree(inSource, ioFindings), mMooV(mTree.Find(FourCC("moov")))
{
    if (mMooV == nullptr)
    {
        mFindings.Add(Severity::kError, "no-moov", 0, 0, "the file has no 'moov' atom, so nothing describes its media");
        LookForMooVInMedia();
        return;
    }
    ReadMovieHeader();
    for (const Atom& child : mMooV->children)
    {
        if (child.type == FourCC("trak"))
        {
            ReadTrack(child);
        }
    }
    ReadMetadata(*mMooV, 0, mMetadata);
}

const Track* MovieFile::FindTrack(std::uint32_t inID) const
{
    const auto found = mTrackIndices.find(inID);
    return found != mTrackIndices.end() ? &mTracks[found->second] : nullptr;
}

std::uint8_t MovieFile::ReadVersion(ByteReader& ioReader, const Atom& inAtom, std::uint32_t inTrackID)
{
    const std::uint8_t version = ioReader.U8();
    if (version > 1)
    {
        mFindings.Add(Severity::kError, "atom-version", inAtom.offset, inTrackID,
                      fmt::format("{} has version {}, which is not known", FourCCText(inAtom.type), version));
    }
    return version;
}

void MovieFile::CheckShort(const Atom& inAtom, const ByteReader& inReader, std::uint32_t inTrackID)
{
    if (inReader.HasFailed())
    {
        mFindings.Add(Severity::kError, "atom-short", inAtom.offset, inTrackID,
                      fmt::format("{} has {} bytes, too few for its fields", FourCCText(inAtom.type), inAtom.size));
    }
}

void MovieFile::CheckSize(const Atom& inAtom, const ByteReader& inReader, std::uint32_t inTrackID)
{
    CheckShort(inAtom, inReader, inTrackID);
    if (!inReader.HasFailed() && !inReader.Rest().empty())
    {
        mFindings.Add(
            Severity::kError, "atom-long", inAtom.offset, inTrackID,
            fmt::format("{} has {} bytes behind its last field", FourCCText(inAtom.type), inReader.Rest().size()));
    }
}

void MovieFile::CheckDurationWidth(const Atom& inAtom, std::uint8_t inVersion, std::uint64_t inDuration,
                                   std::uint32_t inTrackID)
{
    if (inVersion == 0 && inDuration > INT32_MAX)
    {
        mFindings.Add(Severity::kWarning, "duration-width", inAtom.offset, inTrackID,
                      fmt::format("{} lasts {} units, which 32 bits with a sign do not hold", FourCCText(inAtom.type),
                                  inDuration));
    }
}

//! A media atom that says that it is longer than it is swallows what lies behind it.
void MovieFile::LookForMooVInMedia()
{
    constexpr std::uint64_t kMaxSearched = 64u << 20; // From the end; further in front it would be no accident.
    constexpr std::uint64_t kBlock = 1u << 16;
    constexpr std::uint64_t kHead = 16; // Size and type of the movie atom and of its header.
    const auto& atoms = mTree.GetAtoms();
    const auto media =
        std::find_if(atoms.rbegin(), atoms.rend(), [](const Atom& inAtom) { return inAtom.type == FourCC("mdat"); });
    if (media == atoms.rend())
    {
        return;
    }
    const std::uint64_t end = media->GetEnd();
    std::vector<std::uint8_t> block(kBlock + kHead);
    for (std::uint64_t begin = end - std::min(media->GetPayloadSize(), kMaxSearched); begin < end; begin += kBlock)
    {
        const std::size_t count =
            mSource.Read(begin, std::span(block).first(std::min<std::uint64_t>(block.size(), end - begin)));
        for (std::size_t i = 0; i + kHead <= count; ++i)
        {
            if (block[i + 4] != 'm')
            {
                continue;
            }
            ByteReader reader(std::span<const std::uint8_t>(block).subspan(i, kHead));
            reader.Skip(4);
            const std::uint32_t type = reader.U32();
            reader.Skip(4);
            if (type == FourCC("moov") && reader.U32() == FourCC("mvhd"))
            {
                mFindings.Add(Severity::kError, "moov-in-media", begin + i, 0,
                              "a 'moov' atom lies inside the media, so the size of 'mdat' is wrong");
                return;
            }
        }
    }
}

void MovieFile::ReadMovieHeader()
{
    const Atom* header = mMooV->Find(FourCC("mvhd"));
    if (header == nullptr)
    {
        const bool isCompressed = mMooV->Find(FourCC("cmov")) != nullptr;
        mFindings.Add(Severity::kError, "no-mvhd", mMooV->offset, 0,
                      isCompressed ? "the 'moov' atom is compressed, which is not read here"
                                   : "the 'moov' atom has no 'mvhd' atom");
        return;
    }
    const std::vector<std::uint8_t> bytes = mTree.ReadPayload(*header, kMaxSmallPayload);
    ByteReader reader(bytes);
    const std::uint8_t version = ReadVersion(reader, *header, 0);
    reader.Skip(3);
    mCreationTime = ReadTime(reader, version);
    ReadTime(reader, version); // Modification.
    mTimeScale = reader.U32();
    mDuration = ReadTime(reader, version);
    reader.Skip(4 + 2 + 10 + 36 + 24);
    mNextTrackID = reader.U32();
    CheckSize(*header, reader, 0);
    CheckDurationWidth(*header, version, mDuration, 0);
    if (mTimeScale == 0)
    {
        mFindings.Add(Severity::kError, "time-scale", header->offset, 0, "the movie's time scale is 0");
    }
}

void MovieFile::ReadTrack(const Atom& inAtom)
{
    Track track;
    track.atom = &inAtom;
    ReadTrackHeader(inAtom, track);
    ReadEdits(inAtom, track);
    ReadReferences(inAtom, track);
    ReadApertures(inAtom, track);
    ReadMedia(inAtom, track);
    ReadMetadata(inAtom, track.id, track.metadata);
    mTrackIndices.emplace(track.id, mTracks.size());
    mTracks.push_back(std::move(track));
}

void MovieFile::ReadTrackHeader(const Atom& inAtom, Track& outTrack)
{
    const Atom* header = inAtom.Find(FourCC("tkhd"));
    if (header == nullptr)
    {
        mFindings.Add(Severity::kError, "no-tkhd", inAtom.offset, 0, "a track has no 'tkhd' atom");
        return;
    }
    const std::vector<std::uint8_t> bytes = mTree.ReadPayload(*header, kMaxSmallPayload);
    ByteReader reader(bytes);
    const std::uint8_t version = ReadVersion(reader, *header, 0);
    outTrack.flags = reader.U24();
    ReadTime(reader, version); // Creation.
    ReadTime(reader, version); // Modification.
    outTrack.id = reader.U32();
    reader.Skip(4);
    outTrack.duration = ReadTime(reader, version);
    reader.Skip(8 + 2 + 2 + 2 + 2 + 36);
    outTrack.width = Fixed(reader.U32());
    outTrack.height = Fixed(reader.U32());
    CheckSize(*header, reader, outTrack.id);
    CheckDurationWidth(*header, version, outTrack.duration, outTrack.id);
}

void MovieFile::ReadEdits(const Atom& inAtom, Track& outTrack)
{
    const Atom* edits = inAtom.Find(FourCC("edts"));
    const Atom* list = edits != nullptr ? edits->Find(FourCC("elst")) : nullptr;
    if (list == nullptr)
    {
        return;
    }
    const std::vector<std::uint8_t> first = mTree.ReadFront(*list, 1);
    ByteReader front(first);
    const std::uint8_t version = ReadVersion(front, *list, outTrack.id);
    ReadTable<Edit>(*list, version == 1 ? 20 : 12, outTrack.id, outTrack.edits, [version](ByteReader& ioReader) {
        Edit edit;
        edit.duration = ReadTime(ioReader, version);
        edit.mediaTime = version == 1 ? ioReader.I64() : ioReader.I32();
        edit.mediaRate = ioReader.U32();
        return edit;
    });
}

void MovieFile::ReadReferences(const Atom& inAtom, Track& outTrack)
{
    const Atom* references = inAtom.Find(FourCC("tref"));
    if (references == nullptr)
    {
        return;
    }
    for (const Atom& reference : references->children)
    {
        const std::vector<std::uint8_t> bytes = mTree.ReadPayload(reference, kMaxSmallPayload);
        ByteReader reader(bytes);
        std::vector<std::uint32_t>& tracks = outTrack.references[reference.type];
        for (std::size_t i = 0; i < bytes.size() / 4; ++i)
        {
            tracks.push_back(reader.U32());
        }
    }
}

void MovieFile::ReadApertures(const Atom& inAtom, Track& outTrack)
{
    const Atom* apertures = inAtom.Find(FourCC("tapt"));
    if (apertures == nullptr)
    {
        return;
    }
    const auto readSize = [&](std::uint32_t inType) -> std::optional<Apertures::Size> {
        const Atom* atom = apertures->Find(inType);
        if (atom == nullptr)
        {
            return std::nullopt;
        }
        const std::vector<std::uint8_t> bytes = mTree.ReadPayload(*atom, kMaxSmallPayload);
        ByteReader reader(bytes);
        reader.Skip(4);
        Apertures::Size size;
        size.width = Fixed(reader.U32());
        size.height = Fixed(reader.U32());
        CheckSize(*atom, reader, outTrack.id);
        return size;
    };
    outTrack.apertures = Apertures{readSize(FourCC("clef")), readSize(FourCC("prof")), readSize(FourCC("enof"))};
}

void MovieFile::ReadMedia(const Atom& inAtom, Track& outTrack)
{
    const Atom* media = inAtom.Find(FourCC("mdia"));
    if (media == nullptr)
    {
        mFindings.Add(Severity::kError, "no-mdia", inAtom.offset, outTrack.id, "the track has no 'mdia' atom");
        return;
    }
    if (const Atom* header = media->Find(FourCC("mdhd")))
    {
        const std::vector<std::uint8_t> bytes = mTree.ReadPayload(*header, kMaxSmallPayload);
        ByteReader reader(bytes);
        const std::uint8_t version = ReadVersion(reader, *header, outTrack.id);
        reader.Skip(3);
        ReadTime(reader, version); // Creation.
        ReadTime(reader, version); // Modification.
        outTrack.mediaTimeScale = reader.U32();
        outTrack.mediaDuration = ReadTime(reader, version);
        reader.Skip(2 + 2); // Language and quality.
        CheckSize(*header, reader, outTrack.id);
        CheckDurationWidth(*header, version, outTrack.mediaDuration, outTrack.id);
        if (outTrack.mediaTimeScale == 0)
        {
            mFindings.Add(Severity::kError, "time-scale", header->offset, outTrack.id, "the media's time scale is 0");
        }
    }
    else
    {
        mFindings.Add(Severity::kError, "no-mdhd", media->offset, outTrack.id, "the track has no 'mdhd' atom");
    }
    if (const Atom* handler = media->Find(FourCC("hdlr")))
    {
        const std::vector<std::uint8_t> bytes = mTree.ReadPayload(*handler, kMaxSmallPayload);
        ByteReader reader(bytes);
        reader.Skip(4);
        const bool isQuickTime = reader.U32() == FourCC("mhlr");
        outTrack.handlerType = reader.U32();
        reader.Skip(12);
        CheckShort(*handler, reader, outTrack.id);
        // A Pascal string in QuickTime, a C string in ISO files; some writers mix them up.
        std::string name = Text(reader.Rest());
        if (isQuickTime && !name.empty() && static_cast<unsigned char>(name.front()) == name.size() - 1)
        {
            name.erase(0, 1);
        }
        name.resize(std::min(name.size(), name.find('\0')));
        outTrack.handlerName = name;
    }
    else
    {
        mFindings.Add(Severity::kError, "no-hdlr", media->offset, outTrack.id, "the track has no media 'hdlr' atom");
    }
    const Atom* information = media->Find(FourCC("minf"));
    if (information != nullptr)
    {
        ReadDataReferences(*information, outTrack);
    }
    const Atom* table = information != nullptr ? information->Find(FourCC("stbl")) : nullptr;
    if (table == nullptr)
    {
        mFindings.Add(Severity::kError, "no-stbl", media->offset, outTrack.id, "the track has no sample table");
        return;
    }
    ReadSampleTable(*table, outTrack);
}

template <typename Entry>
void MovieFile::ReadTable(const Atom& inAtom, std::size_t inEntrySize, std::uint32_t inTrackID,
                          std::vector<Entry>& outEntries, const std::function<Entry(ByteReader&)>& inRead)
{
    constexpr std::uint64_t kHeadSize = 8; // Version, flags and the number of entries.
    const std::vector<std::uint8_t> head = mTree.ReadFront(inAtom, kHeadSize);
    ByteReader headReader(head);
    headReader.Skip(4);
    const std::uint32_t count = headReader.U32();
    CheckShort(inAtom, headReader, inTrackID);
    if (headReader.HasFailed())
    {
        return;
    }
    const std::uint64_t space = inAtom.GetPayloadSize() - kHeadSize;
    const std::uint64_t room = space / inEntrySize;
    if (room < count)
    {
        mFindings.Add(
            Severity::kError, "table-count", inAtom.offset, inTrackID,
            fmt::format("{} says that it has {} entries, but holds {}", FourCCText(inAtom.type), count, room));
    }
    else if (space != count * inEntrySize)
    {
        mFindings.Add(Severity::kError, "table-count", inAtom.offset, inTrackID,
                      fmt::format("{} has {} bytes behind its {} entries", FourCCText(inAtom.type),
                                  space - count * inEntrySize, count));
    }
    const std::vector<std::uint8_t> bytes =
        mTree.ReadFront(inAtom, kHeadSize + std::min<std::uint64_t>(count, room) * inEntrySize);
    ByteReader reader(bytes);
    reader.Skip(kHeadSize);
    const std::size_t readable = reader.Rest().size() / inEntrySize;
    outEntries.reserve(readable);
    for (std::size_t i = 0; i < readable; ++i)
    {
        outEntries.push_back(inRead(reader));
    }
}

void MovieFile::ReadDataReferences(const Atom& inAtom, Track& outTrack)
{
    const Atom* information = inAtom.Find(FourCC("dinf"));
    const Atom* references = information != nullptr ? information->Find(FourCC("dref")) : nullptr;
    if (references == nullptr)
    {
        return;
    }
    outTrack.statedDataReferenceCount = ReadEntryCount(*references, outTrack.id);
    for (const Atom& reference : references->children)
    {
        const std::vector<std::uint8_t> bytes = mTree.ReadFront(reference, 4);
        ByteReader reader(bytes);
        const bool isSelf = (reader.U32() & 1) != 0;
        CheckShort(reference, reader, outTrack.id);
        outTrack.dataReferences.push_back({reference.offset, isSelf});
    }
}

//! The number of atoms that a list of atoms says it has.
std::uint32_t MovieFile::ReadEntryCount(const Atom& inAtom, std::uint32_t inTrackID)
{
    const std::vector<std::uint8_t> bytes = mTree.ReadFront(inAtom, 8);
    ByteReader reader(bytes);
    reader.Skip(4);
    const std::uint32_t count = reader.U32();
    CheckShort(inAtom, reader, inTrackID);
    return count;
}

void MovieFile::ReadSampleTable(const Atom& inAtom, Track& outTrack)
{
    if (const Atom* atom = inAtom.Find(FourCC("stsd")))
    {
        ReadSampleEntries(*atom, outTrack);
    }
    if (const Atom* atom = inAtom.Find(FourCC("stts")))
    {
        ReadTable<TimeToSample>(*atom, 8, outTrack.id, outTrack.timeToSample, [](ByteReader& ioReader) {
            TimeToSample entry;
            entry.sampleCount = ioReader.U32();
            entry.sampleDuration = ioReader.U32();
            return entry;
        });
    }
    if (const Atom* atom = inAtom.Find(FourCC("stsc")))
    {
        ReadTable<SampleToChunk>(*atom, 12, outTrack.id, outTrack.sampleToChunk, [](ByteReader& ioReader) {
            SampleToChunk entry;
            entry.firstChunk = ioReader.U32();
            entry.samplesPerChunk = ioReader.U32();
            entry.descriptionID = ioReader.U32();
            return entry;
        });
    }
    if (const Atom* atom = inAtom.Find(FourCC("stco")))
    {
        ReadTable<std::uint64_t>(*atom, 4, outTrack.id, outTrack.chunkOffsets,
                                 [](ByteReader& ioReader) { return ioReader.U32(); });
    }
    else if (const Atom* atom64 = inAtom.Find(FourCC("co64")))
    {
        outTrack.has64BitOffsets = true;
        ReadTable<std::uint64_t>(*atom64, 8, outTrack.id, outTrack.chunkOffsets,
                                 [](ByteReader& ioReader) { return ioReader.U64(); });
    }
    if (const Atom* atom = inAtom.Find(FourCC("ctts")))
    {
        struct Offset
        {
            std::uint32_t count;
            std::int32_t offset;
        };
        std::vector<Offset> offsets;
        ReadTable<Offset>(*atom, 8, outTrack.id, offsets, [](ByteReader& ioReader) {
            const std::uint32_t count = ioReader.U32();
            return Offset{count, ioReader.I32()};
        });
        for (const Offset& entry : offsets)
        {
            outTrack.compositionCount += entry.count;
            outTrack.maxCompositionOffset =
                std::max(outTrack.maxCompositionOffset, static_cast<std::uint32_t>(std::max(entry.offset, 0)));
        }
    }
    if (const Atom* atom = inAtom.Find(FourCC("stss")))
    {
        ReadTable<std::uint32_t>(*atom, 4, outTrack.id, outTrack.syncSamples,
                                 [](ByteReader& ioReader) { return ioReader.U32(); });
    }
    ReadSampleSizes(inAtom, outTrack);
}

void MovieFile::ReadSampleSizes(const Atom& inAtom, Track& outTrack)
{
    const Atom* sizes = inAtom.Find(FourCC("stsz"));
    const Atom* compactSizes = inAtom.Find(FourCC("stz2"));
    const Atom* atom = sizes != nullptr ? sizes : compactSizes;
    if (atom == nullptr)
    {
        return;
    }
    constexpr std::uint64_t kHeadSize = 12; // Version, flags, size and count.
    const std::vector<std::uint8_t> head = mTree.ReadFront(*atom, kHeadSize);
    ByteReader headReader(head);
    headReader.Skip(4);
    const std::uint32_t size = headReader.U32();
    const unsigned int bits = atom == sizes ? 32 : size & 0xFF;
    outTrack.uniformSampleSize = atom == sizes ? size : 0;
    outTrack.sampleCount = headReader.U32();
    CheckShort(*atom, headReader, outTrack.id);
    if (bits != 4 && bits != 8 && bits != 16 && bits != 32)
    {
        mFindings.Add(Severity::kError, "atom-version", atom->offset, outTrack.id,
                      fmt::format("{} has sizes of {} bits, which are not known", FourCCText(atom->type), bits));
        outTrack.sampleCount = 0;
        return;
    }
    if (headReader.HasFailed())
    {
        outTrack.sampleCount = 0;
        return;
    }
    const std::uint64_t space = atom->GetPayloadSize() - kHeadSize;
    const std::uint64_t listed = outTrack.uniformSampleSize == 0 ? outTrack.sampleCount : 0;
    const std::uint64_t needed = (listed * bits + 7) / 8;
    if (needed != space && space != 0)
    {
        mFindings.Add(Severity::kError, "table-count", atom->offset, outTrack.id,
                      fmt::format("{} lists {} sizes, which take {} bytes, but has {}", FourCCText(atom->type), listed,
                                  needed, space));
    }
    // Otherwise a track of samples that are all empty, which needs no table.
    const std::vector<std::uint8_t> bytes = mTree.ReadFront(*atom, kHeadSize + std::min(needed, space));
    ByteReader reader(bytes);
    reader.Skip(kHeadSize);
    const std::uint64_t readable = std::min<std::uint64_t>(listed, std::uint64_t{reader.Rest().size()} * 8 / bits);
    outTrack.sampleSizes.reserve(readable);
    for (std::uint64_t i = 0; i < readable; ++i)
    {
        switch (bits)
        {
        case 4: {
            const std::uint8_t pair = reader.Rest()[i / 2];
            outTrack.sampleSizes.push_back(i % 2 == 0 ? pair >> 4 : pair & 0xF);
            break;
        }
        case 8:
            outTrack.sampleSizes.push_back(reader.U8());
            break;
        case 16:
            outTrack.sampleSizes.push_back(reader.U16());
            break;
        default:
            outTrack.sampleSizes.push_back(reader.U32());
            break;
        }
    }
}

// ---- Sample descriptions ----

void MovieFile::ReportShortEntry(const SampleEntry& inEntry, std::uint64_t inNeeded, std::uint32_t inTrackID)
{
    mFindings.Add(Severity::kError, "entry-short", inEntry.offset, inTrackID,
                  fmt::format("the sample description {} has {} bytes, fewer than {}", FourCCText(inEntry.format),
                              inEntry.size, inNeeded));
}

void MovieFile::ReadSampleEntries(const Atom& inAtom, Track& outTrack)
{
    // The fixed part of any entry, with the head of a colour table.
    constexpr std::uint64_t kMaxFixedSize = 128;
    outTrack.statedEntryCount = ReadEntryCount(inAtom, outTrack.id);
    for (const Atom& child : inAtom.children)
    {
        SampleEntry& entry = outTrack.entries.emplace_back();
        entry.format = child.type;
        entry.offset = child.offset;
        entry.size = child.size;
        const std::vector<std::uint8_t> bytes = mTree.ReadFront(child, kMaxFixedSize);
        ByteReader reader(bytes);
        reader.Skip(6);
        entry.dataReference = reader.U16();
        if (reader.HasFailed())
        {
            ReportShortEntry(entry, kPlainEntrySize, outTrack.id);
            continue;
        }
        switch (outTrack.handlerType)
        {
        case FourCC("vide"):
            ReadVideoEntry(entry, bytes, outTrack.id);
            break;
        case FourCC("soun"):
            ReadSoundEntry(entry, bytes, outTrack.id);
            break;
        case FourCC("tmcd"):
            ReadTimecodeEntry(entry, bytes, outTrack.id);
            break;
        default:
            break;
        }
    }
}

void MovieFile::ReadTimecodeEntry(SampleEntry& ioEntry, const std::vector<std::uint8_t>& inBytes,
                                  std::uint32_t inTrackID)
{
    ByteReader reader(inBytes);
    reader.Skip(8 + 4);
    TimecodeFormat timecode;
    timecode.flags = reader.U32();
    timecode.timeScale = reader.I32();
    timecode.frameDuration = reader.I32();
    timecode.numberOfFrames = reader.U8();
    reader.Skip(1);
    if (reader.HasFailed())
    {
        ReportShortEntry(ioEntry, kTimecodeEntrySize, inTrackID);
    }
    else if (ioEntry.size > kTimecodeEntrySize)
    {
        ioEntry.extensions = mTree.ReadRange(ioEntry.offset + kTimecodeEntrySize, ioEntry.offset + ioEntry.size);
    }
    ioEntry.timecode = timecode;
}

void MovieFile::ReadVideoEntry(SampleEntry& ioEntry, const std::vector<std::uint8_t>& inBytes, std::uint32_t inTrackID)
{
    ByteReader reader(inBytes);
    VideoFormat video;
    reader.Skip(8 + 4);
    video.vendor = reader.U32();
    reader.Skip(8);
    video.width = reader.U16();
    video.height = reader.U16();
    reader.Skip(4 + 4 + 4 + 2);
    const std::uint8_t nameLength = reader.U8();
    const auto name = reader.Bytes(31);
    video.compressorName = Text(name.first(std::min<std::size_t>(nameLength, name.size())));
    video.depth = reader.U16();
    const std::uint16_t colorTable = reader.U16();
    std::uint64_t extensionsOffset = kVideoEntrySize;
    if (colorTable == 0 && video.depth <= 8 && !reader.HasFailed())
    {
        // A colour table of its own: seed, flags, highest index, 8 bytes a colour.
        reader.Skip(6);
        extensionsOffset += 8 + 8 * (std::uint64_t{reader.U16()} + 1);
    }
    if (reader.HasFailed())
    {
        ReportShortEntry(ioEntry, extensionsOffset, inTrackID);
        ioEntry.video = video;
        return;
    }
    if (extensionsOffset < ioEntry.size)
    {
        ioEntry.extensions = mTree.ReadRange(ioEntry.offset + extensionsOffset, ioEntry.offset + ioEntry.size);
    }
    for (const Atom& extension : ioEntry.extensions)
    {
        ReadVideoExtension(extension, video, inTrackID);
    }
    ioEntry.video = video;
}

void MovieFile::ReadVideoExtension(const Atom& inAtom, VideoFormat& ioVideo, std::uint32_t inTrackID)
{
    constexpr std::uint64_t kMaxFieldsSize = 64; // An ICC profile behind them is not read.
    const std::vector<std::uint8_t> bytes = mTree.ReadFront(inAtom, kMaxFieldsSize);
    ByteReader reader(bytes);
    switch (inAtom.type)
    {
    case FourCC("colr"): {
        Color color;
        color.parameterType = reader.U32();
        if (color.parameterType == FourCC("nclc") || color.parameterType == FourCC("nclx"))
        {
            color.primaries = reader.U16();
            color.transferFunction = reader.U16();
            color.matrix = reader.U16();
        }
        ioVideo.color = color;
        CheckShort(inAtom, reader, inTrackID);
        break;
    }
    case FourCC("fiel"): {
        const std::uint8_t count = reader.U8();
        ioVideo.field = {count, reader.U8()};
        CheckSize(inAtom, reader, inTrackID);
        break;
    }
    case FourCC("pasp"): {
        const std::uint32_t horizontal = reader.U32();
        ioVideo.pixelAspect = {horizontal, reader.U32()};
        CheckSize(inAtom, reader, inTrackID);
        break;
    }
    case FourCC("clap"): {
        CleanAperture aperture;
        aperture.widthN = reader.U32();
        aperture.widthD = reader.U32();
        aperture.heightN = reader.U32();
        aperture.heightD = reader.U32();
        aperture.horizOffN = reader.I32();
        aperture.horizOffD = reader.U32();
        aperture.vertOffN = reader.I32();
        aperture.vertOffD = reader.U32();
        ioVideo.cleanAperture = aperture;
        CheckSize(inAtom, reader, inTrackID);
        break;
    }
    case FourCC("gama"):
        ioVideo.gamma = reader.U32();
        CheckSize(inAtom, reader, inTrackID);
        break;
    default:
        break;
    }
}

void MovieFile::ReadSoundEntry(SampleEntry& ioEntry, const std::vector<std::uint8_t>& inBytes, std::uint32_t inTrackID)
{
    ByteReader reader(inBytes);
    SoundFormat sound;
    reader.Skip(8);
    sound.isUncompressed = IsUncompressed(ioEntry.format);
    sound.version = reader.U16();
    reader.Skip(2 + 4);
    sound.channelCount = reader.U16();
    sound.bitsPerChannel = reader.U16();
    reader.Skip(2 + 2);
    sound.sampleRate = reader.U32() / 65536.0;
    std::uint64_t extensionsOffset = kSoundEntrySizeV0;
    if (sound.version == 0)
    {
        // Of compressed sound the entry tells the sample size before compression.
        const std::uint32_t bytes = (sound.bitsPerChannel + 7) / 8;
        sound.framesPerPacket = sound.isUncompressed ? 1 : 0;
        sound.bytesPerFrame = sound.framesPerPacket * sound.channelCount * bytes;
    }
    else if (sound.version == 1)
    {
        sound.framesPerPacket = reader.U32();
        sound.bytesPerPacket = reader.U32();
        sound.bytesPerFrame = reader.U32();
        reader.Skip(4);
        extensionsOffset = kSoundEntrySizeV1;
    }
    else if (sound.version == 2)
    {
        reader.Skip(4);
        sound.sampleRate = reader.F64();
        sound.channelCount = reader.U32();
        reader.Skip(4);
        sound.bitsPerChannel = reader.U32();
        sound.formatFlags = reader.U32();
        sound.bytesPerFrame = reader.U32();
        sound.framesPerPacket = reader.U32();
        extensionsOffset = kSoundEntrySizeV2;
    }
    if (reader.HasFailed())
    {
        ReportShortEntry(ioEntry, extensionsOffset, inTrackID);
        ioEntry.sound = sound;
        return;
    }
    if (extensionsOffset < ioEntry.size)
    {
        ioEntry.extensions = mTree.ReadRange(ioEntry.offset + extensionsOffset, ioEntry.offset + ioEntry.size);
    }
    for (const Atom& extension : ioEntry.extensions)
    {
        ReadSoundExtension(extension, sound, inTrackID);
    }
    ioEntry.sound = sound;
}

void MovieFile::ReadSoundExtension(const Atom& inAtom, SoundFormat& ioSound, std::uint32_t inTrackID)
{
    const Atom* endianness = inAtom.type == FourCC("wave") ? inAtom.Find(FourCC("enda")) : nullptr;
    if (endianness != nullptr)
    {
        const std::vector<std::uint8_t> bytes = mTree.ReadPayload(*endianness, kMaxSmallPayload);
        ByteReader reader(bytes);
        ioSound.littleEndian = reader.U16() == 1;
        CheckSize(*endianness, reader, inTrackID);
    }
    if (inAtom.type == FourCC("chan"))
    {
        const std::vector<std::uint8_t> bytes = mTree.ReadPayload(inAtom, kMaxSmallPayload);
        ByteReader reader(bytes);
        ChannelLayout layout;
        reader.Skip(4);
        layout.tag = reader.U32();
        layout.bitmap = reader.U32();
        const std::uint32_t count = reader.U32();
        for (std::uint32_t i = 0; i < count && !reader.HasFailed(); ++i)
        {
            layout.labels.push_back(reader.U32());
            reader.Skip(16); // Flags and coordinates.
        }
        // With a layout tag, room for descriptions may stay unused.
        CheckShort(inAtom, reader, inTrackID);
        ioSound.channelLayout = layout;
    }
}

// ---- Metadata ----

void MovieFile::ReadMetadata(const Atom& inParent, std::uint32_t inTrackID, std::vector<MetadataItem>& outItems)
{
    const Atom* userData = inParent.Find(FourCC("udta"));
    if (userData == nullptr)
    {
        return;
    }
    for (const Atom& item : userData->children)
    {
        if (item.type == FourCC("meta"))
        {
            continue;
        }
        std::string value = fmt::format("{} bytes", item.GetPayloadSize());
        if (item.GetPayloadSize() <= kMaxSmallPayload)
        {
            const std::vector<std::uint8_t> bytes = mTree.ReadPayload(item, kMaxSmallPayload);
            ByteReader reader(bytes);
            std::string text = Text(bytes);
            if (item.type >> 24 == 0xA9) // International text: length, language, text.
            {
                const std::uint16_t length = reader.U16();
                reader.Skip(2);
                text = Text(reader.Bytes(length));
                if (reader.HasFailed() && !bytes.empty())
                {
                    mFindings.Add(Severity::kError, "user-text", item.offset, inTrackID,
                                  fmt::format("the text of {} has no length and language in front that fit it",
                                              FourCCText(item.type)));
                }
            }
            if (!reader.HasFailed() && !text.empty() && IsPrintable(text))
            {
                value = text;
            }
        }
        outItems.push_back({FourCCText(item.type), value, item.offset});
    }
}

} // namespace Inspect
