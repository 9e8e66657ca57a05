#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "storage/KLVChunkWrites.h"
#include "storage/KLVSchema.h"
#include "storage/KLVStoreReads.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo {
namespace {

/// Filters by `column` only if `value` is given, too.
KLVSQLText rangeQuery(std::string_view table, const std::string& where, const std::optional<std::string>& column,
                      const std::optional<std::string>& value) {
  if (!column || !value) return sqlText("select * from '{}' {}", quoted(table), where);
  return sqlText("select * from '{}' {} and {} = '{}'", quoted(table), where, plainName(*column), quoted(*value));
}

/// Returns nullptr, after a line, if the statement fails or is refused.
std::unique_ptr<FMKLVResultSet> query(FMKLVDatabase& db, const KLVSQLText& sql) {
  if (!sql.refused) return db.executeQuery(sql.text);
  static_cast<void>(db.refuse(sql.text, kRefusal));
  return nullptr;
}

}  // namespace

std::optional<KLVStoreReads::Rows> KLVStoreReads::rows(FMKLVDatabase& db, const KLVSQLText& sql) {
  const auto set = query(db, sql);
  if (!set) return std::nullopt;
  Rows result;
  FMKLVError error;
  while (set->nextWithError(&error)) {
    if (const auto row = set->resultDictionary()) result.push_back(KLVUtilities::dictionaryByRemovingNulls(*row));
  }
  if (error.code != SQLITE_OK) return std::nullopt;
  return result;
}

std::optional<KLVStoreReads::Rows> KLVStoreReads::rows(const KLVSQLText& sql) {
  std::optional<Rows> result;
  onDatabase([&](FMKLVDatabase& db) { result = rows(db, sql); });
  return result;
}

std::optional<std::int64_t> KLVStoreReads::number(FMKLVDatabase& db, const KLVSQLText& sql) {
  const auto found = rows(db, sql);
  if (!found) return std::nullopt;
  return found->empty() || found->front().empty() ? 0 : found->front().begin()->second.asInt64();
}

std::optional<std::int64_t> KLVStoreReads::number(const KLVSQLText& sql) {
  std::optional<std::int64_t> result;
  onDatabase([&](FMKLVDatabase& db) { result = number(db, sql); });
  return result;
}

std::vector<std::string> KLVStoreReads::retrieveTableNames() {
  std::vector<std::string> names;
  for (const auto& row : rows({"SELECT name FROM 'sqlite_master' WHERE type='table'"}).value_or(Rows())) {
    if (const auto* name = row["name"].get<std::string>()) names.push_back(*name);
  }
  return names;
}

std::optional<bool> KLVStoreReads::exists(FMKLVDatabase& db, std::string_view table) {
  if (tables_.count(table) != 0) return true;
  const auto columns = rows(db, sqlText("pragma table_info('{}')", quoted(table)));  // no rows if there is no table
  if (!columns) return std::nullopt;
  if (!columns->empty()) tables_.emplace(table);
  return !columns->empty();
}

std::optional<bool> KLVStoreReads::tableExists(std::string_view table) {
  std::optional<bool> result;
  onDatabase([&](FMKLVDatabase& db) { result = exists(db, table); });
  return result;
}

int KLVStoreReads::retrieveNumberOfRecordsInTable(std::string_view table) {
  return static_cast<int>(number(sqlText("select COUNT(*) from '{}'", quoted(table))).value_or(0));
}

std::optional<std::uint64_t> KLVStoreReads::lastIdentifierInTable(std::string_view table) {
  std::optional<std::uint64_t> result;
  onDatabase([&](FMKLVDatabase& db) {
    const auto found = exists(db, table);
    if (!found || !readSequences(db)) return;
    const auto sequence = sequences_->find(table);
    result = sequence == sequences_->end() ? 0 : sequence->second;
    if (!*found) return;
    const auto last = number(db, sqlText("select MAX(identifier) from '{}'", quoted(table)));
    result = last ? std::optional(std::max(*result, static_cast<std::uint64_t>(*last))) : std::nullopt;
    if (result) sequences_->insert_or_assign(std::string(table), *result);
  });
  return result;
}

/// All at once, because the table has no index, and a launch may ask for thousands of sessions.
bool KLVStoreReads::readSequences(FMKLVDatabase& db) {
  if (sequences_) return true;
  const auto found = exists(db, "sqlite_sequence");  // SQLite makes it with the first events table
  const auto all = found && *found ? rows(db, {"select name, seq from sqlite_sequence"}) : Rows();
  if (!found || !all) return false;
  sequences_.emplace();
  for (const auto& row : *all) sequences_->emplace(row["name"].asText().value_or(""), row["seq"].asUInt64());
  return true;
}

