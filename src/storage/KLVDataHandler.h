#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVEvent.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "records/KLVUser.h"

namespace kelvo {

class KLVCountCache;
class KLVDataHandlerJobs;

/// Decides which table or file keeps which data. Thread-safe.
///
/// Writes return at once and run on the data queue in the order of their submission. A read blocks until every write
/// submitted before it is done; inside a job of the queue, it runs at once. A failure is logged and leaves the stored
/// data unchanged; no operation reports it. Before `startWithCompletionHandler` there is no database: its writes are
/// dropped and its reads return nothing, but files work.
class KLVDataHandler {
 public:
  /// `identifier` is the id of the current session.
  explicit KLVDataHandler(std::string identifier);
  ~KLVDataHandler();

  /// Opens the database and creates the tables, then calls `completion`. Blocks: all of this runs on the calling
  /// thread.
  void startWithCompletionHandler(const std::function<void()>& completion);
  /// Kept: does nothing.
  void stop() {}

  // --- Records, each a file. A null record is ignored. `identifier` is a session id and names the directory.
  void saveAppInfo(std::shared_ptr<KLVAppInfo> info, std::string identifier);
  void saveDeviceInfo(std::shared_ptr<KLVDeviceInfo> info);
  void saveSDKInfo(std::shared_ptr<KLVSDKInfo> info, std::string identifier);
  void saveSessionInfo(std::shared_ptr<KLVSession> session, std::string identifier);
  void saveUserInfo(std::shared_ptr<KLVUser> user);
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::string& identifier);
  std::shared_ptr<KLVUser> retrieveUser();

  // --- Events and counters. `identifier` is a session id.
  void saveEventInfo(std::shared_ptr<KLVEvent> event, std::string identifier);
  /// Returns the rows of events `start` to `end`, both included, in ascending order. `eventType` is the name of a type;
  /// nullopt means every type.
  std::vector<Dictionary> getEventsBetween(std::uint64_t start, std::uint64_t end, const std::string& identifier,
                                           const std::optional<std::string>& eventType);
  /// Returns the number of stored events, 0 if the session has no table.
  std::uint64_t numberOfEventsWithIdentifier(const std::string& identifier);
  /// Adds 1 to the lifetime count of the event's name.
  void upsertLifetimeEvent(std::shared_ptr<KLVEvent> event);
  /// Returns the row of this name, or nullopt. Does not wait: a count that is still queued is missing.
  std::optional<Dictionary> retrieveLifetimeEventWithName(const std::string& name);

  // --- Aggregate events. `parameters` maps columns of their table to values, `identifier` is a session id.
  void saveAggregateEventInfo(std::shared_ptr<KLVEvent> event, const std::string& identifier);
  /// Returns the count of the first row with these values, or nullopt.
  std::optional<Dictionary> retrieveAggregateEventWithParameters(const Dictionary& parameters);
  std::vector<Dictionary> retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier);
  /// Adds 1 to the count of the rows with these values, or inserts a row with count 1. Blocks.
  void fetchAndIncrementCountForParameters(const Dictionary& parameters);
  /// The same for the row that counts the event itself, which has no attribute. Blocks.
  void updateAggregateEventsCountRecordHavingParameters(const Dictionary& parameters);
  void deleteAggregateEventsWithSessionId(std::string identifier);

  // --- Rows of chunks.
  /// Inserts a row. Its status stays NULL until the service accepts the chunk.
  void saveChunkMetaInfo(std::shared_ptr<KLVChunkMetaInfo> meta);
  /// Replaces the reporting times of the row with this id.
  void updateChunkMetaInfoTimestamp(std::shared_ptr<KLVChunkMetaInfo> meta);
  /// Marks the row whose id is `chunk`'s identifier as accepted.
  void updateChunkMetaStatus(std::shared_ptr<KLVInfo> chunk);
  /// Deletes all rows of the session whose id is `chunk`'s identifier.
  void deleteChunkMetaInfo(std::shared_ptr<KLVInfo> chunk);
  std::vector<std::shared_ptr<KLVChunkMetaInfo>> retrieveChunkMetaInfo();

  /// Returns the ids of all sessions that have an events table.
  std::vector<std::string> getSessions();
  /// Drops the session's events table.
  void deleteSession(std::string identifier);

  // --- Files. A path is relative to the Library directory. A file holds a JSON object or array; reads return nullopt
  // if it is missing or holds anything else.
  /// Deletes a file, or a directory with its content. Refuses a path that leaves the Library directory.
  void deleteItemAtPath(std::string path);
  std::optional<Value> objectFromFileWithPath(const std::optional<std::string>& path);
  std::optional<Value> getEventsInfo();
  void persistFrequencyConfig(Dictionary config);
  std::optional<Value> retrieveFrequencyConfig();
  void persistClientEvents(Dictionary config);
  std::optional<Value> getClientEvents();
  void persistPIDMIDDict(Dictionary config, std::string path);
  std::optional<Value> getPIDMIDDictAtPath(const std::string& path);

  /// Runs `submit` on the calling thread and does its database writes in one transaction: a kill leaves all of them or
  /// none.
  void writeTogether(const std::function<void()>& submit);

  /// If more than about 2,000 writes wait, blocks until they are done and may run some on the calling thread. For
  /// threads of the library that produce writes faster than the disk accepts them. The host's threads must never call
  /// it.
  void catchUp();

  /// Calls `done` on the data queue once all writes submitted so far are done.
  void whenStored(std::function<void()> done);

 private:
  // Inside a job.
  [[nodiscard]] std::optional<std::int64_t> aggregateCount(const Dictionary& parameters);
  void insertFirstAggregateCount(Dictionary parameters);
  /// Queues writing `config` as JSON to `path`; logs `failure` if that fails.
  void persist(Dictionary config, std::string path, std::string failure);

  const std::string sessionIdentifier_;
  std::shared_ptr<KLVDataHandlerJobs> jobs_;
  std::shared_ptr<KLVCountCache> lifetimeCounts_;
};

}  // namespace kelvo
