#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "platform/ThreadSafety.h"

namespace kelvo::collector {

/// A thread pool that grows on demand: it starts a thread when a task finds no idle one, up to a maximum. A task serves
/// one connection and keeps its thread while the connection is open. Thread-safe.
class Workers {
 public:
  explicit Workers(std::size_t maximum) : maximum_(maximum) {}
  /// `finish` must have been called.
  ~Workers() = default;
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  /// Returns false, without the task, if no thread is free for it.
  [[nodiscard]] bool add(std::function<void()> task) EXCLUDES(mutex_);
  /// Blocks until all tasks, queued ones included, have run and all threads have ended. No `add` may follow.
  void finish() EXCLUDES(mutex_);

 private:
  void work() EXCLUDES(mutex_);

  const std::size_t maximum_;
  Mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> queue_ GUARDED_BY(mutex_);
  std::vector<std::thread> threads_ GUARDED_BY(mutex_);
  std::size_t idle_ GUARDED_BY(mutex_) = 0;
  bool finishing_ GUARDED_BY(mutex_) = false;
};

}  // namespace kelvo::collector
