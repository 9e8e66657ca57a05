#include <map>
#include <utility>

#include "core/KLVController.h"
#include "records/KLVRecordKeys.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Collects the counts of one event name while the rows are read.
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
  Lock lock(mutex_);
  if (!gate_.admitEvent(event)) return;
  const auto handler = components_.dataHandler;
  const auto session = components_.session;
  lock.unlock();
  handler->countAggregateEvent(event, session->identifier());
}

Array KLVController::retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) {
  const auto handler = dataHandler();
  if (handler == nullptr) return {};
  std::vector<AggregateRecord> records;
  std::map<std::string, std::size_t> places;
  for (const Dictionary& row : handler->retrieveAggregateEventsWithSessionIdentifier(identifier)) {
    const std::string name = row[kKLVAggName].asText().value_or("");
    const auto [place, isNew] = places.try_emplace(name, records.size());
    if (isNew) records.push_back({name, row[kKLVAggCount], {}});
    const std::string key = row[kKLVAttrKey].asText().value_or("");
    if (key.empty() || key == kKLVCustomInfo || key == kKLVTime) continue;
    records[place->second].addAttribute(key, Array{row[kKLVAttrValue], row[kKLVAggCount]});
  }
  Array all;
  for (const AggregateRecord& record : records) all.append(record.form());
  return all;
}

}  // namespace kelvo
