#include <algorithm>
#include <chrono>
#include <utility>

#include "core/KLVController.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Views.h"

namespace kelvo {
namespace {

constexpr double kLongestDelay = 1e9;  ///< seconds: as nanoseconds it fits 64 bits
constexpr std::int64_t kMillisPerSecond = 1000;

}  // namespace

std::optional<std::string> KLVController::getDeviceID() {
  const auto device = deviceInfo();
  return device ? std::optional(device->getDeviceID()) : std::nullopt;
}

std::optional<std::string> KLVController::getHardwareModel() {
  const auto device = deviceInfo();
  return device ? std::optional(device->getHardwareModel()) : std::nullopt;
}

std::optional<std::string> KLVController::getSessionId() {
  const auto running = session();
  return running ? std::optional(running->identifier()) : std::nullopt;
}

std::optional<Dictionary> KLVController::getLifetimeCountForEvents(const std::vector<std::string>& names) {
  if (names.empty()) return std::nullopt;
  Dictionary counts;
  for (const std::string& name : names) counts.set(name, getLifetimeCountForEventWithName(name));
  return counts;
}

std::int64_t KLVController::getLifetimeCountForEventWithName(const std::string& name) {
  const auto handler = dataHandler();
  const auto row = handler ? handler->retrieveLifetimeEventWithName(name) : std::nullopt;
  return row ? (*row)[kKLVLifetimeCount].asInt64() : 0;
}

void KLVController::registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure) {
  KLVTimer::sharedTimer().registerForTimerNotificationWithInterval(seconds, std::move(closure));
}

void KLVController::executeAfterDelay(double seconds, std::function<void()> block) {
  const std::chrono::duration<double> delay(seconds > 0 ? std::min(seconds, kLongestDelay) : 0);  // NaN is no delay
  controllerSerialQueue_.after(std::chrono::duration_cast<std::chrono::nanoseconds>(delay), std::move(block));
}

std::int64_t KLVController::currentSDKTimeInMillis() {
  return KLVTimer::sharedTimer().currentTime() * kMillisPerSecond;
}

void KLVController::registerForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) {
  if (listener == nullptr) {
    KLV_WARN("listener is nil");
    return;
  }
  eventHandler_.registerForEventType(type, listener);
}

void KLVController::deregisterForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) {
  if (listener == nullptr) {
    KLV_WARN("listener is nil");
    return;
  }
  eventHandler_.deregisterForEventType(type, listener);
}

void KLVController::registerIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) {
  eventHandler_.registerIdentifer(key, listener);
}

void KLVController::deRegisterIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) {
  eventHandler_.deRegisterIdentifer(key, listener);
}

void KLVController::getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) {
  if (!path) {
    KLV_WARN("URL/requestMethod is nil");
    return;
  }
  postman_.getDataFromURLPath(*path, std::move(completion));
}

void KLVController::getActionsFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) {
  if (path) postman_.getDataFromURLPath(*path, std::move(completion), kActionsLimits);
}

void KLVController::postDataToURL(const std::optional<std::string>& path, const std::optional<Dictionary>& body,
                                  const std::optional<Dictionary>& headerFields, HTTPCompletion completion) {
  if (!path || !body) {
    KLV_WARN("URL/requestMethod is nil");
    return;
  }
  postman_.postDataToURL(*path, body, headerFields, std::move(completion));
}

void KLVController::postChunk(const std::string& path, SlicedText body, const Dictionary& headerFields,
                              HTTPCompletion completion) {
  postman_.postJSON(path, std::move(body), headerFields, std::move(completion));
}

void KLVController::makeDeleteRequestToURLPath(const std::optional<std::string>& path,
                                               const std::optional<Dictionary>& headerFields,
                                               HTTPCompletion completion) {
  if (!path) {
    KLV_WARN("URL/requestMethod is nil");
    return;
  }
  postman_.makeDeleteRequestToURLPath(*path, headerFields, std::move(completion));
}

}  // namespace kelvo
