#pragma once

#include "CommandError.h"
#include "Interrupt.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace Host
{

//! What keeps a subcommand from doing its work. A real run ends with the first; a dry run collects them all.
class Refusals
{
public:
    explicit Refusals(bool inCollects) : mCollects(inCollects) {}

    //! Runs a step and returns whether it was done. What the step throws as a CommandError is kept in a dry run, but
    //! for an interruption; whatever depends on the step must then be left out.
    template <typename Step>
    bool Try(const Step& inStep)
    {
        if (!mCollects)
        {
            inStep();
            return true;
        }
        try
        {
            inStep();
            return true;
        }
        catch (const CommandError& error)
        {
            ThrowIfStopRequested();
            Add(error);
            return false;
        }
    }

    //! Throws the error, or keeps it in a dry run.
    void Refuse(const CommandError& inError)
    {
        Try([&] { throw inError; });
    }

    //! Keeps a refusal unless its sentence is there already.
    void Add(const CommandError& inError)
    {
        const auto isSame = [&](const CommandError& inOther) {
            return std::string_view(inOther.what()) == inError.what();
        };
        if (std::none_of(mErrors.begin(), mErrors.end(), isSame))
        {
            mErrors.push_back(inError);
        }
    }

    bool IsEmpty() const { return mErrors.empty(); }
    const std::vector<CommandError>& GetErrors() const { return mErrors; }

private:
    bool mCollects;
    std::vector<CommandError> mErrors;
};

} // namespace Host
