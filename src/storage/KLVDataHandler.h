#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "records/AggregateTotals.h"
#include "records/KLVChunk.h"
#include "records/KLVEvent.h"
#include "records/KLVEviction.h"
#include "records/KLVStoredEvent.h"
#include "storage/KLVFileStore.h"
#include "storage/KLVWaiting.h"
#include "util/KLVLedger.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {

class KLVCountCache;

/// Decides which table or file keeps which data. Thread-safe.
///
/// Writes return at once and run on the data queue in the order of their submission. A read blocks until every write
/// submitted before it is done; inside a job of the queue, it runs at once. A failure is logged and leaves the stored
/// data unchanged; no operation reports it unless its comment says so. Before `startWithCompletionHandler` there is no
/// database: its writes are dropped and its reads return nothing, but files work.
class KLVDataHandler : public KLVFileStore {
 public:
  /// `identifier` is the id of the current session.
  explicit KLVDataHandler(std::string identifier);
  /// A handler for a later session on the store and the data queue of `first`. It is started if `first` is.
  KLVDataHandler(std::string identifier, const KLVDataHandler& first);
  ~KLVDataHandler();

  /// Opens the database and creates the tables, then calls `completion`. Blocks: all of this runs on the calling
  /// thread.
  void startWithCompletionHandler(const std::function<void()>& completion);
  void stop() {}  ///< Kept: does nothing.

  // --- Events and counters. `identifier` is a session id.
  void saveEventInfo(std::shared_ptr<KLVEvent> event, std::string identifier);
  /// The same, and counts the event in the same transaction: adds 1 to the lifetime count of its name, or counts an
  /// aggregate event like `countAggregateEvent`. An event that cannot be stored is not counted.
  void saveAndCountEvent(const std::shared_ptr<KLVEvent>& event, std::string identifier);
  /// Calls `take` with each of the first `most` events from `first` to `last`, both included, in ascending order, on
  /// the calling thread. Returns their number, nullopt if the read failed. `take` must not use the data handler.
  std::optional<std::uint64_t> readEvents(const std::string& identifier, std::uint64_t first, std::uint64_t last,
                                          std::uint64_t most, const std::function<void(const KLVStoredEvent&)>& take);
  /// Returns the rows of events `start` to `end`, both included, in ascending order. `eventType` is the name of a type;
  /// nullopt means every type. Returns nullopt if the read failed.
  std::optional<std::vector<Dictionary>> getEventsBetween(std::uint64_t start, std::uint64_t end,
                                                          const std::string& identifier,
                                                          const std::optional<std::string>& eventType);
  /// Returns the index of the session's last event, 0 if it never had one, nullopt if the read failed. Deleted events
  /// count: the result is the greatest of the table's indices, the last index that SQLite gave out, and the end of the
  /// session's chunks.
  std::optional<std::uint64_t> numberOfEventsWithIdentifier(const std::string& identifier);
  /// Adds 1 to the lifetime count of the event's name. The ledger counts the event as one for plug-ins.
  void upsertLifetimeEvent(const std::shared_ptr<KLVEvent>& event);
  /// Counts the event of `call` in the ledger, and finishes the call in the same transaction: nothing of it is stored.
  void settle(KLVWaitingCall call, KLVLedgerEntry outcome);
  /// Returns the row of this name, or nullopt. Does not wait: a count that is still queued is missing.
  std::optional<Dictionary> retrieveLifetimeEventWithName(const std::string& name);

