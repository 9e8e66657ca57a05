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
/// A serial queue runs its tasks one at a time in the order of submission, `sync` included. A concurrent queue
/// runs each task as soon as a pool thread is free, and `sync` at once. The handle may die while tasks wait:
/// they still run. An exception that leaves an asynchronous task ends that task only and is reported as a
/// problem; one that leaves a synchronous task reaches the caller of `sync`.
///
/// In a forked child, tasks handed over are dropped and `sync` runs its task at once.
///
/// The queue is a capability: a field that is `GUARDED_BY(queue_)` is used only by tasks of the queue. A task or a
/// function that uses such a field calls `queue_.assertCurrent()` first.
class CAPABILITY("queue") DispatchQueue {
 public:
  enum class Kind { serial, concurrent };
  using Task = std::function<void()>;

  explicit DispatchQueue(std::string label, Kind kind = Kind::serial);
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  ~DispatchQueue();

  [[nodiscard]] const std::string& label() const noexcept;

  void async(Task task);

  /// Runs `task` on the calling thread after all that was submitted before, and returns its result. Needs no
  /// pool thread: when nobody drains the queue, the caller does, earlier tasks first.
  /// From inside a task of this serial queue, where waiting could never end, it runs at once.
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

  /// Submits `task` once `delay` has passed.
  void after(std::chrono::nanoseconds delay, Task task);

  /// Whether the calling thread is inside a task of this queue.
  [[nodiscard]] bool isCurrent() const noexcept;

  /// Aborts in a debug build if the calling thread is not inside a task of this queue. A release build does nothing.
  void assertCurrent() const noexcept ASSERT_CAPABILITY(this) { assert(isCurrent()); }

  /// The concurrent queue of default priority that nobody owns.
  static DispatchQueue& global();

 private:
  struct State;
  void runSync(const std::function<void()>& task);
  std::shared_ptr<State> state_;
};

}  // namespace kelvo
