#pragma once

#include "Loads.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Bench
{

//! One way of writing a load. Failures are exceptions. What a library needs once per process belongs to the
//! constructor, which is not measured.
class Contestant
{
public:
    Contestant() = default;
    virtual ~Contestant() = default;
    Contestant(const Contestant&) = delete;
    Contestant& operator=(const Contestant&) = delete;

    //! Up to the first sample: the file, its head, the tracks.
    virtual void Create(const Load& inLoad, const std::string& inPath) = 0;

    //! All samples.
    virtual void Write(const Load& inLoad) = 0;

    //! What is to be done behind the last sample, until the file is closed.
    virtual void Close() = 0;

    //! What the file must hold at least; 0 when there is none.
    virtual std::uint64_t LeastFileSize(const Load& inLoad) const { return inLoad.MediaSize(); }

    //! Whether the system's cache may come to hold all of the file.
    virtual bool FillsCache() const { return true; }

    //! Of the library that does the work; empty where it is this project's.
    virtual std::string Version() const { return {}; }
};

using Contestants = std::map<std::string, std::function<std::unique_ptr<Contestant>()>>;

//! The `main` of every program here. Prints one line of JSON:
//!
//! contestant, version, load, samples (calls that add), mediaBytes; wallSeconds: from `Create` until the file is on the
//! device; cpuSeconds, closeCpuSeconds: user and system time of all threads, from `Create` to the end of `Close`, and
//! of `Close` alone; peakBytes: how far resident memory rose above what it was before `Create`.
//!
//! \return the exit status: 0 done; 1 after any failure, with a sentence on standard error.
int Run(int inCount, char** inArguments, const Contestants& inContestants);

} // namespace Bench
