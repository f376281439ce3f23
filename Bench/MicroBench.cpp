// What the parts of the writer cost by themselves, in memory: the builders of the tables and of containers, the block
// writer, the calls that add samples, and `Close`. Options are those of Google Benchmark, such as
// --benchmark_filter=SampleTables.

#include "NullMovie.h"
#include "QTAtomHelpers.h"
#include "UnbufferedWriter.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <vector>

using Tolbin::utility::BinaryDataArray;

namespace
{

std::int64_t BytesOf(const void* inAtom)
{
    std::uint32_t size = 0;
    if (inAtom != nullptr)
    {
        std::memcpy(&size, inAtom, sizeof(size));
    }
    return TO_BIG(size);
}

// ---- Sample tables --------------------------------------------------------------------------------------------------

//! Which of the tables is long; none, unless something is set here.
struct TableShape
{
    std::uint32_t sizes = 1;     //!< Sizes that occur.
    std::uint32_t durations = 1; //!< Durations that occur.
    int chunkLength = 0;         //!< Samples of a chunk: 0 is one chunk for all, 1 is one chunk a sample.
    bool isExplicit = true;      //!< Chunks are found by their ends; else every record is one.
    std::int64_t offset = 0;     //!< Of the first sample.
};

QT::TrackRec MakeTrack(const TableShape& inShape, std::int64_t inSamples)
{
    QT::TrackRec track(QT::kQTMediaTypeVideo, 600, 64, 48, {});
    track.explicitChunking = inShape.isExplicit;
    std::minstd_rand random(1);
    std::int64_t offset = inShape.offset;
    for (std::int64_t i = 0; i < inSamples; ++i)
    {
        const auto size = static_cast<std::int32_t>(16 + random() % inShape.sizes);
        const auto duration = static_cast<std::int32_t>(1 + random() % inShape.durations);
        const bool endsChunk = inShape.chunkLength != 0 && (i + 1) % inShape.chunkLength == 0;
        track.samples.push_back({offset, 1, duration, 0, size, false, endsChunk});
        offset += size;
    }
    return track;
}

//! Items are samples, bytes those of the tables.
void SampleTables(benchmark::State& ioState, const TableShape& inShape)
{
    QT::TrackRec track = MakeTrack(inShape, ioState.range(0));
    std::int64_t bytes = 0;
    for ([[maybe_unused]] const auto round : ioState)
    {
        QT::SampleTableItemsRec items;
        Check(QT::MakeSampleTableItems(track, items));
        bytes += BytesOf(items.sampleSizeAtom) + BytesOf(items.timeToSampleAtom) + BytesOf(items.sampleToChunkAtom) +
                 BytesOf(items.chunkOffsetAtom) + BytesOf(items.chunkOffset64Atom);
        QT::DisposeSampleTableItems(items);
    }
    ioState.SetItemsProcessed(ioState.iterations() * ioState.range(0));
    ioState.SetBytesProcessed(bytes);
}

void OneMillion(benchmark::internal::Benchmark* ioBenchmark)
{
    ioBenchmark->Arg(1'000'000)->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(SampleTables, uniform, TableShape{})->Apply(OneMillion);
BENCHMARK_CAPTURE(SampleTables, varyingSizes, TableShape{.sizes = 64})->Apply(OneMillion);
BENCHMARK_CAPTURE(SampleTables, varyingDurations, TableShape{.durations = 2})->Apply(OneMillion);
BENCHMARK_CAPTURE(SampleTables, oneChunkEach, TableShape{.isExplicit = false})->Apply(OneMillion);
BENCHMARK_CAPTURE(SampleTables, explicitChunks, TableShape{.chunkLength = 12})->Apply(OneMillion);
BENCHMARK_CAPTURE(SampleTables, oneExplicitChunkEach, TableShape{.chunkLength = 1})->Apply(OneMillion);
BENCHMARK_CAPTURE(SampleTables, offsets64, TableShape{.isExplicit = false, .offset = 1LL << 32})->Apply(OneMillion);

// ---- Containers -----------------------------------------------------------------------------------------------------

//! Arguments: children, bytes of each.
void Container(benchmark::State& ioState)
{
    BinaryDataArray child;
    QT::ReplaceWithRecord(
        child, qtn_GenericAtomHeader(QT::Low32(static_cast<std::uint64_t>(ioState.range(1))), QT::FourCC("free")));
    child.resize(static_cast<std::size_t>(ioState.range(1)));
    std::vector<BinaryDataArray> children(static_cast<std::size_t>(ioState.range(0)), child);
    std::vector<qtn_GenericAtomHeader*> atoms(children.size());
    std::transform(children.begin(), children.end(), atoms.begin(), QT::AtomHeader);
    for ([[maybe_unused]] const auto round : ioState)
    {
        BinaryDataArray container;
        QT::ConcatenateAtomsToAtomContainer(QT::FourCC("stbl"), atoms, container);
        benchmark::DoNotOptimize(container.data());
    }
    ioState.SetItemsProcessed(ioState.iterations() * ioState.range(0));
    ioState.SetBytesProcessed(ioState.iterations() * ioState.range(0) * ioState.range(1));
}

BENCHMARK(Container)->Args({10'000, 32})->Args({1, 32 << 20})->Unit(benchmark::kMillisecond);

// ---- The block writer -----------------------------------------------------------------------------------------------

//! Argument: bytes of a write.
void BlockWriter(benchmark::State& ioState)
{
    NullFileSystem fileSystem;
    const Ventra::FileSystemScope scope(fileSystem);
    Tolbin::UTF16String path = u"/nowhere/null.mov";
    const auto file = boost::make_shared<Ventra::File>();
    Check(file->Create(path, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                       Ventra::FileCreateDispositionFlags::kCreateAlways, Ventra::FileAttributesFlags::kNormal, false));
    Tolbin::Result result = 0;
    const auto writer = CreateUnbufferedWriter(4096, result);
    Check(result);
    Check(writer->OpenExisting(file, path, 0));
    std::vector<char> data(static_cast<std::size_t>(ioState.range(0)), 'x');
    for ([[maybe_unused]] const auto round : ioState)
    {
        Check(writer->Write(data.data(), data.size()));
    }
    Check(writer->Close());
    ioState.SetItemsProcessed(ioState.iterations());
    ioState.SetBytesProcessed(ioState.iterations() * ioState.range(0));
}

BENCHMARK(BlockWriter)->Arg(1)->Arg(16)->Arg(64)->Arg(4096)->Arg(65536);

// ---- The writer -----------------------------------------------------------------------------------------------------

//! Adds samples of 16 and 20 bytes in turn.
void AddSamples(const NullMovie& inMovie, std::int64_t inSamples)
{
    std::array<char, 20> data{};
    data.fill('x');
    for (std::int64_t i = 0; i < inSamples; ++i)
    {
        Check(
            inMovie.writer->AddMediaSample(inMovie.tracks.front(), data.data(), i % 2 == 0 ? 16 : 20, 1, 1, 0, false));
    }
}

//! Argument: samples of a movie, on one track. Items are samples. What comes before and after the calls does not count.
void WriteMovie(benchmark::State& ioState, bool inIsJournaled, bool inCountsAdding)
{
    for ([[maybe_unused]] const auto round : ioState)
    {
        ioState.PauseTiming();
        {
            const NullMovie movie(1, inIsJournaled);
            if (inCountsAdding)
            {
                ioState.ResumeTiming();
                AddSamples(movie, ioState.range(0));
                ioState.PauseTiming();
                Check(movie.writer->Close());
            }
            else
            {
                AddSamples(movie, ioState.range(0));
                ioState.ResumeTiming();
                Check(movie.writer->Close());
                ioState.PauseTiming();
            }
        }
        ioState.ResumeTiming();
    }
    ioState.SetItemsProcessed(ioState.iterations() * ioState.range(0));
}

void AddMediaSample(benchmark::State& ioState)
{
    WriteMovie(ioState, /*inIsJournaled*/ false, /*inCountsAdding*/ true);
}

void AddMediaSampleJournaled(benchmark::State& ioState)
{
    WriteMovie(ioState, /*inIsJournaled*/ true, /*inCountsAdding*/ true);
}

void Close(benchmark::State& ioState)
{
    WriteMovie(ioState, /*inIsJournaled*/ false, /*inCountsAdding*/ false);
}

BENCHMARK(AddMediaSample)->Apply(OneMillion);
BENCHMARK(AddMediaSampleJournaled)->Apply(OneMillion);
BENCHMARK(Close)->Arg(100'000)->Apply(OneMillion);

} // namespace

int main(int argc, char** argv)
{
    try
    {
        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv))
        {
            return 1;
        }
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
