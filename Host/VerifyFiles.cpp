#include "VerifyFiles.h"

#include "CommandError.h"
#include "Progress.h"

#include <Description.h>
#include <MovieFile.h>
#include <Verify.h>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <nlohmann/json.hpp>
#include <ostream>
#include <system_error>

namespace Host
{

namespace
{

using Json = nlohmann::ordered_json;

//! The findings as lines beneath the file's name.
void PrintFindings(const std::string& inPath, const Inspect::Findings& inFindings, bool inIsQuiet, std::ostream& out)
{
    const bool isSound = !inFindings.HasErrors();
    if (isSound && inIsQuiet)
    {
        return;
    }
    fmt::print(out, "{}: {}\n", FormatNames(inPath), isSound ? "sound" : "not sound");
    const Json findings = Inspect::DescribeFindings(inFindings);
    for (const Json& finding : findings)
    {
        const std::string track =
            finding.contains("track") ? fmt::format(", track {}", finding["track"].get<std::uint32_t>()) : "";
        fmt::print(out, "  {} at byte {}{}: {} [{}]\n", finding["severity"].get<std::string>(),
                   finding["offset"].get<std::uint64_t>(), track, finding["what"].get<std::string>(),
                   finding["check"].get<std::string>());
    }
    if (inFindings.GetOmittedCount() != 0)
    {
        fmt::print(out, "  and {} more\n", inFindings.GetOmittedCount());
    }
}

} // namespace

void VerifyFiles(const VerifyOptions& inOptions, std::ostream& out)
{
    std::size_t unsoundCount = 0;
    std::size_t unreadableCount = 0;
    std::string unreadable; // The first.
    Json results = Json::array();
    for (const std::filesystem::path& input : inOptions.inputs)
    {
        const std::string path = input.string();
        try
        {
            const Inspect::FileSource source(input);
            Inspect::Findings findings;
            const Inspect::MovieFile movie(source, findings);
            Inspect::VerifyMovie(movie, findings);
            unsoundCount += findings.HasErrors() ? 1 : 0;
            if (inOptions.json)
            {
                results.push_back({{"file", path},
                                   {"sound", !findings.HasErrors()},
                                   {"findings", Inspect::DescribeFindings(findings)},
                                   {"omitted", findings.GetOmittedCount()}});
            }
            else
            {
                PrintFindings(path, findings, inOptions.quiet, out);
            }
        }
        catch (const std::system_error& error)
        {
            const std::string message = error.code().message();
            unreadable = unreadableCount++ == 0 ? fmt::format("\"{}\" cannot be read: {}", path, message) : unreadable;
            results.push_back({{"file", path}, {"error", message}});
            if (!inOptions.json)
            {
                fmt::print(out, "{}: cannot be read: {}\n", FormatNames(path), message);
            }
        }
    }
    if (inOptions.json)
    {
        out << results.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    }
    if (!unreadable.empty())
    {
        const std::string more = unreadableCount > 1 ? fmt::format(", nor can {} more", unreadableCount - 1) : "";
        throw CommandError(ExitCode::kIOFailed, fmt::format("{}{}; check names and permissions", unreadable, more));
    }
    if (unsoundCount != 0)
    {
        throw CommandError(ExitCode::kVerificationFailed,
                           fmt::format("{} of {} files are not sound; see the findings, and write them anew",
                                       unsoundCount, inOptions.inputs.size()));
    }
}

} // namespace Host
