#pragma once

#include <memory>

#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "records/KLVEvents.h"

namespace kelvo {

/// What the lifecycle monitor asks of the controller.
class KLVSystemEventsMonitorDelegate {
 public:
  /// Returns once everything that the host called before is on its way to the bus.
  virtual void updateChunkEndTime() = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVSystemEventsMonitorDelegate() = default;  // never deleted through this type
};

/// Turns the application's activity notifications into the system events FOREGROUND (it became active) and
/// BACKGROUND (it is about to resign active) on the bus.
///
/// Notifications arrive on whatever thread posts them and are moved to a queue of the monitor's own at once, a serial
/// one, so that the two events reach the bus in the order in which they happened.
class KLVSystemEventsMonitor {
 public:
  /// `delegate` must outlive the monitor.
  explicit KLVSystemEventsMonitor(KLVSystemEventsMonitorDelegate& delegate) : delegate_(delegate) {}

  void start();
  void stop();

  /// Calls `done` on the monitor's queue once all notifications so far are on the bus.
  void whenDispatched(std::function<void()> done) { handlerQueue_.async(std::move(done)); }

 private:
  void applicationDidBecomeActiveHandler();
  void applicationWillResignActiveHandler();

  KLVSystemEventsMonitorDelegate& delegate_;
  std::mutex mutex_;  // start and stop come from different queues
  NotificationCenter::Observation didBecomeActive_;
  NotificationCenter::Observation willResignActive_;
  // Kept: made, but the handlers do not use it.
  DispatchQueue monitoringConcurrentQueue_{"com.kelvo.concurrent.sysevents", DispatchQueue::Kind::concurrent};
  DispatchQueue handlerQueue_{"com.kelvo.serial.sysevents"};
};

}  // namespace kelvo
