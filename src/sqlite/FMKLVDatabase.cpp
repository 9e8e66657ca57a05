#include "sqlite/FMKLVDatabase.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/Thread.h"
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
    auto text = FMDBUserVersion();
    if (std::count(text.begin(), text.end(), '.') < 2) text += ".0";
    text.erase(std::remove(text.begin(), text.end(), '.'), text.end());
    return std::stoi(text, nullptr, 16);
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
  if (isOpen()) return true;
  sqlite3* handle = nullptr;
  const int code = sqlite3_open(sqlitePath(), &handle);
  return adopt(handle, code);
}

bool FMKLVDatabase::openWithFlags(int flags) {
  if (isOpen()) return true;
  sqlite3* handle = nullptr;
  const int code = sqlite3_open_v2(sqlitePath(), &handle, flags, nullptr);
  return adopt(handle, code);
}

bool FMKLVDatabase::adopt(sqlite3* handle, int code) {
  forgetFailure();
  if (code != SQLITE_OK) {
    KLV_ERROR("error opening!: {}", code);
    keepFailure({"FMDatabase", code, sqlite3_errmsg(handle)});
    sqlite3_close(handle);  // there is one even after a failure
    return false;
  }
  db_ = handle;
  if (maxBusyRetryTimeInterval_ > 0) setMaxBusyRetryTimeInterval(maxBusyRetryTimeInterval_);
  return true;
}

bool FMKLVDatabase::close() {
  clearCachedStatements();
  closeOpenResultSets();
  forgetFailure();
  // In a forked child, closing would write to the file that the parent still works on.
  if (isOpen() && !inForkedChild()) closeHandle();
  db_ = nullptr;
  forgetFunctions();
  connectionDidClose();
  return true;
}

void FMKLVDatabase::closeHandle() {
  int code = sqlite3_close(db_);
  if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
    while (sqlite3_stmt* leaked = sqlite3_next_stmt(db_, nullptr)) {
      KLV_DEBUG("Closing leaked statement");
      sqlite3_finalize(leaked);
    }
    code = sqlite3_close(db_);
  }
  if (code != SQLITE_OK) KLV_ERROR("error closing!: {}", code);
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

bool FMKLVDatabase::databaseExists() {
  if (isOpen()) return true;
  KLV_ERROR("The FMDatabase {} is not open.", description());
  keepFailure({"FMDatabase", SQLITE_MISUSE, "The connection is not open"});
  return false;
}

void FMKLVDatabase::setMaxBusyRetryTimeInterval(double seconds) {
  maxBusyRetryTimeInterval_ = seconds;
  if (!isOpen()) return;
  if (seconds > 0) {
    sqlite3_busy_handler(db_, &FMKLVDatabase::busyHandler, this);
  } else {
    sqlite3_busy_handler(db_, nullptr, nullptr);
  }
}

/// Says whether SQLite shall try again: `count` is how often it has asked about this lock so far.
int FMKLVDatabase::busyHandler(void* database, int count) {
  auto& self = *static_cast<FMKLVDatabase*>(database);
  if (count == 0) {
    self.startBusyRetryTime_ = Clock::monotonic();
    return 1;
  }
  const std::chrono::duration<double> waited = Clock::monotonic() - self.startBusyRetryTime_;
  if (waited.count() >= self.maxBusyRetryTimeInterval_) return 0;

  // Of different lengths, so that two connections that wait for each other's lock do not keep step.
  unsigned int random = 0;
  sqlite3_randomness(sizeof random, &random);
  const int requested = 50 + static_cast<int>(random % 50);
  const int slept = sqlite3_sleep(requested);
  if (slept != requested) {
    KLV_WARN(
        "WARNING: Requested sleep of {} milliseconds, but SQLite returned {}. Maybe SQLite wasn't built with "
        "HAVE_USLEEP=1?",
        requested, slept);
  }
  return 1;
}

int FMKLVDatabase::busyRetryTimeout() const {
  KLV_WARN("FMDB: busyRetryTimeout no longer works, please use maxBusyRetryTimeInterval");
  return -1;
}

void FMKLVDatabase::setBusyRetryTimeout(int) {
  KLV_WARN("FMDB: setBusyRetryTimeout does nothing, please use setMaxBusyRetryTimeInterval:");
}

std::string FMKLVDatabase::lastErrorMessage() const {
  if (failure_) return failure_->message;
  return isOpen() ? sqlite3_errmsg(db_) : "";
}

int FMKLVDatabase::lastErrorCode() const noexcept {
  if (failure_) return failure_->code;
  return isOpen() ? sqlite3_errcode(db_) : SQLITE_OK;
}

void FMKLVDatabase::noteFailure(int code) {
  if (code == sqlite3_errcode(db_) && code < SQLITE_ROW) return;
  keepFailure({"FMDatabase", code, sqlite3_errstr(code)});
}

FMKLVError FMKLVDatabase::errorWithMessage(std::string message) const {
  return {"FMDatabase", lastErrorCode(), std::move(message)};
}

std::int64_t FMKLVDatabase::lastInsertRowId() const noexcept {
  return isOpen() ? sqlite3_last_insert_rowid(db_) : 0;
}

int FMKLVDatabase::changes() const noexcept {
  return isOpen() ? sqlite3_changes(db_) : 0;
}

void FMKLVDatabase::closeOpenResultSets() {
  for (auto* resultSet : std::exchange(openResultSets_, {})) resultSet->close();
}

void FMKLVDatabase::resultSetDidClose(FMKLVResultSet& resultSet) {
  openResultSets_.erase(std::remove(openResultSets_.begin(), openResultSets_.end(), &resultSet), openResultSets_.end());
}

}  // namespace kelvo
