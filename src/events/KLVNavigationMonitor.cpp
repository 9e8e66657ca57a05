#include "events/KLVNavigationMonitor.h"

#include <algorithm>
#include <future>
#include <utility>

#include "platform/MainQueue.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVLogger.h"
#include "util/KLVObserver.h"
#include "util/KLVSanitiser.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Interface.h"

namespace kelvo {
namespace {

// Attributes of a screen's event.

std::optional<Screen> screenOf(const std::any& userInfo) {
  const auto* screen = std::any_cast<Screen>(&userInfo);
  return screen != nullptr ? std::optional(*screen) : std::nullopt;
}

/// Returns false for nullopt, and for a navigation controller: it only shows other screens.
bool isScreen(const std::optional<Screen>& next) {
  if (!next) return false;
  if (next->kind != ViewController::Kind::navigation) return true;
  KLV_DEBUG("next vc is navigation controller");
  return false;
}

std::string nameOf(const Screen& screen) {
  return *sanitised(std::optional(screen.klvName()));
}

/// Returns the event of the screen `name`, which the host logs inside the screen `navigationId`, if there is one.
template <class Event>
std::shared_ptr<Event> eventOfNamedScreen(const std::optional<std::string>& navigationId, const std::string& name) {
  if (KLVUtilities::isValidString(navigationId)) return std::make_shared<Event>(navigationId, name);
  return std::make_shared<Event>(name);
}

}  // namespace

void KLVNavigationMonitor::start() {
  KLV_DEBUG("Starting navigation monitor");
  const auto self = shared_from_this();
  delegate_.registerIdentifer(identifierKey(KLVEventType::system, kKLVBackground), self);
  delegate_.registerIdentifer(identifierKey(KLVEventType::system, kKLVForeground), self);
  auto& center = NotificationCenter::defaultCenter();
  const Lock lock(mutex_);
  willShow_ = center.observe(kWillShowViewController,
                             [this](const std::any& info) { navigationWillChangeNotification(screenOf(info)); });
  didShow_ = center.observe(kDidShowViewController,
                            [this](const std::any& info) { navigationChangeNotification(screenOf(info)); });
  viewTreeDidChange_ = center.observe(kViewTreeDidChange, [this] { lookUpFirstScreen(); });
}

void KLVNavigationMonitor::stop() {
  KLV_DEBUG("Stopping navigation monitor");
  const Lock lock(mutex_);
  willShow_.reset();
  didShow_.reset();
  viewTreeDidChange_.reset();
}

void KLVNavigationMonitor::lookUpFirstScreen() {
  delegate_.whenDelivered([self = shared_from_this()] { MainQueue::async([self] { self->enterFirstScreen(); }); });
}

void KLVNavigationMonitor::enterFirstScreen() {
  if (firstScreenIsLookedUp_ || HostInterface::viewTree() == nullptr) return;
  firstScreenIsLookedUp_ = true;
  const auto window = KLVUtilities::keyWindow();
  const auto top = window ? KLVUtilities::topViewController(window->rootViewController()) : nullptr;
  if (top != nullptr) handleFirstScreen(Screen(top));
}

void KLVNavigationMonitor::perform(Task task) {
  navEventDispatchSerialQueue_.async([this, self = shared_from_this(), task = std::move(task)]() mutable {
    navEventDispatchSerialQueue_.assertCurrent();
    runInOrder(std::move(task));
  });
}

void KLVNavigationMonitor::performReport(Task task) {
  delegate_.whenDelivered([self = shared_from_this(), task = std::move(task)] { self->perform(task); });
}

void KLVNavigationMonitor::runInOrder(Task task) {
  if (waitingForTitle_) return heldBack_.push_back(std::move(task));
  task();
}

void KLVNavigationMonitor::readTitle(const Screen& screen, UseOfTitle use) {
  if (screen.controller == nullptr || !readsTitles_) return use(screen.title);
  waitingForTitle_ = std::move(use);
  const int asked = ++titlesAsked_;
  const auto title = std::make_shared<std::optional<std::string>>();
  // Destroyed with the last copy of the task below: after the task has run or thrown, or when a host whose loop has
  // ended drops it.
  const std::shared_ptr<void> whenRead(nullptr, [self = shared_from_this(), title, asked](void*) {
    self->navEventDispatchSerialQueue_.async([self, title, asked] {
      self->navEventDispatchSerialQueue_.assertCurrent();
      if (asked == self->titlesAsked_) self->titleIsRead(*title);
    });
  });
  MainQueue::async([controller = screen.controller, title, whenRead] { *title = controller->title(); });
}

void KLVNavigationMonitor::titleIsRead(const std::optional<std::string>& title) {
  if (!waitingForTitle_) return;  // too late: stopReadingTitles has ended the wait
  std::exchange(waitingForTitle_, nullptr)(title);
  while (!waitingForTitle_ && !heldBack_.empty()) {
    const Task task = std::move(heldBack_.front());
    heldBack_.pop_front();
    task();
  }
}

void KLVNavigationMonitor::forget(std::function<void()> done) {
  MainQueue::async([self = shared_from_this()] { self->firstScreenIsLookedUp_ = false; });
  navEventDispatchSerialQueue_.async([this, self = shared_from_this(), done = std::move(done)] {
    navEventDispatchSerialQueue_.assertCurrent();
    const bool readsTitles = std::exchange(readsTitles_, false);  // so that no work below waits for another title
    titleIsRead(std::nullopt);
    readsTitles_ = readsTitles;
    previousNavEvent_ = currentNavEvent_ = nullptr;
    dispatchedNavEvent_ = nullptr;
    currNavId_ = currScreenName_ = currScreenNameForCE_ = std::nullopt;
    done();
  });
}

void KLVNavigationMonitor::stopReadingTitles() {
  navEventDispatchSerialQueue_.async([this, self = shared_from_this()] {
    navEventDispatchSerialQueue_.assertCurrent();
    readsTitles_ = false;
    titleIsRead(std::nullopt);
  });
}

bool KLVNavigationMonitor::waitUntilDispatched(std::chrono::milliseconds limit) {
  const auto done = std::make_shared<std::promise<void>>();
  navEventDispatchSerialQueue_.sync([&] {
    navEventDispatchSerialQueue_.assertCurrent();
    runInOrder([done] { done->set_value(); });
  });
  return done->get_future().wait_for(limit) == std::future_status::ready;
}

void KLVNavigationMonitor::handleFirstScreen(std::optional<Screen> screen) {
  if (!screen) return;
  perform([this, screen = *std::move(screen)] {
    navEventDispatchSerialQueue_.assertCurrent();
    if (previousNavEvent_ != nullptr) return;
    if (currentNavEvent_ != nullptr) return handleNavigationChangeToViewController(screen);
    enter(screen, [] {});
  });
}

void KLVNavigationMonitor::navigationWillChangeNotification(std::optional<Screen> next) {
  KLV_DEBUG("Navigation will change notified");
  performReport([this, next = std::move(next)] {
    navEventDispatchSerialQueue_.assertCurrent();
    if (!isScreen(next)) return;
    const std::string name = nameOf(*next);
    if (name == currScreenNameForCE_) return;
    currNavId_ = currScreenNameForCE_ = name;
    delegate_.dispatchEvent(std::make_shared<KLVCENavEvent>(name));
  });
}

void KLVNavigationMonitor::navigationChangeNotification(std::optional<Screen> next) {
  KLV_DEBUG("Navigation change notified");
  performReport([this, next = std::move(next)] {
    navEventDispatchSerialQueue_.assertCurrent();
    if (isScreen(next)) handleNavigationChangeToViewController(*next);
  });
}

void KLVNavigationMonitor::handleNavigationChangeToViewController(const Screen& screen) {
  KLV_INFO("Navigated to screen: {}", nameOf(screen));
  enter(screen, [this, before = currentNavEvent_] {
    navEventDispatchSerialQueue_.assertCurrent();
    previousNavEvent_ = before;
    dispatch(previousNavEvent_, currentNavEvent_->createdTime());
  });
}

void KLVNavigationMonitor::enter(const Screen& screen, std::function<void()> whenCurrent) {
  const std::string name = nameOf(screen);
  if (name == currScreenName_) {
    KLV_ERROR("Ignoring screen notification with title: {}", name);
    return;
  }
  currNavId_ = currScreenName_ = name;
  const auto event = std::make_shared<KLVNavigationEvent>(name);
  event->setCreatedTime(KLVTimer::sharedTimer().timeAt(screen.reportedAt));
  if (screen.call != nullptr) event->setCall(*std::static_pointer_cast<const KLVWaitingCall>(screen.call));
  readTitle(screen, [this, event, whenCurrent = std::move(whenCurrent)](const std::optional<std::string>& title) {
    navEventDispatchSerialQueue_.assertCurrent();
    if (title) event->setInfo(*sanitised(title), kKLVName);
    currentNavEvent_ = event;
    observer::entered(*event);
    whenCurrent();
  });
}

void KLVNavigationMonitor::logScreenWithName(std::string name, Date reportedAt, KLVWaitingCall call) {
  performReport([this, name = std::move(name), reportedAt, call = std::move(call)] {
    navEventDispatchSerialQueue_.assertCurrent();
    currScreenName_ = currScreenNameForCE_ = name;
    previousNavEvent_ = currentNavEvent_;
    delegate_.dispatchEvent(eventOfNamedScreen<KLVCENavEvent>(currNavId_, name));
    currentNavEvent_ = eventOfNamedScreen<KLVNavigationEvent>(currNavId_, name);
    currentNavEvent_->setCreatedTime(KLVTimer::sharedTimer().timeAt(reportedAt));
    currentNavEvent_->setCall(call);
    observer::entered(*currentNavEvent_);
    dispatch(previousNavEvent_, currentNavEvent_->createdTime());
  });
}

void KLVNavigationMonitor::onEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event->eventType() != KLVEventType::system) return;
  perform([this, name = event->identifier(), time = event->createdTime()] {
    navEventDispatchSerialQueue_.assertCurrent();
    if (name == kKLVBackground) onBackground(time);
    if (name == kKLVForeground) onForeground(time);
  });
}

void KLVNavigationMonitor::onBackground(std::int64_t time) {
  dispatch(currentNavEvent_, time);
}

/// Counts the current screen again from `time`, so that no screen gets the time spent in the background.
void KLVNavigationMonitor::onForeground(std::int64_t time) {
  previousNavEvent_ = currentNavEvent_;
  if (currentNavEvent_ == nullptr) return;
  const auto again = std::make_shared<KLVNavigationEvent>(currentNavEvent_->identifier());
  const Value title = currentNavEvent_->additionalInfo()[kKLVName];
  if (!title.isNull()) again->setInfo(title, kKLVName);
  again->setCreatedTime(time);
  currentNavEvent_ = again;
}

void KLVNavigationMonitor::dispatch(const std::shared_ptr<KLVEvent>& event, std::int64_t endTime) {
  if (event == nullptr || event == dispatchedNavEvent_) return;
  dispatchedNavEvent_ = event;
  event->setInfo(std::max<std::int64_t>(endTime - event->createdTime(), 0), kKLVDuration);
  delegate_.dispatchEvent(event);
}

}  // namespace kelvo
