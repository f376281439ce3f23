#include "Findings.h"

namespace Inspect
{

void Findings::Add(Severity inSeverity, CheckName inCheck, std::uint64_t inOffset, std::uint32_t inTrack,
                   const std::string& inWhat)
{
    mHasErrors = mHasErrors || inSeverity == Severity::kError;
    const std::size_t index = inCheck.GetIndex();
    if (mCounts[index]++ < kMaxListedPerCheck)
    {
        mList.push_back({inSeverity, std::string(kChecks[index]), inOffset, inTrack, inWhat});
    }
    else
    {
        ++mOmittedCount;
    }
}

} // namespace Inspect
