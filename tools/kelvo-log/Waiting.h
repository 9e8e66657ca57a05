#pragma once

#include <chrono>

namespace kelvo::log {

using Deadline = std::chrono::steady_clock::time_point;
/// Returns the time in `seconds` from now. Very long durations are shortened to about 31 years.
Deadline deadlineIn(std::chrono::duration<double> seconds);

/// Blocks until the library's start-up has ended, enabled or terminated. Returns false if `deadline` passes first.
bool waitUntilStarted(Deadline deadline);

/// Blocks until all calls so far are stored. During the start-up, buffered calls count as stored.
void waitUntilStored();

}  // namespace kelvo::log
