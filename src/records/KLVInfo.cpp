#include "records/KLVInfo.h"

#include "records/KLVServerAPIHelper.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

constexpr std::string_view kId = "id";
constexpr std::string_view kAdditionalInfo = "__additional_info__";
constexpr std::string_view kCustomInfo = "__custom_info__";
constexpr std::string_view kReportingTimes = "reporting_times";

Dictionary dictionaryIn(const Value& value) {
  const auto* dictionary = value.get<Dictionary>();
  return dictionary != nullptr ? *dictionary : Dictionary();
}

}  // namespace

std::string KLVInfo::identifier() const {
  const std::lock_guard lock(mutex_);
  return identifier_;
}

void KLVInfo::setIdentifier(std::string identifier) {
  const std::lock_guard lock(mutex_);
  identifier_ = std::move(identifier);
}

Dictionary KLVInfo::additionalInfo() const {
  const std::lock_guard lock(mutex_);
  return additionalInfo_;
}

void KLVInfo::setAdditionalInfo(Dictionary info) {
  const std::lock_guard lock(mutex_);
  additionalInfo_ = std::move(info);
}

void KLVInfo::setInfo(Value value, std::string_view key) {
  const std::lock_guard lock(mutex_);
  if (value.isNull()) return additionalInfo_.remove(key);
  additionalInfo_.set(key, std::move(value));
}

void KLVInfo::setCustomInfo(Value value, std::string_view key) {
  const std::lock_guard lock(mutex_);
  Dictionary custom = dictionaryIn(additionalInfo_[kCustomInfo]);
  additionalInfo_.set(kCustomInfo, {});  // leaves us the only owner, so that the change below copies nothing
  custom.set(key, std::move(value));
  additionalInfo_.set(kCustomInfo, std::move(custom));
}

void KLVInfo::setCustomInfo(Dictionary info) {
  setInfo(std::move(info), kCustomInfo);
}

Dictionary KLVInfo::customInfo() const {
  return dictionaryIn(additionalInfo()[kCustomInfo]);
}

Dictionary KLVInfo::jsonDict() const {
  const auto cleaned = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(additionalInfo());
  return {{std::string(kId), identifier()},
          {std::string(kAdditionalInfo), KLVUtilities::jsonStringFromNSDictionary(cleaned.value_or(Dictionary()))}};
}

Dictionary KLVInfo::jsonDictModifiedforInstanceWithName(std::string_view name) const {
  Dictionary upload;
  const Dictionary info = additionalInfo();
  for (const auto& [key, value] : info) {
    if (const auto uploadKey = KLVServerAPIHelper::convertInClass(key, name)) upload.set(*uploadKey, value);
  }
  // Last, so that no attribute takes the identifier's place.
  if (const auto uploadKey = KLVServerAPIHelper::convertInClass(kId, name)) upload.set(*uploadKey, identifier());
  return upload;
}

void KLVInfo::restore(const Dictionary& jsonDict) {
  const auto* text = jsonDict[kAdditionalInfo].get<std::string>();
  if (text == nullptr) return;
  const auto parsed = KLVUtilities::dictionaryFromJsonString(*text);
  setAdditionalInfo(parsed ? dictionaryIn(*parsed) : Dictionary());
}

void importRow(KLVInfo& record, const Dictionary& row) {
  Dictionary info = record.additionalInfo();
  for (const auto& [column, value] : row) {
    if (column == kId) {
      record.setIdentifier(description(value));
    } else if (column == kReportingTimes) {
      const auto* text = value.get<std::string>();
      if (const auto times = text != nullptr ? KLVUtilities::arrayFromJsonString(*text) : std::nullopt) {
        info.set(column, *times);
      }
    } else {
      info.set(column, value);
    }
  }
  record.setAdditionalInfo(std::move(info));
}

}  // namespace kelvo
