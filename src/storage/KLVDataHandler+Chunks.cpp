#include <utility>

#include "storage/KLVChunkWrites.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

/// Returns the attributes as the storage form keeps them, without empty values.
Dictionary storedAttributes(const KLVChunkMetaInfo& meta) {
  return objectFromJsonDict<KLVChunkMetaInfo>(meta.jsonDict())->additionalInfo();
}

/// Returns the row of a new chunk. "status" is missing, so the column stays NULL.
Dictionary newRow(const KLVChunkMetaInfo& meta) {
  const Dictionary attributes = storedAttributes(meta);
  Dictionary row;
  for (const auto key : {kKLVChunkSid, kKLVChunkCid, kKLVChunkReportingTimes, kKLVChunkStart, kKLVChunkEnd}) {
    if (const auto* value = attributes.find(key)) row.set(key, *value);
  }
  row.set(kKLVChunkId, meta.identifier());
  return row;
}

/// Returns the number of events that the chunk of `row` carries to the service, 0 if they cannot be read.
std::int64_t eventsOf(const Dictionary& row, KLVPersistantStore& store) {
  const auto table = eventsTable(row[kKLVChunkSid].asText().value_or(""));
  return store.countForUpload(table, row[kKLVChunkStart].asUInt64(), row[kKLVChunkEnd].asUInt64()).value_or(0);
}

/// Notes that the service has the aggregate counts of the session `sid` up to `total`. Keeps a greater number.
bool noteAggregatesSent(KLVPersistantStore& store, const std::string& sid, std::int64_t total) {
  const auto noted = store.retrieveDataWithTableName(kKLVAggregatesSent, kKLVAggSid, sid);
  Dictionary row;
  row.set(kKLVAggregatesSentTotal, total);
  if (!noted) return false;
  if (!noted->empty()) {
    return noted->front()[kKLVAggregatesSentTotal].asInt64() >= total ||
           store.updateDataWithTableName(kKLVAggregatesSent, row, kKLVAggSid, sid);
  }
  row.set(kKLVAggSid, sid);
  return store.insertDataWithTableName(kKLVAggregatesSent, row);
}

}  // namespace

bool KLVDataHandler::saveChunkMetaInfo(std::shared_ptr<KLVChunkMetaInfo> meta, std::optional<Dictionary> records) {
  if (!meta) return false;
  const Dictionary row = newRow(*meta);
  Dictionary recordsRow;
  if (records) {
    const auto text = KLVUtilities::jsonStringFromNSDictionary(*records);
    if (!text) return false;
    for (const auto key : {kKLVChunkId, kKLVChunkSid}) recordsRow.set(key, row[key]);
    recordsRow.set(kKLVChunkRecordsText, *text);
  }
  return jobs_->writeNow([&](KLVPersistantStore& store) {
    const std::string sid = row[kKLVChunkSid].asText().value_or("");
    return countInLedger(store, KLVLedgerEntry::sent, eventsOf(row, store)) &&
           (recordsRow.empty() || store.insertDataWithTableName(kKLVChunkRecords, recordsRow)) &&
           store.insertDataWithTableName(kKLVChunkMetaInfo, row) &&
           reportEvictions(store, meta->identifier(), sid, sid == sessionIdentifier_);
  });
}

std::optional<Dictionary> KLVDataHandler::retrieveChunkRecords(const std::string& chunkId) {
  return jobs_->sync([&]() -> std::optional<Dictionary> {
    auto* store = jobs_->store();
    if (store == nullptr) return std::nullopt;
    const auto rows = store->retrieveDataWithTableName(kKLVChunkRecords, kKLVChunkId, chunkId);
    if (!rows || rows->empty()) return std::nullopt;
    const auto parsed = KLVUtilities::dictionaryFromJsonString(rows->front()[kKLVChunkRecordsText].asText());
    return parsed ? parsed->asDictionary() : std::nullopt;
  });
}

void KLVDataHandler::updateChunkMetaInfoTimestamp(std::shared_ptr<KLVChunkMetaInfo> meta) {
  if (!meta) return;
  jobs_->write([meta = std::move(meta)](KLVPersistantStore& store) {
    const auto times = storedAttributes(*meta)[kKLVChunkReportingTimes].asArray();
    if (!times) {
      KLV_WARN("reporting_times not found, failed to update.");
      return true;
    }
    Dictionary values;
    values.set(kKLVChunkReportingTimes, KLVUtilities::jsonStringFromNSArray(times));
    return store.updateDataWithTableName(kKLVChunkMetaInfo, values, kKLVChunkId, meta->identifier());
  });
}

void KLVDataHandler::updateChunkMetaStatus(std::shared_ptr<KLVInfo> chunk, std::int64_t aggregateTotal,
                                           std::function<void()> committed) {
  if (!chunk) return;
  const auto mark = [&] {
    jobs_->write([chunk = std::move(chunk), aggregateTotal](KLVPersistantStore& store) {
      const auto rows = store.retrieveDataWithTableName(kKLVChunkMetaInfo, kKLVChunkId, chunk->identifier());
      if (!rows) return false;
      if (rows->empty()) return true;  // purged
      const KLVStoredChunk stored(rows->front());
      const bool isFirst = !rows->front()[kKLVChunkStatus].asBool();
      return countInLedger(store, KLVLedgerEntry::accepted, isFirst ? eventsOf(rows->front(), store) : 0) &&
             settleChunk(store, stored, kKLVChunkAccepted, KLVDeliveryRules::current().deletesAcceptedEvents) &&
             store.removeDataWithTableName(kKLVEvictions, "chunk", stored.id) &&
             noteAggregatesSent(store, stored.sid, aggregateTotal);
    });
  };
  writeTogether(mark, std::move(committed));
}

void KLVDataHandler::deleteChunkMetaInfo(std::shared_ptr<KLVInfo> chunk) {
  if (!chunk) return;
  jobs_->write([chunk = std::move(chunk)](KLVPersistantStore& store) {
    return store.removeDataWithTableName(kKLVChunkMetaInfo, kKLVChunkSid, chunk->identifier()) &&
           store.write(sqlText("delete from {} where {}", kKLVChunkRecords, chunksOfSession(chunk->identifier())));
  });
}

std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> KLVDataHandler::retrieveChunkMetaInfo() {
  return jobs_->sync([&]() -> std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> {
    std::vector<std::shared_ptr<KLVChunkMetaInfo>> result;
    auto* store = jobs_->store();
    if (store == nullptr) return result;
    const auto rows = store->retrieveAllDataWithTableName(kKLVChunkMetaInfo);
    if (!rows) return std::nullopt;
    for (const auto& row : *rows) {
      Dictionary known;
      for (const auto key : {kKLVChunkId, kKLVChunkSid, kKLVChunkCid, kKLVChunkReportingTimes, kKLVChunkStart,
                             kKLVChunkEnd, kKLVChunkStatus}) {
        if (const auto* value = row.find(key)) known.set(key, *value);
      }
      result.push_back(objectFromDictionary<KLVChunkMetaInfo>(known));
    }
    return result;
  });
}

std::optional<KLVWaiting> KLVDataHandler::waiting() {
  return jobs_->sync([&] {
    auto* store = jobs_->store();
    return store != nullptr ? store->waiting(sessionIdentifier_) : std::nullopt;
  });
}

}  // namespace kelvo
