#include <Tolbin/String.h>

#include <boost/locale/utf.hpp>

#include <cerrno>
#include <iterator>

namespace Tolbin::string
{

namespace
{

namespace utf = boost::locale::utf;

constexpr utf::code_point kReplacement = 0xFFFD;

//! What stands for the byte b of a path that is not part of UTF-8: 0xDC00 + b, which no UTF-8 gives.
constexpr char16_t kByteInPath = 0xDC00;
constexpr char16_t kFirstByteInPath = kByteInPath + 0x80;
constexpr char16_t kLastByteInPath = kByteInPath + 0xFF;

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

template <typename To>
void Append(To& ioString, utf::code_point inCodePoint)
{
    utf::utf_traits<typename To::value_type>::encode(inCodePoint, std::back_inserter(ioString));
}

//! `inReplace` appends to the result what stands for a code unit that is no code point and no part of one.
template <typename To, typename From, typename Replace>
To Convert(const From& inString, Replace inReplace)
{
    To result;
    result.reserve(inString.size());
    for (auto position = inString.begin(); position != inString.end();)
    {
        const auto unit = *position;
        utf::code_point codePoint = 0;
        if (NextCodePoint(position, inString.end(), codePoint))
        {
            Append(result, codePoint);
        }
        else
        {
            inReplace(result, unit);
        }
    }
    return result;
}

//! Text: U+FFFD stands for what is none.
template <typename To, typename From>
To ConvertText(const From& inString)
{
    return Convert<To>(inString, [](To& ioResult, auto) { Append(ioResult, kReplacement); });
}

} // namespace

std::string UTF16to8(const UTF16String& inString)
{
    return ConvertText<std::string>(inString);
}

std::string UTF16toStdString(const UTF16String& inString)
{
    return UTF16to8(inString);
}

UTF16String UTF8to16(std::string_view inString)
{
    return ConvertText<UTF16String>(inString);
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

UTF16String PathToUTF16(std::string_view inPath)
{
    return Convert<UTF16String>(inPath, [](UTF16String& ioResult, char inByte) {
        ioResult.push_back(static_cast<char16_t>(kByteInPath + static_cast<unsigned char>(inByte)));
    });
}

Result UTF16ToPath(const UTF16String& inPath, std::string& outPath)
{
    if (inPath.find(u'\0') != UTF16String::npos)
    {
        return ResultFromSystemError(EINVAL);
    }
    bool isPath = true;
    outPath = Convert<std::string>(inPath, [&isPath](std::string& ioResult, char16_t inUnit) {
        isPath = isPath && inUnit >= kFirstByteInPath && inUnit <= kLastByteInPath;
        ioResult.push_back(static_cast<char>(inUnit & 0xFF));
    });
    return isPath ? kResultSuccess : ResultFromSystemError(EILSEQ);
}

} // namespace Tolbin::string
