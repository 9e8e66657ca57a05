#pragma once

#include <chrono>
#include <cstddef>

namespace kelvo::log {

using Deadline = std::chrono::steady_clock::time_point;
Deadline deadlineIn(std::chrono::duration<double> seconds);

/// Waits until the library's start-up has ended, enabled or terminated; false when it has not by `deadline`.
bool waitUntilStarted(Deadline deadline);

/// Waits until all that was played so far is stored, or buffered as long as the start-up lasts.
void waitUntilStored();

/// The same, but lets a start-up end first, however long it takes, so that nothing piles up in memory.
void keepPace();

/// Waits until all chunks, those of earlier launches included, are accepted, nothing more is under way, or `deadline`
/// has come. The number of chunks that wait for the next launch.
std::size_t chunksLeftBehind(Deadline deadline);
/// Whether the library's own first event was stored: it comes before all that is played.
bool storedFirstEvent();

}  // namespace kelvo::log
