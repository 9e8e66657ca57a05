#include "records/KLVEvent.h"

#include "records/KLVRecordKeys.h"
#include "records/KLVServerAPIHelper.h"
#include "util/KLVTimer.h"

namespace kelvo {

KLVEvent::KLVEvent(KLVEventType type)
    : KLVInfo(std::string(stringFromType(type))), type_(type), time_(KLVTimer::sharedTimer().currentTime()) {}

Dictionary KLVEvent::jsonDict() const {
  Dictionary stored = KLVInfo::jsonDict();
  stored.set(kKLVTime, createdTime());
  stored.set(kKLVType, stringFromType(eventType()));
  return stored;
}

Dictionary KLVEvent::jsonDictModifiedforInstanceWithName(std::string_view name) const {
  Dictionary upload = KLVInfo::jsonDictModifiedforInstanceWithName(name);
  if (const auto key = KLVServerAPIHelper::convertInClass(kKLVTime, name)) upload.set(*key, createdTime());
  if (const auto key = KLVServerAPIHelper::convertInClass(kKLVType, name))
    upload.set(*key, stringFromType(eventType()));
  return upload;
}

void KLVEvent::restore(const Dictionary& jsonDict) {
  KLVInfo::restore(jsonDict);
  setCreatedTime(jsonDict[kKLVTime].asInt64());
  setEventType(typeFromString(jsonDict[kKLVType].asText().value_or("")));
}

}  // namespace kelvo
