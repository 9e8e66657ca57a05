#include <map>
#include <utility>

#include "core/KLVController.h"
#include "records/KLVRecordKeys.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

std::string textAt(const Dictionary& row, std::string_view key) {
  const auto* text = row[key].get<std::string>();
  return text != nullptr ? *text : std::string();
}

/// The record of one event name while its rows are read.
struct AggregateRecord {
  std::string name;
  Value count;
  std::vector<std::pair<std::string, Array>> attributes;

  void addAttribute(const std::string& key, Array valueAndCount) {
    for (auto& [present, list] : attributes) {
      if (present == key) return list.append(std::move(valueAndCount));
    }
    attributes.emplace_back(key, Array());
    attributes.back().second.append(std::move(valueAndCount));
  }

  [[nodiscard]] Dictionary form() const {
    Dictionary lists;
    for (const auto& [key, list] : attributes) lists.set(key, list);
    return {{"name", name}, {"count", count}, {"attributes", lists}};
  }
};

}  // namespace

void KLVController::processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>& event) {
  std::shared_ptr<KLVDataHandler> handler;
  std::string sessionId;
  {
    const std::lock_guard lock(mutex_);
    if (dataHandlerStarted_) {
      handler = dataHandler_;
      sessionId = session_->identifier();
    } else if (storeInBuffer_) {
      eventsBuffer_.push_back(event);
      return;
    }
  }
  if (handler == nullptr) {
    KLV_ERROR("SDK Disabled - ignoring event");
    return;
  }
  const Dictionary parameters{{std::string(kKLVAggName), event->identifier()}, {std::string(kKLVAggSid), sessionId}};
  handler->updateAggregateEventsCountRecordHavingParameters(parameters);
  for (const auto& [key, value] : event->additionalInfo()) {
    Dictionary ofAttribute = parameters;
    ofAttribute.set(kKLVAttrKey, key);
    ofAttribute.set(kKLVAttrValue, value);
    handler->fetchAndIncrementCountForParameters(ofAttribute);
  }
}

Array KLVController::retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) {
  const auto handler = dataHandler();
  if (handler == nullptr) return {};
  std::vector<AggregateRecord> records;
  std::map<std::string, std::size_t> places;
  for (const Dictionary& row : handler->retrieveAggregateEventsWithSessionIdentifier(identifier)) {
    const std::string name = textAt(row, kKLVAggName);
    const auto [place, isNew] = places.try_emplace(name, records.size());
    if (isNew) records.push_back({name, row[kKLVAggCount], {}});
    const std::string key = textAt(row, kKLVAttrKey);
    if (key.empty() || key == kKLVCustomInfo || key == kKLVTime) continue;
    records[place->second].addAttribute(key, Array{row[kKLVAttrValue], row[kKLVAggCount]});
  }
  Array all;
  for (const AggregateRecord& record : records) all.append(record.form());
  return all;
}

}  // namespace kelvo
