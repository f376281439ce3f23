// The readers of movies and pictures on any bytes: they must neither crash nor loop nor take memory out of proportion.

#include <Content.h>
#include <Description.h>
#include <MovieFile.h>
#include <Picture.h>
#include <Verify.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>

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
    for (const char* format : {"png ", "jpeg", "tiff", "tga ", "mjp2"})
    {
        const std::uint32_t code = Inspect::ByteReader({reinterpret_cast<const std::uint8_t*>(format), 4}).U32();
        if (const std::optional<Inspect::Picture> picture = Inspect::ReadPicture(code, source))
        {
            static_cast<void>(Inspect::IsWhole(code, *picture, source));
        }
    }
    return 0;
}
