#pragma once

#include <cassert>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/ThreadSafety.h"

namespace kelvo {

/// A queue of tasks on the library's one small thread pool.
///
/// A serial queue runs its tasks one at a time in the order of submission, `sync` included. A concurrent queue runs
/// each task as soon as a pool thread is free, and `sync` at once. Destroying the handle does not cancel tasks: waiting
/// tasks still run. An exception from an asynchronous task ends only that task and is reported as a problem. An
/// exception from a synchronous task reaches the caller of `sync`.
///
/// All functions are thread-safe. In a forked child, `async` and `after` drop their tasks, and `sync` runs its task at
/// once.
///
/// The queue is a capability: a field that is `GUARDED_BY(queue_)` is used only by tasks of the queue. A task or a
/// function that uses such a field calls `queue_.assertCurrent()` first.
class CAPABILITY("queue") DispatchQueue {
 public:
  enum class Kind { serial, concurrent };
  using Task = std::function<void()>;

  /// `label` appears in problem reports.
  explicit DispatchQueue(std::string label, Kind kind = Kind::serial);
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  ~DispatchQueue();

  /// Submits `task` and returns at once.
  void async(Task task);

  /// Runs `task` on the calling thread, after all tasks submitted earlier, and returns its result. Blocks until then.
  /// Needs no pool thread: if no thread drains the queue, the caller runs the earlier tasks first. Meanwhile a limit on
  /// the size of files causes errors, but no signal (see FileLimitShield).
  /// Inside a task of this serial queue, `task` runs at once, because waiting would never end.
  template <class F>
  auto sync(F&& task) -> std::invoke_result_t<F&> {
    using Result = std::invoke_result_t<F&>;
    if constexpr (std::is_void_v<Result>) {
      runSync([&] { task(); });
    } else {
      std::optional<Result> result;
      runSync([&] { result.emplace(task()); });
      return *std::move(result);
    }
  }

  /// Submits `task` after `delay`, and returns at once.
  void after(std::chrono::nanoseconds delay, Task task);

  /// Returns whether the calling thread is inside a task of this queue.
  [[nodiscard]] bool isCurrent() const noexcept;

  /// Returns whether the calling thread is inside a task of any queue.
  [[nodiscard]] static bool isInsideTask() noexcept;

  /// Aborts in a debug build if the calling thread is not inside a task of this queue. A release build does nothing.
  void assertCurrent() const noexcept ASSERT_CAPABILITY(this) { assert(isCurrent()); }

  /// Returns a concurrent queue for tasks that belong to no other queue.
  static DispatchQueue& global();

 private:
  struct State;
  void runSync(const std::function<void()>& task);
  std::shared_ptr<State> state_;
};

}  // namespace kelvo
