#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
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
  /// Writes that share a transaction.
  struct Group {
    std::vector<KLVPersistantStore::Job> jobs;
    std::uint64_t events = 0;  ///< that the jobs would store
    void add(KLVPersistantStore::Job job, std::uint64_t eventsOfJob);
    void drop() const;  ///< the ledger counts the events as not stored
  };

  KLVDataHandlerJobs();

  /// Provides the database. Only the first call has an effect.
  void setStore(std::unique_ptr<KLVPersistantStore> store);
  /// Returns nullptr before `setStore`, after `retire`, and in a forked child, which must not touch the parent's
  /// database.
  [[nodiscard]] KLVPersistantStore* store() const noexcept;

  /// Submits a database write that stores `events` events. Drops it if there is no store.
  void write(KLVPersistantStore::Job job, std::uint64_t events = 0);
  /// Runs `write` in a transaction of its own, after all jobs submitted before. Returns true once it is committed.
  /// Returns false, after logging why, if it failed or there is no store. Blocks.
  [[nodiscard]] bool writeNow(const KLVPersistantStore::Job& write);
  /// Runs `submit` on the calling thread and collects the writes that it submits into one job and one transaction: a
  /// kill leaves all of them or none. Its other jobs run first. Calls `committed` in that job after the commit.
  void writeTogether(const std::function<void()>& submit, std::function<void()> committed);
  /// Returns the number of submitted writes that have not run yet. Does not count those of `writeTogether`.
  [[nodiscard]] std::size_t waitingWrites() const noexcept { return waitingWrites_.load(std::memory_order_relaxed); }
  /// Notes that about `bytes` will be stored.
  void grow(std::uint64_t bytes);
  void whenGrown(std::uint64_t bytes, std::function<void()> report);
  /// Submits a job that is not a database write. If it throws, the reason is logged. Drops it after `retire`.
  void async(DispatchQueue::Task job);
  /// The same for a job that writes nothing: it always runs.
  void asyncAlways(DispatchQueue::Task job);
  /// Finishes `calls`, whose attributes are in `file`, and earlier ones of it. If it is not saved, leaves them
  /// unfinished until it is. On the data queue.
  void settleFile(std::string_view file, const KLVWaitingCalls& calls, bool isSaved);
  /// From now on drops every write, those that wait included. Closes the database after the running job, and then calls
  /// `done` on the data queue.
  void retire(std::function<void()> done);
  /// Runs `job` after all jobs submitted before and returns its result. Blocks. Inside a job, runs it at once.
  template <class F>
  auto sync(F&& job) {
    closeGroup();
    return queue_.sync(std::forward<F>(job));
  }

 private:
  void perform(const std::shared_ptr<Group>& group);
  void closeGroup();

  DispatchQueue queue_;
  Mutex mutex_;  // never held while a job runs
  /// The newest job on the queue, if it is a group of writes that has not begun: further writes join it.
  std::shared_ptr<Group> openGroup_ GUARDED_BY(mutex_);
  std::unique_ptr<KLVPersistantStore> owned_ GUARDED_BY(mutex_);
  std::atomic<KLVPersistantStore*> store_{nullptr};  // `owned_`, readable without the mutex
  std::atomic<std::size_t> waitingWrites_{0};
  std::atomic<std::uint64_t> grown_{0};       // bytes since the last report
  std::atomic<std::uint64_t> reportedAt_{0};  // bytes; 0: nobody wants a report
  std::function<void()> reportGrowth_ GUARDED_BY(mutex_);
  std::atomic<bool> isRetired_{false};
  /// The entries in the journal whose attributes are in files that could not be saved.
  std::map<std::string, std::vector<std::uint64_t>, std::less<>> unsaved_ GUARDED_BY(queue_);
};

}  // namespace kelvo
