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

//! An input ended in a failure, or the user asked to stop: what was written until then can still be made a movie.
class EarlyEnd : public CommandError
{
public:
    //! \param inReason    what happened, for a sentence that goes on with what was kept
    //! \param inSentence  the whole sentence where nothing was
    EarlyEnd(const std::string& inReason, const std::string& inSentence)
        : CommandError(ExitCode::kIOFailed, inSentence), mReason(inReason)
    {
    }

    const std::string& GetReason() const { return mReason; }

private:
    std::string mReason;
};

} // namespace Host
