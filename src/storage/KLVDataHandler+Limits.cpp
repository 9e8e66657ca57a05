#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <utility>

#include "journal/KLVJournalPlace.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "records/KLVFileNames.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVSDKInfo.h"
#include "storage/KLVChunkWrites.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVLedgerWrites.h"
#include "storage/KLVSchema.h"
#include "storage/KLVStoreSpace.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;

/// The most chunks of one transaction.
constexpr std::size_t kMostEvictedAtOnce = 64;
constexpr std::uint64_t kLargeLog = std::uint64_t{1} << 20;  // bytes

// The part of the limit that the write-ahead log may take, within these bounds in bytes.
constexpr std::uint64_t kPartOfLog = 25;
constexpr std::uint64_t kSmallestLog = std::uint64_t{64} << 10;
constexpr std::uint64_t kLargestLog = std::uint64_t{4} << 20;  // SQLite's own size

std::uint64_t bytesBelow(const std::string& directory) {
  std::uint64_t bytes = 0;
  std::error_code failure;  // ignored: a file that has just been deleted has no size
  for (fs::recursive_directory_iterator entry(directory, failure), end; entry != end; entry.increment(failure)) {
    std::error_code gone;
    const auto size = entry->is_regular_file(gone) ? entry->file_size(gone) : 0;
    if (!gone) bytes += size;
  }
  return bytes;
}

/// Returns the bytes of all files but the database, its log, and the journal, whose size is a choice of its own.
std::uint64_t bytesBeside() {
  const std::string database = KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile);
  return bytesBelow(Directories::library()) + bytesBelow(KLVPersistantStore::dbDirectoryPath()) - fileSize(database) -
         fileSize(database + "-wal") - fileSize(Directories::inLibrary(kKLVJournalFile));
}

/// Calls `next` in one transaction until the database is smaller by `bytes`, or `next` returns false. Returns false if
/// a write failed: then nothing is deleted.
bool deleteUntilFreed(KLVDataHandlerJobs& jobs, std::uint64_t bytes,
                      const std::function<std::optional<bool>(KLVPersistantStore&)>& next) {
  return jobs.writeNow([&](KLVPersistantStore& store) {
    const auto before = usedBytes(store);
    if (!before) return false;
    for (auto now = before; now && (*now > *before || *before - *now < bytes); now = usedBytes(store)) {
      const auto goesOn = next(store);
      if (!goesOn) return false;
      if (!*goesOn) break;
    }
    return true;
  });
}

/// Gives all free space of the database file back, in steps. Other jobs run between the steps.
void giveAllSpaceBack(const std::shared_ptr<KLVDataHandlerJobs>& jobs, bool isBegun = false) {
  jobs->async([jobs, isBegun] {
    auto* store = jobs->store();
    if (store == nullptr) return;
    if (giveSpaceBack(*store)) return giveAllSpaceBack(jobs, true);
    if (isBegun) truncateLog(*store, 0);  // the file shrinks only now
  });
}

}  // namespace

std::optional<std::uint64_t> KLVDataHandler::storedBytes(std::uint64_t limit) {
  return jobs_->sync([&]() -> std::optional<std::uint64_t> {
    auto* store = jobs_->store();
    const auto used = store != nullptr ? usedBytes(*store) : std::nullopt;
    if (!used) return std::nullopt;
    // The log counts with its greatest size: it grows much faster than the data, and begins anew.
    const auto ofLog = std::clamp(limit / kPartOfLog, kSmallestLog, kLargestLog);
    limitLog(*store, ofLog);
    truncateLog(*store, ofLog);
    return *used + ofLog + bytesBeside();
  });
}

