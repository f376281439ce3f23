#pragma once

#include <iosfwd>
#include <string>

namespace CLI
{
class App;
}

namespace Host
{

// All of these are made from the command's own table of options, so that none can fall behind it.

//! The help of a subcommand, or of the whole command when `inName` is empty, with examples.
//!
//! Throws CommandError with `kUsage` when there is no such subcommand.
void PrintHelp(const CLI::App& inApp, const std::string& inName, std::ostream& out);

//! The manual page, for man(1).
void PrintManualPage(const CLI::App& inApp, const std::string& inVersion, std::ostream& out);

//! Tab completion for bash, to be sourced.
void PrintBashCompletion(const CLI::App& inApp, std::ostream& out);

} // namespace Host
