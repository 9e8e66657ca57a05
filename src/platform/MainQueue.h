#pragma once

#include <chrono>
#include <functional>

namespace kelvo {

/// The queue of the host's main loop. Until the host hands over its loop, a thread of the library runs the tasks; the
/// first task starts that thread. All functions are thread-safe. In a forked child they do nothing.
class MainQueue {
 public:
  using Task = std::function<void()>;

  /// Makes the host's loop the main queue. `post` must return at once and run the task later on the host's loop.
  /// `isCurrent` must return whether the calling thread runs that loop. Tasks that still wait for the library's loop
  /// move to the host's loop. Two empty functions make the library's loop the main queue again.
  static void handOver(std::function<void(Task)> post, std::function<bool()> isCurrent);

  /// Submits `task` and returns at once. Tasks run in the order of submission.
  static void async(Task task);

  /// Returns whether the calling thread runs the main loop.
  [[nodiscard]] static bool isCurrent();

  /// Returns whether the calling thread is inside a task of this queue.
  [[nodiscard]] static bool isInsideTask() noexcept;

  /// Calls `task` on the main loop every `interval`, until the process ends. Skips a tick while the previous tick still
  /// waits in the loop.
  static void repeatEvery(std::chrono::nanoseconds interval, Task task);
};

}  // namespace kelvo
