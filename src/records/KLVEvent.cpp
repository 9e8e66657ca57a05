#include "records/KLVEvent.h"

#include "records/KLVServerAPIHelper.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {
constexpr std::string_view kTime = "time";
constexpr std::string_view kType = "type";
}  // namespace

KLVEvent::KLVEvent(KLVEventType type)
    : KLVInfo(std::string(stringFromType(type))), type_(type), time_(KLVTimer::sharedTimer().currentTime()) {}

Dictionary KLVEvent::jsonDict() const {
  Dictionary stored = KLVInfo::jsonDict();
  stored.set(kTime, createdTime());
  stored.set(kType, stringFromType(eventType()));
  return stored;
}

Dictionary KLVEvent::jsonDictModifiedforInstanceWithName(std::string_view name) const {
  Dictionary upload = KLVInfo::jsonDictModifiedforInstanceWithName(name);
  if (const auto key = KLVServerAPIHelper::convertInClass(kTime, name)) upload.set(*key, createdTime());
  if (const auto key = KLVServerAPIHelper::convertInClass(kType, name)) upload.set(*key, stringFromType(eventType()));
  return upload;
}

void KLVEvent::restore(const Dictionary& jsonDict) {
  KLVInfo::restore(jsonDict);
  setCreatedTime(jsonDict[kTime].asInt64());
  const auto* name = jsonDict[kType].get<std::string>();
  setEventType(typeFromString(name != nullptr ? *name : std::string()));
}

}  // namespace kelvo
