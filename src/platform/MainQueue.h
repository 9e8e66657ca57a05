#pragma once

#include <chrono>
#include <functional>

namespace kelvo {

/// The host's main loop. Until a host hands its own over, a thread of the library stands in for it, started by
/// the first task.
class MainQueue {
 public:
  using Task = std::function<void()>;

  /// `post` must run the task later on the host's main loop and return at once; `isCurrent` says whether the
  /// calling thread is that loop's. Tasks that waited for the library's own loop go over to the host's.
  /// Two empty functions give the loop back to the library.
  static void handOver(std::function<void(Task)> post, std::function<bool()> isCurrent);

  static void async(Task task);
  [[nodiscard]] static bool isCurrent();
  /// Runs `task` on the main loop and waits for it; at once when called from there. What it throws reaches the
  /// caller. When the host's loop drops the task unrun, a problem is reported and the caller goes on.
  static void sync(const std::function<void()>& task);

  /// Calls `task` on the main loop every `interval` for the life of the process. A tick that is due while the one
  /// before still waits in the loop is left out.
  static void repeatEvery(std::chrono::nanoseconds interval, Task task);
};

}  // namespace kelvo