std::optional<std::uint64_t> KLVStoreReads::endOfChunks(std::string_view sid) {
  const auto end =
      number(sqlText("select MAX({}) from '{}' where {}", kKLVChunkEnd, kKLVChunkMetaInfo, chunksOfSession(sid)));
  return end ? std::optional(static_cast<std::uint64_t>(*end)) : std::nullopt;
}

std::optional<KLVWaiting> KLVStoreReads::waiting(std::string_view currentSession) {
  std::optional<KLVWaiting> result;
  onDatabase([&](FMKLVDatabase& db) { result = KLVWaiting::in(db, currentSession); });
  return result;
}

std::optional<std::int64_t> KLVStoreReads::countForUpload(std::string_view table, std::uint64_t from,
                                                          std::uint64_t to) {
  std::optional<std::int64_t> result;
  onDatabase([&](FMKLVDatabase& db) {
    if (const auto count = KLVWaiting::eventsIn(db, table, from, to)) result = static_cast<std::int64_t>(*count);
  });
  return result;
}

std::optional<std::int64_t> KLVStoreReads::sumInTable(std::string_view table, std::string_view column,
                                                      std::string_view key, std::string_view value) {
  return number(sqlText("select SUM({}) from '{}' where {} = '{}'", plainName(column), quoted(table), plainName(key),
                        quoted(value)));
}

std::optional<std::int64_t> KLVStoreReads::countInTable(std::string_view table, std::string_view key,
                                                        std::string_view value) {
  return number(sqlText("select COUNT(*) from '{}' where {} = '{}'", quoted(table), plainName(key), quoted(value)));
}

std::optional<KLVStoreReads::Rows> KLVStoreReads::retrieveDataWithTableName(std::string_view table, std::uint64_t from,
                                                                            std::uint64_t to,
                                                                            const std::optional<std::string>& column,
                                                                            const std::optional<std::string>& value) {
  return rows(rangeQuery(table, fmt::format("where identifier >= {} and identifier <= {}", from, to), column, value));
}

std::optional<std::uint64_t> KLVStoreReads::readEvents(std::string_view table, std::uint64_t from, std::uint64_t to,
                                                       std::uint64_t most,
                                                       const std::function<void(const KLVStoredEvent&)>& take) {
  std::optional<std::uint64_t> count;
  onDatabase([&](FMKLVDatabase& db) {
    const auto set = query(db, sqlText("select identifier, {}, {}, {}, {} from '{}' where identifier >= {} and "
                                       "identifier <= {} order by identifier limit {}",
                                       kKLVId, kKLVType, kKLVTime, kKLVAdditionalInfo, quoted(table), from, to, most));
    if (!set) return;
    FMKLVError error;
    std::uint64_t read = 0;
    for (; set->nextWithError(&error); ++read) {
      take({.index = set->unsignedLongLongIntForColumnIndex(0),
            .id = set->textNoCopyForColumnIndex(1).value_or(""),
            .type = set->textNoCopyForColumnIndex(2).value_or(""),
            .time = set->objectForColumnIndex(3).asInt64(),
            .attributes = set->textNoCopyForColumnIndex(4)});
    }
    if (error.code == SQLITE_OK) count = read;
  });
  return count;
}

KLVStoreReads::Rows KLVStoreReads::retrieveDataWithTableName(std::string_view table, int from,
                                                             const std::optional<std::string>& column,
                                                             const std::optional<std::string>& value) {
  return rows(rangeQuery(table, fmt::format("where identifier >= {}", from), column, value)).value_or(Rows());
}

std::optional<KLVStoreReads::Rows> KLVStoreReads::retrieveDataWithTableName(std::string_view table,
                                                                            std::string_view key, const Value& value) {
  return rows(sqlText("select * from '{}' where {} = '{}'", quoted(table), plainName(key), quoted(description(value))));
}

std::optional<KLVStoreReads::Rows> KLVStoreReads::retrieveDataForIdentifier(std::string_view column,
                                                                            std::string_view table,
                                                                            const Parameters& conditions) {
  if (conditions.empty()) return Rows();
  return rows(sqlText("select {} from '{}' where {}", plainName(column), quoted(table),
                      joined(conditions, "", " AND ", "{} = '{}'")));
}

std::optional<KLVStoreReads::Rows> KLVStoreReads::retrieveAllDataWithTableName(std::string_view table) {
  return rows(sqlText("select * from '{}'", quoted(table)));
}

KLVStoreReads::Rows KLVStoreReads::retrieveSetOfValuesFromTable(std::string_view table, std::string_view key) {
  return rows(sqlText("select DISTINCT({}) from '{}'", plainName(key), quoted(table))).value_or(Rows());
}

}  // namespace kelvo
