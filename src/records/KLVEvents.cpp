#include "records/KLVEvents.h"

#include "records/KLVRecordKeys.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Counts.h"

namespace kelvo {
namespace {
constexpr const char* kUndefined = "undefined";
constexpr const char* kUndefinedScreen = "undefined-screen";
}  // namespace

KLVAppEvent::KLVAppEvent(KLVEventType type, std::string name, const std::optional<Dictionary>& attributes,
                         KLVLifetimeCounts& counts)
    : KLVEvent(type) {
  setIdentifier(name);
  if (!attributes) return;
  const std::int64_t count = counts.getLifetimeCountForEventWithName(name);
  const std::string slot = KLVUtilities::rangeForCount(count);
  Dictionary info = *attributes;
  Dictionary custom = KLVUtilities::dictionaryByRemovingNulls(*attributes);
  info.set(kKLVTime, KLVTimer::sharedTimer().currentTime());
  for (Dictionary* counted : {&info, &custom}) {
    counted->set(kKLVLifetimeCountAttribute, count);
    counted->set(kKLVLifetimeCountSlot, slot);
  }
  setAdditionalInfo(std::move(info));
  setCustomInfo(std::move(custom));
}

KLVSystemEvent::KLVSystemEvent(KLVEventType type, SubType subType) : KLVEvent(type) {
  setIdentifier(std::string(stringFromSystemType(subType)));
}

std::string_view KLVSystemEvent::stringFromSystemType(SubType subType) {
  switch (subType) {
    case SubType::foreground: return kKLVForeground;
    case SubType::background: return kKLVBackground;
  }
  return kUndefined;
}

KLVSystemEvent::SubType KLVSystemEvent::systemTypeFromString(std::string_view name) {
  return name == kKLVForeground ? SubType::foreground : SubType::background;
}

KLVNavigationEvent::KLVNavigationEvent(const std::optional<std::string>& viewControllerId)
    : KLVEvent(KLVEventType::navigation) {
  setIdentifier(viewControllerId.value_or(kUndefined));
  setInfo(0, kKLVDuration);
  setInfo(identifier(), kKLVName);
}

KLVNavigationEvent::KLVNavigationEvent(const std::optional<std::string>& navigationId,
                                       const std::optional<std::string>& name)
    : KLVEvent(KLVEventType::navigation) {
  setIdentifier(navigationId.value_or(kUndefined));
  setInfo(name.value_or(kUndefinedScreen), kKLVName);
}

KLVCENavEvent::KLVCENavEvent(const std::optional<std::string>& viewControllerId)
    : KLVEvent(KLVEventType::ceNavigation) {
  setIdentifier(viewControllerId.value_or(kUndefined));
}

KLVCENavEvent::KLVCENavEvent(const std::optional<std::string>& navigationId, const std::optional<std::string>& name)
    : KLVEvent(KLVEventType::ceNavigation) {
  setIdentifier(navigationId.value_or(kUndefined));
  setInfo(name.value_or(kUndefinedScreen), kKLVName);
}

}  // namespace kelvo
