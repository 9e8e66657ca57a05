#pragma once

#include <chrono>
#include <functional>

namespace kelvo {

/// One-shot timers on the thread pool, counted by `Clock::monotonic()`. An idle service wakes nothing up.
class TimerService {
 public:
  /// Calls `fire` on a pool thread once `delay` has passed. It should only hand work to a queue.
  static void schedule(std::chrono::nanoseconds delay, std::function<void()> fire);

  /// Looks at the clock again, after a test has moved it.
  static void clockMoved();
};

}  // namespace kelvo
