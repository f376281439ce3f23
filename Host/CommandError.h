#pragma once

#include <stdexcept>
#include <string>

namespace Host
{

//! How the command ends, as its exit status.
enum class ExitCode : int
{
    kDone = 0,
    kUsage = 1,             //!< The command line is wrong.
    kInputRefused = 2,      //!< The input cannot be written as asked; nothing was written.
    kIOFailed = 3,          //!< Reading or writing failed.
    kVerificationFailed = 4 //!< A file that was checked is not sound.
};

//! Ends the command. `what()` is one sentence that says what happened, to which file or option, and what to do.
class CommandError : public std::runtime_error
{
public:
    CommandError(ExitCode inExitCode, const std::string& inSentence)
        : std::runtime_error(inSentence), mExitCode(inExitCode)
    {
    }

    ExitCode GetExitCode() const { return mExitCode; }

private:
    ExitCode mExitCode;
};

} // namespace Host
