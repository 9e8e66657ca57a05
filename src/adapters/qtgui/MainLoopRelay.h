#pragma once

#include <QObject>
#include <deque>
#include <functional>
#include <thread>

#include "platform/ThreadSafety.h"

namespace kelvo::qt {

/// Runs tasks from any thread on the application's main thread, in the order of posting.
///
/// Tasks wait in a queue under a mutex; Qt's event queue only carries the wake-up. Made on the main thread and never
/// destroyed, because tasks may be posted until the process ends.
class MainLoopRelay final : public QObject {
 public:
  using Task = std::function<void()>;

  /// Queues `task`, or drops it if the relay is closed. Returns at once. Thread-safe.
  void post(Task task) EXCLUDES(mutex_);
  /// Returns whether the calling thread is the main thread. Thread-safe.
  [[nodiscard]] bool isCurrent() const;
  /// Closes the relay and runs the queued tasks. Called on the main thread.
  void close() EXCLUDES(mutex_);

 protected:
  bool event(QEvent* event) override EXCLUDES(mutex_);

 private:
  /// Posts the wake-up if tasks wait and none is posted yet.
  void wake() REQUIRES(mutex_);
  /// Runs the first queued task. Returns false if there is none.
  bool runFirst() EXCLUDES(mutex_);

  const std::thread::id thread_ = std::this_thread::get_id();
  Mutex mutex_;
  bool closed_ GUARDED_BY(mutex_) = false;
  bool wakeUpIsPosted_ GUARDED_BY(mutex_) = false;
  std::deque<Task> waiting_ GUARDED_BY(mutex_);
};

}  // namespace kelvo::qt
