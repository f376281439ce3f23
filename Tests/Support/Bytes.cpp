#include "Bytes.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <stdexcept>
#include <string>

using Tolbin::utility::BinaryDataArray;

namespace
{

std::uint64_t Number(std::string_view inText, int inBase)
{
    std::uint64_t value = 0;
    const char* end = inText.data() + inText.size();
    const auto result = std::from_chars(inText.data(), end, value, inBase);
    if (result.ec != std::errc() || result.ptr != end)
    {
        throw std::invalid_argument("not a number in a table of bytes: " + std::string(inText));
    }
    return value;
}

std::string Hex(const BinaryDataArray& inBytes, std::size_t inBegin, std::size_t inEnd)
{
    std::string text;
    for (std::size_t i = inBegin; i < std::min(inEnd, inBytes.size()); ++i)
    {
        char buffer[4];
        std::snprintf(buffer, sizeof(buffer), "%02X ", inBytes[i]);
        text += buffer;
    }
    return text;
}

} // namespace

BinaryDataArray Bytes(std::string_view inTable)
{
    BinaryDataArray bytes;
    while (true)
    {
        inTable.remove_prefix(std::min(inTable.find_first_not_of(" \n"), inTable.size()));
        if (inTable.empty())
        {
            return bytes;
        }
        if (inTable.front() == '\'')
        {
            const std::size_t end = inTable.find('\'', 1);
            bytes.insert(bytes.end(), inTable.begin() + 1, inTable.begin() + static_cast<std::ptrdiff_t>(end));
            inTable.remove_prefix(end + 1);
            continue;
        }
        const std::string_view token = inTable.substr(0, inTable.find_first_of(" \n"));
        inTable.remove_prefix(token.size());
        if (token.front() == '#')
        {
            const std::uint64_t value = Number(token.substr(1), 10);
            for (int shift = 24; shift >= 0; shift -= 8)
            {
                bytes.push_back(static_cast<std::uint8_t>(value >> shift));
            }
            continue;
        }
        const std::size_t star = token.find('*');
        const std::uint64_t count = star == std::string_view::npos ? 1 : Number(token.substr(star + 1), 10);
        bytes.insert(bytes.end(), count, static_cast<std::uint8_t>(Number(token.substr(0, star), 16)));
    }
}

BinaryDataArray operator+(const BinaryDataArray& inFirst, const BinaryDataArray& inSecond)
{
    BinaryDataArray sum = inFirst;
    sum.insert(sum.end(), inSecond.begin(), inSecond.end());
    return sum;
}

std::uint32_t Big32(const BinaryDataArray& inBytes, std::size_t inOffset)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
    {
        value = (value << 8) | inBytes.at(inOffset + i);
    }
    return value;
}

std::uint64_t Big64(const BinaryDataArray& inBytes, std::size_t inOffset)
{
    return (std::uint64_t{Big32(inBytes, inOffset)} << 32) | Big32(inBytes, inOffset + 4);
}

testing::AssertionResult SameBytes(const char* inActualText, const char* /*inExpectedText*/,
                                   const BinaryDataArray& inActual, const BinaryDataArray& inExpected)
{
    if (inActual == inExpected)
    {
        return testing::AssertionSuccess();
    }
    const auto ends = std::mismatch(inActual.begin(), inActual.end(), inExpected.begin(), inExpected.end());
    const auto at = static_cast<std::size_t>(ends.first - inActual.begin());
    const std::size_t from = at / 16 * 16;
    return testing::AssertionFailure() << inActualText << " has " << inActual.size() << " bytes, expected "
                                       << inExpected.size() << "; they differ from offset " << at << " on\n  actual   "
                                       << from << ": " << Hex(inActual, from, from + 32) << "\n  expected " << from
                                       << ": " << Hex(inExpected, from, from + 32);
}
