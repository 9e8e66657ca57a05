#include "storage/KLVStoreSpace.h"

#include <sys/statvfs.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string_view>
#include <vector>

#include "platform/Files.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Fewer free pages stay in the file: the next events use them.
constexpr std::int64_t kPagesWorthGivingBack = 8;
constexpr std::int64_t kPagesPerStep = 128;
/// The most data, in bytes, that a rewrite copies: a fraction of a second, in which other jobs wait.
constexpr std::uint64_t kMostToRewrite = std::uint64_t{16} << 20;
/// A rewrite needs the room of a copy, of the log, and some more.
constexpr std::uint64_t kRoomForRewrite = 3;

constexpr std::int64_t kIncremental = 2;  // of "pragma auto_vacuum"

std::string databasePath() {
  return KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile);
}

/// Lets statements fail at once while another connection uses the file.
class Impatience {
 public:
  explicit Impatience(FMKLVDatabase& db) : db_(db), usual_(db.maxBusyRetryTimeInterval()) {
    db_.setMaxBusyRetryTimeInterval(0);
    db_.setLogsErrors(false);
  }
  Impatience(const Impatience&) = delete;
  Impatience& operator=(const Impatience&) = delete;
  ~Impatience() { db_.setMaxBusyRetryTimeInterval(usual_); }

 private:
  FMKLVDatabase& db_;
  const double usual_;
};

/// Runs a statement to its end, for its effect.
bool runThrough(FMKLVDatabase& db, const std::string& sql) {
  const Impatience impatience(db);
  const auto rows = db.executeQuery(sql);
  while (rows && rows->next()) {
  }
  return rows && !db.hadError();
}

}  // namespace

std::optional<std::uint64_t> usedBytes(KLVPersistantStore& store) {
  const auto pages = store.number({"pragma page_count"});
  const auto unused = store.number({"pragma freelist_count"});
  const auto size = store.number({"pragma page_size"});
  if (!pages || !unused || !size) return std::nullopt;
  return static_cast<std::uint64_t>((*pages - *unused) * *size);
}

bool giveSpaceBack(KLVPersistantStore& store) {
  const auto unused = store.number({"pragma freelist_count"}).value_or(0);
  if (unused < kPagesWorthGivingBack || store.number({"pragma auto_vacuum"}) != kIncremental) return false;
  bool isDone = false;
  store.onDatabase(
      [&](FMKLVDatabase& db) { isDone = runThrough(db, fmt::format("pragma incremental_vacuum({})", kPagesPerStep)); });
  return isDone && store.number({"pragma freelist_count"}).value_or(unused) < unused;
}

void limitLog(KLVPersistantStore& store, std::uint64_t bytes) {
  if (store.number({"pragma journal_size_limit"}) == static_cast<std::int64_t>(bytes)) return;
  const auto size = store.number({"pragma page_size"}).value_or(0);
  if (size <= 0) return;
  store.onDatabase([&](FMKLVDatabase& db) {
    static_cast<void>(
        runThrough(db, fmt::format("pragma wal_autocheckpoint={}", bytes / static_cast<std::uint64_t>(size))) &&
        runThrough(db, fmt::format("pragma journal_size_limit={}", bytes)));
  });
}

void truncateLog(KLVPersistantStore& store, std::uint64_t bytes) {
  if (fileSize(databasePath() + "-wal") < std::max<std::uint64_t>(bytes, 1)) return;
  store.onDatabase([](FMKLVDatabase& db) { static_cast<void>(runThrough(db, "pragma wal_checkpoint(TRUNCATE)")); });
}

void rewriteOldFile(KLVPersistantStore& store) {
  const auto mode = store.number({"pragma auto_vacuum"});
  const auto used = usedBytes(store);
  if (!mode || *mode == kIncremental || !used || *used > kMostToRewrite) return;
  struct statvfs disk {};
  if (::statvfs(KLVPersistantStore::dbDirectoryPath().c_str(), &disk) != 0 ||
      disk.f_bavail * disk.f_frsize < *used * kRoomForRewrite) {
    return;
  }
  bool isDone = false;
  store.onDatabase([&](FMKLVDatabase& db) {
    isDone = runThrough(db, "pragma auto_vacuum=incremental") && runThrough(db, "vacuum");
  });
  if (isDone) KLV_INFO("The database is rewritten: from now on it gives its space back");
}

std::uint64_t removeSetAside(std::size_t kept) {
  constexpr std::string_view kAside = ".corrupt";
  std::map<std::string, std::vector<std::string>> databases;  // by name, which has the time; each with its side files
  std::error_code failure;
  for (std::filesystem::directory_iterator entry(KLVPersistantStore::dbDirectoryPath(), failure), end;
       entry != end && !failure; entry.increment(failure)) {
    const std::string name = entry->path().filename();
    const auto suffix = name.rfind(kAside);
    if (suffix != std::string::npos && name.starts_with(kKLVDatabaseFile) && name.find("-found") == std::string::npos) {
      databases[name.substr(0, suffix)].push_back(entry->path());
    }
  }
  std::uint64_t bytes = 0;
  for (; databases.size() > kept; databases.erase(databases.begin())) {
    for (const std::string& path : databases.begin()->second) {
      const auto size = fileSize(path);
      if (removeItem(path)) bytes += size;
    }
  }
  return bytes;
}

}  // namespace kelvo
