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

/// Decides what is kept in which table, file or key.
///
/// Writes return at once and happen in the order of their submission on the handler's queue; a read from outside
/// its jobs waits for every write submitted before it, a read inside a job runs at once. No operation reports
/// failure: it is logged, and the state stays as it was. Until `startWithCompletionHandler` there is no
/// database: operations on it do nothing and reads give nothing, while files work.
class KLVDataHandler {
 public:
  explicit KLVDataHandler(std::string identifier);
  ~KLVDataHandler();

  /// Opens the database and makes the tables on the calling thread, then calls `completion`.
  void startWithCompletionHandler(const std::function<void()>& completion);
  /// Does nothing.
  void stop() {}

  // --- Records, as files; a null record writes nothing. `identifier` names the directory, a session's id.
  void saveAppInfo(std::shared_ptr<KLVAppInfo> info, std::string identifier);
  void saveDeviceInfo(std::shared_ptr<KLVDeviceInfo> info);
  void saveSDKInfo(std::shared_ptr<KLVSDKInfo> info, std::string identifier);
  void saveSessionInfo(std::shared_ptr<KLVSession> session, std::string identifier);
  void saveUserInfo(std::shared_ptr<KLVUser> user);
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::string& identifier);
  std::shared_ptr<KLVUser> retrieveUser();

  // --- Events and counters.
  void saveEventInfo(std::shared_ptr<KLVEvent> event, std::string identifier);
  /// Stored events from `start` to `end`, both included, as rows in ascending order; of one type name, or all.
  std::vector<Dictionary> getEventsBetween(std::uint64_t start, std::uint64_t end, const std::string& identifier,
                                           const std::optional<std::string>& eventType);
  std::uint64_t numberOfEventsWithIdentifier(const std::string& identifier);
  void upsertLifetimeEvent(std::shared_ptr<KLVEvent> event);
  /// The row of this name, or nullopt. Runs at once: writes that still wait are not in it.
  std::optional<Dictionary> retrieveLifetimeEventWithName(const std::string& name);
  void saveAggregateEventInfo(std::shared_ptr<KLVEvent> event, const std::string& identifier);
  std::optional<Dictionary> retrieveAggregateEventWithParameters(const Dictionary& parameters);
  std::vector<Dictionary> retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier);
  void fetchAndIncrementCountForParameters(const Dictionary& parameters);
  void updateAggregateEventsCountRecordHavingParameters(const Dictionary& parameters);
  void deleteAggregateEventsWithSessionId(std::string identifier);

  // --- Chunk bookkeeping.
  void saveChunkMetaInfo(std::shared_ptr<KLVChunkMetaInfo> meta);
  void updateChunkMetaInfoTimestamp(std::shared_ptr<KLVChunkMetaInfo> meta);
  /// Marks the row whose id is `chunk`'s identifier as accepted.
  void updateChunkMetaStatus(std::shared_ptr<KLVInfo> chunk);
  /// Deletes all rows of the session whose id is `chunk`'s identifier.
  void deleteChunkMetaInfo(std::shared_ptr<KLVInfo> chunk);
  std::vector<std::shared_ptr<KLVChunkMetaInfo>> retrieveChunkMetaInfo();

  /// Identifiers of all sessions that have an events table.
  std::vector<std::string> getSessions();
  void deleteSession(std::string identifier);

  // --- Files, named relative to the Library directory.
  void deleteItemAtPath(std::string path);
  std::optional<Value> objectFromFileWithPath(const std::optional<std::string>& path);
  std::optional<Value> getEventsInfo();
  void persistFrequencyConfig(Dictionary config);
  std::optional<Value> retrieveFrequencyConfig();
  void persistClientEvents(Dictionary config);
  std::optional<Value> getClientEvents();
  void persistPIDMIDDict(Dictionary config, std::string path);
  std::optional<Value> getPIDMIDDictAtPath(const std::string& path);

  /// What `submit` deletes, on the calling thread, goes in one transaction: a kill leaves all of it or nothing.
  void writeTogether(const std::function<void()>& submit);

  /// While many writes wait, does not return before they are done, some of them on the calling thread. For threads of
  /// the library that make writes faster than the disk takes them.
  void catchUp();

  /// Calls `done` on the handler's queue once all that was submitted so far is stored.
  void whenStored(std::function<void()> done);

 private:
  [[nodiscard]] std::optional<std::int64_t> aggregateCount(const Dictionary& parameters);
  void insertFirstAggregateCount(Dictionary parameters);
  void persist(Dictionary config, std::string path, std::string failure);

  std::string sessionIdentifier_;
  std::shared_ptr<KLVDataHandlerJobs> jobs_;
  std::shared_ptr<KLVCountCache> lifetimeCounts_;
};

}  // namespace kelvo