  // --- Aggregate events. `parameters` maps columns of their table to values, `identifier` is a session id.
  void saveAggregateEventInfo(std::shared_ptr<KLVEvent> event, const std::string& identifier);
  /// Returns the count of the first row with these values, or nullopt.
  std::optional<Dictionary> retrieveAggregateEventWithParameters(const Dictionary& parameters);
  std::vector<Dictionary> retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier);
  /// Counts the event and each of its attributes in the session `identifier`, in one transaction. Returns at once.
  void countAggregateEvent(std::shared_ptr<KLVEvent> event, std::string identifier);
  /// Returns the sums for the session `identifier`, nullopt if the read failed.
  std::optional<AggregateTotals> aggregateTotals(const std::string& identifier);
  /// Adds 1 to the count of the rows with these values, or inserts a row with count 1. Blocks.
  void fetchAndIncrementCountForParameters(const Dictionary& parameters);
  /// The same for the row that counts the event itself, which has no attribute. Blocks.
  void updateAggregateEventsCountRecordHavingParameters(const Dictionary& parameters);
  void deleteAggregateEventsWithSessionId(std::string identifier);

  // --- Rows of chunks.
  /// Inserts a row, and `records` (the upload forms of the chunk's cut) in the same transaction. The row's status stays
  /// NULL until the service accepts the chunk. Blocks. Returns true once both are committed.
  [[nodiscard]] bool saveChunkMetaInfo(std::shared_ptr<KLVChunkMetaInfo> meta,
                                       std::optional<Dictionary> records = std::nullopt);
  /// Returns the records that were saved with the chunk's row, nullopt if there are none.
  std::optional<Dictionary> retrieveChunkRecords(const std::string& chunkId);
  /// Replaces the reporting times of the row with this id.
  void updateChunkMetaInfoTimestamp(std::shared_ptr<KLVChunkMetaInfo> meta);
  /// Marks the row whose id is `chunk`'s identifier as accepted. In the same transaction, notes that the service has
  /// the aggregate counts of the chunk's session up to the sum `aggregateTotal`, and, if the delivery rules say so,
  /// deletes the chunk's events. Calls `committed` on the data queue after the commit, never if it fails.
  void updateChunkMetaStatus(std::shared_ptr<KLVInfo> chunk, std::int64_t aggregateTotal,
                             std::function<void()> committed = {});
  /// Deletes all rows of the session whose id is `chunk`'s identifier, and their records.
  void deleteChunkMetaInfo(std::shared_ptr<KLVInfo> chunk);
  /// Returns the rows of all chunks, nullopt if the read failed.
  std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> retrieveChunkMetaInfo();
  /// Counts what the service has not accepted, in all sessions. Returns nullopt if a read failed or there is no
  /// database.
  std::optional<KLVWaiting> waiting();

  // --- Limits (KLVDataHandler+Limits.cpp). These block, except for the last two.
  /// Returns the size in bytes of all data: the database without its free pages, the greatest size of its log, and
  /// every other file. Limits the log to a part of `limit`. Returns nullopt if there is no database.
  std::optional<std::uint64_t> storedBytes(std::uint64_t limit);
  /// Deletes what nothing needs any more, until that frees `bytes`: damaged databases that were set aside, then the
  /// events of accepted chunks, the oldest first.
  void deleteSettledData(std::uint64_t bytes);
  /// Deletes the first of `chunks`, in one transaction, until that frees `bytes`, and notes them for a later chunk to
  /// report. Returns what is deleted, nothing if that fails. `why`: an entry of the ledger for evicted events.
  KLVEviction evictChunks(const std::vector<std::shared_ptr<KLVChunkMetaInfo>>& chunks, std::uint64_t bytes,
                          KLVLedgerEntry why);
  /// Returns what the chunk reports as evicted, nullopt if the read failed.
  std::optional<KLVEviction> reportedEvictions(const std::string& chunkId);
  /// Returns when an event happened, nullopt if it is not stored.
  std::optional<Date> timeOfEvent(const std::string& sid, std::uint64_t index);
  /// Gives free space of the database back to the disk, in small steps. `isIdle`: also empties a large log, and, under
  /// the rules that delete accepted events, rewrites a file that cannot give space back.
  void tidy(bool isIdle);
  /// Calls `report` each time that about `bytes` of events were stored since the last time. On any thread.
  void whenGrown(std::uint64_t bytes, std::function<void()> report);

  // --- Sessions and rescued events.
  /// Returns the ids of all sessions that have an events table: those with at least one event.
  std::vector<std::string> getSessions();
  /// Returns the ids of all sessions that have an aggregate count.
  std::vector<std::string> getSessionsWithAggregates();
  /// Returns the names of all directories in the Library directory whose name has the form of a session id.
  std::vector<std::string> getSessionDirectories();
  void deleteSession(std::string identifier);  ///< drops the session's events table
  enum class Rescue { stored, alreadyStored, failed };
  /// Stores events that the file `file` (a name in the Library directory) kept from the death of their process: their
  /// rows in the session `sid`, their counts, and the file's name, all in one transaction. `alreadyStored` means that
  /// the name is recorded, and nothing was stored. Leaves out an event that has no storage form. Blocks.
  [[nodiscard]] Rescue storeRescuedEvents(const std::string& file, const std::vector<std::shared_ptr<KLVEvent>>& events,
                                          const std::string& sid);
  void forgetRescuedFile(std::string file);  ///< for a file that exists no longer

  /// Runs `submit` on the calling thread and does its database writes in one transaction: a kill leaves all of them or
  /// none. Calls `committed` on the data queue once they are committed, and never if they fail. Work that must follow
  /// the writes, such as the deletion of files, belongs in `committed`: other jobs of `submit` run before them.
  void writeTogether(const std::function<void()>& submit, std::function<void()> committed = {});

  /// If more than about 2,000 writes wait, blocks until they are done and may run some on the calling thread. For
  /// threads of the library that produce writes faster than the disk accepts them; never for the host's threads.
  void catchUp();

  /// Calls `report` on the data queue with true once the database is open and has its tables, and with false before if
  /// it cannot be opened yet: each write tries again.
  void whenReady(std::function<void(bool isReady)> report);
  /// Calls `done` on the data queue once all writes submitted so far are done.
  void whenStored(std::function<void()> done);
  /// Ends the handler, and all that share its data queue: every write is dropped, those that wait included, and reads
  /// of the database return nothing. Calls `done` on the data queue once the database is closed.
  void retire(std::function<void()> done);

 private:
  template <class Count>
  void insert(const std::shared_ptr<KLVEvent>& event, std::string identifier, Count count);

  const std::string sessionIdentifier_;
  std::shared_ptr<KLVCountCache> lifetimeCounts_;
};

}  // namespace kelvo
