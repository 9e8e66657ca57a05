#include "core/KLVEventSource.h"

#include <utility>

#include "records/KLVRecordKeys.h"
#include "records/KLVUUID.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Counts.h"

namespace kelvo {
namespace {

std::shared_ptr<KLVEvent> incident(KLVEventType type, const std::string& message, const Dictionary& details) {
  auto event = std::make_shared<KLVObservationEvent>(type);
  event->setIdentifier(randomUUIDString());
  event->setCustomInfo(message, "error_message");
  for (const auto& [key, value] : details) event->setCustomInfo(value, key);
  return event;
}

/// Returns an event of a type that only plug-ins make, nullptr for the library's own types.
std::shared_ptr<KLVEvent> eventOfPlugin(KLVEventType type) {
  switch (type) {
    case KLVEventType::inApp: return std::make_shared<KLVInAppEvent>();
    case KLVEventType::inlineView: return std::make_shared<KLVInlineEvent>();
    case KLVEventType::nudge: return std::make_shared<KLVNudgeEvent>();
    case KLVEventType::survey: return std::make_shared<KLVSurveyEvent>();
    case KLVEventType::userInteraction:
    case KLVEventType::push:
    case KLVEventType::inlineText:
    case KLVEventType::inlineCoachmark:
    case KLVEventType::walkthrough:
    case KLVEventType::screenshot: return std::make_shared<KLVEvent>(type);
    default: return nullptr;
  }
}

}  // namespace

std::shared_ptr<KLVEvent> KLVAppEventSource::event(const std::string& name, const std::optional<Dictionary>& info,
                                                   std::optional<std::int64_t> time, KLVLifetimeCounts& counts) {
  auto event = std::make_shared<KLVAppEvent>(KLVEventType::app, name, info, counts);
  if (time) event->setCreatedTime(*time);
  if (time && info) event->setInfo(*time, kKLVTime);
  return event;
}

void KLVAppEventSource::logEvent(const std::string& name, const std::optional<Dictionary>& info,
                                 std::optional<std::int64_t> time, KLVWaitingCall call) {
  const auto made = event(name, info, time, delegate_);
  made->setCall(std::move(call));
  delegate_.dispatchEvent(made);
}

void KLVClientEventSource::logEvent(const std::string& name, const std::optional<Dictionary>& info,
                                    std::optional<std::int64_t> /*time*/, KLVWaitingCall call) {
  const auto event = std::make_shared<KLVClientEvent>();
  event->setIdentifier(name);
  Dictionary attributes = info.value_or(Dictionary());
  attributes.set(kKLVTime, KLVTimer::sharedTimer().currentTime());
  const std::int64_t count = delegate_.getLifetimeCountForEventWithName(name);
  attributes.set(kKLVLifetimeCountAttribute, count);
  attributes.set(kKLVLifetimeCountSlot, KLVUtilities::rangeForCount(count));
  event->setAdditionalInfo(attributes);
  event->setCustomInfo(attributes);
  event->setCall(std::move(call));
  delegate_.dispatchEvent(event);
}

std::shared_ptr<KLVEvent> KLVObservationSource::event(const std::string& error, const Dictionary& info,
                                                      std::optional<std::int64_t> time) {
  auto event = incident(KLVEventType::customError, error, info);
  if (time) event->setCreatedTime(*time);
  return event;
}

void KLVObservationSource::logEvent(const std::string& name, const std::optional<Dictionary>& info,
                                    std::optional<std::int64_t> time, KLVWaitingCall call) {
  const auto made = event(name, info.value_or(Dictionary()), time);
  made->setCall(std::move(call));
  delegate_.dispatchEvent(made);
}

std::shared_ptr<KLVEvent> aggregateEvent(const std::string& name, Dictionary info) {
  auto event = std::make_shared<KLVAggregateEvent>();
  event->setIdentifier(name);
  event->setAdditionalInfo(std::move(info));
  return event;
}

std::shared_ptr<KLVEvent> KLVPluginEventSource::event(KLVEventType type, const std::optional<std::string>& name,
                                                      const Dictionary& info) {
  const std::string given = name && !name->empty() ? *name : std::string(stringFromType(type));
  if (type == KLVEventType::applicationCrash) return incident(type, given, info);
  auto event = eventOfPlugin(type);
  if (event == nullptr) return nullptr;
  event->setIdentifier(given);
  event->setAdditionalInfo(info);
  return event;
}

bool KLVPluginEventSource::logEvent(KLVEventType type, const std::optional<std::string>& name, const Dictionary& info,
                                    KLVWaitingCall call) {
  const auto made = event(type, name, info);
  if (made == nullptr) return false;
  made->setCall(std::move(call));
  delegate_.dispatchEvent(made);
  return true;
}

}  // namespace kelvo
