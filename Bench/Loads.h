#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench
{

enum class TrackKind
{
    Video,
    Sound
};

constexpr int kWidth = 1920; //!< Of every video track, in pixels.
constexpr int kHeight = 1080;
constexpr int kSoundRate = 48000; //!< Of every sound track: stereo, 16 bits, little-endian.
constexpr std::uint32_t kSoundFrameSize = 4;

struct Track
{
    TrackKind kind = TrackKind::Video;
    int timeScale = 0; //!< Units per second; the rate of a sound track.
};

//! What a host hands over in one call.
struct Piece
{
    std::uint32_t track = 0; //!< Index.
    std::uint32_t size = 0;  //!< Bytes.
    std::int32_t sampleCount = 1;
    std::int32_t sampleDuration = 1; //!< Of each sample, in units of its track.
    bool endsChunk = false;
};

//! A movie to be written: pieces in file order, a cycle that repeats.
class Load
{
public:
    //! \param inName        one of `Names`; any other throws
    //! \param inPieceCount  0: the load's own
    explicit Load(const std::string& inName, std::uint64_t inPieceCount = 0);

    static std::vector<std::string> Names();

    const std::vector<Track>& Tracks() const { return mTracks; }
    std::uint64_t PieceCount() const { return mPieceCount; }
    std::uint64_t MediaSize() const { return mMediaSize; }

    //! Whether a peer does better without a buffer in front of the file.
    bool HasLargePieces() const { return mMediaSize / mPieceCount >= 16384; }

    //! Whether no two pieces in a row are of one track.
    bool Alternates() const;

    //! Bytes of the tables that grow with the samples, where each piece is one sample and one chunk: 32-bit chunk
    //! offsets, and sizes unless all are the same.
    std::uint64_t TableSize() const;

    //! Calls `inVisit(piece, data)` for each piece in turn. The data is the load's; nobody changes it.
    template <class Visit>
    void ForEach(Visit inVisit) const;

private:
    std::vector<Track> mTracks;
    std::vector<Piece> mCycle;
    std::uint64_t mPieceCount = 0;
    std::uint64_t mMediaSize = 0;
    std::size_t mLargest = 0; //!< Piece, in bytes.
    mutable std::vector<unsigned char> mMedia;
};

template <class Visit>
void Load::ForEach(Visit inVisit) const
{
    constexpr std::size_t kAlignment = 16; // As encoders hand out.
    const std::size_t lastPlace = mMedia.size() - mLargest;
    std::size_t place = 0;
    auto piece = mCycle.begin();
    for (std::uint64_t i = 0; i < mPieceCount; ++i)
    {
        inVisit(*piece, mMedia.data() + place);
        place += (piece->size + kAlignment - 1) / kAlignment * kAlignment;
        place = place <= lastPlace ? place : 0;
        piece = ++piece != mCycle.end() ? piece : mCycle.begin();
    }
}

} // namespace Bench
