#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <fmt/format.h>

#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/Privileges.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "storage/KLVStoreSpace.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Returns the path of the marker file. It exists if a statement has found the database corrupt after opening.
std::string corruptionMarker() {
  return KLVPersistantStore::getDBPathForIdentifier(fmt::format("{}.corrupt-found", kKLVDatabaseFile));
}

bool isCorruption(int code) {
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

constexpr mode_t kOwnerOnly = 0600;
constexpr std::size_t kKeptAside = 2;  // databases

/// Denies other users access. Creates the file if it is missing, because SQLite copies its mode to the side files and a
/// library must not change the process's umask. Never opens an existing file: closing it would drop the locks that
/// SQLite holds on it.
void makePrivate(const std::string& path) {
  const int file = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kOwnerOnly);
  if (file >= 0) {
    ::close(file);
  } else if (errno == EEXIST && ::chmod(path.c_str(), kOwnerOnly) != 0) {
    KLV_WARN("Unable to make {} private: {}", path, std::strerror(errno));
  }
}

/// Renames the database and its side files. Renames the database last, so that the next start repeats an interrupted
/// rename. Returns false, after logging why, if a rename fails.
bool setAside(const std::string& path, const std::string& reason) {
  using std::chrono::milliseconds;
  const auto now = std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
  const auto aside = fmt::format("{}.{}.corrupt", path, now);
  for (const char* suffix : {"-wal", "-shm", ""}) {
    if (std::rename((path + suffix).c_str(), (aside + suffix).c_str()) == 0 || errno == ENOENT) continue;
    KLV_ERROR("Unable to set aside {}{}: {}", path, suffix, std::strerror(errno));
    return false;
  }
  KLVLedgerWrites::keepCopyOf(aside);
  KLV_ERROR("The database is corrupt ({}). It is set aside as {}, and a new one is begun", reason, aside);
  removeSetAside(kKeptAside);
  return true;
}

/// Configures the connection and reads from the file for the first time. Returns the error if SQLite reports
/// corruption.
std::optional<FMKLVError> prepareConnection(FMKLVDatabaseQueue& queue) {
  std::optional<FMKLVError> corruption;
  queue.inDatabase([&](FMKLVDatabase& db) {
    const auto isSound = [&](const auto& runs) {
      static_cast<void>(runs());
      if (isCorruption(db.lastErrorCode())) corruption = db.lastError();
      return !corruption;
    };
    const auto query = [&](const char* sql) {
      return [&db, sql] {
        const auto rows = db.executeQuery(sql);
        return rows && rows->next();
      };
    };
    // With these settings a commit costs no disk flush, and committed data survives a crash of the process.
    // SQLite would take the directory of its temporary files from the environment.
    if (mustIgnoreEnvironment()) static_cast<void>(db.executeUpdate("pragma temp_store=MEMORY"));
    // Before the first page is written; an old file keeps its mode until it is rewritten.
    static_cast<void>(db.executeUpdate("pragma auto_vacuum=incremental"));
    static_cast<void>(isSound(query("pragma journal_mode=WAL")) &&
                      isSound([&] { return db.executeUpdate("pragma synchronous=NORMAL"); }) &&
                      isSound(query("select COUNT(*) from sqlite_master")));
  });
  return corruption;
}

}  // namespace

KLVPersistantStore::KLVPersistantStore() {
  KLV_DEBUG("dbpath: {}", getDBPathForIdentifier(kKLVDatabaseFile));
  open();
  KLV_DEBUG("SQLite Thread Safe: {}", FMKLVDatabase::isSQLiteThreadSafe() ? "YES" : "NO");
}

KLVPersistantStore::~KLVPersistantStore() = default;

void KLVPersistantStore::retire() {
  if (db_ != nullptr) db_->retire();
}

void KLVPersistantStore::open() {
  createDBDirectory();
  const auto path = getDBPathForIdentifier(kKLVDatabaseFile);
  if (const auto marker = corruptionMarker(); fileExists(marker)) {
    if (!fileExists(path) || setAside(path, "found at an earlier run")) static_cast<void>(removeItem(marker));
  }
  db_ = openDatabase(path);
  opened_.store(db_.get(), std::memory_order_release);
}

std::unique_ptr<FMKLVDatabaseQueue> KLVPersistantStore::openDatabase(const std::string& path) {
  makePrivate(path);
  auto queue = FMKLVDatabaseQueue::databaseQueueWithPath(path);
  if (!queue) return nullptr;
  const auto corruption = prepareConnection(*queue);
  if (!corruption) return queue;

  queue.reset();
  if (!setAside(path, corruption->message)) return nullptr;
  makePrivate(path);
  queue = FMKLVDatabaseQueue::databaseQueueWithPath(path);
  if (queue) static_cast<void>(prepareConnection(*queue));
  return queue;
}

std::string KLVPersistantStore::dbDirectoryPath() {
  return joinPath(Directories::documents(), kKLVDatabaseDirectory);
}

std::string KLVPersistantStore::databaseRoot() {
  const std::string path(kKLVDatabaseDirectory);
  return joinPath(Directories::documents(), path.substr(0, path.find('/')));
}

void KLVPersistantStore::createDBDirectory() {
  if (!fileExists(dbDirectoryPath())) static_cast<void>(makeDirectory(dbDirectoryPath(), true));
}

std::string KLVPersistantStore::getDBPathForIdentifier(std::string_view component) {
  return joinPath(dbDirectoryPath(), component);
}

void KLVStoreReads::onDatabase(const FMKLVDatabaseQueue::Block& block) {
  auto* const opened = opened_.load(std::memory_order_acquire);
  if (opened == nullptr) return;
  opened->inDatabase([&](FMKLVDatabase& db) {
    db.setLogsErrors(reportsFailures());
    block(db);
    noteCorruption(db);
  });
}

void KLVStoreReads::noteCorruption(const FMKLVDatabase& db) {
  if (foundCorrupt_ || !isCorruption(db.lastErrorCode())) return;
  foundCorrupt_ = true;
  KLV_ERROR("The database is corrupt ({}). The next start will set it aside", db.lastErrorMessage());
  if (FileError error; !writeFileAtomically(corruptionMarker(), "", &error)) {
    KLV_ERROR("Unable to mark the database as corrupt: {}", error);
  }
}

}  // namespace kelvo
