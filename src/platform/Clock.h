#pragma once

#include <atomic>
#include <chrono>
#include <future>

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

  /// For tests: moves both times forward by `step`. Timers that become due fire at once. In the build for tests, fires
  /// them in order, each at its own time, and waits for the work that each of them causes.
  static void advance(Duration step);

  /// Blocks until `future` is ready, for `limit` at most. Returns whether it is ready.
  template <class Result>
  [[nodiscard]] static bool waitFor(const std::future<Result>& future, Duration limit) {
    const auto isReadyWithin = [&](Duration time) { return future.wait_for(time) == std::future_status::ready; };
    return isReadyWithin(inRealTime(Duration::zero())) || isReadyWithin(inRealTime(limit));
  }

 private:
  /// Returns how long a thread must sleep for `time` to pass. In the build for tests, lets the time pass by itself, and
  /// returns 0.
  static Duration inRealTime(Duration time);

  static std::atomic<Duration::rep> offset_;
};

}  // namespace kelvo
