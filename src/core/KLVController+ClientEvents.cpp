#include <utility>

#include "core/KLVController.h"
#include "platform/UserDefaults.h"
#include "records/KLVFileNames.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

/// Fills in the placeholders of `path`. `device` may be nullptr.
std::string filledIn(std::string_view path, const std::string& appId, const std::shared_ptr<KLVDeviceInfo>& device) {
  std::string text = byReplacing(path, "<app-id>", appId);
  text = byReplacing(text, "<user-id>", device ? device->identifier() : "");
  return byReplacing(text, "<version>", std::to_string(static_cast<int>(kKLVSDKVersion)));
}

std::string pidMIDFileOf(const std::string& type) {
  return std::string(type == "rta" ? kKLVSDKPIDMIDForRTA : kKLVSDKPIDMIDForSurvey);
}

std::optional<Dictionary> dictionaryOf(const std::optional<Value>& value) {
  return value ? value->asDictionary() : std::nullopt;
}

std::optional<std::string> savedHash() {
  return UserDefaults::standard().string(kKLVClientEventsHashKey);
}

/// Blocks until the hash is in the file of the user defaults.
void saveHash(const std::string& hash) {
  UserDefaults::standard().set(kKLVClientEventsHashKey, hash);
  UserDefaults::standard().synchronize();
}

}  // namespace

void KLVController::loadClientAndAggregateEvents() {
  const std::string path = filledIn(kKLVClientEventValidateURL, applicationIdentifier(), deviceInfo());
  getDataFromURLPath(path, [this](const auto& data, const auto& response, const auto& error) {
    if (!succeeded(response, error)) {
      if (error) KLV_ERROR("Cound not validate hash: {}", error->localizedDescription);
      KLV_INFO("Booting client events data saved configuration");
      return loadEventsWithConfig(getClientEvents());
    }
    KLV_DEBUG("Response for validating hash: {}", describe(response));
    const Dictionary answer = dictionaryOf(KLVUtilities::dictionaryFromNSData(data)).value_or(Dictionary());
    const auto hash = answer["hash"].asText();
    if (!hash || hash->empty()) {
      KLV_ERROR("Invalid hash for client event config!");  // Kept: does not load the saved lists either.
      return;
    }
    const auto saved = hash == savedHash() ? getClientEvents() : std::nullopt;
    if (!saved) return fetchClientEvents(*hash);  // also if the hash is saved, but its lists cannot be read
    KLV_INFO("Client events are the same - no need to fetch");
    loadEventsWithConfig(saved);
  });
}

void KLVController::fetchClientEvents(const std::string& hash) {
  const std::string path = filledIn(kKLVClientEventsURL, applicationIdentifier(), deviceInfo());
  getDataFromURLPath(path, [this, hash](const auto& data, const auto& response, const auto& error) {
    if (!succeeded(response, error)) {
      if (error)
        KLV_ERROR("Cound not validate hash: {}", error->localizedDescription);  // Kept: the message of the validation.
      KLV_INFO("Unable to get new client events config, using existing config");
      return loadEventsWithConfig(getClientEvents());
    }
    KLV_DEBUG("Response for getting config: {}", describe(response));
    const auto received = KLVUtilities::dictionaryFromNSData(data);
    KLV_DEBUG("Received data: {}", received);
    const auto events = dictionaryOf(received).value_or(Dictionary())["events"].asDictionary();
    if (!events) {
      KLV_ERROR("Invalid client event config!");
      return loadEventsWithConfig(getClientEvents());
    }
    KLV_INFO("Booting client events data with new client event config: {}", *events);
    loadEventsWithConfig(events);
    const auto handler = dataHandler();
    if (handler == nullptr) return;
    // The hash follows the file, so that a failed write, or a kill between the two, costs another download only.
    handler->persistClientEvents(*events, [hash](bool isSaved) {
      if (isSaved) saveHash(hash);
    });
  });
}

void KLVController::loadEventsWithConfig(const std::optional<Dictionary>& config) {
  KLV_DEBUG("Loading client, app, agg & ignore events: {}", config);
  if (!config) {
    KLV_ERROR("Invalid client event config: {}", config);
    return;
  }
  eventHandler_.setClientEvents((*config)["action"].asArray());
  eventHandler_.setAggregateEvents((*config)["agg"].asArray());
  eventHandler_.setEventsToBeIgnored((*config)["stop"].asArray());
}

std::optional<Dictionary> KLVController::getClientEvents() {
  const auto handler = dataHandler();
  return handler ? dictionaryOf(handler->getClientEvents()) : std::nullopt;
}

void KLVController::getSyncDataForActionType(const std::string& type, const std::string& version,
                                             std::function<void()> completion) {
  syncManager_.getSyncDataForActionType(type, version, std::move(completion));
}

std::optional<Dictionary> KLVController::getPIDMIDDictForType(const std::string& type) {
  KLV_INFO("Fetching PIDMID for type: {}", type);
  const auto handler = dataHandler();
  return handler ? dictionaryOf(handler->getPIDMIDDictAtPath(pidMIDFileOf(type))) : std::nullopt;
}

void KLVController::persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) {
  KLV_INFO("Persisting PIDMID info for type: {}", type);
  if (KLVUtilities::isInvalidDictionary(record)) {
    KLV_ERROR("Invalid pid mid data sent for saving");
    return;
  }
  KLV_DEBUG("Saving pid mid data: {} for type: {}", record, type);
  if (const auto handler = dataHandler()) handler->persistPIDMIDDict(*record, pidMIDFileOf(type));
}

}  // namespace kelvo
