#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/SlicedText.h"
#include "records/AggregateTotals.h"
#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVEvent.h"
#include "records/KLVEviction.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "records/KLVStoredEvent.h"
#include "records/KLVUser.h"
#include "util/KLVHTTPTypes.h"
#include "util/KLVLedger.h"

namespace kelvo {

/// The controller methods that the chunk manager calls. Thread: any of them may be called on the chunk queue.
class KLVChunkManagerDelegate {
 public:
  virtual std::string applicationIdentifier() = 0;
  virtual std::shared_ptr<KLVSession> session() = 0;
  virtual std::shared_ptr<KLVUser> user() = 0;
  virtual std::shared_ptr<KLVAppInfo> appInfo() = 0;
  virtual std::shared_ptr<KLVDeviceInfo> deviceInfo() = 0;
  virtual std::shared_ptr<KLVSDKInfo> sdkInfo() = 0;

  virtual void registerIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  /// Blocks until the listeners have received every event dispatched so far.
  virtual void waitUntilDelivered() = 0;

  /// Returns the index of the session's last event, 0 if it never had one, nullopt if the read failed. Deleted events
  /// count, and so do those of the session's chunks.
  virtual std::optional<std::uint64_t> numberOfEventsWithIdentifier(const std::optional<std::string>& identifier) = 0;
  /// Calls `take` with each of the first `most` stored events from `first` to `last`, both included, in ascending
  /// order. Returns their number, nullopt if the read failed. `take` must not block or call the delegate.
  virtual std::optional<std::uint64_t> readEvents(const std::string& sid, std::uint64_t first, std::uint64_t last,
                                                  std::uint64_t most,
                                                  const std::function<void(const KLVStoredEvent&)>& take) = 0;
  virtual Array retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) = 0;
  virtual std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::optional<std::string>& id) = 0;
  /// Returns the sums of the session's aggregate counts, nullopt if the read failed.
  virtual std::optional<AggregateTotals> aggregateTotals(const std::string& sid) = 0;
  virtual std::vector<std::string> getSessions() = 0;  ///< sessions with an events table
  virtual std::vector<std::string> getSessionsWithAggregates() = 0;
  virtual std::vector<std::string> getSessionDirectories() = 0;  ///< sessions with a directory in Library
  /// Returns the rows of all chunks, nullopt if the read failed.
  virtual std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> retrieveChunkMetaInfo() = 0;
  /// Inserts the chunk's row, and `records` (the upload forms of its cut) in the same transaction. Blocks. Returns true
  /// once both are committed.
  virtual bool saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta,
                                 const std::optional<Dictionary>& records) = 0;
  /// Returns the records that were saved with the chunk's row, nullopt if there are none.
  virtual std::optional<Dictionary> retrieveChunkRecords(const std::string& chunkId) = 0;
  virtual void updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) = 0;
  /// Marks the chunk as accepted. In the same transaction, notes that the service has the aggregate counts of its
  /// session up to the sum `aggregateTotal`. Calls `committed` on the data queue once this is committed, and destroys
  /// it without a call if it fails.
  virtual void updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk, std::int64_t aggregateTotal,
                                     std::function<void()> committed) = 0;
  virtual void deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) = 0;
  virtual void deleteSession(const std::optional<std::string>& identifier) = 0;
  virtual void deleteItemAtPath(const std::optional<std::string>& path) = 0;
  virtual void deleteAggregateEventsWithSessionId(const std::optional<std::string>& identifier) = 0;

  /// Calls `deletions` and does its database deletions in one transaction: a kill leaves all of them or none. Calls
  /// `committed` on the data queue once they are committed, and never if they fail.
  virtual void writeTogether(const std::function<void()>& deletions, std::function<void()> committed) = 0;

  // --- Limits: `KLVDataHandler` documents these. Without a database they return nothing and do nothing.
  virtual std::optional<std::uint64_t> storedBytes(std::uint64_t limit) = 0;
  virtual void deleteSettledData(std::uint64_t bytes) = 0;
  virtual KLVEviction evictChunks(const std::vector<std::shared_ptr<KLVChunkMetaInfo>>& chunks, std::uint64_t bytes,
                                  KLVLedgerEntry why) = 0;
  virtual std::optional<KLVEviction> reportedEvictions(const std::string& chunkId) = 0;
  virtual std::optional<Date> timeOfEvent(const std::string& sid, std::uint64_t index) = 0;
  virtual void tidy(bool isIdle) = 0;
  virtual void whenGrown(std::uint64_t bytes, std::function<void()> report) = 0;

  /// Posts the JSON text `body`. Does not call `completion` if no request could be formed.
  virtual void postChunk(const std::string& path, SlicedText body, const Dictionary& headerFields,
                         HTTPCompletion completion) = 0;

 protected:
  ~KLVChunkManagerDelegate() = default;  // never deleted through this type
};

}  // namespace kelvo
