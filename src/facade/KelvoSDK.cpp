#include "kelvo/KelvoSDK.h"

#include <new>

#include "core/DataDescription.h"
#include "core/Flushing.h"
#include "core/HostSettings.h"
#include "core/KLVController.h"
#include "core/Readiness.h"
#include "facade/Guard.h"
#include "platform/DispatchQueue.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
namespace {

KLVController& controller() {
  return KLVController::sharedController();
}

std::optional<std::string> taken(OptionalText&& text) {
  return sanitised(std::optional<std::string>(std::move(text)));
}

KLVHostAttributes taken(OptionalDictionary&& info) {
  return sanitisedAttributes(std::optional<Dictionary>(std::move(info)));
}

/// `caller` is the host's call, which the line names.
void logAppEvent(const char* caller, OptionalText&& name, OptionalDictionary&& info, bool shouldFlatten,
                 bool isAggregate) {
  constexpr auto kInfo = KLVLogger::Level::info;
  const auto event = taken(std::move(name));
  auto attributes = taken(std::move(info));
  if (KLVLogger::writes(kInfo)) {
    KLVLogger::log(kInfo, caller, __LINE__, "Logging app event for event: {} with Info: {}", event,
                   KLVLogger::hostData(attributes.values));
  }
  controller().logAppEventWithName(event, std::move(attributes), shouldFlatten, isAggregate);
}

}  // namespace

void KelvoSDK::start(Options options) noexcept {
  guardedAlways([&] {
    for (auto* text : {&options.appId, &options.userIdentifier, &options.appName, &options.appVersion}) {
      *text = sanitised(std::optional(std::move(*text))).value_or("");
    }
    controller().initializeWithKelvoID(options.appId, &options);
  });
}

void KelvoSDK::initializeKelvoWithID(OptionalText appId) noexcept {
  guardedAlways([&] {
    auto id = taken(std::move(appId));
    if (!isForbidden()) {
      HostSettings::shared().writeHeldLine();
      KLV_INFO("Initialising Kelvo SDK Manually with ID: {}", id);
    }
    controller().initializeWithKelvoID(std::move(id));
  });
}

void KelvoSDK::onReady(std::function<void(const Status&)> callback) noexcept {
  guardedAlways([&] { Readiness::shared().add(std::move(callback)); });
}

void KelvoSDK::setUserIdentifier(OptionalText identifier) noexcept {
  guarded([&] {
    const auto id = taken(std::move(identifier));
    KLV_INFO("Setting user identifier {}", KLVLogger::hostData(id));
    controller().setUserIdentifier(id);
  });
}

void KelvoSDK::logScreenWithName(OptionalText title) noexcept {
  guardedEvent([&] {
    const auto name = taken(std::move(title));
    KLV_INFO("Logging screen with title: {}", name);
    controller().logScreenWithName(name);
  });
}

void KelvoSDK::setUserCustomInfo(OptionalDictionary info) noexcept {
  guarded([&] {
    auto attributes = taken(std::move(info));
    KLV_INFO("Setting custom user info: {}", KLVLogger::hostData(attributes.values));
    controller().setUserCustomInfo(std::move(attributes));
  });
}

void KelvoSDK::setSessionCustomInfo(OptionalDictionary info) noexcept {
  guarded([&] {
    auto attributes = taken(std::move(info));
    KLV_INFO("Setting custom session info: {}", KLVLogger::hostData(attributes.values));
    controller().setSessionCustomInfo(std::move(attributes));
  });
}

void KelvoSDK::reportCustomError(OptionalText error, OptionalDictionary info) noexcept {
  guardedEvent([&] {
    const auto description = taken(std::move(error));
    auto attributes = taken(std::move(info));
    KLV_INFO("Reporting custom error: {} and info: {}", KLVLogger::hostData(description),
             KLVLogger::hostData(attributes.values));
    controller().reportCustomError(description, std::move(attributes));
  });
}

void KelvoSDK::reportCustomError(const std::exception& error, OptionalDictionary info) noexcept {
  guardedEvent([&] { reportCustomError(OptionalText(error.what()), std::move(info)); });
}

