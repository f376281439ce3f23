#pragma once

#include "AtomTree.h"
#include "ByteSource.h"
#include "Findings.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Inspect
{

//! 'colr'
struct Color
{
    std::uint32_t parameterType = 0; //!< 'nclc', 'nclx' or 'prof'.
    std::uint16_t primaries = 0;
    std::uint16_t transferFunction = 0;
    std::uint16_t matrix = 0;
};

//! 'clap', in pixels.
struct CleanAperture
{
    std::uint32_t widthN = 0, widthD = 0, heightN = 0, heightD = 0;
    std::int32_t horizOffN = 0;
    std::uint32_t horizOffD = 0;
    std::int32_t vertOffN = 0;
    std::uint32_t vertOffD = 0;
};

//! 'chan'
struct ChannelLayout
{
    std::uint32_t tag = 0;
    std::uint32_t bitmap = 0;
    std::vector<std::uint32_t> labels;
};

struct VideoFormat
{
    std::uint32_t vendor = 0;
    std::uint16_t width = 0;  //!< Pixels.
    std::uint16_t height = 0; //!< Pixels.
    std::uint16_t depth = 0;  //!< Bits per pixel.
    std::string compressorName;
    std::optional<Color> color;
    std::optional<std::array<std::uint8_t, 2>> field;        //!< Count and detail.
    std::optional<std::array<std::uint32_t, 2>> pixelAspect; //!< Horizontal and vertical spacing.
    std::optional<CleanAperture> cleanAperture;
    std::optional<std::uint32_t> gamma; //!< 16.16
};

struct SoundFormat
{
    bool isUncompressed = false; //!< PCM, whose frames have a size of their own.
    std::uint16_t version = 0;
    std::uint32_t channelCount = 0;
    std::uint32_t bitsPerChannel = 0;
    double sampleRate = 0;             //!< Hertz.
    std::uint32_t formatFlags = 0;     //!< Version 2: 1 float, 2 big-endian, 4 signed.
    std::uint32_t framesPerPacket = 0; //!< 0 when the entry does not say.
    std::uint32_t bytesPerPacket = 0;  //!< Version 1: of one channel.
    std::uint32_t bytesPerFrame = 0;   //!< Of all channels; of a whole packet where it holds several frames. 0 when the
                                       //!< entry does not say.
    std::optional<bool> littleEndian;  //!< 'enda'
    std::optional<ChannelLayout> channelLayout;
};

struct TimecodeFormat
{
    std::uint32_t flags = 0; //!< 1 drop frame, 2 24-hour maximum, 4 negative times, 8 counter.
    std::int32_t timeScale = 0;
    std::int32_t frameDuration = 0;
    std::uint8_t numberOfFrames = 0; //!< Per second, as counted.
};

//! One entry of 'dref'.
struct DataReference
{
    std::uint64_t offset = 0;
    bool isSelf = false; //!< The media is in the movie's own file.
};

//! One entry of 'stsd'.
struct SampleEntry
{
    std::uint32_t format = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::uint16_t dataReference = 0; //!< From 1: where the media is, in the track's list of references.
    std::vector<Atom> extensions;
    std::optional<VideoFormat> video;
    std::optional<SoundFormat> sound;
    std::optional<TimecodeFormat> timecode;
};

struct Edit
{
    std::uint64_t duration = 0;  //!< Movie units.
    std::int64_t mediaTime = 0;  //!< Media units; -1 is an empty edit.
    std::uint32_t mediaRate = 0; //!< 16.16
};

struct TimeToSample
{
    std::uint32_t sampleCount = 0;
    std::uint32_t sampleDuration = 0; //!< Media units.
};

struct SampleToChunk
{
    std::uint32_t firstChunk = 0; //!< From 1.
    std::uint32_t samplesPerChunk = 0;
    std::uint32_t descriptionID = 0; //!< From 1.
};

//! 'tapt' in pixels: clean, production, encoded.
struct Apertures
{
    struct Size
    {
        double width = 0;
        double height = 0;
    };
    std::optional<Size> clean, production, encoded;
};

//! One item of a 'udta', or of the metadata beside it.
struct MetadataItem
{
    std::string key;   //!< The item's code in quotes, or its name.
    std::string value; //!< Text; for anything else its size.
    std::uint64_t offset = 0;
};

//! A run of samples that lie back to back in the file.
struct Chunk
{
    std::uint64_t offset = 0;      //!< In the file.
    std::uint64_t size = 0;        //!< Bytes.
    std::uint64_t firstSample = 0; //!< From 0.
    std::uint64_t sampleCount = 0;
    std::uint32_t descriptionID = 0; //!< From 1.
    std::uint64_t time = 0;          //!< Of its first sample, in media units.
    std::uint64_t duration = 0;      //!< Media units.
};

//! One sample.
struct Sample
{
    std::uint64_t index = 0;  //!< From 0.
    std::uint64_t offset = 0; //!< In the file.
    std::uint64_t size = 0;   //!< Bytes.
    std::uint64_t time = 0;   //!< Media units.
    std::uint32_t duration = 0;
    std::uint32_t chunk = 0; //!< From 0.
};

struct Track
{
    const Atom* atom = nullptr; //!< 'trak'; lives as long as the movie.
    std::uint32_t id = 0;
    std::uint32_t flags = 0;
    std::uint64_t duration = 0; //!< Movie units.
    double width = 0;           //!< Pixels.
    double height = 0;
    std::uint32_t mediaTimeScale = 0;
    std::uint32_t handlerType = 0;   //!< 'vide', 'soun', ...
    std::uint64_t mediaDuration = 0; //!< Media units.
    std::string handlerName;
    std::vector<DataReference> dataReferences;
    std::vector<SampleEntry> entries;
    std::uint32_t statedDataReferenceCount = 0; //!< As 'dref' says.
    std::uint32_t statedEntryCount = 0;         //!< As 'stsd' says.
    std::vector<Edit> edits;
    std::map<std::uint32_t, std::vector<std::uint32_t>> references; //!< Track IDs by type.
    std::optional<Apertures> apertures;
    std::vector<MetadataItem> metadata;

    std::vector<TimeToSample> timeToSample;
    std::vector<SampleToChunk> sampleToChunk;
    std::vector<std::uint64_t> chunkOffsets;
    std::vector<std::uint32_t> sampleSizes;
    std::vector<std::uint32_t> syncSamples; //!< From 1.
    std::uint32_t uniformSampleSize = 0;    //!< Bytes; 0 when the sizes are listed.
    std::uint32_t sampleCount = 0;          //!< As 'stsz' says.
    std::uint64_t compositionCount = 0;     //!< Samples that 'ctts' counts.
    std::uint32_t maxCompositionOffset = 0; //!< Of 'ctts', in media units: how far display may run behind decoding.
    bool has64BitOffsets = false;

    //! Whether the track's media lies in this file. What the first description says holds for all: media in several
    //! files is not read anywhere any more.
    bool IsSelfContained() const;

    //! Bytes of a sample. Sound whose 'stsz' says 1 takes them from its description; they are 0 for a frame that is
    //! part of a packet.
    std::uint64_t GetSampleSize(std::uint64_t inIndex) const;

    //! Bytes of samples that follow each other; samples that 'stsz' does not list have none.
    std::uint64_t GetSize(std::uint64_t inFirst, std::uint64_t inCount) const;

    //! Where the sample tables lie, by type; null when there is none.
    const Atom* FindTable(std::uint32_t inType) const;

    //! Calls back for each chunk in order. Stops at the end of any table, and when `inVisit` returns false. Takes time
    //! in proportion to the tables, whatever they count.
    void VisitChunks(const std::function<bool(const Chunk&)>& inVisit) const;

    //! Calls back for each sample in order, likewise; of samples alike there can be 2^32 in the smallest of tables.
    void VisitSamples(const std::function<bool(const Sample&)>& inVisit) const;
};

//! What a movie file says of itself. Reads atoms and tables, never the media; malformed parts become findings.
class MovieFile
{
public:
    //! `inSource` must outlive the object.
    MovieFile(const ByteSource& inSource, Findings& ioFindings);

    MovieFile(const MovieFile&) = delete; // Tracks point into the tree.
    MovieFile& operator=(const MovieFile&) = delete;

    const ByteSource& GetSource() const { return mSource; }
    AtomTree& GetTree() { return mTree; }
    const AtomTree& GetTree() const { return mTree; }

    //! Null when the file has none.
    const Atom* GetMooV() const { return mMooV; }

    std::uint32_t GetTimeScale() const { return mTimeScale; }
    std::uint64_t GetDuration() const { return mDuration; }         //!< Movie units.
    std::uint64_t GetCreationTime() const { return mCreationTime; } //!< Seconds since 1904-01-01.
    std::uint32_t GetNextTrackID() const { return mNextTrackID; }
    const std::vector<Track>& GetTracks() const { return mTracks; }
    const std::vector<MetadataItem>& GetMetadata() const { return mMetadata; }
    const Track* FindTrack(std::uint32_t inID) const;

private:
    void ReadMovieHeader();
    void ReadTrack(const Atom& inAtom);
    void ReadTrackHeader(const Atom& inAtom, Track& outTrack);
    void ReadMedia(const Atom& inAtom, Track& outTrack);
    void ReadDataReferences(const Atom& inAtom, Track& outTrack);
    void ReadEdits(const Atom& inAtom, Track& outTrack);
    void ReadReferences(const Atom& inAtom, Track& outTrack);
    void ReadApertures(const Atom& inAtom, Track& outTrack);
    void ReadSampleTable(const Atom& inAtom, Track& outTrack);
    void ReadSampleSizes(const Atom& inAtom, Track& outTrack);
    void ReadSampleEntries(const Atom& inAtom, Track& outTrack);
    void ReadVideoEntry(SampleEntry& ioEntry, const std::vector<std::uint8_t>& inBytes, std::uint32_t inTrackID);
    void ReadVideoExtension(const Atom& inAtom, VideoFormat& ioVideo, std::uint32_t inTrackID);
    void ReadSoundEntry(SampleEntry& ioEntry, const std::vector<std::uint8_t>& inBytes, std::uint32_t inTrackID);
    void ReadSoundExtension(const Atom& inAtom, SoundFormat& ioSound, std::uint32_t inTrackID);
    void ReadTimecodeEntry(SampleEntry& ioEntry, const std::vector<std::uint8_t>& inBytes, std::uint32_t inTrackID);
    void ReportShortEntry(const SampleEntry& inEntry, std::uint64_t inNeeded, std::uint32_t inTrackID);
    void ReadMetadata(const Atom& inParent, std::uint32_t inTrackID, std::vector<MetadataItem>& outItems);

    //! A table's entries; a count that does not fit the atom becomes a finding and is cut to what is there.
    template <typename Entry>
    void ReadTable(const Atom& inAtom, std::size_t inEntrySize, std::uint32_t inTrackID, std::vector<Entry>& outEntries,
                   const std::function<Entry(ByteReader&)>& inRead);

    std::uint32_t ReadEntryCount(const Atom& inAtom, std::uint32_t inTrackID);

    //! The version of an atom that has versions 0 and 1; another becomes a finding.
    std::uint8_t ReadVersion(ByteReader& ioReader, const Atom& inAtom, std::uint32_t inTrackID);

    //! Finds fault with an atom whose payload, read through `inReader`, is shorter than its fields.
    void CheckShort(const Atom& inAtom, const ByteReader& inReader, std::uint32_t inTrackID);

    //! The same, and with one that goes on behind them.
    void CheckSize(const Atom& inAtom, const ByteReader& inReader, std::uint32_t inTrackID);

    void CheckDurationWidth(const Atom& inAtom, std::uint8_t inVersion, std::uint64_t inDuration,
                            std::uint32_t inTrackID);

    void LookForMooVInMedia();

    const ByteSource& mSource;
    Findings& mFindings;
    AtomTree mTree;
    const Atom* mMooV = nullptr;
    std::uint32_t mTimeScale = 0;
    std::uint64_t mDuration = 0;
    std::uint64_t mCreationTime = 0;
    std::uint32_t mNextTrackID = 0;
    std::vector<Track> mTracks;
    std::map<std::uint32_t, std::size_t> mTrackIndices; //!< By ID; the first of several.
    std::vector<MetadataItem> mMetadata;
};

} // namespace Inspect
