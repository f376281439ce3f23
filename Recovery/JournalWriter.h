#pragma once

#include "JournalRecords.h"
#include "TrackRec.h"

#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>
#include <Ventra/File.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace QT
{

//! Writes a journal. Records are collected in memory and go to the file in one frame; what could not be written stays
//! collected, and the next attempt begins at the same place of the file.
class JournalWriter
{
public:
    using Samples = std::span<const MediaSampleRec>;

    //! Creates the journal, which must not exist, and writes its header. After a failure there is none, unless it was
    //! there before.
    Tolbin::Result Create(const Tolbin::UTF16String& inPath);

    //! Whether so much is collected that it should be written before more is.
    bool IsFull() const { return mEnd >= kFullSize; }

    //! Room for it must have been made: `IsFull` is false. Throws nothing.
    void AddSample(const JournalSample& inSample);

    //! As `AddSample`, for samples that are in the movie already, each of some size, in the order of their places
    //! there. Throws nothing.
    //! \param ioSamples  by track; what is left over when the journal is full
    void AddSamples(std::span<Samples> ioSamples);

    //! As `AddSample`, for a sample that may be revoked.
    void AddUncertainSample(const JournalSample& inSample);

    //! The sample that was added last, as uncertain, never became part of the movie. Throws nothing.
    void Revoke();

    //! Makes room for a record and a sample behind it, so that nothing between here and the end of its `Add` throws.
    //! Throws itself before anything has changed, as every `Add` does that finds no room.
    void Reserve(const JournalTrack& inTrack);
    void Reserve(const JournalUserDataView& inUserData);
    void Reserve(const JournalReference& inReference);
    void Reserve(const JournalTrimIn& inTrimIn);
    void Reserve(const JournalEndChunk& inEndChunk);

    //! Adds a track and writes what is collected. After a failure the journal does not know the track.
    Tolbin::Result AddTrack(const JournalTrack& inTrack);
    void Add(const JournalMovie& inMovie);
    void Add(const JournalDescription& inDescription);
    void Add(const JournalEndChunk& inEndChunk);
    void Add(const JournalTrimIn& inTrimIn);
    void Add(const JournalUserDataView& inUserData);
    void Add(const JournalReference& inReference);
    void Add(const JournalProbe& inProbe);
    void Add(JournalClosing inClosing);

    //! Writes what is collected.
    Tolbin::Result Write();

    //! `Write`, and returns once it is on the device.
    Tolbin::Result WriteThrough();

    //! Closes the file without writing what is collected, and lets go of its memory.
    Tolbin::Result Close();

private:
    static constexpr std::size_t kFullSize = 64 * 1024;
    static constexpr std::size_t kMaxNumberSize = 10; //!< 64 bits, 7 a byte.
    //! Flags and fields, the repetitions around them or the revocation behind, and the group of those that follow.
    static constexpr std::size_t kMaxSampleSize = 2 * (1 + 5 * kMaxNumberSize) + 1 + kMaxSizes * kMaxNumberSize;
    static constexpr std::uint32_t kMaxRepeats = 0xFFFF;
    static constexpr std::size_t kFewSizes = 4; //!< Fewer are put with their durations, which may allow for more.

    void PutSample(const JournalSample& inSample);
    std::size_t AddRun(std::uint64_t inTrack, Samples inSamples);
    std::size_t AddRepeats(Samples inSamples);
    template <std::uint8_t kGroupFlag, std::size_t kMaxSamples>
    std::size_t PutGroup(Samples inSamples);
    template <std::uint8_t kGroupFlag, std::size_t kMaxSamples>
    std::size_t PutTurns(std::span<Samples> ioSamples, std::int64_t& ioOffset);
    void PutRepeats();
    static std::size_t MaxSizeOf(const StoredDescription& inDescription);
    void ReserveFields(std::size_t inFieldSize);
    void PutKind(JournalKind inKind);
    void PutNumber(std::uint64_t inNumber);
    void PutBytes(const void* inData, std::size_t inSize);
    void PutDescription(const StoredDescription& inDescription);

    Ventra::File mFile;
    std::int64_t mOffset = 0;                      //!< Where the next frame goes.
    std::vector<std::uint8_t> mFrame;              //!< The next frame: its header, the records, room.
    std::size_t mEnd = sizeof(JournalFrameHeader); //!< Of the records in it.
    std::vector<JournalTrackState> mTracks;
    std::uint64_t mTrack = 0;   //!< Of the last sample.
    bool mIsRepeatable = false; //!< That sample is the record before, and may be repeated.
    std::uint32_t mRepeats = 0; //!< How often it came again.
};

} // namespace QT
