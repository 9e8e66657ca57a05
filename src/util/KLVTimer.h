#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "kelvo/Value.h"

namespace kelvo {

/// The library's two time bases, and its repeating timers on the main loop.
class KLVTimer {
 public:
  static KLVTimer& sharedTimer();

  void setSDKStartTime(Date start) noexcept { start_.store(start.time_since_epoch().count()); }
  [[nodiscard]] Date SDKStartTime() const noexcept { return Date(Date::duration(start_.load())); }

  /// Whole seconds since the SDK start date, truncated towards zero: the time of events.
  [[nodiscard]] std::int64_t currentTime() const;
  /// Milliseconds since 1970, truncated: launch, start, reporting and installation times.
  [[nodiscard]] std::int64_t currentTimeInMillis() const;

  /// Calls `closure` on the main loop every `interval` seconds for the life of the process; there is no way to
  /// cancel it. An interval that is not above zero schedules nothing.
  void registerForTimerNotificationWithInterval(double interval, std::function<void()> closure);

 private:
  std::atomic<Date::rep> start_{0};
};

}  // namespace kelvo
