#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "storage/KLVPersistantStore.h"

namespace kelvo {

/// Owns the data queue and the store that its jobs use. Thread-safe.
///
/// Jobs run one at a time, in the order of submission. Writes that wait side by side share a transaction. Waiting jobs
/// keep this object alive, so accepted work is stored even if the data handler is destroyed first.
class KLVDataHandlerJobs : public std::enable_shared_from_this<KLVDataHandlerJobs> {
 public:
  KLVDataHandlerJobs();

  /// Provides the database. Only the first call has an effect.
  void setStore(std::unique_ptr<KLVPersistantStore> store);
  /// Returns nullptr before `setStore`, and in a forked child, which must not touch the parent's database.
  [[nodiscard]] KLVPersistantStore* store() const noexcept;

  /// Submits a database write. Drops it if there is no store.
  void write(KLVPersistantStore::Job job);
  /// Runs `write` in a transaction of its own, after all jobs submitted before. Returns true once it is committed.
  /// Returns false, after logging why, if it failed or there is no store. Blocks.
  [[nodiscard]] bool writeNow(const KLVPersistantStore::Job& write);
  /// Runs `submit` on the calling thread and collects the writes that it submits into one job and one transaction: a
  /// kill leaves all of them or none. Its other jobs run first. Calls `committed` in that job after the commit.
  void writeTogether(const std::function<void()>& submit, std::function<void()> committed);
  /// Returns the number of submitted writes that have not run yet. Does not count those of `writeTogether`.
  [[nodiscard]] std::size_t waitingWrites() const noexcept { return waitingWrites_.load(std::memory_order_relaxed); }
  /// Submits a job that is not a database write. If it throws, the reason is logged.
  void async(DispatchQueue::Task job);
  /// Runs `job` after all jobs submitted before and returns its result. Blocks. Inside a job, runs it at once.
  template <class F>
  auto sync(F&& job) {
    closeGroup();
    return queue_.sync(std::forward<F>(job));
  }

 private:
  using Group = std::vector<KLVPersistantStore::Job>;
  void perform(const std::shared_ptr<Group>& group);
  void closeGroup();

  DispatchQueue queue_;
  Mutex mutex_;  // never held while a job runs
  /// The newest job on the queue, if it is a group of writes that has not begun: further writes join it.
  std::shared_ptr<Group> openGroup_ GUARDED_BY(mutex_);
  std::unique_ptr<KLVPersistantStore> owned_ GUARDED_BY(mutex_);
  std::atomic<KLVPersistantStore*> store_{nullptr};  // `owned_`, readable without the mutex
  std::atomic<std::size_t> waitingWrites_{0};
};

}  // namespace kelvo
