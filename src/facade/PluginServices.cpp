#include <utility>

#include "core/KLVController.h"
#include "core/KLVEventSource.h"
#include "core/KLVPluginLoader.h"
#include "facade/Guard.h"
#include "journal/KLVJournalEntry.h"
#include "kelvo/Plugin.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVException.h"
#include "util/KLVPluginName.h"
#include "util/KLVSanitiser.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Views.h"

namespace kelvo {
namespace {

KLVController& controller() {
  return KLVController::sharedController();
}

/// Runs a plug-in's call that changes or sends data, or refuses it while collection is disabled.
template <class Call>
void whileEnabled(Call&& call) noexcept {
  guarded([&] { controller().enableSDK() ? call() : CollectionGate::logRefusal("call"); });
}

/// Reads data, or returns none while collection is disabled.
template <class Result, class Call>
Result readWhileEnabled(Call&& call) noexcept {
  Result result{};
  guarded([&] {
    if (controller().enableSDK()) result = call();
  });
  return result;
}

/// Runs a call that needs threads. Before the user's decision about consent, it is held like a host call.
template <class Call>
void whileThreadsMayRun(Call&& call) noexcept {
  guarded([&] { controller().runOrHold(std::forward<Call>(call)); });
}

std::optional<std::string> taken(OptionalText&& text) {
  return sanitised(std::optional<std::string>(std::move(text)));
}

std::optional<Dictionary> taken(OptionalDictionary&& dictionary) {
  return sanitised(std::optional<Dictionary>(std::move(dictionary)));
}

/// The callback of a plug-in in the form of the library's own.
HTTPCompletion asCompletion(HTTPCallback&& callback) {
  return [callback = std::move(callback)](const auto& data, const auto& response, const auto& error) {
    if (!callback) return;
    callback({response ? static_cast<int>(response->statusCode) : 0, data.value_or(""),
              error ? error->localizedDescription : ""});
  };
}

Event asEvent(const KLVEvent& event) {
  Dictionary attributes = event.additionalInfo();
  attributes.remove(kKLVCustomInfo);
  attributes = KLVUtilities::addTwoDictionaries(attributes, event.customInfo());
  return {event.identifier(), event.eventType(), std::move(attributes), event.createdTime()};
}

}  // namespace

/// The bus holds the adapter in place of the listener. Each listener owns one adapter, so that the bus finds it again.
/// The pointer that the bus holds shares the ownership of the listener.
class EventListener::Adapter final : public KLVEventListener {
 public:
  explicit Adapter(EventListener& listener) : listener_(listener) {}

 private:
  void onEvent(const std::shared_ptr<KLVEvent>& event) override { listener_.onEvent(asEvent(*event)); }

