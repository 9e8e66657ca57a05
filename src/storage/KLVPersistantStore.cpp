#include "storage/KLVPersistantStore.h"

#include <fmt/format.h>

#include <utility>

#include "kelvo/Value.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Formats each key, which must be a plain name, and joins the texts: " a, b" or " :a, :b".
KLVSQLText joinedKeys(const Dictionary& parameters, fmt::string_view format) {
  KLVSQLText all;
  std::string_view separator = " ";
  for (const auto& entry : parameters) {
    const KLVSQLText name = sqlText(format, plainName(entry.first));
    all.text.append(separator).append(name.text);
    all.refused = all.refused || name.refused;
    separator = ", ";
  }
  return all;
}

/// Returns, and logs, an insert statement with one named parameter for each column.
KLVSQLText insertStatement(std::string_view table, const Dictionary& parameters) {
  auto statement = sqlText("INSERT INTO '{}' ({}) VALUES ({})", quoted(table), joinedKeys(parameters, "{}"),
                           joinedKeys(parameters, ":{}"));
  KLV_DEBUG("insert statement: {}", statement.text);
  return statement;
}

}  // namespace

bool KLVPersistantStore::create(FMKLVDatabase& db, std::string_view table, std::string_view columns,
                                bool failureIsError) {
  if (tables_.count(table) != 0) return true;
  if (run(db, sqlText("create table if not exists '{}' ( {} )", quoted(table), columns), {})) {
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
  static_cast<void>(createAtStart(kKLVChunkRecords, kKLVChunkRecordsColumns, true));
  static_cast<void>(createAtStart(kKLVAggregatesSent, kKLVAggregatesSentColumns, true));
  static_cast<void>(createAtStart(kKLVRescuedFiles, kKLVRescuedFilesColumns, true));
  static_cast<void>(createAtStart(kKLVEvictions, kKLVEvictionsColumns, true));
  if (createAtStart(kKLVLedger, kKLVLedgerColumns, true)) onDatabase([&](FMKLVDatabase& db) { ledger_.open(db); });
}

bool KLVPersistantStore::removeTableWithName(std::string_view table) {
  bool removed = false;
  onDatabase([&](FMKLVDatabase& db) {
    removed = update(db, sqlText("DROP TABLE IF EXISTS '{}'", quoted(table)), {});
    if (const auto known = tables_.find(table); known != tables_.end()) tables_.erase(known);
    if (sequences_) sequences_->erase(std::string(table));
  });
  return removed;
}

bool KLVPersistantStore::run(FMKLVDatabase& db, const KLVSQLText& sql, const Parameters& parameters) {
  if (sql.refused) return db.refuse(sql.text, kRefusal);
  return parameters.empty() ? db.executeUpdate(sql.text) : db.executeUpdate(sql.text, parameters);
}

bool KLVPersistantStore::update(FMKLVDatabase& db, const KLVSQLText& sql, const Parameters& parameters) {
  const bool written = run(db, sql, parameters);
  if (!written && reportsFailures()) KLV_ERROR("KLVError {}: {}", db.lastErrorCode(), db.lastErrorMessage());
  return written;
}

bool KLVPersistantStore::write(const KLVSQLText& sql, const Parameters& parameters) {
  bool written = false;
  onDatabase([&](FMKLVDatabase& db) { written = update(db, sql, parameters); });
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
  const KLVSQLText statement = insertStatement(table, parameters);
  onDatabase([&](FMKLVDatabase& db) {
    // If the table cannot be created, the insert fails, too, and reports it.
    if (tables_.count(table) == 0 && mayCreate()) static_cast<void>(create(db, table, kKLVEventsColumns, false));
    inserted = update(db, statement, parameters);
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
                                                 std::string_view field, const Value& having) {
  const KLVSQLText statement = sqlText("UPDATE '{}' SET{} where {} = '{}'", quoted(table),
                                       joinedKeys(values, "{0}=:{0}"), plainName(field), quoted(description(having)));
  KLV_DEBUG("update statement: {}", statement.text);
  return write(statement, values);
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
