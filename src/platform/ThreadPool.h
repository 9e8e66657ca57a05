#pragma once

#include <functional>

#include "platform/Clock.h"

/// The two threads that run the tasks of all queues, and the timers. They start at the first use.
///
/// A thread that is awake takes on all work that it finds. So new work wakes at most one thread, and none while a woken
/// one is still on its way: that one then wakes the other if there is more than one thread's work. An idle pool sleeps
/// until the next alarm. Thread-safe. Must not be used in a forked child.
namespace kelvo::pool {

/// Runs `task`, which must not throw, on a pool thread.
void post(std::function<void()> task);

/// Runs `errand` on a pool thread that has been woken, before its next task. Returns false, without an effect, if no
/// thread sleeps or is being woken. `errand` must be short and must not throw; the pool keeps only the latest one.
[[nodiscard]] bool runOnWaking(void (*errand)());

/// While it lives, tasks that the calling pool thread posts wake no other thread: this one takes them on. For the rest
/// of a queue's task that blocks nowhere and runs no code of the host. Has no effect on other threads.
class ShortTask {
 public:
  ShortTask() noexcept;
  ShortTask(const ShortTask&) = delete;
  ShortTask& operator=(const ShortTask&) = delete;
  ~ShortTask();
};

/// For a queue that runs several tasks in turn: lives while one of them runs. The thread now has something else to do,
/// so another one is woken for what a short task has posted.
class NextTask {
 public:
  NextTask();
  NextTask(const NextTask&) = delete;
  NextTask& operator=(const NextTask&) = delete;
  ~NextTask();

 private:
  const bool isInShortTask_;
};

/// Calls `alarm` on a pool thread as soon as `Clock::monotonic()` reaches `deadline`. Replaces the alarm that was set
/// before. `alarm` must be short and must not throw; it may set the next one.
void setAlarm(Clock::Instant deadline, void (*alarm)());

}  // namespace kelvo::pool
