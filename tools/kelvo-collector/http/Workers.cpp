#include "kelvo-collector/http/Workers.h"

#include <system_error>
#include <utility>

namespace kelvo::collector {

void Workers::add(std::function<void()> task) {
  const Lock lock(mutex_);
  queue_.push_back(std::move(task));
  if (idle_ < queue_.size() && threads_.size() < maximum_) {
    try {
      threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      // The system refuses another thread: the existing threads run the task later.
    }
  }
  changed_.notify_one();
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
  for (;;) {
    ++idle_;
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
