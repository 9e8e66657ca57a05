#pragma once

#include <any>
#include <memory>

#include "kelvo/Value.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/ThreadSafety.h"
#include "records/KLVEvents.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {

/// The host's report of a transition, as a notification carries it. A `Date` stands for a report without a call.
struct KLVActivityReport {
  Date when;
  KLVWaitingCall call;
};

/// The controller methods that the lifecycle monitor calls. Thread: the one that posts the notification.
class KLVSystemEventsMonitorDelegate {
 public:
  /// The host was reported in the foreground at `when`. FOREGROUND follows.
  virtual void updateChunkStartTime(Date when) = 0;
  /// The host was reported to leave the foreground at `when`. Returns once every earlier call of the host has put its
  /// events on the bus. BACKGROUND follows.
  virtual void updateChunkEndTime(Date when) = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVSystemEventsMonitorDelegate() = default;  // never deleted through this type
};

/// Turns the application's activity notifications into system events on the bus: FOREGROUND when it became active,
/// BACKGROUND when it will resign active.
///
/// The events carry the time of the report. The monitor handles a notification on the thread that posts it: the
/// controller's queue posts them in the reported order, between the host's earlier and later calls. Thread-safe, but
/// posts from several threads have no order.
class KLVSystemEventsMonitor {
 public:
  /// `delegate` must outlive the monitor.
  explicit KLVSystemEventsMonitor(KLVSystemEventsMonitorDelegate& delegate) : delegate_(delegate) {}

  void start() EXCLUDES(mutex_);
  void stop() EXCLUDES(mutex_);

 private:
  void applicationDidBecomeActiveHandler(const std::any& info);
  void applicationWillResignActiveHandler(const std::any& info);
  void dispatch(KLVSystemEvent::SubType subType, const KLVActivityReport& report);

  KLVSystemEventsMonitorDelegate& delegate_;
  Mutex mutex_;  // start and stop are called on different queues
  NotificationCenter::Observation didBecomeActive_ GUARDED_BY(mutex_);
  NotificationCenter::Observation willResignActive_ GUARDED_BY(mutex_);
  // Kept: the handlers do not use this queue.
  DispatchQueue monitoringConcurrentQueue_{"com.kelvo.concurrent.sysevents", DispatchQueue::Kind::concurrent};
};

}  // namespace kelvo
