#include "kelvo/KelvoSDK.h"

#include "core/KLVController.h"
#include "facade/Guard.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
namespace {

KLVController& controller() {
  return KLVController::sharedController();
}

std::optional<std::string> taken(OptionalText&& text) {
  return sanitised(std::optional<std::string>(std::move(text)));
}

std::optional<Dictionary> taken(OptionalDictionary&& info) {
  return sanitised(std::optional<Dictionary>(std::move(info)));
}

}  // namespace

void KelvoSDK::initializeKelvoWithID(OptionalText appId) noexcept {
  guarded([&] {
    auto id = taken(std::move(appId));
    KLV_INFO("Initialising Kelvo SDK Manually with ID: {}", id);
    controller().initializeWithKelvoID(std::move(id));
  });
}

void KelvoSDK::setUserIdentifier(OptionalText identifier) noexcept {
  guarded([&] {
    auto id = taken(std::move(identifier));
    KLV_INFO("Setting user identifier {}", id);
    controller().setUserIdentifier(std::move(id));
  });
}

void KelvoSDK::logScreenWithName(OptionalText title) noexcept {
  guarded([&] {
    const auto name = taken(std::move(title));
    KLV_INFO("Logging screen with title: {}", name);
    controller().logScreenWithName(name);
  });
}

void KelvoSDK::setUserCustomInfo(OptionalDictionary info) noexcept {
  guarded([&] {
    auto attributes = taken(std::move(info));
    KLV_INFO("Setting custom user info: {}", attributes);
    controller().setUserCustomInfo(std::move(attributes));
  });
}

void KelvoSDK::setSessionCustomInfo(OptionalDictionary info) noexcept {
  guarded([&] {
    auto attributes = taken(std::move(info));
    KLV_INFO("Setting custom session info: {}", attributes);
    controller().setSessionCustomInfo(std::move(attributes));
  });
}

void KelvoSDK::reportCustomError(OptionalText error, OptionalDictionary info) noexcept {
  guarded([&] {
    auto description = taken(std::move(error));
    auto attributes = taken(std::move(info));
    KLV_INFO("Reporting custom error: {} and info: {}", description, attributes);
    controller().reportCustomError(std::move(description), std::move(attributes));
  });
}

void KelvoSDK::reportCustomError(const std::exception& error, OptionalDictionary info) noexcept {
  guarded([&] { reportCustomError(OptionalText(error.what()), std::move(info)); });
}

void KelvoSDK::logClientEventWithName(OptionalText name, OptionalDictionary info) noexcept {
  logClientEventWithName(std::move(name), std::move(info), false);
}

void KelvoSDK::logClientEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten) noexcept {
  guarded([&] {
    auto event = taken(std::move(name));
    auto attributes = taken(std::move(info));
    KLV_INFO("Logging client event for event: {} with Info: {}", event, attributes);
    controller().logClientEventWithName(std::move(event), std::move(attributes), shouldFlatten);
  });
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info) noexcept {
  logAppEventWithName(std::move(name), std::move(info), false);
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info, bool isAggregate) noexcept {
  guarded([&] {
    auto event = taken(std::move(name));
    auto attributes = taken(std::move(info));
    KLV_INFO("Logging app event for event: {} with Info: {}", event, attributes);
    controller().logAppEventWithName(std::move(event), std::move(attributes), false, isAggregate);
  });
}

void KelvoSDK::logAppEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten,
                                   bool isAggregate) noexcept {
  // Kept: unlike the others, this form writes no INFO line.
  guarded([&] {
    controller().logAppEventWithName(taken(std::move(name)), taken(std::move(info)), shouldFlatten, isAggregate);
  });
}

std::optional<std::string> KelvoSDK::getDeviceID() noexcept {
  std::optional<std::string> id;
  guarded([&] { id = controller().getDeviceID(); });
  return id;
}

}  // namespace kelvo
