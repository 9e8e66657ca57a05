#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/ThreadSafety.h"
#include "records/KLVEvents.h"

namespace kelvo {

/// The controller methods that the lifecycle monitor calls. Thread: the monitor's queue.
class KLVSystemEventsMonitorDelegate {
 public:
  /// Returns once every earlier call of the host has put its events on the bus.
  virtual void updateChunkEndTime() = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVSystemEventsMonitorDelegate() = default;  // never deleted through this type
};

/// Turns the application's activity notifications into system events on the bus: FOREGROUND when it became active,
/// BACKGROUND when it will resign active.
///
/// Any thread may post a notification. The monitor handles it on a serial queue of its own, so that the two events
/// reach the bus in the order in which they happened. Thread-safe.
class KLVSystemEventsMonitor {
 public:
  /// `delegate` must outlive the monitor.
  explicit KLVSystemEventsMonitor(KLVSystemEventsMonitorDelegate& delegate) : delegate_(delegate) {}

  void start() EXCLUDES(mutex_);
  void stop() EXCLUDES(mutex_);

  /// Calls `done` on the monitor's queue once the events of all earlier notifications are on the bus.
  void whenDispatched(std::function<void()> done) { handlerQueue_.async(std::move(done)); }

 private:
  void applicationDidBecomeActiveHandler();
  void applicationWillResignActiveHandler();

  KLVSystemEventsMonitorDelegate& delegate_;
  Mutex mutex_;  // start and stop are called on different queues
  NotificationCenter::Observation didBecomeActive_ GUARDED_BY(mutex_);
  NotificationCenter::Observation willResignActive_ GUARDED_BY(mutex_);
  // Kept: the handlers do not use this queue.
  DispatchQueue monitoringConcurrentQueue_{"com.kelvo.concurrent.sysevents", DispatchQueue::Kind::concurrent};
  DispatchQueue handlerQueue_{"com.kelvo.serial.sysevents"};
};

}  // namespace kelvo
