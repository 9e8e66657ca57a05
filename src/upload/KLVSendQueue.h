#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>

#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// Tasks that build and post bodies, first come, first served. At most eight bodies exist at a time: one for each
/// connection that the HTTP client opens to a host, and two so that no connection is ever idle. All else waits as a
/// small task. Thread: the chunk queue.
class KLVSendQueue {
 public:
  using Task = std::function<void()>;
  /// The right of one body to exist. It ends with the last copy, on any thread.
  using Slot = std::shared_ptr<void>;

  explicit KLVSendQueue(DispatchQueue& chunkQueue) : queue_(chunkQueue) {}
  /// `owner` keeps this object and its queue alive while slots end. Call before the first task.
  void setOwner(std::weak_ptr<void> owner) { owner_ = std::move(owner); }

  /// Appends `task`. It runs when all tasks before it have run and a slot is free.
  void enqueue(Task task);
  /// Lets no task run while the result lives, on the chunk queue.
  [[nodiscard]] std::shared_ptr<void> hold();
  /// Takes a slot for the body of the running task. Calls `ended` on the chunk queue once the slot has ended.
  [[nodiscard]] Slot takeSlot(Task ended);

 private:
  void run() REQUIRES(queue_);

  DispatchQueue& queue_;
  std::weak_ptr<void> owner_;
  // Queue: the chunk queue.
  std::deque<Task> tasks_ GUARDED_BY(queue_);
  std::size_t slotsTaken_ GUARDED_BY(queue_) = 0;
  bool isRunning_ GUARDED_BY(queue_) = false;
  unsigned holds_ GUARDED_BY(queue_) = 0;
};

}  // namespace kelvo
