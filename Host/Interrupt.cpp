#include "Interrupt.h"

#include "CommandError.h"

#include <atomic>

namespace Host
{

namespace
{
std::atomic<bool> sStopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");
} // namespace

void RequestStop() noexcept
{
    sStopRequested.store(true);
}

void ThrowIfStopRequested()
{
    if (sStopRequested.load())
    {
        throw CommandError(ExitCode::kIOFailed, "the command was interrupted, and nothing was written; run it again");
    }
}

} // namespace Host
