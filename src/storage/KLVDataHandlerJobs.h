#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "storage/KLVPersistantStore.h"

namespace kelvo {

/// The jobs of one data handler, and the store they work on. Jobs that wait keep it alive, so that what was
/// accepted is stored even when the handler has gone.
///
/// Jobs run one at a time, in the order of their submission. Database writes that wait side by side share a
/// transaction.
class KLVDataHandlerJobs : public std::enable_shared_from_this<KLVDataHandlerJobs> {
 public:
  KLVDataHandlerJobs();

  /// From now on there is a database. Only the first one counts.
  void setStore(std::unique_ptr<KLVPersistantStore> store);
  /// nullptr before there is one, and in a forked child, which must leave the parent's database alone.
  [[nodiscard]] KLVPersistantStore* store() const noexcept;

  /// Submits a database write; dropped when there is no store.
  void write(KLVPersistantStore::Job job);
  /// The writes that `submit` submits on this thread become one job and one transaction: all of them survive a kill,
  /// or none. Other jobs that it submits come before.
  void writeTogether(const std::function<void()>& submit);
  /// Those of `write` that are not done yet.
  [[nodiscard]] std::size_t waitingWrites() const noexcept { return waitingWrites_.load(std::memory_order_relaxed); }
  /// Submits any other job. One that throws is logged with the reason.
  void async(DispatchQueue::Task job);
  /// Runs `job` after all that was submitted before, and returns its result; at once from inside a job.
  template <class F>
  auto sync(F&& job) {
    seal();
    return queue_.sync(std::forward<F>(job));
  }

 private:
  using Group = std::vector<KLVPersistantStore::Job>;
  void perform(const std::shared_ptr<Group>& group);
  void seal();

  DispatchQueue queue_;
  std::mutex mutex_;             // never held while a job runs
  std::shared_ptr<Group> open_;  // the newest job on the queue, while it is a group that has not begun
  std::unique_ptr<KLVPersistantStore> owned_;
  std::atomic<KLVPersistantStore*> store_{nullptr};
  std::atomic<std::size_t> waitingWrites_{0};
};

}  // namespace kelvo
