// What callgrind counts the instructions of: the calls of one scenario, on a volume that keeps nothing.
//
// InstructionCount: prints the compiler, then each scenario with its samples.
// InstructionCount SCENARIO: runs it. Only the calls in question are instrumented; instructions.py reads the total.

#include "NullMovie.h"

#include <boost/config.hpp>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iterator>
#include <random>
#include <string_view>
#include <vector>

namespace
{

constexpr int kSamples = 1'000'000;
constexpr int kMaxSize = 64;

enum class Counted
{
    Add,  //!< The calls that add samples.
    Close //!< `Close` alone.
};

struct Scenario
{
    std::string_view name;
    Counted counted;
    unsigned int tracks = 1; //!< Samples go to them in turn.
    bool isJournaled = false;
    bool varies = false; //!< Sizes from 1 to 64 bytes and durations 1 and 2, at random; else 16 bytes, duration 1.
    unsigned int chunkLength = 0; //!< Samples of a chunk; 0: no chunk is ended explicitly.
    bool isBeyond4GiB = false;    //!< The samples lie behind 4 GiB of media.
};

constexpr Scenario kScenarios[] = {
    {.name = "add-constant", .counted = Counted::Add},
    {.name = "add-varying", .counted = Counted::Add, .varies = true},
    {.name = "add-two-tracks", .counted = Counted::Add, .tracks = 2, .varies = true},
    {.name = "journaled-add", .counted = Counted::Add, .isJournaled = true, .varies = true},
    {.name = "close-constant", .counted = Counted::Close},
    {.name = "close-varying", .counted = Counted::Close, .varies = true},
    {.name = "close-chunks", .counted = Counted::Close, .chunkLength = 12},
    {.name = "close-64bit", .counted = Counted::Close, .isBeyond4GiB = true},
};

//! The arguments of one call, made beforehand so that the loop over them costs next to nothing.
struct Sample
{
    QT::TrackID track = 0;
    int size = 16;
    int duration = 1;
    bool endsChunk = false;
};

std::vector<Sample> MakeSamples(const Scenario& inScenario, const NullMovie& inMovie)
{
    std::vector<Sample> samples(kSamples);
    std::minstd_rand random(1); // The same everywhere, as a distribution would not be.
    for (std::size_t i = 0; i < samples.size(); ++i)
    {
        samples[i].track = inMovie.tracks[i % inScenario.tracks];
        samples[i].endsChunk = inScenario.chunkLength != 0 && (i + 1) % inScenario.chunkLength == 0;
        if (inScenario.varies)
        {
            samples[i].size = static_cast<int>(random() % kMaxSize) + 1;
            samples[i].duration = static_cast<int>(random() % 2) + 1;
        }
    }
    return samples;
}

void AddSamples(QT::Reelmill& ioWriter, const std::vector<Sample>& inSamples)
{
    char media[kMaxSize];
    std::fill(std::begin(media), std::end(media), 'x');
    for (const Sample& sample : inSamples)
    {
        Check(ioWriter.AddMediaSample(sample.track, media, sample.size, 1, sample.duration, 0, false));
        if (sample.endsChunk)
        {
            Check(ioWriter.EndMediaChunk(sample.track));
        }
    }
}

void AddLead(QT::Reelmill& ioWriter, QT::TrackID inTrack)
{
    std::vector<char> media(64 << 20, 'x');
    for (std::uint64_t lead = 0; lead < 1ULL << 32; lead += media.size())
    {
        Check(ioWriter.AddMediaSample(inTrack, media.data(), static_cast<int>(media.size()), 1, 1, 0, false));
    }
}

void Run(const Scenario& inScenario)
{
    // One track more, for what lies in front; a track without samples is not part of the movie.
    const NullMovie movie(inScenario.tracks + 1, inScenario.isJournaled);
    const std::vector<Sample> samples = MakeSamples(inScenario, movie);
    if (inScenario.isBeyond4GiB)
    {
        AddLead(*movie.writer, movie.tracks.back());
    }
    if (inScenario.counted == Counted::Add)
    {
        CALLGRIND_START_INSTRUMENTATION;
        AddSamples(*movie.writer, samples);
        CALLGRIND_STOP_INSTRUMENTATION;
        Check(movie.writer->Close());
    }
    else
    {
        AddSamples(*movie.writer, samples);
        CALLGRIND_START_INSTRUMENTATION;
        Check(movie.writer->Close());
        CALLGRIND_STOP_INSTRUMENTATION;
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 1)
    {
        std::printf("%s\n", BOOST_COMPILER);
        for (const Scenario& scenario : kScenarios)
        {
            std::printf("%s %d\n", scenario.name.data(), kSamples);
        }
        return 0;
    }
    try
    {
        const auto* const found = std::find_if(std::begin(kScenarios), std::end(kScenarios),
                                               [&](const Scenario& inScenario) { return inScenario.name == argv[1]; });
        if (found == std::end(kScenarios))
        {
            std::fprintf(stderr, "%s: no such scenario; without arguments all are listed\n", argv[1]);
            return 1;
        }
        Run(*found);
        return 0;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "%s: %s\n", argv[1], error.what());
        return 1;
    }
}
