#include "Contestant.h"
#include "Memory.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>

namespace Bench
{

namespace
{

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& inTime) {
        return static_cast<double>(inTime.tv_sec) + static_cast<double>(inTime.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

//! A field of /proc/self/status that counts in KiB, in bytes.
std::int64_t StatusBytes(const std::string& inField)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
    {
        std::int64_t kibibytes = 0;
        if (word == inField + ":" && status >> kibibytes)
        {
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("/proc/self/status has no field " + inField);
}

//! Takes as much memory as the contestant may need, the system's cache included, and gives it back, so that each finds
//! its own in the same state: pages that a host took back from its virtual machine cost many times what others do.
void WarmMemory(const Contestant& inContestant, const Load& inLoad)
{
    constexpr std::uint64_t kBytesPerPiece = 80; // More than anyone keeps.
    constexpr std::uint64_t kBesides = 64u << 20;
    const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t free = static_cast<std::size_t>(sysconf(_SC_AVPHYS_PAGES)) * pageSize;
    const std::uint64_t cached = inContestant.FillsCache() ? inLoad.MediaSize() : 0;
    const Memory memory(std::min(cached + kBytesPerPiece * inLoad.PieceCount() + kBesides, free / 2));
    for (std::size_t place = 0; place < memory.Size(); place += pageSize)
    {
        static_cast<volatile char*>(memory.Data())[place] = 1;
    }
}

//! Makes the peak of resident memory what it is now, and returns that.
std::int64_t RestartPeak()
{
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5" << std::flush;
    if (!clear)
    {
        throw std::runtime_error("/proc/self/clear_refs cannot be written, so that the peak of memory is not known");
    }
    return StatusBytes("VmRSS");
}

void BringToDevice(const std::string& inPath)
{
    const int file = open(inPath.c_str(), O_RDWR | O_CLOEXEC);
    if (file < 0 || fsync(file) != 0 || close(file) != 0)
    {
        throw std::system_error(errno, std::generic_category(), inPath);
    }
}

nlohmann::ordered_json Measure(Contestant& ioContestant, const Load& inLoad, const std::string& inPath)
{
    using Clock = std::chrono::steady_clock;
    WarmMemory(ioContestant, inLoad);
    const std::uint64_t leastSize = ioContestant.LeastFileSize(inLoad);
    const std::int64_t memoryStart = RestartPeak();
    const double cpuStart = CpuSeconds();
    const auto start = Clock::now();

    ioContestant.Create(inLoad, inPath);
    ioContestant.Write(inLoad);
    const double cpuBeforeClose = CpuSeconds();
    ioContestant.Close();
    const double cpuEnd = CpuSeconds();
    const std::int64_t peak = StatusBytes("VmHWM");
    if (leastSize != 0)
    {
        BringToDevice(inPath);
    }
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();

    if (leastSize != 0 && std::filesystem::file_size(inPath) < leastSize)
    {
        throw std::runtime_error(inPath + " is smaller than what was written to it");
    }
    return {{"wallSeconds", wall},
            {"cpuSeconds", cpuEnd - cpuStart},
            {"closeCpuSeconds", cpuEnd - cpuBeforeClose},
            {"peakBytes", peak - memoryStart}};
}

std::string Usage(const Contestants& inContestants)
{
    std::string usage = "usage: PROGRAM CONTESTANT LOAD OUT [--samples N]\ncontestants:";
    for (const auto& [name, make] : inContestants)
    {
        usage += " " + name;
    }
    usage += "\nloads:";
    for (const std::string& name : Load::Names())
    {
        usage += " " + name;
    }
    return usage;
}

} // namespace

int Run(int inCount, char** inArguments, const Contestants& inContestants)
{
    try
    {
        const std::vector<std::string> arguments(inArguments + 1, inArguments + inCount);
        const bool hasSamples = arguments.size() == 5 && arguments[3] == "--samples";
        if ((arguments.size() != 3 && !hasSamples) || !inContestants.contains(arguments[0]))
        {
            throw std::runtime_error(Usage(inContestants));
        }
        const Load load(arguments[1], hasSamples ? std::stoull(arguments[4]) : 0);
        const auto contestant = inContestants.at(arguments[0])();
        nlohmann::ordered_json line{{"contestant", arguments[0]},
                                    {"version", contestant->Version()},
                                    {"load", arguments[1]},
                                    {"samples", load.PieceCount()},
                                    {"mediaBytes", load.MediaSize()}};
        line.update(Measure(*contestant, load, arguments[2]));
        std::printf("%s\n", line.dump().c_str());
        return std::fflush(stdout) == 0 ? 0 : 1;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}

} // namespace Bench
