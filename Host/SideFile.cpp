#include "SideFile.h"

#include "CommandError.h"

#include <Tolbin/String.h>

#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <system_error>

namespace Host
{

std::string ReadSideFile(const std::string& inOption, const std::string& inPath)
{
    constexpr std::size_t kMaximumSize = 64 * 1024 * 1024;
    const auto fail = [&](const std::string& inReason) {
        throw CommandError(ExitCode::kIOFailed,
                           fmt::format("{} \"{}\": the file cannot be read: {}; check its name and permissions",
                                       inOption, inPath, inReason));
    };
    std::error_code error;
    if (std::filesystem::is_directory(inPath, error))
    {
        fail("it is a folder");
    }
    errno = 0;
    std::ifstream file(inPath, std::ios::binary);
    if (!file)
    {
        fail(std::generic_category().message(errno));
    }
    std::string content;
    for (char block[65536]; file.read(block, sizeof(block)) || file.gcount() > 0;)
    {
        content.append(block, static_cast<std::size_t>(file.gcount()));
        if (content.size() > kMaximumSize)
        {
            RefuseSideFile(inOption, inPath, "it is larger than 64 MiB", "name the right file, or divide it");
        }
    }
    if (file.bad())
    {
        fail(std::generic_category().message(errno));
    }
    return content;
}

void RefuseSideFile(const std::string& inOption, const std::string& inPath, const std::string& inReason,
                    const std::string& inRemedy)
{
    throw CommandError(ExitCode::kInputRefused, fmt::format("{} \"{}\": {}; {}", inOption, inPath, inReason, inRemedy));
}

std::vector<std::string_view> SplitLines(std::string_view inText)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (inText.substr(0, kByteOrderMark.size()) == kByteOrderMark)
    {
        inText.remove_prefix(kByteOrderMark.size());
    }
    std::vector<std::string_view> lines;
    while (!inText.empty())
    {
        const std::size_t end = std::min(inText.find('\n'), inText.size());
        std::string_view line = inText.substr(0, end);
        if (!line.empty() && line.back() == '\r')
        {
            line.remove_suffix(1);
        }
        lines.push_back(line);
        inText.remove_prefix(std::min(end + 1, inText.size()));
    }
    return lines;
}

bool IsValidUTF8(const std::string& inText)
{
    return Tolbin::string::UTF16to8(Tolbin::string::UTF8to16(inText)) == inText;
}

} // namespace Host
