#include "storage/FMKLVDatabase.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/Thread.h"
#include "storage/FMKLVAssertion.h"
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

bool FMKLVDatabase::isSQLiteThreadSafe() noexcept {
  return sqlite3_threadsafe() != 0;
}

bool FMKLVDatabase::open() {
  if (isOpen()) return true;
  sqlite3* handle = nullptr;
  const int code = sqlite3_open(databasePath_ ? databasePath_->c_str() : ":memory:", &handle);
  return adopt(handle, code);
}

bool FMKLVDatabase::openWithFlags(int flags) {
  if (isOpen()) return true;
  sqlite3* handle = nullptr;
  const int code = sqlite3_open_v2(databasePath_ ? databasePath_->c_str() : ":memory:", &handle, flags, nullptr);
  return adopt(handle, code);
}

bool FMKLVDatabase::adopt(sqlite3* handle, int code) {
  if (code != SQLITE_OK) {
    KLV_ERROR("error opening!: {}", code);
    sqlite3_close(handle);  // there is one even after a failure
    return false;
  }
  db_ = handle;
  if (maxBusyRetryTimeInterval_ > 0) setMaxBusyRetryTimeInterval(maxBusyRetryTimeInterval_);
  return true;
}

bool FMKLVDatabase::close() {
  if (inForkedChild()) {  // closing would write to the file that the parent still works on
    db_ = nullptr;
    return true;
  }
  closeOpenResultSets();
  if (!isOpen()) return true;
  int code = sqlite3_close(db_);
  if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
    while (sqlite3_stmt* leaked = sqlite3_next_stmt(db_, nullptr)) {
      KLV_DEBUG("Closing leaked statement");
      sqlite3_finalize(leaked);
    }
    code = sqlite3_close(db_);
  }
  if (code != SQLITE_OK) KLV_ERROR("error closing!: {}", code);
  db_ = nullptr;
  inTransaction_ = false;
  return true;
}

std::string FMKLVDatabase::description() const {
  return fmt::format("<FMKLVDatabase: {}>", fmt::ptr(this));
}

bool FMKLVDatabase::databaseExists() const {
  if (isOpen()) return true;
  KLV_ERROR("The FMDatabase {} is not open.", description());
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

std::string FMKLVDatabase::lastErrorMessage() const {
  return sqlite3_errmsg(db_);
}

int FMKLVDatabase::lastErrorCode() const noexcept {
  return sqlite3_errcode(db_);
}

FMKLVError FMKLVDatabase::errorWithMessage(std::string message) const {
  return {"FMDatabase", lastErrorCode(), std::move(message)};
}

bool FMKLVDatabase::beginTransaction() {
  const bool begun = executeUpdate("begin exclusive transaction");
  if (begun) inTransaction_ = true;
  return begun;
}

bool FMKLVDatabase::beginDeferredTransaction() {
  const bool begun = executeUpdate("begin deferred transaction");
  if (begun) inTransaction_ = true;
  return begun;
}

bool FMKLVDatabase::commit() {
  const bool committed = executeUpdate("commit transaction");
  if (committed) inTransaction_ = false;
  return committed;
}

bool FMKLVDatabase::rollback() {
  // After a full disk, for one, SQLite has rolled back on its own and would refuse to do it again.
  const bool undone =
      (inTransaction_ && isOpen() && sqlite3_get_autocommit(db_) != 0) || executeUpdate("rollback transaction");
  if (undone) inTransaction_ = false;
  return undone;
}

void FMKLVDatabase::closeOpenResultSets() {
  for (auto* resultSet : std::exchange(openResultSets_, {})) resultSet->close();
}

void FMKLVDatabase::resultSetDidClose(FMKLVResultSet& resultSet) {
  openResultSets_.erase(std::remove(openResultSets_.begin(), openResultSets_.end(), &resultSet), openResultSets_.end());
}

}  // namespace kelvo
