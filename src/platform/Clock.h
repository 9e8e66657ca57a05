#pragma once

#include <atomic>
#include <chrono>

#include "kelvo/Value.h"

namespace kelvo {

/// The library's only source of time. Thread-safe.
class Clock {
 public:
  using Duration = std::chrono::nanoseconds;
  using Instant = std::chrono::steady_clock::time_point;

  /// Returns the wall-clock time.
  static Date now();
  /// Returns the time of a clock that never goes backwards. Timers use it.
  static Instant monotonic();

  /// For tests: moves both times forward by `step`. Timers that become due fire at once.
  static void advance(Duration step);

 private:
  static std::atomic<Duration::rep> offset_;
};

}  // namespace kelvo
