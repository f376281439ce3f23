#include <Tolbin/String.h>

#include <boost/locale/utf.hpp>

#include <iterator>

namespace Tolbin::string
{

namespace
{

namespace utf = boost::locale::utf;

constexpr utf::code_point kReplacement = 0xFFFD;

//! Takes the code point at `ioPosition` and moves behind it; false, and one code unit on, where there is none.
template <typename Iterator>
bool NextCodePoint(Iterator& ioPosition, Iterator inEnd, utf::code_point& outCodePoint)
{
    using Unit = typename std::iterator_traits<Iterator>::value_type;
    const Iterator start = ioPosition;
    outCodePoint = utf::utf_traits<Unit>::decode(ioPosition, inEnd);
    if (utf::is_valid_codepoint(outCodePoint))
    {
        return true;
    }
    ioPosition = std::next(start);
    return false;
}

template <typename To, typename From>
To Convert(const From& inString)
{
    To result;
    result.reserve(inString.size());
    for (auto position = inString.begin(); position != inString.end();)
    {
        utf::code_point codePoint = 0;
        const bool isValid = NextCodePoint(position, inString.end(), codePoint);
        utf::utf_traits<typename To::value_type>::encode(isValid ? codePoint : kReplacement,
                                                         std::back_inserter(result));
    }
    return result;
}

} // namespace

std::string UTF16to8(const UTF16String& inString)
{
    return Convert<std::string>(inString);
}

std::string UTF16toStdString(const UTF16String& inString)
{
    return UTF16to8(inString);
}

UTF16String UTF8to16(std::string_view inString)
{
    return Convert<UTF16String>(inString);
}

UTF16String AsciiToUTF16(std::string_view inString)
{
    UTF16String result;
    result.reserve(inString.size());
    for (const char character : inString)
    {
        const auto byte = static_cast<unsigned char>(character);
        result.push_back(static_cast<char16_t>(byte < 0x80 ? byte : kReplacement));
    }
    return result;
}

bool IsValidUTF16(const UTF16String& inString)
{
    for (auto position = inString.begin(); position != inString.end();)
    {
        utf::code_point codePoint = 0;
        if (!NextCodePoint(position, inString.end(), codePoint))
        {
            return false;
        }
    }
    return true;
}

} // namespace Tolbin::string
