#include "adapters/qtgui/MainLoopRelay.h"

#include <QCoreApplication>
#include <QEvent>
#include <utility>

namespace kelvo::qt {
namespace {

QEvent::Type wakeUpType() {
  static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
  return type;
}

}  // namespace

void MainLoopRelay::post(Task task) {
  const Lock lock(mutex_);
  if (closed_) return;
  waiting_.push_back(std::move(task));
  wake();
}

bool MainLoopRelay::isCurrent() const {
  return std::this_thread::get_id() == thread_;
}

void MainLoopRelay::close() {
  {
    const Lock lock(mutex_);
    closed_ = true;
  }
  while (runFirst()) {
  }
}

void MainLoopRelay::wake() {
  if (waiting_.empty() || wakeUpIsPosted_ || closed_) return;
  wakeUpIsPosted_ = true;
  QCoreApplication::postEvent(this, std::make_unique<QEvent>(wakeUpType()).release());
}

bool MainLoopRelay::runFirst() {
  Task task;
  {
    const Lock lock(mutex_);
    if (waiting_.empty()) return false;
    task = std::move(waiting_.front());
    waiting_.pop_front();
    wake();  // a task that shows a dialog runs an event loop of its own, which must run the tasks behind it
  }
  task();  // never throws: the main queue catches and reports exceptions
  return true;
}

bool MainLoopRelay::event(QEvent* event) {
  Lock lock(mutex_);  // taken before the type is read: `wake` makes the event with the mutex held
  if (event->type() != wakeUpType()) {
    lock.unlock();
    return QObject::event(event);
  }
  wakeUpIsPosted_ = false;
  // Run only the tasks that wait now: a task that posts itself again must not delay the application's own events.
  std::size_t count = waiting_.size();
  lock.unlock();
  while (count-- > 0 && runFirst()) {
  }
  return true;
}

}  // namespace kelvo::qt