  EventListener& listener_;
};

EventListener::EventListener() : adapter_(std::make_unique<Adapter>(*this)) {}
EventListener::~EventListener() = default;
Plugin::~Plugin() = default;

std::shared_ptr<EventListener::Adapter> EventListener::adapterOf(const std::shared_ptr<EventListener>& listener) {
  if (listener == nullptr) return nullptr;
  return {listener, listener->adapter_.get()};
}

bool Plugin::registerClass(const char* text, std::shared_ptr<Plugin> (*make)()) noexcept {
  guardedAlways([&] { KLVPluginLoader::registerClass(pluginName(text), make); });
  return true;
}

void PluginServices::getSyncDataForActionType(const std::string& type, const std::string& version,
                                              std::function<void()> completion) noexcept {
  whileEnabled([&] {
    if (!completion) completion = [] {};
    controller().getSyncDataForActionType(type, version, std::move(completion));
  });
}

Dictionary PluginServices::getConfigForActionType(const std::string& type) noexcept {
  return readWhileEnabled<Dictionary>([&] { return KLVSyncManager::savedConfig(type); });
}

std::optional<Dictionary> PluginServices::getPIDMIDDictForType(const std::string& type) noexcept {
  return readWhileEnabled<std::optional<Dictionary>>([&] { return controller().getPIDMIDDictForType(type); });
}

void PluginServices::persistPIDMIDDict(OptionalDictionary record, const std::string& type) noexcept {
  whileEnabled([&] { controller().persistPIDMIDDict(taken(std::move(record)), type); });
}

void PluginServices::registerForEventWithType(KLVEventType type,
                                              const std::shared_ptr<EventListener>& listener) noexcept {
  whileThreadsMayRun([=] { controller().registerForEventWithType(type, EventListener::adapterOf(listener)); });
}

void PluginServices::registerIdentifer(const std::string& key,
                                       const std::shared_ptr<EventListener>& listener) noexcept {
  whileThreadsMayRun([=] { controller().registerIdentifer(key, EventListener::adapterOf(listener)); });
}

void PluginServices::deregisterForEventWithType(KLVEventType type,
                                                const std::shared_ptr<EventListener>& listener) noexcept {
  whileThreadsMayRun([=] { controller().deregisterForEventWithType(type, EventListener::adapterOf(listener)); });
}

void PluginServices::deRegisterIdentifer(const std::string& key,
                                         const std::shared_ptr<EventListener>& listener) noexcept {
  whileThreadsMayRun([=] { controller().deRegisterIdentifer(key, EventListener::adapterOf(listener)); });
}

void PluginServices::dispatchEvent(KLVEventType type, OptionalText name, OptionalDictionary attributes) noexcept {
  guardedEvent([&] {
    if (!controller().enableSDK()) {
      KLVLedger::shared().refuse(KLVLedgerEntry::refusedDisabled);
      return CollectionGate::logRefusal("call");
    }
    std::optional<Dictionary> info;
    try {
      info = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(taken(std::move(attributes)));
    } catch (const KLVInvalidArgument&) {
      KLVLedger::shared().refuse(KLVLedgerEntry::refusedUncleanable);
      throw;
    }
    const auto given = taken(std::move(name));
    const auto call =
        KLVWaitingCall::uncounted({static_cast<std::uint8_t>(KLVJournalKind::pluginEvent),
                                   static_cast<std::uint8_t>(type), Clock::now(), given, info ? &*info : nullptr});
    if (KLVPluginEventSource(controller()).logEvent(type, given, info.value_or(Dictionary()), call)) return;
    KLV_ERROR("Plug-ins dispatch no events of type {}; ignoring {}", stringFromType(type), given);
  });
}

void PluginServices::saveFrequencyInfo(OptionalDictionary info, OptionalText identifier) noexcept {
  whileEnabled([&] { controller().saveFrequencyInfo(taken(std::move(info)), taken(std::move(identifier))); });
}

std::optional<Dictionary> PluginServices::retrieveFrequencyConfigWithIdentifier(OptionalText identifier) noexcept {
  return readWhileEnabled<std::optional<Dictionary>>([&] {
    const auto entry = controller().retrieveFrequencyConfigWithIdentifier(taken(std::move(identifier)));
    return entry ? entry->asDictionary() : std::nullopt;
  });
}

std::optional<Dictionary> PluginServices::getLifetimeCountForEvents(const std::vector<std::string>& names) noexcept {
  return readWhileEnabled<std::optional<Dictionary>>([&] { return controller().getLifetimeCountForEvents(names); });
}

std::int64_t PluginServices::getLifetimeCountForEventWithName(const std::string& name) noexcept {
  return readWhileEnabled<std::int64_t>([&] { return controller().getLifetimeCountForEventWithName(name); });
}

std::optional<std::string> PluginServices::getSessionId() noexcept {
  return readWhileEnabled<std::optional<std::string>>([] { return controller().getSessionId(); });
}

std::int64_t PluginServices::getLifetimeSessionCount() noexcept {
  return readWhileEnabled<std::int64_t>([] { return controller().getLifetimeSessionCount(); });
}

std::int64_t PluginServices::getRetentionDay() noexcept {
  return readWhileEnabled<std::int64_t>([] { return controller().getRetentionDay(); });
}

void PluginServices::getDataFromURLPath(OptionalText path, HTTPCallback completion) noexcept {
  whileEnabled([&] { controller().getDataFromURLPath(path, asCompletion(std::move(completion))); });
}

void PluginServices::postDataToURL(OptionalText path, OptionalDictionary body, OptionalDictionary headers,
                                   HTTPCallback completion) noexcept {
  whileEnabled(
      [&] { controller().postDataToURL(path, taken(std::move(body)), headers, asCompletion(std::move(completion))); });
}

void PluginServices::makeDeleteRequestToURLPath(OptionalText path, OptionalDictionary headers,
                                                HTTPCallback completion) noexcept {
  whileEnabled([&] { controller().makeDeleteRequestToURLPath(path, headers, asCompletion(std::move(completion))); });
}

void PluginServices::registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure) noexcept {
  whileThreadsMayRun([seconds, closure = std::move(closure)] {
    controller().registerForTimerNotificationWithInterval(seconds, closure);
  });
}

void PluginServices::executeAfterDelay(double seconds, std::function<void()> block) noexcept {
  if (!block) return;
  whileThreadsMayRun([seconds, block = std::move(block)] { controller().executeAfterDelay(seconds, block); });
}

bool PluginServices::actionInProgress() noexcept {
  return controller().actionInProgress();
}

void PluginServices::setActionInProgress(bool inProgress) noexcept {
  controller().setActionInProgress(inProgress);
}

std::shared_ptr<View> PluginServices::getViewWithIdentifier(OptionalText identifier,
                                                            const std::string& searchType) noexcept {
  std::shared_ptr<View> view;
  guarded([&] {
    if (!MainQueue::isCurrent()) {
      KLV_ERROR("Views are searched on the main queue only: {}", std::optional<std::string>(identifier));
      return;
    }
    view = KLVUtilities::getViewWithIdentifier(identifier, searchType);
  });
  return view;
}

}  // namespace kelvo
