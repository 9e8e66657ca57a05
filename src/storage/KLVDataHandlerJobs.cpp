#include "storage/KLVDataHandlerJobs.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <string>

#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr const char* kKLVDataMonitoringQueue = "com.kelvo.serial.datamonitoring";
/// Bounds how long a transaction keeps other readers of the file on old data, and what a failure makes run again.
constexpr std::ptrdiff_t kWritesPerTransaction = 512;

/// Where this thread's writes go while it submits some that belong together.
thread_local std::vector<KLVPersistantStore::Job>* together = nullptr;

}  // namespace

KLVDataHandlerJobs::KLVDataHandlerJobs() : queue_(kKLVDataMonitoringQueue) {}

void KLVDataHandlerJobs::setStore(std::unique_ptr<KLVPersistantStore> store) {
  const std::lock_guard lock(mutex_);
  if (owned_) return;
  owned_ = std::move(store);
  store_.store(owned_.get(), std::memory_order_release);
}

KLVPersistantStore* KLVDataHandlerJobs::store() const noexcept {
  return inForkedChild() ? nullptr : store_.load(std::memory_order_acquire);
}

void KLVDataHandlerJobs::write(KLVPersistantStore::Job job) {
  if (store() == nullptr) return;
  if (together != nullptr) return together->push_back(std::move(job));
  const std::lock_guard lock(mutex_);
  if (!open_) {
    open_ = std::make_shared<Group>();
    queue_.async([self = shared_from_this(), group = open_] { self->perform(group); });
  }
  open_->push_back(std::move(job));
  waitingWrites_.fetch_add(1, std::memory_order_relaxed);
}

void KLVDataHandlerJobs::writeTogether(const std::function<void()>& submit) {
  Group group;
  {
    struct Collecting {
      explicit Collecting(Group& into) { together = &into; }
      ~Collecting() { together = nullptr; }
    } const collecting(group);
    submit();
  }
  async([self = shared_from_this(), group = std::move(group)] {
    if (auto* target = self->store()) target->performTogether(group);
  });
}

void KLVDataHandlerJobs::perform(const std::shared_ptr<Group>& group) {
  {
    const std::lock_guard lock(mutex_);
    if (open_ == group) open_.reset();
  }
  auto* target = store();
  if (target == nullptr) return;
  for (auto next = group->begin(); next != group->end();) {
    const auto count = std::min(kWritesPerTransaction, std::distance(next, group->end()));
    const auto last = next + count;
    target->performGrouped(Group(std::make_move_iterator(next), std::make_move_iterator(last)));
    waitingWrites_.fetch_sub(static_cast<std::size_t>(count), std::memory_order_relaxed);
    next = last;
  }
}

void KLVDataHandlerJobs::async(DispatchQueue::Task job) {
  if (inForkedChild()) return;
  const std::lock_guard lock(mutex_);
  open_.reset();
  queue_.async([job = std::move(job)] {
    try {
      job();
    } catch (const std::exception& error) {
      KLV_ERROR("{}", error.what());
    }
  });
}

void KLVDataHandlerJobs::seal() {
  if (inForkedChild()) return;  // the lock may be held for ever
  const std::lock_guard lock(mutex_);
  open_.reset();
}

}  // namespace kelvo
