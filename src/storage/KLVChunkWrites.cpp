#include "storage/KLVChunkWrites.h"

#include "records/KLVChunk.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSQLText.h"
#include "storage/KLVSchema.h"

namespace kelvo {
namespace {

std::string inRange(const KLVStoredChunk& chunk) {
  return fmt::format("{0} >= {1} and {0} <= {2}", kKLVEventIndex, chunk.start, chunk.end);
}

bool deleteData(KLVPersistantStore& store, const KLVStoredChunk& chunk) {
  const std::string table = eventsTable(chunk.sid);
  const auto exists = store.tableExists(table);
  return exists && (!*exists || store.write(sqlText("delete from '{}' where {}", quoted(table), inRange(chunk)))) &&
         store.removeDataWithTableName(kKLVChunkRecords, kKLVChunkId, chunk.id);
}

/// Returns the number of the chunk's events, 0 if their table is gone.
std::optional<std::int64_t> countEvents(KLVPersistantStore& store, const KLVStoredChunk& chunk) {
  const std::string table = eventsTable(chunk.sid);
  const auto exists = store.tableExists(table);
  if (!exists || !*exists) return exists ? std::optional(0) : std::nullopt;
  return store.countForUpload(table, chunk.start, chunk.end);
}

std::optional<KLVEviction> sumOf(KLVPersistantStore& store, const KLVSQLText& condition) {
  const auto found = store.rows(
      sqlText("select SUM(events) as events, SUM(chunks) as chunks from {} where {}", kKLVEvictions, condition));
  if (!found || found->empty()) return std::nullopt;
  return KLVEviction{found->front()["events"].asUInt64(), found->front()["chunks"].asUInt64()};
}

}  // namespace

KLVSQLText chunksOfSession(std::string_view sid) {
  // The first part makes SQLite use the primary key: a chunk's id begins with its session's. "`" follows "_".
  const auto text = quoted(sid);
  return sqlText("id >= '{}_' and id < '{}`' and {} = '{}'", text, text, kKLVChunkSid, text);
}

KLVStoredChunk::KLVStoredChunk(const Dictionary& row)
    : sid(row[kKLVChunkSid].asText().value_or("")),
      cid(row[kKLVChunkCid].asUInt64()),
      start(row[kKLVChunkStart].asUInt64()),
      end(row[kKLVChunkEnd].asUInt64()) {
  id = KLVChunk::CMID(sid, cid);
}

bool settleChunk(KLVPersistantStore& store, const KLVStoredChunk& chunk, int status, bool deletesData) {
  const auto later = !deletesData
                         ? 0
                         : store.number(sqlText("select 1 from {} where {} and {} > {} limit 1", kKLVChunkMetaInfo,
                                                chunksOfSession(chunk.sid), kKLVChunkCid, chunk.cid));
  if (!later || (deletesData && !deleteData(store, chunk))) return false;
  if (*later != 0) return store.removeDataWithTableName(kKLVChunkMetaInfo, kKLVChunkId, chunk.id);
  Dictionary values;
  values.set(kKLVChunkStatus, status);
  return store.updateDataWithTableName(kKLVChunkMetaInfo, values, kKLVChunkId, chunk.id);
}

std::optional<KLVEviction> evictChunk(KLVPersistantStore& store, const KLVStoredChunk& chunk) {
  const auto events = countEvents(store, chunk);
  const bool isEmpty = chunk.end < chunk.start;
  const bool isEvicted =
      events && settleChunk(store, chunk, kKLVChunkEvicted, true) &&
      (!isEmpty || (store.removeDataWithTableName(kKLVAggEvents, kKLVAggSid, chunk.sid) &&
                    store.removeDataWithTableName(kKLVAggregatesSent, kKLVAggSid, chunk.sid))) &&
      store.write(sqlText("update {} set chunk = '' where chunk = '{}'", kKLVEvictions, quoted(chunk.id))) &&
      store.insertDataWithTableName(kKLVEvictions,
                                    {{"sid", chunk.sid}, {"chunk", ""}, {"events", *events}, {"chunks", 1}});
  if (!isEvicted) return std::nullopt;
  return KLVEviction{static_cast<std::uint64_t>(*events), 1};
}

bool reportEvictions(KLVPersistantStore& store, const std::string& id, const std::string& sid, bool all) {
  const auto unreported = all ? sqlText("chunk = ''") : sqlText("chunk = '' and sid = '{}'", quoted(sid));
  const auto sum = sumOf(store, unreported);
  if (!sum || sum->chunks == 0) return sum.has_value();
  return store.write(sqlText("delete from {} where {}", kKLVEvictions, unreported)) &&
         store.insertDataWithTableName(kKLVEvictions,
                                       {{"sid", sid}, {"chunk", id}, {"events", sum->events}, {"chunks", sum->chunks}});
}

std::optional<KLVEviction> reportedEvictions(KLVPersistantStore& store, const std::string& id) {
  return sumOf(store, sqlText("chunk = '{}'", quoted(id)));
}

}  // namespace kelvo
