#include <fmt/format.h>
#include <sqlite3.h>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVNames.h"

namespace kelvo {

FMKLVDatabase& FMKLVDatabaseAdditions::database() noexcept {
  return static_cast<FMKLVDatabase&>(*this);
}

std::unique_ptr<FMKLVResultSet> FMKLVDatabaseAdditions::firstRow(const std::string& sql,
                                                                 const FMKLVArguments& arguments) {
  auto rows = database().queryWithArguments(sql, arguments);
  return rows && rows->next() ? std::move(rows) : nullptr;
}

bool FMKLVDatabaseAdditions::tableExists(const std::string& tableName) {
  return firstRow("select [sql] from sqlite_master where [type] = 'table' and lower(name) = ?",
                  lowerCased(tableName)) != nullptr;
}

bool FMKLVDatabaseAdditions::columnExists(const std::string& columnName, const std::string& tableName) {
  const auto columns = getTableSchema(lowerCased(tableName));
  while (columns && columns->next()) {
    if (lowerCased(columns->stringForColumn("name").value_or("")) == lowerCased(columnName)) return true;
  }
  return false;
}

std::unique_ptr<FMKLVResultSet> FMKLVDatabaseAdditions::getSchema() {
  return database().executeQuery(
      "SELECT type, name, tbl_name, rootpage, sql FROM (SELECT * FROM sqlite_master UNION ALL SELECT * FROM "
      "sqlite_temp_master) WHERE type != 'meta' AND name NOT LIKE 'sqlite_%' ORDER BY tbl_name, type DESC, name");
}

std::unique_ptr<FMKLVResultSet> FMKLVDatabaseAdditions::getTableSchema(const std::string& tableName) {
  return database().executeQuery(fmt::format("pragma table_info('{}')", FMDBEscapeSavePointName(tableName)));
}

std::uint32_t FMKLVDatabaseAdditions::applicationID() {
  return static_cast<std::uint32_t>(intForQuery("pragma application_id"));
}

bool FMKLVDatabaseAdditions::setApplicationID(std::uint32_t applicationID) {
  return database().executeUpdate(fmt::format("pragma application_id={}", static_cast<std::int32_t>(applicationID)));
}

std::uint32_t FMKLVDatabaseAdditions::userVersion() {
  return static_cast<std::uint32_t>(intForQuery("pragma user_version"));
}

bool FMKLVDatabaseAdditions::setUserVersion(std::uint32_t version) {
  return database().executeUpdate(fmt::format("pragma user_version = {}", static_cast<std::int32_t>(version)));
}

bool FMKLVDatabaseAdditions::validateSQL(const std::string& sql, FMKLVError* error) {
  FMKLVDatabase& db = database();
  db.forgetFailure();
  sqlite3_stmt* statement = nullptr;
  const bool valid =
      db.databaseExists() && sqlite3_prepare_v2(db.db(), sql.c_str(), -1, &statement, nullptr) == SQLITE_OK;
  if (!valid && error != nullptr) *error = db.lastError();
  sqlite3_finalize(statement);
  return valid;
}

}  // namespace kelvo
