#pragma once

#include <iosfwd>

namespace Host
{

//! Runs the `reelmill` command as a process would and returns its exit status (see ExitCode). Results go to `out`;
//! progress, notes and errors go to `err`. Throws nothing.
int RunCommand(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace Host
