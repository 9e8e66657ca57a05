#include "kelvo-collector/store/Database.h"

#include <fcntl.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kelvo::collector {
namespace {

constexpr mode_t kPrivate = 0600;

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
  throw std::runtime_error("cannot use the store " + path + ": " + reason);
}

/// Gives the file `path` mode 0600; creates it if `flags` has O_CREAT. Throws std::runtime_error if it is a link, no
/// file, or another user's.
void makePrivate(const std::string& path, int flags) {
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, kPrivate);
  if (file < 0 && errno == ENOENT && (flags & O_CREAT) == 0) return;
  if (file < 0) refuse(path, errno == ELOOP ? "it is a link" : std::strerror(errno));
  struct stat facts {};
  const bool isOwn = fstat(file, &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == geteuid();
  const bool isPrivate = isOwn && ((facts.st_mode & 0777U) == kPrivate || fchmod(file, kPrivate) == 0);
  close(file);
  if (!isPrivate) refuse(path, "it is no file of this user");
}

/// Makes the store's files private before SQLite opens them, and before it holds a lock that closing would drop.
/// Throws std::runtime_error if another user may replace them.
void makeAllPrivate(const std::string& path) {
  if (path == ":memory:") return;
  const auto slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  struct stat facts {};
  if (stat(directory.c_str(), &facts) != 0) refuse(path, std::strerror(errno));
  const bool isSafe = (facts.st_uid == geteuid() || facts.st_uid == 0) && (facts.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (!isSafe) refuse(path, "other users may write to its directory");
  makePrivate(path, O_CREAT);
  for (const char* suffix : {"-wal", "-shm", "-journal"}) makePrivate(path + suffix, 0);
}

}  // namespace

void Database::Closer::operator()(sqlite3* connection) const noexcept {
  sqlite3_close(connection);
}

void Database::Finalizer::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

Database::Database(const std::string& path) {
  makeAllPrivate(path);
  sqlite3* connection = nullptr;
  const int code = sqlite3_open(path.c_str(), &connection);
  connection_.reset(connection);
  if (code == SQLITE_OK) {
    // EXCLUSIVE: no other process can lock the file and stall the service. NORMAL: a power failure may lose the newest
    // rows. secure_delete: the bytes of deleted rows are overwritten. The empty transaction takes the lock, so it fails
    // here if another process has it.
    run("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
        "PRAGMA secure_delete = ON;"
        "PRAGMA cache_size = -16000; BEGIN IMMEDIATE; COMMIT");
  }
  if (code != SQLITE_OK || failed_) {
    refuse(path, sqlite3_errmsg(connection));
  }
}

Database::~Database() = default;

void Database::run(const char* sql) {
  if (sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) failed_ = true;
}

void Database::shrink() {
  run("VACUUM; PRAGMA user_version = 0; PRAGMA wal_checkpoint(TRUNCATE); PRAGMA shrink_memory");
  malloc_trim(0);  // an in-memory store consists of many small blocks
}

std::int64_t Database::lastRow() const noexcept {
  return sqlite3_last_insert_rowid(connection_.get());
}

std::int64_t Database::changes() const noexcept {
  return sqlite3_changes64(connection_.get());
}

sqlite3_stmt* Database::prepared(const char* sql) {
  auto& statement = statements_[sql];
  if (!statement) {
    sqlite3_stmt* fresh = nullptr;
    if (sqlite3_prepare_v3(connection_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &fresh, nullptr) != SQLITE_OK) {
      failed_ = true;
    }
    statement.reset(fresh);
  }
  return statement.get();
}

Database::Query::~Query() {
  if (statement_ == nullptr) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

void Database::Query::bind(std::int64_t number) {
  sqlite3_bind_int64(statement_, ++parameter_, number);
}

void Database::Query::bind(double number) {
  sqlite3_bind_double(statement_, ++parameter_, number);
}

void Database::Query::bind(std::string_view text) {
  const char* bytes = text.data() == nullptr ? "" : text.data();
  sqlite3_bind_text64(statement_, ++parameter_, bytes, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void Database::Query::bind(std::nullptr_t) {
  sqlite3_bind_null(statement_, ++parameter_);
}

void Database::Query::bindBytes(std::string_view bytes) {
  sqlite3_bind_blob64(statement_, ++parameter_, bytes.data() == nullptr ? "" : bytes.data(), bytes.size(),
                      SQLITE_TRANSIENT);
}

bool Database::Query::next() {
  column_ = 0;
  const int code = sqlite3_step(statement_);
  if (code != SQLITE_ROW && code != SQLITE_DONE) database_.failed_ = true;
  return code == SQLITE_ROW;
}

bool Database::Query::isNull() const {
  return sqlite3_column_type(statement_, column_) == SQLITE_NULL;
}

std::int64_t Database::Query::number() {
  return sqlite3_column_int64(statement_, column_++);
}

double Database::Query::real() {
  return sqlite3_column_double(statement_, column_++);
}

std::string Database::Query::text() {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column_));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column_++));
  return bytes == nullptr ? std::string() : std::string(bytes, size);
}

}  // namespace kelvo::collector
