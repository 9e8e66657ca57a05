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

std::string pathOf(KLVController& controller, std::string_view path) {
  const auto device = controller.deviceInfo();
  std::string text = byReplacing(path, "<app-id>", controller.applicationIdentifier());
  text = byReplacing(text, "<user-id>", device ? device->identifier() : "");
  return byReplacing(text, "<version>", std::to_string(static_cast<int>(kKLVSDKVersion)));
}

std::optional<Array> names(const Value& list) {
  const auto* array = list.get<Array>();
  return array != nullptr ? std::optional(*array) : std::nullopt;
}

std::string pidMIDFileOf(const std::string& type) {
  return std::string(type == "rta" ? kKLVSDKPIDMIDForRTA : kKLVSDKPIDMIDForSurvey);
}

std::optional<Dictionary> dictionaryIn(const std::optional<Value>& value) {
  const auto* dictionary = value ? value->get<Dictionary>() : nullptr;
  return dictionary != nullptr ? std::optional(*dictionary) : std::nullopt;
}

}  // namespace

void KLVController::loadClientAndAggregateEvents() {
  getDataFromURLPath(pathOf(*this, kKLVClientEventValidateURL), [this](auto data, auto response, auto error) {
    if (!succeeded(response, error)) {
      if (error) KLV_ERROR("Cound not validate hash: {}", error->localizedDescription);
      KLV_INFO("Booting client events data saved configuration");
      return loadEventsWithConfig(getClientEvents());
    }
    KLV_DEBUG("Response for validating hash: {}", describe(response));
    const auto answer = dictionaryIn(KLVUtilities::dictionaryFromNSData(data));
    const auto* hash = answer ? (*answer)["hash"].template get<std::string>() : nullptr;
    if (hash == nullptr || hash->empty()) {
      KLV_ERROR("Invalid hash for client event config!");  // Kept: the saved lists are not loaded then.
    } else if (*hash == retrieveClientEventsHash()) {
      KLV_INFO("Client events are the same - no need to fetch");
      loadEventsWithConfig(getClientEvents());
    } else {
      fetchClientEvents(*hash);
    }
  });
}

void KLVController::fetchClientEvents(const std::string& hash) {
  getDataFromURLPath(pathOf(*this, kKLVClientEventsURL), [this, hash](auto data, auto response, auto error) {
    if (!succeeded(response, error)) {
      if (error) KLV_ERROR("Cound not validate hash: {}", error->localizedDescription);  // Kept: the same words.
      KLV_INFO("Unable to get new client events config, using existing config");
      return loadEventsWithConfig(getClientEvents());
    }
    KLV_DEBUG("Response for getting config: {}", describe(response));
    const auto received = KLVUtilities::dictionaryFromNSData(data);
    KLV_DEBUG("Received data: {}", received);
    const auto answer = dictionaryIn(received);
    const auto events = answer ? dictionaryIn((*answer)["events"]) : std::nullopt;
    if (!events) {
      KLV_ERROR("Invalid client event config!");
      return;
    }
    KLV_INFO("Booting client events data with new client event config: {}", *events);
    loadEventsWithConfig(events);
    persistClientEvents(*events);
    // Behind the file, so that a kill between the two costs no more than another download.
    if (const auto handler = dataHandler()) handler->whenStored([hash] { persistClientEventsHash(hash); });
  });
}

void KLVController::loadEventsWithConfig(const std::optional<Dictionary>& config) {
  KLV_DEBUG("Loading client, app, agg & ignore events: {}", config);
  if (!config) {
    KLV_ERROR("Invalid client event config: {}", config);
    return;
  }
  eventHandler_.setClientEvents(names((*config)["action"]));
  eventHandler_.setAggregateEvents(names((*config)["agg"]));
  eventHandler_.setEventsToBeIgnored(names((*config)["stop"]));
}

std::optional<Dictionary> KLVController::getClientEvents() {
  const auto handler = dataHandler();
  return handler ? dictionaryIn(handler->getClientEvents()) : std::nullopt;
}

void KLVController::persistClientEvents(const Dictionary& config) {
  if (const auto handler = dataHandler()) handler->persistClientEvents(config);
}

std::optional<std::string> KLVController::retrieveClientEventsHash() {
  return UserDefaults::standard().string(kKLVClientEventsHashKey);
}

void KLVController::persistClientEventsHash(const std::string& hash) {
  UserDefaults::standard().set(kKLVClientEventsHashKey, hash);
}

void KLVController::getSyncDataForActionType(const std::string& actionType, const std::string& version,
                                             std::function<void()> completion) {
  syncManager_.getSyncDataForActionType(actionType, version, std::move(completion));
}

std::optional<Dictionary> KLVController::getPIDMIDDictForType(const std::string& type) {
  KLV_INFO("Fetching PIDMID for type: {}", type);
  const auto handler = dataHandler();
  return handler ? dictionaryIn(handler->getPIDMIDDictAtPath(pidMIDFileOf(type))) : std::nullopt;
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
