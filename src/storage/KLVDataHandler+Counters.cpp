#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

std::optional<Dictionary> first(std::vector<Dictionary> rows) {
  return rows.empty() ? std::nullopt : std::optional(std::move(rows.front()));
}

std::optional<Dictionary> lifetimeEvent(KLVPersistantStore& store, const std::string& name) {
  return first(store.retrieveDataWithTableName(kKLVLifetimeEvents, kKLVLifetimeEventName, name));
}

bool countLifetimeEvent(KLVPersistantStore& store, const std::string& name) {
  Dictionary counted;
  if (const auto row = lifetimeEvent(store, name)) {
    counted.set(kKLVLifetimeCount, (*row)[kKLVLifetimeCount].asInt64() + 1);
    if (store.updateDataWithTableName(kKLVLifetimeEvents, counted, kKLVLifetimeEventName, name)) return true;
    if (KLVPersistantStore::reportsFailures()) KLV_ERROR("Couldn't update lifetime event count");
    return false;
  }
  counted.set(kKLVLifetimeEventName, name);
  counted.set(kKLVLifetimeCount, 1);
  if (store.insertDataWithTableName(kKLVLifetimeEvents, counted)) return true;
  if (KLVPersistantStore::reportsFailures()) KLV_ERROR("Couldn't insert lifetime event");
  return false;
}

}  // namespace

void KLVDataHandler::upsertLifetimeEvent(std::shared_ptr<KLVEvent> event) {
  if (!event) return;
  jobs_->write(
      [event = std::move(event)](KLVPersistantStore& store) { return countLifetimeEvent(store, event->identifier()); });
}

std::optional<Dictionary> KLVDataHandler::retrieveLifetimeEventWithName(const std::string& name) {
  auto* store = jobs_->store();
  return store == nullptr ? std::nullopt : lifetimeEvent(*store, name);
}

void KLVDataHandler::saveAggregateEventInfo(std::shared_ptr<KLVEvent> event, const std::string& /*identifier*/) {
  if (!event) return;
  // Kept: an event's storage form has columns that this table lacks, so the insert fails and is logged.
  jobs_->write([event = std::move(event)](KLVPersistantStore& store) {
    return store.insertDataWithTableName(kKLVAggEvents, event->jsonDict());
  });
}

std::optional<Dictionary> KLVDataHandler::retrieveAggregateEventWithParameters(const Dictionary& parameters) {
  return jobs_->sync([&]() -> std::optional<Dictionary> {
    auto* store = jobs_->store();
    if (store == nullptr) return std::nullopt;
    return first(store->retrieveDataForIdentifier(kKLVAggCount, kKLVAggEvents, parameters));
  });
}

std::vector<Dictionary> KLVDataHandler::retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) {
  return jobs_->sync([&]() -> std::vector<Dictionary> {
    auto* store = jobs_->store();
    if (store == nullptr) return {};
    return store->retrieveDataWithTableName(kKLVAggEvents, kKLVAggSid, identifier);
  });
}

std::optional<std::int64_t> KLVDataHandler::aggregateCount(const Dictionary& parameters) {
  const auto row = retrieveAggregateEventWithParameters(parameters);
  return row ? std::optional((*row)[kKLVAggCount].asInt64()) : std::nullopt;
}

void KLVDataHandler::insertFirstAggregateCount(Dictionary parameters) {
  parameters.set(kKLVAggCount, 1);
  static_cast<void>(jobs_->store()->insertDataWithTableName(kKLVAggEvents, parameters));
}

void KLVDataHandler::fetchAndIncrementCountForParameters(const Dictionary& parameters) {
  jobs_->sync([&] {
    auto* store = jobs_->store();
    if (store == nullptr) return;
    const auto count = aggregateCount(parameters);
    if (!count) return insertFirstAggregateCount(parameters);
    Dictionary counted;
    counted.set(kKLVAggCount, *count + 1);
    static_cast<void>(store->updateDataWithTableName(kKLVAggEvents, counted, parameters));
  });
}

void KLVDataHandler::updateAggregateEventsCountRecordHavingParameters(const Dictionary& parameters) {
  jobs_->sync([&] {
    auto* store = jobs_->store();
    if (store == nullptr) return;
    const auto count = aggregateCount(parameters);
    if (!count) return insertFirstAggregateCount(parameters);
    using Limits = std::numeric_limits<int>;
    const auto counted = std::clamp<std::int64_t>(*count + 1, Limits::min(), Limits::max());
    static_cast<void>(store->updateAggregateEventsCountRecordWithCount(static_cast<int>(counted), parameters));
  });
}

void KLVDataHandler::deleteAggregateEventsWithSessionId(std::string identifier) {
  jobs_->write([identifier = std::move(identifier)](KLVPersistantStore& store) {
    return store.removeDataWithTableName(kKLVAggEvents, kKLVAggSid, identifier);
  });
}

}  // namespace kelvo
