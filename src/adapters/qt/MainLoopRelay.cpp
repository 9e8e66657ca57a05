#include "adapters/qt/MainLoopRelay.h"

#include <QCoreApplication>
#include <QEvent>
#include <utility>

namespace kelvo::qt {
namespace {

QEvent::Type wakeUp() {
  static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
  return type;
}

}  // namespace

void MainLoopRelay::post(Task task) {
  const std::lock_guard lock(mutex_);
  if (closed_) return;
  waiting_.push_back(std::move(task));
  wake();
}

bool MainLoopRelay::isCurrent() const {
  return std::this_thread::get_id() == thread_;
}

void MainLoopRelay::close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  while (runFirst()) {
  }
}

/// Under the mutex: sees to it that what waits has its turn.
void MainLoopRelay::wake() {
  if (waiting_.empty() || wakeUpIsPosted_ || closed_) return;
  wakeUpIsPosted_ = true;
  QCoreApplication::postEvent(this, std::make_unique<QEvent>(wakeUp()).release());
}

bool MainLoopRelay::runFirst() {
  Task task;
  {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty()) return false;
    task = std::move(waiting_.front());
    waiting_.pop_front();
    wake();  // a task that shows a dialog runs an event loop, in which those behind it have their turn
  }
  task();  // never throws: the main queue reports what a task throws
  return true;
}

bool MainLoopRelay::event(QEvent* event) {
  std::unique_lock lock(mutex_);  // held while the event was made, so its type is looked at no earlier than that
  if (event->type() != wakeUp()) {
    lock.unlock();
    return QObject::event(event);
  }
  wakeUpIsPosted_ = false;
  // Only what waits now: a task that posts itself again must not hold up the application's own events.
  std::size_t count = waiting_.size();
  lock.unlock();
  while (count-- > 0 && runFirst()) {
  }
  return true;
}

}  // namespace kelvo::qt
