// What the journal costs: the same samples through a plain and a journaled writer, in turns, each in a process of its own.
//
// JournalBench FOLDER [ROUNDS]: writes its movies to FOLDER and prints a table of medians.

#include <Reelmill/Recovery.h>
#include <Reelmill/Reelmill.h>
#include <Tolbin/String.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace
{

struct Load
{
    const char* name;
    int samples;
    std::vector<int> sizes; //!< In turn.
};

const Load kLoads[] = {
    {"16 bytes", 5'000'000, {16}},
    {"16 and 20 bytes", 5'000'000, {16, 20}},
    {"64 KiB and 3200 bytes", 30'000, {65536, 3200}},
};

//! Seconds.
struct Cost
{
    double add = 0;  //!< CPU of all calls that add samples.
    double all = 0;  //!< CPU from the first of them to the end of `Close`.
    double wall = 0; //!< The same, by the clock.
};

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& inTime) {
        return static_cast<double>(inTime.tv_sec) + static_cast<double>(inTime.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void Check(Tolbin::Result inResult)
{
    if (inResult < 0)
    {
        throw std::runtime_error(Tolbin::ResultMessage(inResult));
    }
}

Cost Write(const Load& inLoad, bool inIsJournaled, const std::string& inPath)
{
    std::string data(static_cast<std::size_t>(*std::max_element(inLoad.sizes.begin(), inLoad.sizes.end())), 'x');
    const auto movie = inIsJournaled ? QT::CreateJournaledReelmill() : QT::CreateReelmill();
    Check(movie->Create(Tolbin::string::UTF8to16(inPath), 600));
    std::vector<QT::TrackID> tracks(inLoad.sizes.size() > 1 && inLoad.samples < 1'000'000 ? 2 : 1);
    for (QT::TrackID& track : tracks)
    {
        Check(movie->NewMovieTrack(QT::kQTMediaTypeVideo, 600, 64, 48, QT::CreateTextDescription(), track));
    }
    Cost cost;
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = CpuSeconds();
    for (std::size_t i = 0; i < static_cast<std::size_t>(inLoad.samples); ++i)
    {
        const int size = inLoad.sizes[i % inLoad.sizes.size()];
        Check(movie->AddMediaSample(tracks[i % tracks.size()], data.data(), size, 1, 1, 0, false));
    }
    cost.add = CpuSeconds() - cpuStart;
    Check(movie->Close());
    cost.all = CpuSeconds() - cpuStart;
    cost.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return cost;
}

Cost WriteInProcess(const Load& inLoad, bool inIsJournaled, const std::string& inPath)
{
    int ends[2] = {};
    Cost cost;
    if (pipe(ends) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t child = fork();
    if (child == 0)
    {
        try
        {
            cost = Write(inLoad, inIsJournaled, inPath);
            std::_Exit(write(ends[1], &cost, sizeof(cost)) == sizeof(cost) ? 0 : 1);
        }
        catch (const std::exception& error)
        {
            std::fprintf(stderr, "%s\n", error.what());
            std::_Exit(1);
        }
    }
    close(ends[1]);
    const bool isRead = read(ends[0], &cost, sizeof(cost)) == sizeof(cost);
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (child < 0 || !isRead)
    {
        throw std::runtime_error("a round failed");
    }
    std::filesystem::remove(inPath);
    return cost;
}

double Median(std::vector<Cost> inCosts, double Cost::*inField)
{
    std::sort(inCosts.begin(), inCosts.end(),
              [inField](const Cost& inA, const Cost& inB) { return inA.*inField < inB.*inField; });
    return inCosts[inCosts.size() / 2].*inField;
}

void Run(const std::string& inFolder, int inRounds)
{
    const std::string path = inFolder + "/journal-bench.mov";
    std::printf(
        "| samples | calls that add, CPU a sample: plain | journaled | more | with `Close`: more | wall: more |\n"
        "|---|---|---|---|---|---|\n");
    for (const Load& load : kLoads)
    {
        std::vector<Cost> costs[2];
        for (int round = 0; round < 2 * inRounds; ++round)
        {
            costs[round % 2].push_back(WriteInProcess(load, round % 2 == 1, path));
        }
        const auto more = [&costs](double Cost::*inField) {
            return 100 * (Median(costs[1], inField) / Median(costs[0], inField) - 1);
        };
        std::printf("| %s | %.1f ns | %.1f ns | %.1f %% | %.1f %% | %.1f %% |\n", load.name,
                    Median(costs[0], &Cost::add) / load.samples * 1e9,
                    Median(costs[1], &Cost::add) / load.samples * 1e9, more(&Cost::add), more(&Cost::all),
                    more(&Cost::wall));
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf(stderr, "JournalBench FOLDER [ROUNDS]\n");
        return 1;
    }
    try
    {
        Run(argv[1], argc > 2 ? std::max(1, std::stoi(argv[2])) : 5);
        return 0;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
