#include "MetadataOption.h"

#include "CommandError.h"
#include "SideFile.h"

#include <Tolbin/String.h>

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <string_view>

namespace Host
{

namespace
{

constexpr unsigned int kCopyrightSign = 0xA9;

struct Name
{
    std::string_view name;
    char code[4]; //!< the three characters behind the copyright sign
};

constexpr Name kNames[] = {{"album", "alb"},    {"artist", "ART"},    {"author", "aut"},      {"comment", "cmt"},
                           {"composer", "com"}, {"copyright", "cpy"}, {"date", "day"},        {"description", "des"},
                           {"director", "dir"}, {"genre", "gen"},     {"information", "inf"}, {"keywords", "key"},
                           {"make", "mak"},     {"model", "mod"},     {"performers", "prf"},  {"producer", "prd"},
                           {"software", "swr"}, {"source", "src"},    {"title", "nam"},       {"writer", "wrt"}};

[[noreturn]] void RefuseText(const std::string& inOption, const std::string& inWhole, const std::string& inReason)
{
    throw CommandError(ExitCode::kUsage,
                       fmt::format("{} {}: {}; write it as {}KEY=VALUE, such as {}title=Dailies", inOption, inWhole,
                                   inReason, inOption == "--meta" ? "" : "N:", inOption == "--meta" ? "" : "1:"));
}

//! A code of four characters, each in one byte: that of Latin-1, where the copyright sign is 0xA9.
std::optional<std::uint32_t> ParseCode(const std::string& inKey)
{
    const Tolbin::UTF16String characters = Tolbin::string::UTF8to16(inKey);
    if (characters.size() != 4)
    {
        return std::nullopt;
    }
    std::uint32_t code = 0;
    for (const char16_t character : characters)
    {
        if (character > 0xFF || character < 0x20)
        {
            return std::nullopt;
        }
        code = code << 8U | character;
    }
    return code;
}

//! International text: its length and its language in 16 bits each, then the text, which is UTF-8 for a packed ISO 639
//! language.
std::string InternationalText(const std::string& inText)
{
    constexpr unsigned int kUndetermined = ('u' - 0x60U) << 10U | ('n' - 0x60U) << 5U | ('d' - 0x60U);
    const std::string head = {static_cast<char>(inText.size() >> 8U), static_cast<char>(inText.size() & 0xFFU),
                              static_cast<char>(kUndetermined >> 8U), static_cast<char>(kUndetermined & 0xFFU)};
    return head + inText;
}

} // namespace

MetadataItem ParseMetadata(const std::string& inOption, const std::string& inWhole, const std::string& inText)
{
    constexpr std::size_t kMaximumLength = 0xFFFF;
    const std::size_t equals = inText.find('=');
    if (equals == std::string::npos)
    {
        RefuseText(inOption, inWhole, "there is no equals sign");
    }
    const std::string key = inText.substr(0, equals);
    const std::string value = inText.substr(equals + 1);
    MetadataItem item;
    const auto* name =
        std::find_if(std::begin(kNames), std::end(kNames), [&](const Name& inName) { return inName.name == key; });
    const bool isNamed = name != std::end(kNames);
    if (isNamed)
    {
        item.type = kCopyrightSign << 24U;
        for (int index = 0; index < 3; ++index)
        {
            item.type |= static_cast<std::uint32_t>(name->code[index]) << (8 * (2 - index));
        }
    }
    else if (const std::optional<std::uint32_t> code = ParseCode(key))
    {
        item.type = *code;
    }
    else
    {
        RefuseText(
            inOption, inWhole,
            fmt::format("\"{}\" is neither one of the names {} nor a code of four characters", key, MetadataNames()));
    }
    if (!isNamed && !value.empty() && value.front() == '@')
    {
        item.file = value.substr(1);
        if (item.file.empty())
        {
            RefuseText(inOption, inWhole, "there is no file name behind the @");
        }
        return item;
    }
    if (!IsValidUTF8(value))
    {
        RefuseText(inOption, inWhole, "the value is not valid UTF-8");
    }
    if (value.size() > kMaximumLength)
    {
        RefuseText(inOption, inWhole.substr(0, 40) + "...",
                   fmt::format("the value has {} bytes where {} fit", value.size(), kMaximumLength));
    }
    item.payload = item.type >> 24U == kCopyrightSign ? InternationalText(value) : value;
    return item;
}

void LoadMetadata(const std::string& inOption, MetadataItem& ioItem)
{
    if (!ioItem.file.empty())
    {
        ioItem.payload = ReadSideFile(inOption, ioItem.file);
    }
}

std::string MetadataNames()
{
    std::string names;
    for (const Name& name : kNames)
    {
        names += (names.empty() ? "" : ", ") + std::string(name.name);
    }
    return names;
}

} // namespace Host
