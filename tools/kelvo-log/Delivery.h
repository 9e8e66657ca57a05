#pragma once

#include <chrono>
#include <cstddef>

namespace kelvo::log {

using Deadline = std::chrono::steady_clock::time_point;
/// Returns the time in `seconds` from now. Very long durations are shortened to about 31 years.
Deadline deadlineIn(std::chrono::duration<double> seconds);

/// Blocks until the library's start-up has ended, enabled or terminated. Returns false if `deadline` passes first.
bool waitUntilStarted(Deadline deadline);

/// Blocks until all calls so far are stored. During the start-up, buffered calls count as stored.
void waitUntilStored();

/// Blocks until the start-up has ended and all calls so far are stored. Called between the lines of a long input, so
/// that the calls do not pile up in memory.
void keepPace();

/// Blocks until all cut chunks are posted and no request is running, or `deadline` passes. Returns the number of chunks
/// that wait for the next launch; earlier launches' chunks count, too.
std::size_t chunksLeftBehind(Deadline deadline);
/// Returns true if the library's own first event is stored. The library logs it before any played event.
bool storedFirstEvent();

}  // namespace kelvo::log
