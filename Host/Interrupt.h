#pragma once

namespace Host
{

//! Asks what is running to end soon and to clean up. May be called by a signal handler.
void RequestStop() noexcept;

//! Throws CommandError once somebody has asked to stop.
void ThrowIfStopRequested();

} // namespace Host
