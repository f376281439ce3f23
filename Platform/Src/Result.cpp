#include <Tolbin/Result.h>

#include <boost/system/error_code.hpp>

#include <atomic>
#include <cstdio>

namespace Tolbin
{

namespace
{

constexpr int kSystemErrorLast = 0xFFFF;

//! The libraries that added their sentences, the latest first. Constant-initialised, since they add them before `main`.
std::atomic<ResultMessages*> sFirstMessages{nullptr};

const char* CoreMessage(Result inResult)
{
    switch (inResult)
    {
    case kResultFailed:
        return "the operation could not be completed";
    case kResultShortWrite:
        return "the system wrote fewer bytes than it was asked to";
    case kResultOutOfMemory:
        return "memory could not be obtained";
    default:
        return inResult >= 0 ? "success" : nullptr;
    }
}

} // namespace

Result ResultFromSystemError(int inErrno)
{
    if (inErrno <= 0 || inErrno > kSystemErrorLast)
    {
        return kResultFailed;
    }
    return kResultSystemErrorBase + inErrno;
}

int SystemErrorFromResult(Result inResult)
{
    const bool isSystemError =
        inResult > kResultSystemErrorBase && inResult <= kResultSystemErrorBase + kSystemErrorLast;
    return isSystemError ? inResult - kResultSystemErrorBase : 0;
}

ResultMessages::ResultMessages(Lookup inLookup) : mLookup(inLookup), mNext(sFirstMessages.load())
{
    while (!sFirstMessages.compare_exchange_weak(mNext, this))
    {
    }
}

std::string ResultMessage(Result inResult)
{
    if (const int systemError = SystemErrorFromResult(inResult))
    {
        return boost::system::error_code(systemError, boost::system::system_category()).message();
    }
    if (const char* message = CoreMessage(inResult))
    {
        return message;
    }
    for (const ResultMessages* messages = sFirstMessages.load(); messages != nullptr; messages = messages->mNext)
    {
        if (const char* message = messages->mLookup(inResult))
        {
            return message;
        }
    }
    char text[32];
    std::snprintf(text, sizeof(text), "unknown result 0x%08X", static_cast<unsigned int>(inResult));
    return text;
}

} // namespace Tolbin
