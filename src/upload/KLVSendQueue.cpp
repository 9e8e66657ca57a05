#include "upload/KLVSendQueue.h"

#include <utility>

namespace kelvo {
namespace {

constexpr std::size_t kMaxBodies = 8;

}  // namespace

void KLVSendQueue::enqueue(Task task) {
  queue_.assertCurrent();
  tasks_.push_back(std::move(task));
  run();
}

void KLVSendQueue::run() {
  if (isRunning_ || holds_ > 0) return;  // a task that enqueues another one
  isRunning_ = true;
  while (!tasks_.empty() && slotsTaken_ < kMaxBodies) {
    const Task next = std::move(tasks_.front());
    tasks_.pop_front();
    next();
  }
  isRunning_ = false;
}

std::shared_ptr<void> KLVSendQueue::hold() {
  queue_.assertCurrent();
  ++holds_;
  return {nullptr, [this](void*) {
            queue_.assertCurrent();
            --holds_;
            run();
          }};
}

KLVSendQueue::Slot KLVSendQueue::takeSlot(Task ended) {
  queue_.assertCurrent();
  ++slotsTaken_;
  return Slot(nullptr, [this, owner = owner_, ended = std::move(ended)](void*) mutable {
    const auto alive = owner.lock();
    if (alive == nullptr) return;
    queue_.async([this, alive, ended = std::move(ended)] {
      queue_.assertCurrent();
      --slotsTaken_;
      ended();
      run();
    });
  });
}

}  // namespace kelvo
