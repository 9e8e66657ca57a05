#include <fmt/format.h>
#include <sqlite3.h>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVNames.h"

namespace kelvo {

/// Returns nullptr if there is no row.
FMKLVDatabase::ResultSet FMKLVDatabase::firstRow(const std::string& sql, const FMKLVArguments& arguments) {
  auto rows = queryWithArguments(sql, arguments);
  return rows && rows->next() ? std::move(rows) : nullptr;
}

bool FMKLVDatabase::tableExists(const std::string& tableName) {
  return firstRow("select [sql] from sqlite_master where [type] = 'table' and lower(name) = ?",
                  lowerCased(tableName)) != nullptr;
}

bool FMKLVDatabase::columnExists(const std::string& columnName, const std::string& tableName) {
  const auto columns = getTableSchema(lowerCased(tableName));
  while (columns && columns->next()) {
    if (lowerCased(columns->stringForColumn("name").value_or("")) == lowerCased(columnName)) return true;
  }
  return false;
}

FMKLVDatabase::ResultSet FMKLVDatabase::getSchema() {
  return executeQuery(
      "SELECT type, name, tbl_name, rootpage, sql FROM (SELECT * FROM sqlite_master UNION ALL SELECT * FROM "
      "sqlite_temp_master) WHERE type != 'meta' AND name NOT LIKE 'sqlite_%' ORDER BY tbl_name, type DESC, name");
}

FMKLVDatabase::ResultSet FMKLVDatabase::getTableSchema(const std::string& tableName) {
  return executeQuery(fmt::format("pragma table_info('{}')", FMDBEscapeSavePointName(tableName)));
}

std::uint32_t FMKLVDatabase::applicationID() {
  return static_cast<std::uint32_t>(intForQuery("pragma application_id"));
}

bool FMKLVDatabase::setApplicationID(std::uint32_t applicationID) {
  return executeUpdate(fmt::format("pragma application_id={}", static_cast<std::int32_t>(applicationID)));
}

std::uint32_t FMKLVDatabase::userVersion() {
  return static_cast<std::uint32_t>(intForQuery("pragma user_version"));
}

bool FMKLVDatabase::setUserVersion(std::uint32_t version) {
  return executeUpdate(fmt::format("pragma user_version = {}", static_cast<std::int32_t>(version)));
}

bool FMKLVDatabase::validateSQL(const std::string& sql, FMKLVError* error) {
  handle_.forgetFailure();
  sqlite3_stmt* statement = nullptr;
  const bool valid = databaseExists() && sqlite3_prepare_v2(db(), sql.c_str(), -1, &statement, nullptr) == SQLITE_OK;
  if (!valid && error != nullptr) *error = lastError();
  sqlite3_finalize(statement);
  return valid;
}

}  // namespace kelvo
