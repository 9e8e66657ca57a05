#include "storage/KLVPersistantStore.h"

#include <fmt/format.h>

#include <utility>

#include "kelvo/Value.h"
#include "storage/KLVSchema.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// More than an application has names of events. One takes a few kilobytes of memory.
constexpr std::size_t kMostKeptStatements = 32;

/// Returns, and logs, an insert statement with one named parameter for each column.
KLVSQLText insertStatement(std::string_view table, const Dictionary& parameters) {
  KLVSQLText statement = KLVInsertText().text(table, parameters);
  KLV_DEBUG("insert statement: {}", statement.text);
  return statement;
}

}  // namespace

bool KLVPersistantStore::create(FMKLVDatabase& db, std::string_view table, std::string_view columns,
                                bool failureIsError) {
  if (tables_.count(table) != 0) return true;
  if (run(db, sqlText("create table if not exists '{}' ( {} )", quoted(table), columns), {}, false)) {
    tables_.emplace(table);
    return true;
  }
  if (failureIsError) {
    KLV_ERROR("create table failed: {}", db.lastErrorMessage());
  } else {
    KLV_DEBUG("create table failed: {}", db.lastErrorMessage());
  }
  return false;
}

bool KLVPersistantStore::create(std::string_view table, std::string_view columns, bool failureIsError) {
  bool created = false;
  onDatabase([&](FMKLVDatabase& db) { created = create(db, table, columns, failureIsError); });
  return created;
}

bool KLVPersistantStore::createAtStart(std::string_view table, std::string_view columns, bool failureIsError) {
  if (create(table, columns, failureIsError)) return true;
  missingTables_.push_back({std::string(table), columns, failureIsError});
  return false;
}

void KLVPersistantStore::openAndMakeTables() {
  if (db_ == nullptr) open();
  if (db_ == nullptr) return;
  for (const MissingTable& table : std::exchange(missingTables_, {})) {
    static_cast<void>(createAtStart(table.name, table.columns, table.failureIsError));
  }
  if (!isReady()) return;
  if (!ledger_.isOpen()) onDatabase([&](FMKLVDatabase& db) { ledger_.open(db); });
  for (const auto& report : std::exchange(waitForReady_, {})) report(true);
}

void KLVPersistantStore::whenReady(std::function<void(bool isReady)> report) {
  report(isReady());
  if (!isReady()) waitForReady_.push_back(std::move(report));
}

bool KLVPersistantStore::createEventsTableWithTableName(std::string_view table) {
  return create(table, kKLVEventsColumns, false);
}

bool KLVPersistantStore::createChunkMetaInfoTableWithTableName(std::string_view table) {
  return createAtStart(table, kKLVChunkMetaInfoColumns, true);
}

bool KLVPersistantStore::createAggregateEventsTable() {
  return createAtStart(kKLVAggEvents, kKLVAggEventsColumns, false);
}

bool KLVPersistantStore::createLifetimeEventsTable() {
  return createAtStart(kKLVLifetimeEvents, kKLVLifetimeEventsColumns, false);
}

void KLVPersistantStore::createOwnTables() {
  onDatabase([&](FMKLVDatabase& db) {  // if it fails, the next start tries again
    if (tables_.count(kKLVChunkMetaInfo) == 0) return;
    static_cast<void>(update(
        db,
        sqlText("create index if not exists {} on {} ({})", kKLVChunkMetaInfoIndex, kKLVChunkMetaInfo, kKLVChunkSid),
        {}, false));
  });
  static_cast<void>(createAtStart(kKLVChunkRecords, kKLVChunkRecordsColumns, true));
  static_cast<void>(createAtStart(kKLVAggregatesSent, kKLVAggregatesSentColumns, true));
  static_cast<void>(createAtStart(kKLVRescuedFiles, kKLVRescuedFilesColumns, true));
  static_cast<void>(createAtStart(kKLVEvictions, kKLVEvictionsColumns, true));
  if (KLVDeliveryRules::current().keepsJournal) {
    static_cast<void>(createAtStart(kKLVJournalCalls, kKLVJournalCallsColumns, true));
  }
  if (createAtStart(kKLVLedger, kKLVLedgerColumns, true)) onDatabase([&](FMKLVDatabase& db) { ledger_.open(db); });
}

