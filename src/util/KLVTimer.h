#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "kelvo/Value.h"

namespace kelvo {

/// The library's two time bases, and its repeating timers on the main loop. Thread-safe.
class KLVTimer {
 public:
  static KLVTimer& sharedTimer();

  void setSDKStartTime(Date start) noexcept { start_.store(start.time_since_epoch().count()); }
  [[nodiscard]] Date SDKStartTime() const noexcept { return Date(Date::duration(start_.load())); }

  /// Returns the whole seconds since the SDK start time, truncated towards zero. Events carry this time.
  [[nodiscard]] std::int64_t currentTime() const;
  /// The same at `when`.
  [[nodiscard]] std::int64_t timeAt(Date when) const;
  /// Returns the milliseconds since 1970, truncated: the unit of launch, start, reporting and installation times.
  [[nodiscard]] std::int64_t currentTimeInMillis() const;

  /// Calls `closure` on the main loop every `interval` seconds for the life of the process. It cannot be cancelled.
  /// Does nothing if `interval` is NaN, zero or negative.
  void registerForTimerNotificationWithInterval(double interval, std::function<void()> closure);

 private:
  std::atomic<Date::rep> start_{0};  // ticks of Date since 1970
};

}  // namespace kelvo
