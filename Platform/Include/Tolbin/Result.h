#pragma once

#include <Tolbin/Export.h>

#include <cstdint>
#include <string>

namespace Tolbin
{

//! The outcome of an operation. 0 is success, negative values are failures; some operations pass on a
//! platform result above 0, which is a success as well.
using Result = std::int32_t;

//! Spells a result the way tables of results do: as the unsigned 32-bit value.
constexpr Result MakeResult(std::uint32_t inValue)
{
    return static_cast<Result>(inValue);
}

constexpr Result kResultSuccess = 0;
constexpr Result kResultFailed = MakeResult(0xA00F0001);      //!< The operation could not be completed.
constexpr Result kResultShortWrite = MakeResult(0xA00F0002);  //!< A write succeeded with fewer bytes than asked.
constexpr Result kResultOutOfMemory = MakeResult(0xA00F0006); //!< Memory could not be obtained.

//! Errors of the operating system are 0xA00E0000 + `errno`, that is 0xA00E0001 to 0xA00EFFFF.
constexpr Result kResultSystemErrorBase = MakeResult(0xA00E0000);

//! Maps an `errno` value (1 to 0xFFFF; anything else becomes `kResultFailed`) to its result.
TOLBIN_EXPORT Result ResultFromSystemError(int inErrno);

//! The `errno` value that a result stands for, 0 when it is not an error of the operating system.
TOLBIN_EXPORT int SystemErrorFromResult(Result inResult);

//! One sentence, without a full stop, that says what `inResult` means. Knows every result of the platform and
//! of the libraries that added theirs; gives the number of any other.
TOLBIN_EXPORT std::string ResultMessage(Result inResult);

//! Adds the sentences of one library to `ResultMessage`. Made as an object of static storage duration; never
//! removed.
class ResultMessages
{
public:
    //! The sentence for a result, or null when the library does not know it.
    using Lookup = const char* (*)(Result inResult);

    TOLBIN_EXPORT explicit ResultMessages(Lookup inLookup);

    ResultMessages(const ResultMessages&) = delete;
    ResultMessages& operator=(const ResultMessages&) = delete;

private:
    friend std::string ResultMessage(Result inResult);

    Lookup mLookup;
    ResultMessages* mNext;
};

} // namespace Tolbin
