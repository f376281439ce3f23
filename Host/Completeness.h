#pragma once

#include "LibAV.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Host
{

class ElementWalk;

//! Whether all media of an input came that the input declares, by whichever its container has: tables of samples, sizes
//! of chunks, elements that have a size, frames of one size, durations. It judges by the packets that came and by the
//! size of the file at that time, so that a file that becomes shorter while it is read is noticed as well. What the
//! container leaves open, as that of a live recording may, is not judged.
class Completeness
{
public:
    enum class Verdict
    {
        kWhole,   //!< Nothing is wrong with it, or it was PCM and has been cut to the sample frames that are whole.
        kDamaged, //!< All of it came, but it is marked as damaged.
        kCut      //!< Its end did not come, or one before it of its stream did not.
    };

    //! Notes what the input declares. To be called as soon as it is open, for libavformat puts estimates in place of
    //! some of it later. Keeps `ioFormat`, which must outlive it. Throws `std::system_error` when the file cannot be
    //! read.
    Completeness(const std::string& inPath, AVFormatContext& ioFormat);
    ~Completeness();

    Completeness(const Completeness&) = delete;
    Completeness& operator=(const Completeness&) = delete;

    //! Whether it has to see the packets of all streams, also of those that are not taken.
    bool NeedsAllStreams() const;

    //! Judges a packet that was just read. Throws `std::system_error` when the file cannot be read.
    Verdict Take(AVPacket& ioPacket);

    //! After the last packet: what did not come, as a part of a sentence; empty when all came. Throws
    //! `std::system_error` when the file cannot be read.
    std::string FindLoss();

private:
    enum class Kind
    {
        kTables,   //!< tables of samples
        kSound,    //!< PCM in one chunk
        kFrames,   //!< frames of one size and nothing else
        kElements, //!< elements in a row
        kOther
    };

    struct Stream
    {
        std::int64_t statedTicks = 0; //!< its length, 0 when it is not stated
        std::int64_t count = 0;       //!< of whole packets with content
        std::int64_t bytes = 0;       //!< of all that came
        std::int64_t first = AV_NOPTS_VALUE;
        std::int64_t last = 0; //!< start of the latest packet
        std::int64_t end = 0;
        bool isCut = false;
    };

    Stream& StreamOf(int inIndex);
    std::int64_t GetEnd() const;
    bool IsCut(const AVPacket& inPacket);
    std::string FindLossByTables() const;
    std::string FindLossOfSound() const;
    std::string FindLossByElements();
    std::string FindLossByDuration(bool inMayBeOff, double inTolerance) const;

    AVFormatContext& mFormat;
    Kind mKind = Kind::kOther;
    bool mIsFile = false;           //!< A regular file, not a pipe.
    std::int64_t mSizeAtStart = 0;  //!< of a regular file
    std::int64_t mStatedTime = 0;   //!< length of the whole in microseconds, 0 when it is not stated
    std::int64_t mStatedBytes = -1; //!< of sound in a chunk, -1 when it is not stated
    std::int64_t mFrameSize = 0;    //!< of frames of one size
    std::int64_t mFrameEnd = 0;     //!< end of the last whole one
    std::unique_ptr<ElementWalk> mWalk;
    std::vector<Stream> mStreams;
};

} // namespace Host
