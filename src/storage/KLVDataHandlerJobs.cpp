#include "storage/KLVDataHandlerJobs.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <string>

#include "journal/KLVJournal.h"
#include "platform/Thread.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr const char* kKLVDataMonitoringQueue = "com.kelvo.serial.datamonitoring";
/// Bounds the age of the data that other readers of the file see during a transaction, and the work that a failure
/// repeats.
constexpr std::ptrdiff_t kWritesPerTransaction = 512;

/// Collects this thread's writes during `writeTogether`, else nullptr.
thread_local KLVDataHandlerJobs::Group* together = nullptr;

}  // namespace

KLVDataHandlerJobs::KLVDataHandlerJobs() : queue_(kKLVDataMonitoringQueue) {}

void KLVDataHandlerJobs::setStore(std::unique_ptr<KLVPersistantStore> store) {
  const Lock lock(mutex_);
  if (owned_) return;
  owned_ = std::move(store);
  store_.store(owned_.get(), std::memory_order_release);
}

KLVPersistantStore* KLVDataHandlerJobs::store() const noexcept {
  return isRetired_ || inForkedChild() ? nullptr : store_.load(std::memory_order_acquire);
}

void KLVDataHandlerJobs::Group::add(KLVPersistantStore::Job job, std::uint64_t eventsOfJob) {
  jobs.push_back(std::move(job));
  events += eventsOfJob;
}

void KLVDataHandlerJobs::Group::drop() const {
  KLVLedger::shared().add(KLVLedgerEntry::notStored, events);
}

void KLVDataHandlerJobs::write(KLVPersistantStore::Job job, std::uint64_t events) {
  if (store() == nullptr) return KLVLedger::shared().add(KLVLedgerEntry::notStored, events);
  if (together != nullptr) return together->add(std::move(job), events);
  const Lock lock(mutex_);
  if (!openGroup_) {
    openGroup_ = std::make_shared<Group>();
    queue_.async([self = shared_from_this(), group = openGroup_] { self->perform(group); });
  }
  openGroup_->add(std::move(job), events);
  waitingWrites_.fetch_add(1, std::memory_order_relaxed);
}

bool KLVDataHandlerJobs::writeNow(const KLVPersistantStore::Job& write) {
  return sync([&] {
    auto* target = store();
    return target != nullptr && target->performTogether({write});
  });
}

void KLVDataHandlerJobs::writeTogether(const std::function<void()>& submit, std::function<void()> committed) {
  Group group;
  {
    struct Collecting {
      explicit Collecting(Group& into) { together = &into; }
      ~Collecting() { together = nullptr; }
    } const collecting(group);
    submit();
  }
  asyncAlways([self = shared_from_this(), group = std::move(group), committed = std::move(committed)] {
    auto* target = self->store();
    if (target == nullptr) return group.drop();
    if (target->performTogether(group.jobs) && committed) committed();
  });
}

void KLVDataHandlerJobs::perform(const std::shared_ptr<Group>& group) {
  {
    const Lock lock(mutex_);
    if (openGroup_ == group) openGroup_.reset();
  }
  auto* target = store();
  if (target == nullptr) return group->drop();
  auto& jobs = group->jobs;
  for (auto next = jobs.begin(); next != jobs.end();) {
    const auto count = std::min(kWritesPerTransaction, std::distance(next, jobs.end()));
    const auto last = next + count;
    target->performGrouped({std::make_move_iterator(next), std::make_move_iterator(last)});
    waitingWrites_.fetch_sub(static_cast<std::size_t>(count), std::memory_order_relaxed);
    next = last;
  }
}

void KLVDataHandlerJobs::whenGrown(std::uint64_t bytes, std::function<void()> report) {
  const Lock lock(mutex_);
  reportGrowth_ = std::move(report);
  reportedAt_ = bytes;
}

void KLVDataHandlerJobs::grow(std::uint64_t bytes) {
  const std::uint64_t reportedAt = reportedAt_.load(std::memory_order_relaxed);
  if (reportedAt == 0 || grown_.fetch_add(bytes, std::memory_order_relaxed) + bytes < reportedAt) return;
  grown_ = 0;
  Lock lock(mutex_);
  const auto report = reportGrowth_;
  lock.unlock();
  report();
}

void KLVDataHandlerJobs::settleFile(std::string_view file, const KLVWaitingCalls& calls, bool isSaved) {
  queue_.assertCurrent();
  for (const KLVWaitingCall& call : calls) {
    if (isSaved) {
      call.finish();
    } else if (const auto sequence = call.sequence(); sequence != 0) {
      unsaved_[std::string(file)].push_back(sequence);
      call.leaveToNextLaunch();
    }
  }
  const auto earlier = isSaved ? unsaved_.find(file) : unsaved_.end();
  if (earlier == unsaved_.end()) return;
  for (const auto sequence : earlier->second) KLVJournal::shared().finish(sequence);
  unsaved_.erase(earlier);
}

void KLVDataHandlerJobs::async(DispatchQueue::Task job) {
  asyncAlways([self = shared_from_this(), job = std::move(job)] {
    if (!self->isRetired_) job();
  });
}

void KLVDataHandlerJobs::retire(std::function<void()> done) {
  isRetired_ = true;
  asyncAlways([self = shared_from_this(), done = std::move(done)] {
    if (auto* store = self->store_.load(std::memory_order_acquire)) store->retire();
    done();
  });
}

void KLVDataHandlerJobs::asyncAlways(DispatchQueue::Task job) {
  if (inForkedChild()) return;
  const Lock lock(mutex_);
  openGroup_.reset();
  queue_.async([job = std::move(job)] {
    try {
      job();
    } catch (const std::exception& error) {
      KLV_ERROR("{}", error.what());
    }
  });
}

void KLVDataHandlerJobs::closeGroup() {
  if (inForkedChild()) return;  // another thread of the parent may have held the mutex at the fork
  const Lock lock(mutex_);
  openGroup_.reset();
}

}  // namespace kelvo
