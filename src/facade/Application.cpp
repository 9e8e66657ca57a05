#include "kelvo/Application.h"

#include <cmath>
#include <utility>

#include "core/KLVController.h"
#include "facade/Guard.h"
#include "platform/Device.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
namespace {

/// Behind the host's calls so far, so that a start which is under way has begun to listen.
void report(std::string_view notification) {
  guarded([&] {
    KLVController::sharedController().performInOrder(
        [notification] { NotificationCenter::defaultCenter().post(notification); });
  });
}

bool isLength(float points) {
  return std::isfinite(points) && points >= 0;
}

}  // namespace

void Application::didBecomeActive() noexcept {
  report(kApplicationDidBecomeActive);
}

void Application::willResignActive() noexcept {
  report(kApplicationWillResignActive);
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

void Application::setLogSink(std::function<void(LogLevel, std::string_view)> sink) noexcept {
  guarded([&] {
    if (!sink) return KLVLogger::setSink({});
    KLVLogger::setSink([sink = std::move(sink)](KLVLogger::Level level, std::string_view line) {
      sink(static_cast<LogLevel>(level), line);
    });
  });
}

void Application::markAsReactNative() noexcept {
  guarded([] { KLVController::sharedController().markAsReactNative(); });
}

void Application::markAsCordova() noexcept {
  guarded([] { KLVController::sharedController().markAsCordova(); });
}

}  // namespace kelvo
