#include "storage/KLVEventWrites.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/Directories.h"
#include "platform/Files.h"
#include "records/KLVEventType.h"
#include "records/KLVSession.h"
#include "storage/KLVSQLText.h"
#include "storage/KLVSchema.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

void remember(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name, std::int64_t count) {
  if (!isUncountable(name)) cache.written(name, count, store.rollbacks());
}

bool hasUncountable(const Dictionary& parameters) {
  return std::any_of(parameters.begin(), parameters.end(),
                     [](const auto& entry) { return isUncountable(description(entry.second)); });
}

/// Reads the count of the first aggregate row with these values and calls `increment` with the next number. Inserts a
/// row with count 1 if there is none, or if the values are uncountable.
template <class Increment>
bool count(KLVPersistantStore& store, Dictionary parameters, const Increment& increment) {
  const auto rows = store.retrieveDataForIdentifier(kKLVAggCount, kKLVAggEvents, parameters);
  if (!rows && !hasUncountable(parameters)) return false;  // a failed read is not "no row"
  if (rows && !rows->empty()) return increment(rows->front()[kKLVAggCount].asInt64() + 1);
  parameters.set(kKLVAggCount, 1);
  return store.insertDataWithTableName(kKLVAggEvents, parameters);
}

}  // namespace

std::string eventsTable(const std::string& session) {
  return std::string(kKLVEvents) + "_" + session;
}

bool isUncountable(const std::string& text) {
  return isRefusedValue(text);
}

bool insertEvent(KLVPersistantStore& store, const std::string& session, bool creates, const Dictionary& row) {
  return store.insertEventWithTableName(eventsTable(session), row, [&] {
    return creates || (KLVSession::isIdentifier(session) && isDirectory(Directories::inLibrary(session)));
  });
}

void countRow(KLVPersistantStore& store, const Dictionary& row, bool isStored, const KLVWaitingCall& call) {
  store.ledger().count(isStored ? KLVLedgerEntry::stored : KLVLedgerEntry::notStored, 1, call);
  if (isStored) store.ledger().count(KLVLedgerEntry::notForUpload, notForUpload(row), call);
}

int notForUpload(const Dictionary& row) {
  const auto* type = row[kKLVType].get<std::string>();
  const bool isSent = type != nullptr && std::any_of(std::begin(kTypesInChunks), std::end(kTypesInChunks),
                                                     [&](auto each) { return *type == stringFromType(each); });
  return isSent ? 0 : 1;
}

std::optional<std::int64_t> lifetimeCount(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name) {
  const auto generation = store.rollbacks();
  if (const auto known = cache.find(name, generation)) return known;
  const auto rows = store.retrieveDataWithTableName(kKLVLifetimeEvents, kKLVLifetimeEventName, name);
  if (!rows || rows->empty()) return std::nullopt;
  const std::int64_t count = rows->front()[kKLVLifetimeCount].asInt64();
  cache.found(name, count, generation);
  return count;
}

bool countLifetimeEvent(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name) {
  if (store.lifetimeCounts().isEmpty()) cache.makeRoom();
  if (KLVDeliveryRules::current().addsUpLifetimeCounts) {
    store.lifetimeCounts().add(name);
    if (!isUncountable(name)) remember(store, cache, name, lifetimeCount(store, cache, name).value_or(0) + 1);
    return true;
  }
  Dictionary counted;
  if (const auto count = lifetimeCount(store, cache, name)) {
    counted.set(kKLVLifetimeCount, *count + 1);
    if (store.updateDataWithTableName(kKLVLifetimeEvents, counted, kKLVLifetimeEventName, name, true)) {
      remember(store, cache, name, *count + 1);
      return true;
    }
    if (KLVPersistantStore::reportsFailures()) KLV_ERROR("Couldn't update lifetime event count");
    return false;
  }
  counted.set(kKLVLifetimeEventName, name);
  counted.set(kKLVLifetimeCount, 1);
  if (store.insertDataWithTableName(kKLVLifetimeEvents, counted)) {
    remember(store, cache, name, 1);
    return true;
  }
  if (KLVPersistantStore::reportsFailures()) KLV_ERROR("Couldn't insert lifetime event");
  return false;
}

bool countAttribute(KLVPersistantStore& store, Dictionary parameters) {
  // The text that later reads compare. Bound as a number, the column would hold another text.
  if (const auto* value = parameters.find(kKLVAttrValue)) parameters.set(kKLVAttrValue, description(Value(*value)));
  return count(store, parameters, [&](std::int64_t next) {
    Dictionary counted;
    counted.set(kKLVAggCount, next);
    return store.updateDataWithTableName(kKLVAggEvents, counted, parameters);
  });
}

bool countOccurrence(KLVPersistantStore& store, const Dictionary& parameters) {
  return count(store, parameters, [&](std::int64_t next) {
    using Limits = std::numeric_limits<int>;
    const auto counted = std::clamp<std::int64_t>(next, Limits::min(), Limits::max());
    return store.updateAggregateEventsCountRecordWithCount(static_cast<int>(counted), parameters);
  });
}

bool countAggregate(KLVPersistantStore& store, const KLVEvent& event, const std::string& session) {
  Dictionary parameters;
  parameters.set(kKLVAggName, event.identifier());
  parameters.set(kKLVAggSid, session);
  bool counted = countOccurrence(store, parameters) || hasUncountable(parameters);
  for (const auto& [key, value] : event.additionalInfo()) {
    Dictionary ofAttribute = parameters;
    ofAttribute.set(kKLVAttrKey, key);
    ofAttribute.set(kKLVAttrValue, value);
    counted = (countAttribute(store, ofAttribute) || hasUncountable(ofAttribute)) && counted;
  }
  return counted;
}

}  // namespace kelvo
