#pragma once

namespace Host
{

//! Asks what is running to end soon and to clean up. May be called by a signal handler. Returns whether somebody had
//! asked before.
bool RequestStop() noexcept;

//! Throws EarlyEnd once somebody has asked to stop.
void ThrowIfStopRequested();

//! Forgets it, for whoever runs several commands in a process.
void ForgetStop() noexcept;

} // namespace Host
