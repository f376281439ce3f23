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

bool RequestStop() noexcept
{
    return sStopRequested.exchange(true);
}

void ThrowIfStopRequested()
{
    if (sStopRequested.load())
    {
        throw EarlyEnd("the command was interrupted",
                       "the command was interrupted, and nothing was written; run it again");
    }
}

void ForgetStop() noexcept
{
    sStopRequested.store(false);
}

} // namespace Host
