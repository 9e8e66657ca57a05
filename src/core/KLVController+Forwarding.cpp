#include <algorithm>
#include <utility>

#include "core/KLVController.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo {

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

void KLVController::saveFrequencyInfo(const Value& info, const std::optional<std::string>& identifier) {
  const auto handler = dataHandler();
  if (handler == nullptr || KLVUtilities::isInvalidDictionary(info) || KLVUtilities::isInvalidString(identifier))
    return;
  const std::lock_guard lock(frequencyMutex_);
  const auto stored = handler->retrieveFrequencyConfig();
  const auto* dictionary = stored ? stored->get<Dictionary>() : nullptr;
  Dictionary config = dictionary != nullptr ? *dictionary : Dictionary();
  config.set(*identifier, info);
  handler->persistFrequencyConfig(std::move(config));
}

std::optional<Value> KLVController::retrieveFrequencyConfigWithIdentifier(
    const std::optional<std::string>& identifier) {
  const auto handler = dataHandler();
  const auto stored = handler ? handler->retrieveFrequencyConfig() : std::nullopt;
  const auto* dictionary = stored ? stored->get<Dictionary>() : nullptr;
  const Value* entry = dictionary != nullptr && identifier ? dictionary->find(*identifier) : nullptr;
  return entry != nullptr ? std::optional(*entry) : std::nullopt;
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
  constexpr double kLongestDelay = 1e9;  // seconds; what is not a number is no delay
  const double delaySeconds = seconds > 0 ? std::min(seconds, kLongestDelay) : 0;
  const auto delay = std::chrono::nanoseconds(static_cast<std::int64_t>(delaySeconds * 1e9));
  controllerSerialQueue_.after(delay, std::move(block));
}

std::int64_t KLVController::currentSDKTimeInMillis() {
  return KLVTimer::sharedTimer().currentTime() * 1000;
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

std::uint64_t KLVController::numberOfEventsWithIdentifier(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("identifier is nil");
    return 0;
  }
  const auto handler = dataHandler();
  return handler ? handler->numberOfEventsWithIdentifier(*identifier) : 0;
}

std::vector<Dictionary> KLVController::getEventsBetween(std::uint64_t start, std::uint64_t end,
                                                        const std::optional<std::string>& identifier,
                                                        std::optional<KLVEventType> eventType) {
  if (!identifier || !eventType) {
    KLV_WARN("identifier/eventType is nil");
    return {};
  }
  const auto handler = dataHandler();
  if (handler == nullptr) return {};
  std::optional<std::string> typeName;  // type 0 stands for every type
  if (*eventType != KLVEventType::system) typeName = std::string(stringFromType(*eventType));
  return handler->getEventsBetween(start, end, *identifier, typeName);
}

std::vector<std::string> KLVController::getSessions() {
  const auto handler = dataHandler();
  return handler ? handler->getSessions() : std::vector<std::string>();
}

std::vector<std::shared_ptr<KLVChunkMetaInfo>> KLVController::retrieveChunkMetaInfo() {
  const auto handler = dataHandler();
  return handler ? handler->retrieveChunkMetaInfo() : std::vector<std::shared_ptr<KLVChunkMetaInfo>>();
}

std::shared_ptr<KLVUser> KLVController::retrieveUser() {
  const auto handler = dataHandler();
  return handler ? handler->retrieveUser() : nullptr;
}

void KLVController::saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) {
  if (meta == nullptr) {
    KLV_WARN("cannot update, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->saveChunkMetaInfo(meta);
  }
}

void KLVController::updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) {
  if (meta == nullptr) {
    KLV_WARN("cannot update, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->updateChunkMetaInfoTimestamp(meta);
  }
}

void KLVController::updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk) {
  if (chunk == nullptr) {
    KLV_WARN("cannot update, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->updateChunkMetaStatus(chunk);
  }
}

void KLVController::deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) {
  if (chunk == nullptr) {
    KLV_WARN("cannot delete, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteChunkMetaInfo(chunk);
  }
}

void KLVController::deleteSession(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("cannot delete, identifier is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteSession(*identifier);
  }
}

void KLVController::deleteItemAtPath(const std::optional<std::string>& path) {
  if (!path) {
    KLV_WARN("cannot delete, path is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteItemAtPath(*path);
  }
}

void KLVController::deleteAggregateEventsWithSessionId(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("cannot delete, session identifier is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteAggregateEventsWithSessionId(*identifier);
  }
}

void KLVController::writeTogether(const std::function<void()>& deletions) {
  if (const auto handler = dataHandler()) handler->writeTogether(deletions);
}

void KLVController::getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) {
  if (!path) {
    KLV_WARN("URL/requestMethod is nil");
    return;
  }
  postman_.getDataFromURLPath(*path, std::move(completion));
}

void KLVController::postDataToURL(const std::optional<std::string>& path, const std::optional<Dictionary>& body,
                                  const std::optional<Dictionary>& headerFields, HTTPCompletion completion) {
  if (!path || !body) {
    KLV_WARN("URL/requestMethod is nil");
    return;
  }
  postman_.postDataToURL(*path, body, headerFields, std::move(completion));
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
