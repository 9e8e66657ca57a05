#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "storage/KLVCountCache.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

std::optional<Dictionary> first(std::vector<Dictionary> rows) {
  return rows.empty() ? std::nullopt : std::optional(std::move(rows.front()));
}

/// Kept: every statement on a name with a quote fails and is logged, so such a name must never be cached.
bool isCached(const std::string& name) {
  return name.find('\'') == std::string::npos;
}

/// Returns the lifetime count of `name` from the cache or the database, nullopt if it has no row.
std::optional<std::int64_t> lifetimeCount(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name) {
  const auto generation = store.rollbacks();
  if (const auto known = cache.find(name, generation)) return known;
  const auto row = first(store.retrieveDataWithTableName(kKLVLifetimeEvents, kKLVLifetimeEventName, name));
  if (!row) return std::nullopt;
  const std::int64_t count = (*row)[kKLVLifetimeCount].asInt64();
  cache.found(name, count, generation);
  return count;
}

void remember(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name, std::int64_t count) {
  if (isCached(name)) cache.written(name, count, store.rollbacks());
}

bool countLifetimeEvent(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name) {
  Dictionary counted;
  if (const auto count = lifetimeCount(store, cache, name)) {
    counted.set(kKLVLifetimeCount, *count + 1);
    if (store.updateDataWithTableName(kKLVLifetimeEvents, counted, kKLVLifetimeEventName, name)) {
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

}  // namespace

void KLVDataHandler::upsertLifetimeEvent(std::shared_ptr<KLVEvent> event) {
  if (!event) return;
  jobs_->write([cache = lifetimeCounts_, name = event->identifier()](KLVPersistantStore& store) {
    return countLifetimeEvent(store, *cache, name);
  });
}

std::optional<Dictionary> KLVDataHandler::retrieveLifetimeEventWithName(const std::string& name) {
  auto* store = jobs_->store();
  const auto count = store == nullptr ? std::nullopt : lifetimeCount(*store, *lifetimeCounts_, name);
  if (!count) return std::nullopt;
  return Dictionary{{std::string(kKLVLifetimeEventName), name}, {std::string(kKLVLifetimeCount), *count}};
}

void KLVDataHandler::saveAggregateEventInfo(std::shared_ptr<KLVEvent> event, const std::string& /*identifier*/) {
  if (!event) return;
  // Kept: the insert always fails and is logged, because an event's storage form has columns that this table lacks.
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
