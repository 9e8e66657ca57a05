#include "records/KLVInfo.h"

#include "records/KLVServerAPIHelper.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {

std::string KLVInfo::identifier() const {
  const Lock lock(mutex_);
  return identifier_;
}

void KLVInfo::setIdentifier(std::string identifier) {
  const Lock lock(mutex_);
  identifier_ = std::move(identifier);
}

Dictionary KLVInfo::additionalInfo() const {
  const Lock lock(mutex_);
  return additionalInfo_;
}

void KLVInfo::setAdditionalInfo(Dictionary info) {
  const Lock lock(mutex_);
  additionalInfo_ = std::move(info);
}

void KLVInfo::setInfo(Value value, std::string_view key) {
  const Lock lock(mutex_);
  if (value.isNull()) return additionalInfo_.remove(key);
  additionalInfo_.set(key, std::move(value));
}

void KLVInfo::setCustomInfo(Value value, std::string_view key) {
  const Lock lock(mutex_);
  Dictionary custom = additionalInfo_[kKLVCustomInfo].asDictionary().value_or(Dictionary());
  additionalInfo_.set(kKLVCustomInfo, {});  // `custom` now owns its content alone, so `set` does not copy it
  custom.set(key, std::move(value));
  additionalInfo_.set(kKLVCustomInfo, std::move(custom));
}

void KLVInfo::setCustomInfo(Dictionary info) {
  setInfo(std::move(info), kKLVCustomInfo);
}

Dictionary KLVInfo::customInfo() const {
  return additionalInfo()[kKLVCustomInfo].asDictionary().value_or(Dictionary());
}

Dictionary KLVInfo::jsonDict() const {
  const auto cleaned = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(additionalInfo());
  Dictionary stored;  // set one by one: an initializer list would copy the text
  stored.set(kKLVId, identifier());
  stored.set(kKLVAdditionalInfo, KLVUtilities::jsonStringFromNSDictionary(cleaned.value_or(Dictionary())));
  return stored;
}

Dictionary KLVInfo::jsonDictModifiedforInstanceWithName(std::string_view name) const {
  Dictionary upload;
  const Dictionary info = additionalInfo();
  for (const auto& [key, value] : info) {
    if (const auto uploadKey = KLVServerAPIHelper::convertInClass(key, name)) upload.set(*uploadKey, value);
  }
  // Set last, so that no attribute replaces the identifier.
  if (const auto uploadKey = KLVServerAPIHelper::convertInClass(kKLVId, name)) upload.set(*uploadKey, identifier());
  return upload;
}

void KLVInfo::restore(const Dictionary& jsonDict) {
  const auto text = jsonDict[kKLVAdditionalInfo].asText();
  if (!text) return;
  const auto parsed = KLVUtilities::dictionaryFromJsonString(text);
  setAdditionalInfo(parsed ? parsed->asDictionary().value_or(Dictionary()) : Dictionary());
}

void importRow(KLVInfo& record, const Dictionary& row) {
  Dictionary info = record.additionalInfo();
  for (const auto& [column, value] : row) {
    if (column == kKLVId) {
      record.setIdentifier(description(value));
    } else if (column == kKLVChunkReportingTimes) {
      if (const auto times = KLVUtilities::arrayFromJsonString(value.asText())) info.set(column, *times);
    } else {
      info.set(column, value);
    }
  }
  record.setAdditionalInfo(std::move(info));
}

}  // namespace kelvo
