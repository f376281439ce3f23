#pragma once

#include <Tolbin/Export.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <locale>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace Tolbin::debug
{

// ---- Reports --------------------------------------------------------------------------------------------------------

enum class ReportKind
{
    Assert,  //!< An internal expectation failed; execution continues.
    Contract //!< A caller broke an input contract; an error is raised next.
};

struct Report
{
    ReportKind kind;
    std::string expression; //!< Text of the check that failed.
    std::string message;    //!< Empty, or text that ends in a line feed.
    std::string file;
    int line;
    std::string function; //!< Signature of the function that holds the check.
};

//! Listens to reports. Returns true to ask for the debugger trap; sets `ioDisabled` to silence the site from then on.
//! Called on the thread that reports, possibly on several at once.
using ReportHandler = std::function<bool(const Report& inReport, bool& ioDisabled)>;

//! Installs a handler and returns the one before. An empty handler stands for the default, which prints one line to
//! standard error and neither traps nor silences.
TOLBIN_EXPORT ReportHandler SetReportHandler(ReportHandler inHandler);

//! Passes an assertion report to the handler and returns what it returns. `inCount` is the number of times the check
//! has failed since it was last reported; every failure is reported here, so it is 1.
TOLBIN_EXPORT bool BreakAfterAssertDialog(bool& ioDisabled, const char* inExpression, const std::string& inMessage,
                                          const char* inFile, int inLine, const char* inFunction, int inCount);

//! Passes a contract report to the handler and returns what it returns.
TOLBIN_EXPORT bool BreakAfterContractDialog(const char* inExpression, const char* inFile, const char* inFunction,
                                            int inLine);

TOLBIN_EXPORT bool IsDebuggerAttached();

//! One place in the code that can report. Holds the site's process-wide disabled flag.
class AssertSite
{
public:
    bool IsEnabled() const { return !mDisabled.load(std::memory_order_relaxed); }

    void Report(const char* inExpression, const std::string& inMessage, const char* inFile, int inLine,
                const char* inFunction)
    {
        bool disabled = false;
        const bool wantsTrap = BreakAfterAssertDialog(disabled, inExpression, inMessage, inFile, inLine, inFunction, 1);
        if (disabled)
        {
            mDisabled.store(true, std::memory_order_relaxed);
        }
        if (wantsTrap && IsDebuggerAttached())
        {
            std::raise(SIGTRAP);
        }
    }

    //! The same with the message that `inPrint` writes to a stream. Stays out of the code around the site.
    template <typename Print>
    [[gnu::cold, gnu::noinline]] void ReportPrinted(const char* inExpression, Print inPrint, const char* inFile,
                                                    int inLine, const char* inFunction)
    {
        std::ostringstream message;
        message.imbue(std::locale::classic());
        inPrint(message);
        Report(inExpression, message.str(), inFile, inLine, inFunction);
    }

private:
    std::atomic<bool> mDisabled{false};
};

// ---- Trace ----------------------------------------------------------------------------------------------------------

using TraceHandler = std::function<void(int inLevel, const std::string& inCategory, const std::string& inMessage)>;

//! Installs a handler and returns the one before. An empty handler stands for the default, which prints the message to
//! standard error.
TOLBIN_EXPORT TraceHandler SetTraceHandler(TraceHandler inHandler);

//! Enables or disables a category and moves `TraceChangeCount`.
TOLBIN_EXPORT void SetTraceEnabled(const std::string& inCategory, bool inEnabled);

//! Whether a category is enabled. Categories start disabled. `inLevel` is the level that the caller would trace at
//! (all levels of a category go together); `inRegister` makes the category known, so that `SetTraceEnabled` can be
//! offered for it.
TOLBIN_EXPORT bool TraceEnabled(const char* inCategory, int inLevel, bool inRegister);

TOLBIN_EXPORT void Trace(int inLevel, const char* inCategory, const std::string& inMessage);

//! Moves whenever the answer of `TraceEnabled` may have changed; starts at 1, so that a cache that starts at 0 is
//! stale.
TOLBIN_EXPORT extern std::atomic<std::uint32_t> TraceChangeCount;

// ---- Settings -------------------------------------------------------------------------------------------------------

//! Named settings, as text. Starts with the entries of the environment variable TOLBIN_DEBUG_DATABASE ("key=value"
//! pairs separated by semicolons). Safe to use from any thread.
class TOLBIN_EXPORT DebugDatabase
{
public:
    static DebugDatabase& Instance();

    void SetEntry(const std::string& inKey, const std::string& inValue);
    void RemoveEntry(const std::string& inKey);

    //! The entry's text, or `inDefault` when there is none.
    std::string GetEntry(const std::string& inKey, const std::string& inDefault) const;

    //! The entry as a number; `inDefault` when there is none.
    template <typename T>
    T GetEntryAs(const std::string& inKey, T inDefault) const;

private:
    DebugDatabase();

    mutable std::mutex mMutex;
    std::map<std::string, std::string> mEntries;
};

//! Reads the text's leading decimal digits, 0 when there are none, modulo 2^32.
template <>
TOLBIN_EXPORT unsigned int DebugDatabase::GetEntryAs<unsigned int>(const std::string& inKey,
                                                                   unsigned int inDefault) const;

} // namespace Tolbin::debug

//! Reports unless `condition` holds, under the given expression and function texts; execution continues. `message` is
//! what follows a stream's `<<`; it is evaluated only when the report is made, and cannot name a structured binding.
#define TOLBIN_ASSERT_AS(condition, expression, function, message)                                                     \
    do                                                                                                                 \
    {                                                                                                                  \
        static ::Tolbin::debug::AssertSite sSite;                                                                      \
        if (!(condition) && sSite.IsEnabled())                                                                         \
        {                                                                                                              \
            const auto printMessage = [&](std::ostream& outText) { outText << message; };                              \
            sSite.ReportPrinted(expression, printMessage, __FILE__, __LINE__, function);                               \
        }                                                                                                              \
    } while (false)

//! Reports unless `condition` holds, under its own text.
#define TOLBIN_ASSERT(condition, message) TOLBIN_ASSERT_AS(condition, #condition, __PRETTY_FUNCTION__, message)

//! Reports always, under the given expression text.
#define TOLBIN_REPORT(expression, message) TOLBIN_ASSERT_AS(false, expression, __PRETTY_FUNCTION__, message)
