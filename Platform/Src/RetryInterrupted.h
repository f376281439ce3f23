#pragma once

#include <Tolbin/Result.h>

#include <cerrno>

namespace Ventra
{

//! Calls again as long as the system says that the call was interrupted before it did anything.
template <typename Function>
Tolbin::Result RetryInterrupted(Function inFunction)
{
    for (;;)
    {
        const Tolbin::Result result = inFunction();
        if (Tolbin::SystemErrorFromResult(result) != EINTR)
        {
            return result;
        }
    }
}

} // namespace Ventra
