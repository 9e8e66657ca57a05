#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kelvo::bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Returns the time, in seconds, that the program which started this process can compare with its own.
double now();

/// Blocks until `condition` holds; checks it every `interval`. Ends the process after ten minutes.
void waitFor(const std::function<bool()>& condition,
             std::chrono::microseconds interval = std::chrono::microseconds(200));

/// Returns the user and system time of this process, in seconds.
double cpuSeconds();

/// Calls `operation` with each number below `count`, with a `pause` before each call. Returns each call's duration in
/// microseconds, shortest first.
std::vector<double> durations(std::size_t count, std::chrono::microseconds pause,
                              const std::function<void(std::size_t number)>& operation);

/// Prints "key value" for the program that started this process.
void printFigure(const std::string& key, double value);
/// Ends the process at once. Its exit hooks do not run, so the bench does not measure them.
[[noreturn]] void endWith(int status);
/// Prints the figures p50, p99 and p999. `sorted`: not empty.
void printPercentiles(const std::vector<double>& sorted);

}  // namespace kelvo::bench
