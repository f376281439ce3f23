#pragma once

#include <Tolbin/Export.h>

#include <stdexcept>
#include <string>

namespace Tolbin::config
{

//! A value for one of the placeholders of a localisable message. The messages of this library have none.
struct ReplacementValue
{
    std::string value;
};

//! What `ThrowError` throws. `what()` is the message's default text, without its localisation key.
class TOLBIN_EXPORT Error : public std::runtime_error
{
public:
    Error(int inLevel, const std::string& inText, int inDomain, int inCode);
    ~Error() override;

    int GetLevel() const { return mLevel; }
    int GetDomain() const { return mDomain; }
    int GetCode() const { return mCode; }

private:
    int mLevel;
    int mDomain;
    int mCode;
};

//! Raises an error; does not return.
//!
//! \param inMessage       localisation key and default text, "$$$/key=text"
//! \param inDomain        the subsystem that the code belongs to
//! \param inCode          the error within the domain
//! \param inLocalizable   whether the message has a localisation key
[[noreturn]] TOLBIN_EXPORT void ThrowError(int inLevel, const char* inMessage, int inDomain, int inCode,
                                           bool inLocalizable, const ReplacementValue& inValue1,
                                           const ReplacementValue& inValue2, const ReplacementValue& inValue3,
                                           const ReplacementValue& inValue4);

} // namespace Tolbin::config
