#include "Loads.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>

namespace Bench
{

namespace
{

// All media comes from one buffer, walked through again and again by each contestant in the same way. It is larger than
// the caches of one core, so that the bytes come from where a host's encoder, which ran on other cores, leaves them;
// and it has been touched before, so that no contestant pays for that.
constexpr std::size_t kMediaBufferSize = 16u << 20;

constexpr int kFrameRate = 60;
constexpr std::uint32_t kFrameSize = 65536;
constexpr std::int32_t kSoundFramesPerFrame = kSoundRate / kFrameRate;

using Random = std::minstd_rand; // Gives the same numbers everywhere.

std::uint32_t Between(Random& ioRandom, std::uint32_t inLeast, std::uint32_t inMost)
{
    return inLeast + static_cast<std::uint32_t>(ioRandom() % (inMost - inLeast + 1));
}

struct Recipe
{
    std::vector<Track> tracks;
    std::vector<Piece> cycle;
    std::uint64_t pieceCount = 0;
};

constexpr Track kSmallVideo{TrackKind::Video, 600};
constexpr Track kSound{TrackKind::Sound, kSoundRate};

Recipe Tiny()
{
    return {{kSmallVideo}, {{0, 16}}, 5'000'000};
}

Recipe TinyVarying()
{
    return {{kSmallVideo}, {{0, 16}, {0, 20}}, 5'000'000};
}

Recipe Editorial()
{
    return {{{TrackKind::Video, kFrameRate}, kSound},
            {{0, kFrameSize}, {1, kSoundFramesPerFrame * kSoundFrameSize, kSoundFramesPerFrame}},
            72'000};
}

Recipe Many()
{
    constexpr std::uint32_t kTracks = 4;
    Recipe recipe{std::vector<Track>(kTracks, kSmallVideo), {}, 4'000'000};
    Random random;
    for (std::uint32_t i = 0; i < 1024 * kTracks; ++i)
    {
        recipe.cycle.push_back({i % kTracks, Between(random, 16, 48)});
    }
    return recipe;
}

Recipe Growth()
{
    return {{kSmallVideo}, {{0, 16}, {0, 20}}, 10'000'000};
}

Recipe Small()
{
    Recipe recipe{{kSmallVideo}, {}, 4'000'000};
    Random random;
    for (int i = 0; i < 4096; ++i)
    {
        recipe.cycle.push_back({0, Between(random, 1, 64)});
    }
    return recipe;
}

//! Two sound tracks, half a second of the one and then of the other.
Recipe Chunks()
{
    constexpr std::int32_t kSoundFrames = 32; // In a piece.
    constexpr int kPieces = kSoundRate / 2 / kSoundFrames;
    Recipe recipe{{kSound, kSound}, {}, 4'000'000};
    for (std::uint32_t track = 0; track < 2; ++track)
    {
        recipe.cycle.insert(recipe.cycle.end(), kPieces, {track, kSoundFrames * kSoundFrameSize, kSoundFrames});
        recipe.cycle.back().endsChunk = true;
    }
    return recipe;
}

const std::map<std::string, std::function<Recipe()>>& Recipes()
{
    static const std::map<std::string, std::function<Recipe()>> sRecipes{
        {"tiny", Tiny},     {"tiny-varying", TinyVarying},
        {"many", Many},     {"editorial", Editorial},
        {"growth", Growth}, {"small", Small},
        {"chunks", Chunks},
    };
    return sRecipes;
}

} // namespace

std::vector<std::string> Load::Names()
{
    std::vector<std::string> names;
    for (const auto& [name, recipe] : Recipes())
    {
        names.push_back(name);
    }
    return names;
}

Load::Load(const std::string& inName, std::uint64_t inPieceCount) : mMedia(kMediaBufferSize)
{
    const auto found = Recipes().find(inName);
    if (found == Recipes().end())
    {
        throw std::runtime_error("there is no load '" + inName + "'");
    }
    Recipe recipe = found->second();
    mTracks = std::move(recipe.tracks);
    mCycle = std::move(recipe.cycle);
    mPieceCount = inPieceCount != 0 ? inPieceCount : recipe.pieceCount;
    for (std::size_t i = 0; i < mCycle.size(); ++i)
    {
        const std::uint64_t times = mPieceCount / mCycle.size() + (i < mPieceCount % mCycle.size() ? 1 : 0);
        mMediaSize += times * mCycle[i].size;
        mLargest = std::max<std::size_t>(mLargest, mCycle[i].size);
    }
    Random random;
    for (std::size_t i = 0; i < mMedia.size(); i += sizeof(std::uint32_t))
    {
        const auto word = static_cast<std::uint32_t>(random());
        std::memcpy(mMedia.data() + i, &word, sizeof(word));
    }
}

bool Load::Alternates() const
{
    const auto isSameTrack = [](const Piece& inA, const Piece& inB) { return inA.track == inB.track; };
    return std::adjacent_find(mCycle.begin(), mCycle.end(), isSameTrack) == mCycle.end() &&
           !isSameTrack(mCycle.back(), mCycle.front());
}

std::uint64_t Load::TableSize() const
{
    const bool isConstant = std::all_of(mCycle.begin(), mCycle.end(),
                                        [this](const Piece& inPiece) { return inPiece.size == mCycle.front().size; });
    return mPieceCount * (isConstant ? 4 : 8);
}

} // namespace Bench
