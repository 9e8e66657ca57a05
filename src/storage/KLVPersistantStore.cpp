#include "storage/KLVPersistantStore.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <limits>
#include <utility>

#include "kelvo/Value.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo {
namespace {

/// Formats each entry with `format` ({0} is the key, {1} the value) and joins the texts: "a='1' AND b='2'". `first` is
/// put before the first text, `then` before each other.
std::string joined(const Dictionary& parameters, std::string_view first, std::string_view then,
                   fmt::string_view format) {
  std::string text;
  std::string_view separator = first;
  for (const auto& [key, value] : parameters) {
    text += separator;
    const auto valueText = description(value);
    text += fmt::vformat(format, fmt::make_format_args(key, valueText));
    separator = then;
  }
  return text;
}

/// Joins the keys with `mark` before each: " a, b" or " :a, :b".
std::string joinedKeys(const Dictionary& parameters, std::string_view mark) {
  std::string text;
  std::string_view separator = " ";
  for (const auto& entry : parameters) {
    text.append(separator).append(mark).append(entry.first);
    separator = ", ";
  }
  return text;
}

}  // namespace

bool KLVPersistantStore::create(std::string_view table, std::string_view columns, bool failureIsError) {
  bool created = false;
  onDatabase([&](FMKLVDatabase& db) {
    created = db.executeUpdate(fmt::format("create table if not exists '{}' ( {} )", table, columns));
    if (created) return;
    if (failureIsError) {
      KLV_ERROR("create table failed: {}", db.lastErrorMessage());
    } else {
      KLV_DEBUG("create table failed: {}", db.lastErrorMessage());
    }
  });
  if (!created) missingTables_.push_back({std::string(table), std::string(columns), failureIsError});
  return created;
}

void KLVPersistantStore::openAndMakeTables() {
  if (db_ == nullptr) open();
  if (db_ == nullptr) return;
  for (const MissingTable& table : std::exchange(missingTables_, {})) {
    static_cast<void>(create(table.name, table.columns, table.failureIsError));
  }
}

bool KLVPersistantStore::createEventsTableWithTableName(std::string_view table) {
  return create(table, kKLVEventsColumns, false);
}

bool KLVPersistantStore::createChunkMetaInfoTableWithTableName(std::string_view table) {
  return create(table, kKLVChunkMetaInfoColumns, true);
}

bool KLVPersistantStore::createAggregateEventsTable() {
  return create(kKLVAggEvents, kKLVAggEventsColumns, false);
}

bool KLVPersistantStore::createLifetimeEventsTable() {
  return create(kKLVLifetimeEvents, kKLVLifetimeEventsColumns, false);
}

bool KLVPersistantStore::removeTableWithName(std::string_view table) {
  return writeAndForgetCount(table, fmt::format("DROP TABLE IF EXISTS '{}'", table));
}

std::vector<std::string> KLVPersistantStore::retrieveTableNames() {
  std::vector<std::string> names;
  for (const auto& row : rows("SELECT name FROM 'sqlite_master' WHERE type='table'")) {
    if (const auto* name = row["name"].get<std::string>()) names.push_back(*name);
  }
  return names;
}

KLVPersistantStore::Rows KLVPersistantStore::rows(const std::string& sql) {
  Rows result;
  onDatabase([&](FMKLVDatabase& db) {
    const auto set = db.executeQuery(sql);
    while (set && set->next()) {
      if (const auto row = set->resultDictionary()) result.push_back(KLVUtilities::dictionaryByRemovingNulls(*row));
    }
  });
  return result;
}

int KLVPersistantStore::retrieveNumberOfRecordsInTable(std::string_view table) {
  int count = 0;
  onDatabase([&](FMKLVDatabase& db) {
    if (const auto counted = recordCounts_.find(table); counted != recordCounts_.end()) {
      count = counted->second;
      return;
    }
    count = db.intForQuery(fmt::format("select COUNT(*) from '{}'", table));
    if (db.lastErrorCode() == SQLITE_OK) recordCounts_.emplace(table, count);
  });
  return count;
}

namespace {

/// Filters by `column` only if `value` is given, too.
std::string rangeQuery(std::string_view table, const std::string& where, const std::optional<std::string>& column,
                       const std::optional<std::string>& value) {
  if (!column || !value) return fmt::format("select * from '{}' {}", table, where);
  return fmt::format("select * from '{}' {} and {} = '{}'", table, where, *column, *value);
}

}  // namespace

KLVPersistantStore::Rows KLVPersistantStore::retrieveDataWithTableName(std::string_view table, std::uint64_t from,
                                                                       std::uint64_t to,
                                                                       const std::optional<std::string>& column,
                                                                       const std::optional<std::string>& value) {
  const auto where = fmt::format("where identifier >= {} and identifier <= {}", from, to);
  return rows(rangeQuery(table, where, column, value));
}