void KLVDataHandler::deleteSettledData(std::uint64_t bytes) {
  const std::uint64_t ofDamaged = jobs_->sync([] { return removeSetAside(0); });
  if (ofDamaged > 0) KLV_WARN("Damaged databases are removed, {} bytes: the data is beyond its limit", ofDamaged);
  if (ofDamaged >= bytes) return;
  std::optional<KLVPersistantStore::Rows> settled;
  std::size_t next = 0;
  const auto deleteNext = [&](KLVPersistantStore& store) -> std::optional<bool> {
    if (!settled) {
      settled = store.rows(sqlText("select * from {0} where {1} > 0 order by {2}, {3}", kKLVChunkMetaInfo,
                                   kKLVChunkStatus, kKLVChunkSid, kKLVChunkCid));
      if (!settled) return std::nullopt;
    }
    if (next == settled->size()) return false;
    const Dictionary& row = (*settled)[next++];
    const auto status = static_cast<int>(row[kKLVChunkStatus].asInt64());
    return settleChunk(store, KLVStoredChunk(row), status, true) ? std::optional(true) : std::nullopt;
  };
  if (deleteUntilFreed(*jobs_, bytes - ofDamaged, deleteNext) && next > 0) {
    KLV_INFO("{} accepted chunks are deleted: the data is beyond its limit", next);
  }
}

KLVEviction KLVDataHandler::evictChunks(const std::vector<std::shared_ptr<KLVChunkMetaInfo>>& chunks,
                                        std::uint64_t bytes, KLVLedgerEntry why) {
  KLVEviction evicted;
  const auto evictNext = [&](KLVPersistantStore& store) -> std::optional<bool> {
    if (evicted.chunks == std::min(chunks.size(), kMostEvictedAtOnce)) return false;
    const auto one = evictChunk(store, KLVStoredChunk(chunks[evicted.chunks]->additionalInfo()));
    if (!one || !countInLedger(store, why, static_cast<std::int64_t>(one->events))) return std::nullopt;
    evicted.events += one->events;
    evicted.chunks += one->chunks;
    return true;
  };
  return deleteUntilFreed(*jobs_, bytes, evictNext) ? evicted : KLVEviction();
}

std::optional<KLVEviction> KLVDataHandler::reportedEvictions(const std::string& chunkId) {
  return jobs_->sync([&]() -> std::optional<KLVEviction> {
    auto* store = jobs_->store();
    return store != nullptr ? kelvo::reportedEvictions(*store, chunkId) : KLVEviction();
  });
}

std::optional<Date> KLVDataHandler::timeOfEvent(const std::string& sid, std::uint64_t index) {
  using std::chrono::milliseconds;
  const auto rows = getEventsBetween(index, index, sid, std::nullopt);
  if (!rows || rows->empty()) return std::nullopt;
  // An event's time counts from the start of the process, which a session of that process may follow much later.
  std::int64_t start = 0;
  if (const auto path = joinPath(sid, kKLVSDKInfo); fileExists(Directories::inLibrary(path))) {
    const auto form = objectFromFileWithPath(path).value_or(Value()).asDictionary().value_or(Dictionary());
    start = objectFromJsonDict<KLVSDKInfo>(form)->additionalInfo()[kKLVSDKStartTime].asInt64();
  }
  if (start == 0) start = Value(sid).asInt64();  // an id begins with the launch time
  const auto seconds = rows->front()[kKLVTime].asInt64();
  return Date(std::chrono::duration_cast<Date::duration>(milliseconds(start) + std::chrono::seconds(seconds)));
}

void KLVDataHandler::tidy(bool isIdle) {
  giveAllSpaceBack(jobs_);
  if (!isIdle) return;
  jobs_->async([jobs = jobs_] {
    auto* store = jobs->store();
    if (store == nullptr) return;
    if (KLVDeliveryRules::current().deletesAcceptedEvents) rewriteOldFile(*store);
    truncateLog(*store, kLargeLog);
  });
}

void KLVDataHandler::whenGrown(std::uint64_t bytes, std::function<void()> report) {
  jobs_->whenGrown(bytes, std::move(report));
}

}  // namespace kelvo