bool KLVPersistantStore::removeTableWithName(std::string_view table) {
  bool removed = false;
  onDatabase([&](FMKLVDatabase& db) {
    db.clearCachedStatements();  // of this table
    removed = update(db, sqlText("DROP TABLE IF EXISTS '{}'", quoted(table)), {}, false);
    if (const auto known = tables_.find(table); known != tables_.end()) tables_.erase(known);
    if (sequences_) sequences_->erase(std::string(table));
  });
  return removed;
}

bool KLVPersistantStore::run(FMKLVDatabase& db, const KLVSQLText& sql, const Parameters& values, bool isFrequent) {
  if (sql.refused) return db.refuse(sql.text, kRefusal);
  if (isFrequent) {
    if (db.cachedStatements().size() > kMostKeptStatements) db.clearCachedStatements();
    return db.updateKeepingStatement(sql.text, values);
  }
  return values.empty() ? db.executeUpdate(sql.text) : db.executeUpdate(sql.text, values);
}

bool KLVPersistantStore::update(FMKLVDatabase& db, const KLVSQLText& sql, const Parameters& values, bool isFrequent) {
  const bool written = run(db, sql, values, isFrequent);
  if (!written && reportsFailures()) KLV_ERROR("KLVError {}: {}", db.lastErrorCode(), db.lastErrorMessage());
  return written;
}

bool KLVPersistantStore::write(const KLVSQLText& sql, const Parameters& parameters, bool isFrequent) {
  bool written = false;
  onDatabase([&](FMKLVDatabase& db) { written = update(db, sql, parameters, isFrequent); });
  return written;
}

std::string KLVPersistantStore::insertStatementWithTableName(std::string_view table, const Parameters& parameters) {
  return insertStatement(table, parameters).text;
}

bool KLVPersistantStore::insertDataWithTableName(std::string_view table, const Parameters& parameters) {
  return write(insertStatement(table, parameters), parameters);
}

bool KLVPersistantStore::insertEventWithTableName(std::string_view table, const Parameters& parameters,
                                                  const std::function<bool()>& mayCreate) {
  bool inserted = false;
  onDatabase([&](FMKLVDatabase& db) {
    const KLVSQLText& statement = eventInsert_.text(table, parameters);
    KLV_DEBUG("insert statement: {}", statement.text);
    // If the table cannot be created, the insert fails, too, and reports it.
    if (tables_.count(table) == 0 && mayCreate()) static_cast<void>(create(db, table, kKLVEventsColumns, false));
    inserted = update(db, statement, parameters, true);
  });
  return inserted;
}

bool KLVPersistantStore::updateDataWithTableName(std::string_view table, const Parameters& values,
                                                 const Parameters& conditions) {
  KLVSQLText statement = sqlText("UPDATE {} SET{} where{}", plainName(table), joined(values, " ", ", ", "{}={}"),
                                 joined(conditions, " ", " AND ", "{}='{}'"));
  for (const auto& entry : values) statement.refused = statement.refused || !entry.second.isNumber();
  KLV_DEBUG("update statement: {}", statement.text);
  return write(statement);
}

bool KLVPersistantStore::updateDataWithTableName(std::string_view table, const Parameters& values,
                                                 std::string_view field, const Value& having, bool isFrequent) {
  const KLVSQLText statement = sqlText("UPDATE '{}' SET{} where {} = '{}'", quoted(table),
                                       joinedKeys(values, "{0}=:{0}"), plainName(field), quoted(description(having)));
  KLV_DEBUG("update statement: {}", statement.text);
  return write(statement, values, isFrequent);
}

bool KLVPersistantStore::updateAggregateEventsCountRecordWithCount(int count, const Parameters& conditions) {
  // Kept: three spaces before the first condition.
  const KLVSQLText statement =
      sqlText("UPDATE {} SET {}={} where {} IS NULL AND {} IS NULL AND  {}", kKLVAggEvents, kKLVAggCount, count,
              kKLVAttrKey, kKLVAttrValue, joined(conditions, " ", " AND ", "{}='{}'"));
  KLV_DEBUG("Aggregate events count record update query: {}", statement.text);
  return write(statement);
}

bool KLVPersistantStore::removeDataWithTableName(std::string_view table, std::string_view field, const Value& having) {
  return write(
      sqlText("delete from '{}' where {} = '{}'", quoted(table), plainName(field), quoted(description(having))));
}

}  // namespace kelvo
