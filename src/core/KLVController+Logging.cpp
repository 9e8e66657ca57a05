#include <utility>

#include "core/AttributeFlattening.h"
#include "core/KLVController.h"
#include "util/KLVException.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

constexpr int kKeepOneLevel = 1;
constexpr int kFlattenOneMore = 2;

Dictionary flattened(const std::optional<Dictionary>& info, bool shouldFlatten) {
  return getFlatDictionary(info.value_or(Dictionary()), shouldFlatten ? kFlattenOneMore : kKeepOneLevel);
}

}  // namespace

/// Replaces `info` by its clean copy; false, after one line, when it cannot be cleaned: the call is to be dropped.
bool KLVController::clean(std::optional<Dictionary>& info) {
  try {
    info = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(info);
    return true;
  } catch (const KLVInvalidArgument& fault) {
    KLV_ERROR("{}", fault.what());
    return false;
  }
}

void KLVController::setUserIdentifier(std::optional<std::string> identifier) {
  if (!identifier) {
    KLV_ERROR("Identifier passed is nil");
    return;
  }
  controllerSerialQueue_.async([this, identifier = *std::move(identifier)] {
    const auto currentUser = user();
    if (enableSDK_ && currentUser != nullptr) {
      currentUser->setUserAttribute(identifier, "custom_user_id");
    } else {
      KLV_ERROR("SDK not enabled - user identifier not set");
    }
  });
}

void KLVController::logScreenWithName(const std::optional<std::string>& title) {
  if (KLVUtilities::isInvalidString(title)) {
    KLV_WARN("Invalid title: {} given", title);
    return;
  }
  controllerSerialQueue_.async([this, title = *title] { navigationMonitor_->logScreenWithName(title); });
}

void KLVController::logClientEventWithName(std::optional<std::string> name, std::optional<Dictionary> info,
                                           bool shouldFlatten) {
  if (!clean(info)) return;
  controllerSerialQueue_.async([this, name = std::move(name), info = std::move(info), shouldFlatten] {
    if (!name) {
      KLV_WARN("Improper app event logged");
      return;
    }
    clientEventSource_.logEvent(*name, flattened(info, shouldFlatten), std::nullopt);
  });
}

void KLVController::logAppEventWithName(std::optional<std::string> name, std::optional<Dictionary> info,
                                        bool shouldFlatten, bool isAggregate) {
  if (!clean(info)) return;
  controllerSerialQueue_.async([this, name = std::move(name), info = std::move(info), shouldFlatten, isAggregate] {
    if (const auto handler = dataHandler()) handler->catchUp();  // a call that waits here is smaller than its event
    if (!name) {
      KLV_WARN("Improper app event logged");
      return;
    }
    Dictionary flat = flattened(info, shouldFlatten);
    if (!isAggregate) return appEventSource_.logEvent(*name, flat, std::nullopt);
    const auto event = std::make_shared<KLVAggregateEvent>();
    event->setIdentifier(*name);
    event->setAdditionalInfo(std::move(flat));
    processAggregateEventWithEvent(event);
    KLV_INFO("Aggregte event logged with name {}", *name);
  });
}

void KLVController::setUserCustomInfo(std::optional<Dictionary> info) {
  setCustomInfo(std::move(info), true);
}

void KLVController::setSessionCustomInfo(std::optional<Dictionary> info) {
  setCustomInfo(std::move(info), false);
}

void KLVController::setCustomInfo(std::optional<Dictionary> info, bool isUser) {
  if (!clean(info)) return;
  controllerSerialQueue_.async([this, info = std::move(info), isUser] {
    if (!info || info->empty()) {
      // Kept: says so even when the service allows collection.
      if (isUser) {
        KLV_ERROR("SDK not enabled - user attributes won't get logged");
      } else {
        KLV_ERROR("SDK not enabled - session attributes won't get logged");
      }
      return;
    }
    std::shared_ptr<KLVInfo> record;
    {
      const std::lock_guard lock(mutex_);
      if (enableSDK_ && isUser) record = user_;
      if (enableSDK_ && !isUser) record = session_;
      if (record == nullptr && storeInBuffer_) {
        infoBuffer_.push_back({isUser, *info});
        return;
      }
    }
    if (record == nullptr) {
      KLV_ERROR("SDK Disabled - ignoring call");
      return;
    }
    for (const auto& [key, value] : *info) record->setCustomInfo(value, key);
    if (isUser) saveUserInfo();
  });
}

void KLVController::reportCustomError(std::optional<std::string> error, std::optional<Dictionary> info) {
  if (!clean(info)) return;
  controllerSerialQueue_.async([this, error = std::move(error), info = std::move(info)] {
    if (!error) {
      KLV_WARN("Improper observation reported");
      return;
    }
    observationSource_.logEvent(*error, info.value_or(Dictionary()), std::nullopt);
  });
}

void KLVController::logDeviceToken(const Value& token) {
  if (const auto* bytes = token.get<Data>()) {
    verifyAndLogDeviceToken(KLVUtilities::stringWithDeviceToken(*bytes));
  } else if (const auto* text = token.get<std::string>()) {
    verifyAndLogDeviceToken(*text);
  } else {
    KLV_WARN("Invalid token object!");
  }
}

void KLVController::verifyAndLogDeviceToken(const std::optional<std::string>& token) {
  if (KLVUtilities::isInvalidString(token)) {
    KLV_WARN("Invalid token data!");
    return;
  }
  const std::lock_guard lock(mutex_);
  if (enableSDK_ && deviceInfo_ != nullptr) {
    deviceInfo_->logDeviceToken(*token);
  } else if (storeInBuffer_) {
    tokenBuffer_ = token;
    // The device record may exist already while the service's answer is still being looked at.
    if (deviceInfo_ != nullptr) deviceInfo_->logDeviceToken(*token);
  } else {
    KLV_ERROR("SDK Disabled - ignoring call");
  }
}

void KLVController::dispatchEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("event is nil");
    return;
  }
  eventHandler_.enqueueEvent(event);
}

void KLVController::saveLifetimeEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("Event passed is nil");
    return;
  }
  const std::lock_guard lock(mutex_);
  if (dataHandlerStarted_) {
    dataHandler_->upsertLifetimeEvent(event);
  } else if (storeInBuffer_) {
    // Kept: an application event stands in the buffer twice, once from here and once from `saveEvent`.
    eventsBuffer_.push_back(event);
  } else {
    KLV_ERROR("SDK Disabled - ignoring event");
  }
}

void KLVController::saveEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("Event passed is nil");
    return;
  }
  std::unique_lock lock(mutex_);
  if (dataHandlerStarted_) {
    const auto handler = dataHandler_;
    const auto running = session_;
    lock.unlock();  // making the storage form takes its time
    handler->saveEventInfo(event, running->identifier());
  } else if (storeInBuffer_) {
    eventsBuffer_.push_back(event);
  } else {
    KLV_ERROR("SDK Disabled - ignoring event");
  }
}

void KLVController::saveEvent(const std::shared_ptr<KLVEvent>& event, const std::optional<std::string>& sessionId) {
  if (event == nullptr || !sessionId) {
    KLV_WARN("Event/sessionId is nil");
    return;
  }
  const std::lock_guard lock(mutex_);
  if (dataHandlerStarted_) {
    dataHandler_->saveEventInfo(event, *sessionId);
  } else {
    KLV_ERROR("SDK Disabled - ignoring event");
  }
}

}  // namespace kelvo
