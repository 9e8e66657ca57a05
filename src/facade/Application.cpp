#include "kelvo/Application.h"

#include <cmath>
#include <utility>

#include "core/KLVController.h"
#include "facade/Guard.h"
#include "journal/KLVJournalEntry.h"
#include "platform/Clock.h"
#include "platform/Device.h"
#include "platform/HostInterface.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"
#include "util/KLVSanitiser.h"
#include "util/KLVUtilities+Views.h"

namespace kelvo {
namespace {

/// Posts `notification` after all earlier host calls; before the start, when the monitors begin to observe.
void report(std::string_view notification, std::any userInfo) {
  guarded([&] {
    KLVController::sharedController().submit(
        [notification, userInfo = std::move(userInfo)] {
          NotificationCenter::defaultCenter().post(notification, userInfo);
        },
        HeldCalls::Kind::report);
  });
}

/// Reports the activity, and records the call.
void report(std::string_view notification, KLVJournalKind kind) {
  guarded([&] {
    const Date when = Clock::now();
    const KLVActivityReport activity{when, KLVWaitingCall::uncounted({static_cast<std::uint8_t>(kind), 0, when})};
    report(notification, std::any(activity));
  });
}

/// Reports a screen, and records the call if the screen has appeared: only then does it make a stored event.
void report(std::string_view notification, Screen screen) {
  if (notification == kDidShowViewController && screen.kind != ViewController::Kind::navigation) {
    const auto info = screen.title ? std::optional(Dictionary{{"title", *screen.title}}) : std::nullopt;
    screen.call = std::make_shared<const KLVWaitingCall>(
        KLVWaitingCall::uncounted({static_cast<std::uint8_t>(KLVJournalKind::didShow), 0, screen.reportedAt,
                                   screen.className, info ? &*info : nullptr}));
  }
  report(notification, std::any(std::move(screen)));
}

void report(std::string_view notification, std::shared_ptr<ViewController> screen) {
  guarded([&] {
    if (screen == nullptr) {
      KLV_WARN("Ignoring a screen without a view controller");
      return;
    }
    report(notification, Screen(std::move(screen)));
  });
}

void report(std::string_view notification, OptionalText className, OptionalText title) {
  guarded([&] {
    if (!className || className->empty()) {
      KLV_WARN("Ignoring a screen without a class name, title: {}", std::optional<std::string>(std::move(title)));
      return;
    }
    report(notification, Screen(*std::move(className), std::move(title)));
  });
}

bool isLength(float points) {
  return std::isfinite(points) && points >= 0;
}

}  // namespace

void Application::didBecomeActive() noexcept {
  report(kApplicationDidBecomeActive, KLVJournalKind::becameActive);
}

void Application::willResignActive() noexcept {
  report(kApplicationWillResignActive, KLVJournalKind::resignsActive);
}

void Application::logDeviceToken(OptionalText token) noexcept {
  guarded([&] {
    KLVController::sharedController().logDeviceToken(sanitised(std::optional<std::string>(std::move(token))));
  });
}

void Application::logDeviceToken(Data token) noexcept {
  guarded([&] { KLVController::sharedController().logDeviceToken(std::move(token)); });
}

void Application::setScreenSize(float width, float height) noexcept {
  guarded([&] {
    if (!isLength(width) || !isLength(height)) {
      KLV_WARN("Ignoring screen size: {} x {}", width, height);
      return;
    }
    Device::setScreenSize({width, height});
  });
}

void Application::setMainLoop(std::function<void(std::function<void()>)> post,
                              std::function<bool()> isCurrent) noexcept {
  guarded([&] { MainQueue::handOver(std::move(post), std::move(isCurrent)); });
}

void Application::setLogSink(LogSink sink) noexcept {
  guardedAlways([&] { KLVLogger::setSink(std::move(sink)); });
}

void Application::writeLogLine(LogLevel level, std::string_view line) noexcept {
  guardedAlways([&] {
    if (level < LogLevel::off) KLV_LOG(level, "{}", sanitised(std::optional<std::string>(line)));
  });
}

void Application::setViewTree(std::shared_ptr<ViewTree> tree) noexcept {
  guarded([&] {
    HostInterface::setViewTree(std::move(tree));
    auto& controller = KLVController::sharedController();
    if (controller.holdsCalls()) return;  // the start looks at the tree
    controller.performInOrder([] { NotificationCenter::defaultCenter().post(kViewTreeDidChange); });
  });
}

void Application::printViewTree() noexcept {
  guarded([] {
    KLVController::sharedController().runOrHold([] { MainQueue::async([] { KLVUtilities::printViewTree(); }); });
  });
}

void Application::willShow(std::shared_ptr<ViewController> screen) noexcept {
  report(kWillShowViewController, std::move(screen));
}

void Application::didShow(std::shared_ptr<ViewController> screen) noexcept {
  report(kDidShowViewController, std::move(screen));
}

void Application::willShow(std::nullptr_t screen) noexcept {
  willShow(std::shared_ptr<ViewController>(screen));
}

void Application::didShow(std::nullptr_t screen) noexcept {
  didShow(std::shared_ptr<ViewController>(screen));
}

void Application::willShow(OptionalText className, OptionalText title) noexcept {
  report(kWillShowViewController, std::move(className), std::move(title));
}

void Application::didShow(OptionalText className, OptionalText title) noexcept {
  report(kDidShowViewController, std::move(className), std::move(title));
}

void Application::show(OptionalText name, OptionalText title) noexcept {
  guarded([&] {
    if (!name || name->empty()) return didShow(std::move(name), std::move(title));  // one WARN line
    willShow(name, title);
    didShow(std::move(name), std::move(title));
  });
}

void Application::markAsReactNative() noexcept {
  guarded([] { KLVController::sharedController().markAsReactNative(); });
}

void Application::markAsCordova() noexcept {
  guarded([] { KLVController::sharedController().markAsCordova(); });
}

}  // namespace kelvo
