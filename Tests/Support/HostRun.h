#pragma once

#include <Host/Command.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

//! What a run of the `reelmill` command came to.
struct Outcome
{
    int code;
    std::string out;
    std::string err;
};

//! What was printed but for the lines of progress, which only a slow machine comes to: one every five seconds.
inline std::string WithoutProgress(const std::string& inErrors)
{
    std::istringstream lines(inErrors);
    std::string rest;
    for (std::string line; std::getline(lines, line);)
    {
        if (line.empty() || line.front() < '0' || line.front() > '9')
        {
            rest += lines.eof() ? line : line + '\n';
        }
    }
    return rest;
}

//! Runs the command in this process.
inline Outcome RunHost(const std::vector<std::string>& inArguments)
{
    std::vector<const char*> arguments = {"reelmill"};
    std::transform(inArguments.begin(), inArguments.end(), std::back_inserter(arguments),
                   [](const std::string& inArgument) { return inArgument.c_str(); });
    std::ostringstream out;
    std::ostringstream err;
    const int code = Host::RunCommand(static_cast<int>(arguments.size()), arguments.data(), out, err);
    return {code, out.str(), WithoutProgress(err.str())};
}

//! Whether what a failed run printed is one sentence that ends with what to do.
inline void ExpectHelpfulSentence(const std::string& inErrors)
{
    EXPECT_EQ(0U, inErrors.find("reelmill: ")) << inErrors;
    EXPECT_EQ(inErrors.size() - 1, inErrors.find('\n')) << inErrors;
    EXPECT_TRUE(inErrors.find("; ") != std::string::npos || inErrors.find("(see reelmill ") != std::string::npos)
        << inErrors;
}

//! Lets the ffmpeg program make a file. The options may be anything that a shell takes.
inline void MakeMedia(const std::string& inOptions, const std::string& inPath)
{
    const std::string command = "ffmpeg -hide_banner -nostdin -v error -y " + inOptions + " '" + inPath + "'";
    ASSERT_EQ(0, std::system(command.c_str())) << command;
}
