#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kelvo::collector {

/// Threads that are made when a task comes and none is free, up to a number; later tasks wait. A connection keeps its
/// thread while it is open, and an open page keeps several connections.
class Workers {
 public:
  explicit Workers(std::size_t most) : most_(most) {}
  /// `finish` must have been called.
  ~Workers() = default;
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  void add(std::function<void()> task);
  /// Does what waits, then joins.
  void finish();

 private:
  void work();

  const std::size_t most_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<std::function<void()>> waiting_;
  std::vector<std::thread> threads_;
  std::size_t free_ = 0;
  bool finishing_ = false;
};

}  // namespace kelvo::collector
