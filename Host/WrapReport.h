#pragma once

#include "Wrap.h"

#include <iosfwd>
#include <string>

namespace Host
{

//! For people: what `wrap` has written, or would write.
void PrintSummary(const WrapSummary& inSummary, std::ostream& out);
void PrintPrediction(const WrapPrediction& inPrediction, std::ostream& out);

//! The same for programs, as one JSON object. Each has the exit status and the sentences of what went wrong.
void PrintSummaryJson(const WrapSummary& inSummary, std::ostream& out);
void PrintPredictionJson(const WrapPrediction& inPrediction, std::ostream& out);
void PrintFailureJson(ExitCode inExitCode, const std::string& inSentence, std::ostream& out);

} // namespace Host
