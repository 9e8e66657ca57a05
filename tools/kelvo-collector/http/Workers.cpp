#include "kelvo-collector/http/Workers.h"

#include <system_error>
#include <utility>

namespace kelvo::collector {

bool Workers::add(std::function<void()> task) {
  const Lock lock(mutex_);
  if (idle_ <= queue_.size()) {
    if (threads_.size() >= maximum_) return false;
    try {
      threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {  // the system refuses another thread
      return false;
    }
    ++idle_;  // the new thread
  }
  queue_.push_back(std::move(task));
  changed_.notify_one();
  return true;
}

void Workers::finish() {
  std::vector<std::thread> threads;
  {
    const Lock lock(mutex_);
    finishing_ = true;
    threads.swap(threads_);
  }
  changed_.notify_all();
  for (std::thread& thread : threads) thread.join();
}

void Workers::work() {
  Lock lock(mutex_);
  for (;; ++idle_) {  // `add` has counted the new thread
    while (!finishing_ && queue_.empty()) lock.wait(changed_);
    --idle_;
    if (queue_.empty()) return;
    const auto task = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

}  // namespace kelvo::collector
