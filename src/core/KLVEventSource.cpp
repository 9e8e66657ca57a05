#include "core/KLVEventSource.h"

#include "records/KLVRecordKeys.h"
#include "records/KLVUUID.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Counts.h"

namespace kelvo {

void KLVAppEventSource::logEvent(const std::string& name, const std::optional<Dictionary>& info,
                                 std::optional<std::int64_t> time) {
  const auto event = std::make_shared<KLVAppEvent>(KLVEventType::app, name, info, delegate_);
  if (time) event->setCreatedTime(*time);
  delegate_.dispatchEvent(event);
}

void KLVClientEventSource::logEvent(const std::string& name, const std::optional<Dictionary>& info,
                                    std::optional<std::int64_t> /*time*/) {
  const auto event = std::make_shared<KLVClientEvent>();
  event->setIdentifier(name);
  Dictionary attributes = info.value_or(Dictionary());
  attributes.set(kKLVTime, KLVTimer::sharedTimer().currentTime());
  const std::int64_t count = delegate_.getLifetimeCountForEventWithName(name);
  attributes.set(kKLVLifetimeCountAttribute, count);
  attributes.set(kKLVLifetimeCountSlot, KLVUtilities::rangeForCount(count));
  event->setAdditionalInfo(attributes);
  event->setCustomInfo(attributes);
  delegate_.dispatchEvent(event);
}

void KLVObservationSource::logEvent(const std::string& name, const std::optional<Dictionary>& info,
                                    std::optional<std::int64_t> time) {
  const auto event = std::make_shared<KLVObservationEvent>(KLVEventType::customError);
  if (time) event->setCreatedTime(*time);
  event->setIdentifier(randomUUIDString());
  event->setCustomInfo(name, "error_message");
  for (const auto& [key, value] : info.value_or(Dictionary())) event->setCustomInfo(value, key);
  delegate_.dispatchEvent(event);
}

}  // namespace kelvo
