#include "kelvo-collector/http/Workers.h"

#include <system_error>
#include <utility>

namespace kelvo::collector {

void Workers::add(std::function<void()> task) {
  const std::lock_guard lock(mutex_);
  waiting_.push_back(std::move(task));
  if (free_ < waiting_.size() && threads_.size() < most_) {
    try {
      threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      // The machine gives no more threads: those that are there will come to it.
    }
  }
  changed_.notify_one();
}

void Workers::finish() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard lock(mutex_);
    finishing_ = true;
    threads.swap(threads_);
  }
  changed_.notify_all();
  for (std::thread& thread : threads) thread.join();
}

void Workers::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++free_;
    changed_.wait(lock, [this] { return finishing_ || !waiting_.empty(); });
    --free_;
    if (waiting_.empty()) return;
    const auto task = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

}  // namespace kelvo::collector
