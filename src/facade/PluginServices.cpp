#include <utility>

#include "core/KLVController.h"
#include "core/KLVPluginLoader.h"
#include "facade/Guard.h"
#include "kelvo/Plugin.h"
#include "platform/MainQueue.h"
#include "records/KLVRecordKeys.h"
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

bool Plugin::registerClass(const char* name, std::shared_ptr<Plugin> (*make)()) noexcept {
  guarded([&] { KLVPluginLoader::registerClass(name, make); });
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
  Dictionary config;
  guarded([&] { config = KLVSyncManager::savedConfig(type); });
  return config;
}

std::optional<Dictionary> PluginServices::getPIDMIDDictForType(const std::string& type) noexcept {
  std::optional<Dictionary> record;
  guarded([&] { record = controller().getPIDMIDDictForType(type); });
  return record;
}

void PluginServices::persistPIDMIDDict(OptionalDictionary record, const std::string& type) noexcept {
  whileEnabled([&] { controller().persistPIDMIDDict(sanitised(std::optional<Dictionary>(std::move(record))), type); });
}

void PluginServices::registerForEventWithType(KLVEventType type,
                                              const std::shared_ptr<EventListener>& listener) noexcept {
  guarded([&] { controller().registerForEventWithType(type, EventListener::adapterOf(listener)); });
}

void PluginServices::registerIdentifer(const std::string& key,
                                       const std::shared_ptr<EventListener>& listener) noexcept {
  guarded([&] { controller().registerIdentifer(key, EventListener::adapterOf(listener)); });
}

void PluginServices::deregisterForEventWithType(KLVEventType type,
                                                const std::shared_ptr<EventListener>& listener) noexcept {
  guarded([&] { controller().deregisterForEventWithType(type, EventListener::adapterOf(listener)); });
}

void PluginServices::deRegisterIdentifer(const std::string& key,
                                         const std::shared_ptr<EventListener>& listener) noexcept {
  guarded([&] { controller().deRegisterIdentifer(key, EventListener::adapterOf(listener)); });
}

void PluginServices::saveFrequencyInfo(OptionalDictionary info, OptionalText identifier) noexcept {
  whileEnabled([&] {
    controller().saveFrequencyInfo(sanitised(std::optional<Dictionary>(std::move(info))),
                                   sanitised(std::optional<std::string>(std::move(identifier))));
  });
}

std::optional<Dictionary> PluginServices::retrieveFrequencyConfigWithIdentifier(OptionalText identifier) noexcept {
  std::optional<Dictionary> kept;
  guarded([&] {
    const auto entry = controller().retrieveFrequencyConfigWithIdentifier(
        sanitised(std::optional<std::string>(std::move(identifier))));
    if (const auto* info = entry ? entry->get<Dictionary>() : nullptr) kept = *info;
  });
  return kept;
}

std::optional<Dictionary> PluginServices::getLifetimeCountForEvents(const std::vector<std::string>& names) noexcept {
  std::optional<Dictionary> counts;
  guarded([&] { counts = controller().getLifetimeCountForEvents(names); });
  return counts;
}

std::int64_t PluginServices::getLifetimeCountForEventWithName(const std::string& name) noexcept {
  std::int64_t count = 0;
  guarded([&] { count = controller().getLifetimeCountForEventWithName(name); });
  return count;
}

std::optional<std::string> PluginServices::getSessionId() noexcept {
  std::optional<std::string> id;
  guarded([&] { id = controller().getSessionId(); });
  return id;
}

void PluginServices::registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure) noexcept {
  guarded([&] { controller().registerForTimerNotificationWithInterval(seconds, std::move(closure)); });
}

void PluginServices::executeAfterDelay(double seconds, std::function<void()> block) noexcept {
  guarded([&] {
    if (block) controller().executeAfterDelay(seconds, std::move(block));
  });
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
