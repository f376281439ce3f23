#include <Tolbin/Config.h>

#include <cstring>

namespace Tolbin::config
{

Error::Error(int inLevel, const std::string& inText, int inDomain, int inCode)
    : std::runtime_error(inText), mLevel(inLevel), mDomain(inDomain), mCode(inCode)
{
}

Error::~Error() = default;

void ThrowError(int inLevel, const char* inMessage, int inDomain, int inCode, bool inLocalizable,
                const ReplacementValue& /*inValue1*/, const ReplacementValue& /*inValue2*/,
                const ReplacementValue& /*inValue3*/, const ReplacementValue& /*inValue4*/)
{
    const char* text = inMessage;
    if (inLocalizable)
    {
        const char* keyEnd = std::strchr(inMessage, '=');
        text = keyEnd != nullptr ? keyEnd + 1 : inMessage;
    }
    throw Error(inLevel, text, inDomain, inCode);
}

} // namespace Tolbin::config
