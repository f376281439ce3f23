#pragma once

#include "JournalRecords.h"

#include <Tolbin/BinaryDataArray.h>
#include <Tolbin/Result.h>
#include <Tolbin/UTF16String.h>
#include <Ventra/File.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace QT
{

//! Reads a journal, whatever its bytes: up to the first frame that is not whole. Holds one frame in memory.
class JournalReader
{
public:
    //! \return 0; an error of the system; `kQTErrBadJournal` for a file that is no journal of this version.
    Tolbin::Result Open(const Tolbin::UTF16String& inPath);

    //! The next record; none at the journal's end. A record that makes no sense (a track that was not created, a frame
    //! that ends in the middle of it) ends the journal too.
    //!
    //! \return 0; an error of the system.
    Tolbin::Result Read(std::optional<JournalRecord>& outRecord);

    //! Bytes behind the last whole frame, once the end was reached.
    std::uint64_t GetTornSize() const { return mSize - mOffset; }

private:
    Tolbin::Result ReadFrame(bool& outIsWhole);
    bool ReadRecord(JournalRecord& outRecord);
    bool ReadSample(std::uint8_t inFlags, JournalSample& outSample);
    bool ReadSampleOfGroup(JournalSample& outSample);
    bool TakeSample(const JournalSample& inSample);
    bool ReadDescription(StoredDescription& outDescription);
    bool ReadTrack(std::uint64_t& outTrack);
    template <typename T>
    bool ReadNumber(T& outNumber);
    bool ReadBytes(Tolbin::utility::BinaryDataArray& outBytes);

    Ventra::File mFile;
    std::uint64_t mSize = 0;          //!< Of the file.
    std::uint64_t mOffset = 0;        //!< Behind the last whole frame.
    std::vector<std::uint8_t> mFrame; //!< Records of the current frame.
    std::size_t mPosition = 0;        //!< In it.
    std::uint64_t mTrack = 0;         //!< Of the last sample.
    std::size_t mGroupLeft = 0;       //!< Samples of the current group to come.
    bool mGroupHasDurations = false;
    std::vector<JournalTrackState> mTracks;
    bool mIsEnded = false;
};

} // namespace QT
