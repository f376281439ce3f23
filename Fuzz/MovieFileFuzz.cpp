// The reader on any bytes: it must neither crash nor loop nor take memory out of proportion.

#include <Content.h>
#include <Description.h>
#include <MovieFile.h>
#include <Verify.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* inData, std::size_t inSize)
{
    const Inspect::MemorySource source({inData, inSize});
    Inspect::Findings findings;
    const Inspect::MovieFile movie(source, findings);
    Inspect::VerifyMovie(movie, findings);
    static_cast<void>(Inspect::DescribeMovie(movie));
    static_cast<void>(Inspect::DescribeAtoms(movie.GetTree().GetAtoms()));
    static_cast<void>(Inspect::DescribeFindings(findings));
    for (const Inspect::Track& track : movie.GetTracks())
    {
        std::size_t left = 1000; // Of samples alike there can be 2^32.
        track.VisitSamples([&left](const Inspect::Sample&) { return --left != 0; });
    }
    return 0;
}