KLVPersistantStore::Rows KLVPersistantStore::retrieveDataWithTableName(std::string_view table, int from,
                                                                       const std::optional<std::string>& column,
                                                                       const std::optional<std::string>& value) {
  return rows(rangeQuery(table, fmt::format("where identifier >= {}", from), column, value));
}

KLVPersistantStore::Rows KLVPersistantStore::retrieveDataWithTableName(std::string_view table, std::string_view key,
                                                                       const Value& value) {
  return rows(fmt::format("select * from '{}' where {} = '{}'", table, key, description(value)));
}

KLVPersistantStore::Rows KLVPersistantStore::retrieveDataForIdentifier(std::string_view column, std::string_view table,
                                                                       const Parameters& conditions) {
  if (conditions.empty()) return {};
  return rows(fmt::format("select {} from '{}' where {}", column, table, joined(conditions, "", " AND ", "{} = '{}'")));
}

KLVPersistantStore::Rows KLVPersistantStore::retrieveAllDataWithTableName(std::string_view table) {
  return rows(fmt::format("select * from '{}'", table));
}

KLVPersistantStore::Rows KLVPersistantStore::retrieveSetOfValuesFromTable(std::string_view table,
                                                                          std::string_view key) {
  return rows(fmt::format("select DISTINCT({}) from '{}'", key, table));
}

bool KLVPersistantStore::write(const std::string& sql, const Parameters& parameters) {
  bool written = false;
  onDatabase([&](FMKLVDatabase& db) { written = update(db, sql, parameters); });
  return written;
}

bool KLVPersistantStore::update(FMKLVDatabase& db, const std::string& sql, const Parameters& parameters) {
  const bool written = db.executeUpdate(sql, parameters);
  if (!written && reportsFailures()) KLV_ERROR("KLVError {}: {}", db.lastErrorCode(), db.lastErrorMessage());
  return written;
}

bool KLVPersistantStore::writeAndForgetCount(std::string_view table, const std::string& sql) {
  bool written = false;
  onDatabase([&](FMKLVDatabase& db) {
    written = update(db, sql, {});
    if (const auto counted = recordCounts_.find(table); counted != recordCounts_.end()) recordCounts_.erase(counted);
  });
  return written;
}

std::string KLVPersistantStore::insertStatementWithTableName(std::string_view table, const Parameters& parameters) {
  auto statement =
      fmt::format("INSERT INTO '{}' ({}) VALUES ({})", table, joinedKeys(parameters, ""), joinedKeys(parameters, ":"));
  KLV_DEBUG("insert statement: {}", statement);
  return statement;
}

bool KLVPersistantStore::insertDataWithTableName(std::string_view table, const Parameters& parameters) {
  bool inserted = false;
  const auto statement = insertStatementWithTableName(table, parameters);
  onDatabase([&](FMKLVDatabase& db) {
    inserted = update(db, statement, parameters);
    const auto counted = inserted ? recordCounts_.find(table) : recordCounts_.end();
    if (counted != recordCounts_.end() && counted->second < std::numeric_limits<int>::max()) ++counted->second;
  });
  return inserted;
}

bool KLVPersistantStore::updateDataWithTableName(std::string_view table, const Parameters& values,
                                                 const Parameters& conditions) {
  const auto statement = fmt::format("UPDATE {} SET{} where{}", table, joined(values, " ", ", ", "{}={}"),
                                     joined(conditions, " ", " AND ", "{}='{}'"));
  KLV_DEBUG("update statement: {}", statement);
  return write(statement);
}

bool KLVPersistantStore::updateDataWithTableName(std::string_view table, const Parameters& values,
                                                 std::string_view field, const Value& having) {
  const auto statement = fmt::format("UPDATE '{}' SET{} where {} = '{}'", table, joined(values, " ", ", ", "{0}=:{0}"),
                                     field, description(having));
  KLV_DEBUG("update statement: {}", statement);
  return write(statement, values);
}

bool KLVPersistantStore::updateAggregateEventsCountRecordWithCount(int count, const Parameters& conditions) {
  // Kept: three spaces before the first condition.
  const auto statement =
      fmt::format("UPDATE {} SET {}={} where {} IS NULL AND {} IS NULL AND  {}", kKLVAggEvents, kKLVAggCount, count,
                  kKLVAttrKey, kKLVAttrValue, joined(conditions, " ", " AND ", "{}='{}'"));
  KLV_DEBUG("Aggregate events count record update query: {}", statement);
  return write(statement);
}

bool KLVPersistantStore::removeDataWithTableName(std::string_view table, std::string_view field, const Value& having) {
  return writeAndForgetCount(table, fmt::format("delete from '{}' where {} = '{}'", table, field, description(having)));
}

}  // namespace kelvo
