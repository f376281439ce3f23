#include "OperatingSystem.h"

#include <Tolbin/Debug.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace Tolbin::debug
{

namespace
{

//! A handler that can be exchanged while other threads call it.
template <typename Handler>
class HandlerSlot
{
public:
    Handler Exchange(Handler inHandler)
    {
        const std::lock_guard lock(mMutex);
        return std::exchange(mHandler, std::move(inHandler));
    }

    Handler Get() const
    {
        const std::lock_guard lock(mMutex);
        return mHandler;
    }

private:
    mutable std::mutex mMutex;
    Handler mHandler;
};

// Function-local statics: reports may be made while other statics are constructed.
HandlerSlot<ReportHandler>& ReportSlot()
{
    static HandlerSlot<ReportHandler> sSlot;
    return sSlot;
}

HandlerSlot<TraceHandler>& TraceSlot()
{
    static HandlerSlot<TraceHandler> sSlot;
    return sSlot;
}

bool PrintReport(const Report& inReport)
{
    std::string message = inReport.message;
    while (!message.empty() && message.back() == '\n')
    {
        message.pop_back();
    }
    std::fprintf(stderr, "%s:%d: %s: %s failed in %s%s%s\n", inReport.file.c_str(), inReport.line,
                 inReport.kind == ReportKind::Assert ? "assertion" : "contract", inReport.expression.c_str(),
                 inReport.function.c_str(), message.empty() ? "" : ": ", message.c_str());
    return false;
}

bool HandleReport(const Report& inReport, bool& ioDisabled)
{
    const ReportHandler handler = ReportSlot().Get();
    return handler ? handler(inReport, ioDisabled) : PrintReport(inReport);
}

struct TraceCategories
{
    std::mutex mutex;
    std::map<std::string, bool> enabled;
};

TraceCategories& Categories()
{
    static TraceCategories sCategories;
    return sCategories;
}

} // namespace

ReportHandler SetReportHandler(ReportHandler inHandler)
{
    return ReportSlot().Exchange(std::move(inHandler));
}

bool BreakAfterAssertDialog(bool& ioDisabled, const char* inExpression, const std::string& inMessage,
                            const char* inFile, int inLine, const char* inFunction, int /*inCount*/)
{
    return HandleReport({ReportKind::Assert, inExpression, inMessage, inFile, inLine, inFunction}, ioDisabled);
}

bool BreakAfterContractDialog(const char* inExpression, const char* inFile, const char* inFunction, int inLine)
{
    bool disabled = false; // A contract site cannot be silenced: the error is raised all the same.
    return HandleReport({ReportKind::Contract, inExpression, std::string(), inFile, inLine, inFunction}, disabled);
}

bool IsDebuggerAttached()
{
    return Ventra::OperatingSystem::IsDebuggerAttached();
}

// ---- Trace ----------------------------------------------------------------------------------------------------------

std::atomic<std::uint32_t> TraceChangeCount{1};

TraceHandler SetTraceHandler(TraceHandler inHandler)
{
    return TraceSlot().Exchange(std::move(inHandler));
}

void SetTraceEnabled(const std::string& inCategory, bool inEnabled)
{
    {
        TraceCategories& categories = Categories();
        const std::lock_guard lock(categories.mutex);
        categories.enabled[inCategory] = inEnabled;
    }
    ++TraceChangeCount;
}

bool TraceEnabled(const char* inCategory, int /*inLevel*/, bool inRegister)
{
    TraceCategories& categories = Categories();
    const std::lock_guard lock(categories.mutex);
    const auto found = categories.enabled.find(inCategory);
    if (found != categories.enabled.end())
    {
        return found->second;
    }
    if (inRegister)
    {
        categories.enabled.emplace(inCategory, false);
    }
    return false;
}

void Trace(int inLevel, const char* inCategory, const std::string& inMessage)
{
    if (const TraceHandler handler = TraceSlot().Get())
    {
        handler(inLevel, inCategory, inMessage);
        return;
    }
    std::fprintf(stderr, "%s: %s", inCategory, inMessage.c_str());
}

// ---- Settings -------------------------------------------------------------------------------------------------------

DebugDatabase::DebugDatabase()
{
    // Read once, when the only instance is made.
    const char* environment = std::getenv("TOLBIN_DEBUG_DATABASE"); // NOLINT(concurrency-mt-unsafe)
    std::string_view rest = environment != nullptr ? environment : "";
    while (!rest.empty())
    {
        const std::string_view pair = rest.substr(0, rest.find(';'));
        rest.remove_prefix(std::min(rest.size(), pair.size() + 1));
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos)
        {
            mEntries[std::string(pair.substr(0, equals))] = std::string(pair.substr(equals + 1));
        }
        else if (!pair.empty())
        {
            std::fprintf(stderr, "TOLBIN_DEBUG_DATABASE: \"%.*s\" is not a key=value pair and is ignored\n",
                         static_cast<int>(pair.size()), pair.data());
        }
    }
}

DebugDatabase& DebugDatabase::Instance()
{
    static DebugDatabase sInstance;
    return sInstance;
}

void DebugDatabase::SetEntry(const std::string& inKey, const std::string& inValue)
{
    const std::lock_guard lock(mMutex);
    mEntries[inKey] = inValue;
}

void DebugDatabase::RemoveEntry(const std::string& inKey)
{
    const std::lock_guard lock(mMutex);
    mEntries.erase(inKey);
}

std::string DebugDatabase::GetEntry(const std::string& inKey, const std::string& inDefault) const
{
    const std::lock_guard lock(mMutex);
    const auto found = mEntries.find(inKey);
    return found != mEntries.end() ? found->second : inDefault;
}

template <>
unsigned int DebugDatabase::GetEntryAs<unsigned int>(const std::string& inKey, unsigned int inDefault) const
{
    unsigned int number = 0;
    for (const char digit : GetEntry(inKey, std::to_string(inDefault)))
    {
        if (digit < '0' || digit > '9')
        {
            break;
        }
        number = number * 10 + static_cast<unsigned int>(digit - '0');
    }
    return number;
}

} // namespace Tolbin::debug
