#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Host
{

//! The content of a file that an option names. Throws CommandError with `kIOFailed` when it cannot be read,
//! `kInputRefused` when it is larger than any such file.
std::string ReadSideFile(const std::string& inOption, const std::string& inPath);

//! Ends the command with `kInputRefused`: `--captions "a.scc": `, the reason and, behind a semicolon, what to do.
[[noreturn]] void RefuseSideFile(const std::string& inOption, const std::string& inPath, const std::string& inReason,
                                 const std::string& inRemedy);

//! The lines of a text, without their ends (LF or CR LF) and without a byte-order mark.
std::vector<std::string_view> SplitLines(std::string_view inText);

bool IsValidUTF8(const std::string& inText);

} // namespace Host