void KelvoSDK::logClientEventWithName(OptionalText name, OptionalDictionary info) noexcept {
  logClientEventWithName(std::move(name), std::move(info), false);
}

void KelvoSDK::logClientEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten) noexcept {
  guardedEvent([&] {
    const auto event = taken(std::move(name));
    auto attributes = taken(std::move(info));
    KLV_INFO("Logging client event for event: {} with Info: {}", event, KLVLogger::hostData(attributes.values));
    controller().logClientEventWithName(event, std::move(attributes), shouldFlatten);
  });
}

void KelvoSDK::logClientEventWithName(OptionalText name, OptionalDictionary info, EventOptions options) noexcept {
  logClientEventWithName(std::move(name), std::move(info), options.flatten);
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info) noexcept {
  constexpr const char* kCaller = __PRETTY_FUNCTION__;
  guardedEvent([&] { logAppEvent(kCaller, std::move(name), std::move(info), false, false); });
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info, bool isAggregate) noexcept {
  constexpr const char* kCaller = __PRETTY_FUNCTION__;
  guardedEvent([&] { logAppEvent(kCaller, std::move(name), std::move(info), false, isAggregate); });
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info, EventOptions options) noexcept {
  constexpr const char* kCaller = __PRETTY_FUNCTION__;
  guardedEvent([&] { logAppEvent(kCaller, std::move(name), std::move(info), options.flatten, false); });
}

void KelvoSDK::logAggregateEvent(OptionalText name, OptionalDictionary info, EventOptions options) noexcept {
  constexpr const char* kCaller = __PRETTY_FUNCTION__;
  guardedEvent([&] { logAppEvent(kCaller, std::move(name), std::move(info), options.flatten, true); });
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten,
                                   bool isAggregate) noexcept {
  // Kept: unlike the others, this form writes no INFO line.
  guardedEvent([&] {
    controller().logAppEventWithName(taken(std::move(name)), taken(std::move(info)), shouldFlatten, isAggregate);
  });
}

void KelvoSDK::setConsent(Consent consent) noexcept {
  guardedAlways([&] {
    if (!isRefusedForItsRights()) controller().setConsent(consent);
  });
}

Consent KelvoSDK::consent() noexcept {
  Consent consent = Consent::undecided;
  guardedAlways([&] { consent = controller().consent(); });
  return consent;
}

Dictionary KelvoSDK::describeData() noexcept {
  Dictionary data;
  guardedAlways([&] { data = dataDescription(); });
  return data;
}

std::optional<std::string> KelvoSDK::getDeviceID() noexcept {
  std::optional<std::string> id;
  guarded([&] { id = controller().getDeviceID(); });
  return id;
}

void KelvoSDK::erase() noexcept {
  guardedAlways([] {
    if (!isRefusedForItsRights()) controller().erase();
  });
}

void KelvoSDK::flush(std::chrono::milliseconds deadline, std::function<void(const FlushResult&)> callback) noexcept {
  if (inForkedChild()) {
    try {
      if (callback) callback(flushAndWait(deadline));
    } catch (...) {  // no thread of the library could report it
    }
    return;
  }
  guardedAlways([&] {
    Flushing::begin(deadline, [callback = std::move(callback)](const FlushResult& result) {
      if (!callback) return;
      threadsAreHeld() ? callback(result) : DispatchQueue::global().async([callback, result] { callback(result); });
    });
  });
}

Ledger KelvoSDK::ledger() noexcept {
  Ledger ledger;
  guardedAlways([&] {
    KLVLedger::shared().setHeld(controller().heldEvents());
    ledger = KLVLedger::shared().ledger();
  });
  return ledger;
}

FlushResult KelvoSDK::flushAndWait(std::chrono::milliseconds deadline) noexcept {
  FlushResult result;
  try {
    if (inForkedChild()) result.reason = "a forked process collects nothing";
  } catch (const std::bad_alloc&) {
    return result;
  }
  guardedAlways([&] { result = Flushing::wait(deadline); });
  return result;
}

}  // namespace kelvo
