#pragma once

#include <atomic>
#include <chrono>

#include "kelvo/Value.h"

namespace kelvo {

/// The time that all of the library sees. A test moves it forward; timers that fall due by that fire at once.
class Clock {
 public:
  using Duration = std::chrono::nanoseconds;
  using Instant = std::chrono::steady_clock::time_point;

  /// The wall clock.
  static Date now();
  /// Never goes backwards; what timers count by.
  static Instant monotonic();

  /// For tests: adds `step` to both times.
  static void advance(Duration step);

 private:
  static std::atomic<Duration::rep> offset_;
};

}  // namespace kelvo
