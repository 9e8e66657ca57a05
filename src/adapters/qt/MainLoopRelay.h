#pragma once

#include <QObject>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kelvo::qt {

/// Runs tasks of any thread on the application's main thread, in order.
///
/// Tasks are handed over under a mutex of its own, and Qt's event queue only carries the wake-up. Made on the main
/// thread and kept for the life of the process, since tasks may be posted until its last moment.
class MainLoopRelay final : public QObject {
 public:
  using Task = std::function<void()>;

  /// Any thread; returns at once. Dropped unrun once it is closed.
  void post(Task task);
  [[nodiscard]] bool isCurrent() const;
  /// Runs what waits, on the main thread, and takes no more.
  void close();

 protected:
  bool event(QEvent* event) override;

 private:
  void wake();
  /// false when none waits.
  bool runFirst();

  const std::thread::id thread_ = std::this_thread::get_id();
  std::mutex mutex_;
  bool closed_ = false;
  bool wakeUpIsPosted_ = false;
  std::deque<Task> waiting_;
};

}  // namespace kelvo::qt
