#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/DispatchQueue.h"
#include "platform/HostInterface.h"
#include "platform/NotificationCenter.h"
#include "records/KLVEvents.h"

namespace kelvo {

/// What the navigation monitor asks of the controller.
class KLVNavigationMonitorDelegate {
 public:
  virtual void registerIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVNavigationMonitorDelegate() = default;  // never deleted through this type
};

/// Follows which screen the host shows. A screen that is about to appear is a signal on the bus at once; a screen that
/// was shown becomes an event when the next one appears, or when the application goes to the background, with the time
/// spent on it in whole seconds.
///
/// All state lives on one serial queue; every operation only queues work there. A view controller's title is read on
/// the main queue; until it is there, all later work waits in order, but no thread does, so that a host whose main
/// loop is busy does not hold up the library.
class KLVNavigationMonitor final : public KLVEventListener, public std::enable_shared_from_this<KLVNavigationMonitor> {
 public:
  /// `delegate` must outlive the monitor.
  explicit KLVNavigationMonitor(KLVNavigationMonitorDelegate& delegate) : delegate_(delegate) {}

  /// From now on it follows the host's signals. The screen on top is looked up once: now, or when the host hands over
  /// its view tree.
  void start();
  /// Ends the host's signals; a screen logged by name still counts.
  void stop();

  /// The screen that shows already; nullopt for none.
  void handleFirstScreen(std::optional<Screen> screen);
  void navigationWillChangeNotification(std::optional<Screen> next);
  void navigationChangeNotification(std::optional<Screen> next);
  /// A named screen inside the last one that the host's signals told.
  void logScreenWithName(std::string name);
  void onEvent(const std::shared_ptr<KLVEvent>& event) override;

  /// Calls `done` on the monitor's queue once the events of all work so far are on the bus.
  void whenDispatched(std::function<void()> done) { perform(std::move(done)); }
  /// Waits for the same, no longer than `limit`: false when a title did not come in time. Needs no free thread of the
  /// pool otherwise.
  bool waitUntilDispatched(std::chrono::milliseconds limit);
  /// From now on no title is read or waited for: the host's main loop has ended.
  void stopReadingTitles();

 private:
  using Task = std::function<void()>;
  using UseOfTitle = std::function<void(const std::optional<std::string>& title)>;

  void lookUpFirstScreen();
  void perform(Task task);
  void runInOrder(Task task);
  void readTitle(const Screen& screen, UseOfTitle use);
  void titleIsRead(const std::optional<std::string>& title);
  void handleNavigationChangeToViewController(const Screen& screen);
  void enter(const Screen& screen, std::function<void()> whenCurrent);
  void dispatch(const std::shared_ptr<KLVEvent>& event, std::int64_t endTime);
  void onForeground();
  void onBackground();

  KLVNavigationMonitorDelegate& delegate_;

  std::mutex mutex_;  // start and stop come from different queues
  NotificationCenter::Observation willShow_;
  NotificationCenter::Observation didShow_;
  NotificationCenter::Observation viewTreeDidChange_;

  // All of the queue.
  std::shared_ptr<KLVNavigationEvent> previousNavEvent_;
  std::shared_ptr<KLVNavigationEvent> currentNavEvent_;  // not yet dispatched
  std::optional<std::string> currNavId_;
  std::optional<std::string> currScreenName_;       // so that a repeated screen is dropped
  std::optional<std::string> currScreenNameForCE_;  // announced last
  UseOfTitle waitingForTitle_;                      // set while a title is being read
  std::deque<Task> heldBack_;                       // behind it
  bool readsTitles_ = true;

  bool firstScreenIsLookedUp_ = false;  // of the main queue
  DispatchQueue navEventDispatchSerialQueue_{"com.kelvo.serial.KLVNavEventHandler"};
};

}  // namespace kelvo
