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
/// Bounds the age of the data that other readers of the file see during a transaction, and the work that a failure
/// repeats.
constexpr std::ptrdiff_t kWritesPerTransaction = 512;

/// Collects this thread's writes during `writeTogether`, else nullptr.
thread_local std::vector<KLVPersistantStore::Job>* together = nullptr;

}  // namespace

KLVDataHandlerJobs::KLVDataHandlerJobs() : queue_(kKLVDataMonitoringQueue) {}

void KLVDataHandlerJobs::setStore(std::unique_ptr<KLVPersistantStore> store) {
  const Lock lock(mutex_);
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
  const Lock lock(mutex_);
  if (!openGroup_) {
    openGroup_ = std::make_shared<Group>();
    queue_.async([self = shared_from_this(), group = openGroup_] { self->perform(group); });
  }
  openGroup_->push_back(std::move(job));
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
  async([self = shared_from_this(), group = std::move(group), committed = std::move(committed)] {
    auto* target = self->store();
    if (target != nullptr && target->performTogether(group) && committed) committed();
  });
}

void KLVDataHandlerJobs::perform(const std::shared_ptr<Group>& group) {
  {
    const Lock lock(mutex_);
    if (openGroup_ == group) openGroup_.reset();
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
