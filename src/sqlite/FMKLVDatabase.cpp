#include "sqlite/FMKLVDatabase.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "sqlite/FMKLVAssertion.h"
#include "util/KLVLogger.h"

namespace kelvo {

FMKLVDatabase::FMKLVDatabase(std::optional<std::string> path) : databasePath_(std::move(path)) {
  if (!isSQLiteThreadSafe()) assertionFailed("sqlite3_threadsafe()");
}

std::unique_ptr<FMKLVDatabase> FMKLVDatabase::databaseWithPath(std::optional<std::string> path) {
  return std::make_unique<FMKLVDatabase>(std::move(path));
}

FMKLVDatabase::~FMKLVDatabase() {
  close();
}

std::string FMKLVDatabase::FMDBUserVersion() {
  return "2.5";
}

int FMKLVDatabase::FMDBVersion() {
  static const int version = [] {
    constexpr int kHexadecimal = 16;
    auto text = FMDBUserVersion();
    if (std::count(text.begin(), text.end(), '.') < 2) text += ".0";
    text.erase(std::remove(text.begin(), text.end(), '.'), text.end());
    return std::stoi(text, nullptr, kHexadecimal);
  }();
  return version;
}

std::string FMKLVDatabase::sqliteLibVersion() {
  return sqlite3_libversion();
}

bool FMKLVDatabase::isSQLiteThreadSafe() noexcept {
  return sqlite3_threadsafe() != 0;
}

bool FMKLVDatabase::open() {
  return isOpen() || handle_.open(sqlitePath(), std::nullopt);
}

bool FMKLVDatabase::openWithFlags(int flags) {
  return isOpen() || handle_.open(sqlitePath(), flags);
}

bool FMKLVDatabase::close() {
  clearCachedStatements();
  closeOpenResultSets();
  handle_.close();
  openFunctions_.clear();  // after the handle, because SQLite points to them
  inTransaction_ = false;
  return true;
}

bool FMKLVDatabase::goodConnection() {
  if (!isOpen()) return false;
  const auto tables = executeQuery("select name from sqlite_master where type='table'");
  FMKLVError error;
  return tables && (tables->nextWithError(&error) || error.code == SQLITE_OK);
}

std::string FMKLVDatabase::description() const {
  return fmt::format("<FMKLVDatabase: {}>", fmt::ptr(this));
}

int FMKLVDatabase::busyRetryTimeout() const {
  KLV_WARN("FMDB: busyRetryTimeout no longer works, please use maxBusyRetryTimeInterval");
  return -1;
}

void FMKLVDatabase::setBusyRetryTimeout(int) {
  KLV_WARN("FMDB: setBusyRetryTimeout does nothing, please use setMaxBusyRetryTimeInterval:");
}

bool FMKLVDatabase::hadError() const noexcept {
  const int code = lastErrorCode();
  return code > SQLITE_OK && code < SQLITE_ROW;
}

FMKLVError FMKLVDatabase::errorWithMessage(std::string message) const {
  return {"FMDatabase", lastErrorCode(), std::move(message)};
}

std::int64_t FMKLVDatabase::lastInsertRowId() const noexcept {
  return isOpen() ? sqlite3_last_insert_rowid(db()) : 0;
}

int FMKLVDatabase::changes() const noexcept {
  return isOpen() ? sqlite3_changes(db()) : 0;
}

std::shared_ptr<FMKLVStatement> FMKLVDatabase::cachedStatementForQuery(const std::string& sql) const {
  return statementCache_.idleStatement(sql);
}

void FMKLVDatabase::setCachedStatement(const std::shared_ptr<FMKLVStatement>& statement, const std::string& sql) {
  statementCache_.add(statement, sql);
}

void FMKLVDatabase::closeOpenResultSets() {
  for (auto* resultSet : std::exchange(openResultSets_, {})) resultSet->close();
}

void FMKLVDatabase::resultSetDidClose(FMKLVResultSet& resultSet) {
  openResultSets_.erase(std::remove(openResultSets_.begin(), openResultSets_.end(), &resultSet), openResultSets_.end());
}

}  // namespace kelvo
