#include <cstdint>
#include <utility>

#include "storage/KLVCountCache.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"

namespace kelvo {

void KLVDataHandler::upsertLifetimeEvent(const std::shared_ptr<KLVEvent>& event) {
  if (!event) return;
  if (jobs_->store() == nullptr) return KLVLedger::shared().add(KLVLedgerEntry::forPlugins);
  const KLVWaitingCall& made = event->call();
  jobs_->write(
      [cache = lifetimeCounts_, name = event->identifier(), call = made](KLVPersistantStore& store) {
        store.journal().settle(call);
        return countInLedger(store, KLVLedgerEntry::forPlugins, 1, call) && countLifetimeEvent(store, *cache, name);
      },
      eventsOf(made));
}

void KLVDataHandler::settle(KLVWaitingCall made, KLVLedgerEntry outcome) {
  const auto events = eventsOf(made);
  jobs_->write(
      [call = std::move(made), outcome](KLVPersistantStore& store) {
        store.journal().settle(call);
        return countInLedger(store, outcome, 1, call);
      },
      events);
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
    const auto rows = store->retrieveDataForIdentifier(kKLVAggCount, kKLVAggEvents, parameters);
    return rows && !rows->empty() ? std::optional(rows->front()) : std::nullopt;
  });
}

std::vector<Dictionary> KLVDataHandler::retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) {
  return jobs_->sync([&]() -> std::vector<Dictionary> {
    auto* store = jobs_->store();
    if (store == nullptr) return {};
    return store->retrieveDataWithTableName(kKLVAggEvents, kKLVAggSid, identifier).value_or(std::vector<Dictionary>());
  });
}

void KLVDataHandler::fetchAndIncrementCountForParameters(const Dictionary& parameters) {
  static_cast<void>(jobs_->writeNow([&](KLVPersistantStore& store) { return countAttribute(store, parameters); }));
}

void KLVDataHandler::updateAggregateEventsCountRecordHavingParameters(const Dictionary& parameters) {
  static_cast<void>(jobs_->writeNow([&](KLVPersistantStore& store) { return countOccurrence(store, parameters); }));
}

void KLVDataHandler::countAggregateEvent(std::shared_ptr<KLVEvent> event, std::string identifier) {
  if (!event) return;
  if (jobs_->store() == nullptr) return KLVLedger::shared().add(KLVLedgerEntry::notStored);
  const auto events = eventsOf(event->call());
  jobs_->write(
      [event = std::move(event), identifier = std::move(identifier)](KLVPersistantStore& store) {
        store.journal().settle(event->call());
        return countInLedger(store, KLVLedgerEntry::counted, 1, event->call()) &&
               countAggregate(store, *event, identifier);
      },
      events);
}

std::optional<AggregateTotals> KLVDataHandler::aggregateTotals(const std::string& identifier) {
  return jobs_->sync([&]() -> std::optional<AggregateTotals> {
    auto* store = jobs_->store();
    if (store == nullptr) return AggregateTotals();
    const auto counted = store->sumInTable(kKLVAggEvents, kKLVAggCount, kKLVAggSid, identifier);
    const auto delivered = store->sumInTable(kKLVAggregatesSent, kKLVAggregatesSentTotal, kKLVAggSid, identifier);
    if (!counted || !delivered) return std::nullopt;
    return AggregateTotals{*counted, *delivered};
  });
}

std::vector<std::string> KLVDataHandler::getSessionsWithAggregates() {
  return jobs_->sync([&] {
    std::vector<std::string> sessions;
    auto* store = jobs_->store();
    if (store == nullptr) return sessions;
    for (const auto& row : store->retrieveSetOfValuesFromTable(kKLVAggEvents, kKLVAggSid)) {
      if (const auto sid = row[kKLVAggSid].asText()) sessions.push_back(*sid);
    }
    return sessions;
  });
}

void KLVDataHandler::deleteAggregateEventsWithSessionId(std::string identifier) {
  jobs_->write([identifier = std::move(identifier)](KLVPersistantStore& store) {
    return store.removeDataWithTableName(kKLVAggEvents, kKLVAggSid, identifier) &&
           store.removeDataWithTableName(kKLVAggregatesSent, kKLVAggSid, identifier);
  });
}

}  // namespace kelvo
