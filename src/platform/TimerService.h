#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "platform/Clock.h"

namespace kelvo {

/// One-shot timers on the thread pool, measured by `Clock::monotonic()`. Wakes no thread while no timer is due.
/// Thread-safe. In a forked child, the functions do nothing.
class TimerService {
 public:
  /// Calls `fire` on a pool thread after `delay`. One timer fires at a time, so `fire` should only submit work to a
  /// queue.
  static void schedule(std::chrono::nanoseconds delay, std::function<void()> fire);

  /// Fires the timers that have become due because a test moved the clock.
  static void clockMoved();
  /// Returns when the next timer is due, nullopt if there is none.
  [[nodiscard]] static std::optional<Clock::Instant> nextDeadline();
};

}  // namespace kelvo
