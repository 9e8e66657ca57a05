#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Clock.h"
#include "platform/DispatchQueue.h"
#include "platform/HostInterface.h"
#include "platform/NotificationCenter.h"
#include "platform/ThreadSafety.h"
#include "records/KLVEvents.h"

namespace kelvo {

/// The controller methods that the navigation monitor calls. Thread: any.
class KLVNavigationMonitorDelegate {
 public:
  virtual void registerIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  /// Runs `task` once every event dispatched so far is delivered, and before any later one is.
  virtual void whenDelivered(std::function<void()> task) = 0;

 protected:
  ~KLVNavigationMonitorDelegate() = default;  // never deleted through this type
};

/// Follows which screen the host shows, and puts the screens on the bus as events.
///
/// A screen that is about to appear is announced at once, by a signal that is not stored. A screen that was shown
/// becomes an event when the next one appears or the application goes to the background. That event carries the time
/// spent on the screen, in whole seconds.
///
/// The host's reports follow the bus to the monitor, so that they keep their order with FOREGROUND and BACKGROUND,
/// which the monitor receives from the bus. The monitor works on one serial queue. It reads a view controller's title
/// on the main queue. Until the title is there, later work waits in order but occupies no thread, so that a busy main
/// loop does not hold up the library. Thread-safe; no method but `waitUntilDispatched` blocks.
class KLVNavigationMonitor final : public KLVEventListener, public std::enable_shared_from_this<KLVNavigationMonitor> {
 public:
  /// `delegate` must outlive the monitor.
  explicit KLVNavigationMonitor(KLVNavigationMonitorDelegate& delegate) : delegate_(delegate) {}

  /// Begins to follow the host's notifications.
  void start() EXCLUDES(mutex_);
  /// Enters the screen on top, once: now, or when the host sets its view tree.
  void lookUpFirstScreen();
  /// Ends the host's notifications. Screens that the host logs by name still count.
  void stop() EXCLUDES(mutex_);

  /// Enters the screen that is already shown, and leaves the current one. Ignores nullopt, and every screen once
  /// another was left.
  void handleFirstScreen(std::optional<Screen> screen);
  /// `next` is about to appear.
  void navigationWillChangeNotification(std::optional<Screen> next);
  /// `next` has appeared.
  void navigationChangeNotification(std::optional<Screen> next);
  /// Enters a screen that the host names, inside the screen of the last notification.
  void logScreenWithName(std::string name, Date reportedAt = Clock::now(), KLVWaitingCall call = {});
  void onEvent(const std::shared_ptr<KLVEvent>& event) override;

  /// Calls `done` on the monitor's queue once the events of all earlier work are on the bus. A report is work of the
  /// monitor once the bus has delivered the events before it.
  void whenDispatched(std::function<void()> done) { perform(std::move(done)); }
  /// Blocks until the events of all earlier work are on the bus. Returns false if a title did not come within `limit`.
  /// Needs no free pool thread, unless a title is being read.
  bool waitUntilDispatched(std::chrono::milliseconds limit);
  /// Forgets all screens, as if the host had shown none, and the title that is being read. Calls `done` on the
  /// monitor's queue.
  void forget(std::function<void()> done);
  /// Stops reading titles, and waiting for one, because the host's main loop has ended.
  void stopReadingTitles();

 private:
  using Task = std::function<void()>;
  using UseOfTitle = std::function<void(const std::optional<std::string>& title)>;

  void enterFirstScreen();
  /// Runs `task` on the queue, after all earlier work, including work that waits for a title.
  void perform(Task task);
  /// The same, after the deliveries of all events dispatched so far: for the host's reports.
  void performReport(Task task);
  void runInOrder(Task task) REQUIRES(navEventDispatchSerialQueue_);
  /// Calls `use` with the screen's title, before any later work.
  void readTitle(const Screen& screen, UseOfTitle use) REQUIRES(navEventDispatchSerialQueue_);
  void titleIsRead(const std::optional<std::string>& title) REQUIRES(navEventDispatchSerialQueue_);
  void handleNavigationChangeToViewController(const Screen& screen) REQUIRES(navEventDispatchSerialQueue_);
  /// Makes `screen` the current one and then calls `whenCurrent`; does nothing if it is already current.
  void enter(const Screen& screen, std::function<void()> whenCurrent) REQUIRES(navEventDispatchSerialQueue_);
  /// Sets the event's duration to `endTime` minus its creation time, and puts it on the bus. `endTime` counts seconds
  /// since the SDK start. Ignores a null event, and one that is already on the bus.
  void dispatch(const std::shared_ptr<KLVEvent>& event, std::int64_t endTime) REQUIRES(navEventDispatchSerialQueue_);
  void onForeground(std::int64_t time) REQUIRES(navEventDispatchSerialQueue_);
  void onBackground(std::int64_t time) REQUIRES(navEventDispatchSerialQueue_);

  KLVNavigationMonitorDelegate& delegate_;

  Mutex mutex_;  // start and stop are called on different queues
  NotificationCenter::Observation willShow_ GUARDED_BY(mutex_);
  NotificationCenter::Observation didShow_ GUARDED_BY(mutex_);
  NotificationCenter::Observation viewTreeDidChange_ GUARDED_BY(mutex_);

  // Queue: navEventDispatchSerialQueue_.
  std::shared_ptr<KLVNavigationEvent> previousNavEvent_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// The current screen. BACKGROUND dispatches it; the next FOREGROUND begins a new event.
  std::shared_ptr<KLVNavigationEvent> currentNavEvent_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// The screen that is on the bus. No screen is counted twice.
  std::shared_ptr<KLVEvent> dispatchedNavEvent_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// The screen of the last notification. Screens that the host names belong to it.
  std::optional<std::string> currNavId_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// The current screen; a repeated one is ignored.
  std::optional<std::string> currScreenName_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// The screen announced last; a repeated one is not announced again.
  std::optional<std::string> currScreenNameForCE_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// Set while a title is being read.
  UseOfTitle waitingForTitle_ GUARDED_BY(navEventDispatchSerialQueue_);
  /// The work that waits for the title.
  std::deque<Task> heldBack_ GUARDED_BY(navEventDispatchSerialQueue_);
  bool readsTitles_ GUARDED_BY(navEventDispatchSerialQueue_) = true;
  int titlesAsked_ GUARDED_BY(navEventDispatchSerialQueue_) = 0;  ///< a title counts only if no later one was asked for

  bool firstScreenIsLookedUp_ = false;  // Queue: the main queue.
  DispatchQueue navEventDispatchSerialQueue_{"com.kelvo.serial.KLVNavEventHandler"};
};

}  // namespace kelvo
