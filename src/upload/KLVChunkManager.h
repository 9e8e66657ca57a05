#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVEvent.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "records/KLVUser.h"
#include "upload/KLVChunkDetails.h"
#include "upload/KLVFlushPlan.h"
#include "util/KLVHTTPTypes.h"

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

  /// Returns the number of stored events of the session, 0 if it has no table.
  virtual std::uint64_t numberOfEventsWithIdentifier(const std::optional<std::string>& identifier) = 0;
  /// Returns the stored events `start` to `end`, both included. Kept: `KLVEventType::system` means every type.
  virtual std::vector<Dictionary> getEventsBetween(std::uint64_t start, std::uint64_t end,
                                                   const std::optional<std::string>& identifier,
                                                   std::optional<KLVEventType> eventType) = 0;
  virtual Array retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) = 0;
  virtual std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::optional<std::string>& id) = 0;
  virtual std::vector<std::string> getSessions() = 0;
  virtual std::vector<std::shared_ptr<KLVChunkMetaInfo>> retrieveChunkMetaInfo() = 0;
  virtual void saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) = 0;
  virtual void updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) = 0;
  virtual void updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk) = 0;
  virtual void deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) = 0;
  virtual void deleteSession(const std::optional<std::string>& identifier) = 0;
  virtual void deleteItemAtPath(const std::optional<std::string>& path) = 0;
  virtual void deleteAggregateEventsWithSessionId(const std::optional<std::string>& identifier) = 0;

  /// Calls `deletions` and does its database deletions in one transaction: a kill leaves all of them or none.
  virtual void writeTogether(const std::function<void()>& deletions) = 0;

  /// Posts `body`. Does not call `completion` if no request could be formed.
  virtual void postDataToURL(const std::optional<std::string>& path, const std::optional<Dictionary>& body,
                             const std::optional<Dictionary>& headerFields, HTTPCompletion completion) = 0;

 protected:
  ~KLVChunkManagerDelegate() = default;  // never deleted through this type
};

/// Cuts stored events into numbered chunks, posts them, and purges delivered sessions.
///
/// Chunk k covers the events after chunk k-1, up to the newest event at the time of the cut. A repeating timer cuts the
/// current session, and so does BACKGROUND. "klv_app_opened" flushes the earlier sessions:
/// - cut: `KLVFlushPlan` decides which sessions are cut, and from which event;
/// - purge: `KLVFlushPlan` decides which sessions are delivered; `purge` deletes their rows and files;
/// - resend: `checkChunkStatusAndCleanTables` resends every chunk that the service has not accepted, with the same id,
///   range and events.
///
/// At most eight bodies exist at a time. All else waits in the send queue, first come, first served. A waiting task is
/// small: a new chunk's row is already in the database, and its events are read when its body is built.
///
/// Thread: all state is used on the chunk queue only. The public functions may be called on any thread.
class KLVChunkManager final : public KLVEventListener, public std::enable_shared_from_this<KLVChunkManager> {
 public:
  /// Registers on the bus and starts the timer. Its interval is "max_fg_chunk_send_time" of `configuration` in seconds,
  /// 30 if missing or 0. `delegate` must outlive the manager.
  static std::shared_ptr<KLVChunkManager> initWithConfiguration(const std::optional<Dictionary>& configuration,
                                                                KLVChunkManagerDelegate& delegate);
  /// For `initWithConfiguration` only.
  explicit KLVChunkManager(KLVChunkManagerDelegate& delegate);

  void onEvent(const std::shared_ptr<KLVEvent>& event) override;
  /// Queues a cut of the current session.
  void sendCurrentChunk();
  /// Queues a flush.
  void flushPreviousChunks();

  /// Calls `done` on the chunk queue once the chunks of all cuts and flushes queued so far are posted.
  void whenPosted(std::function<void()> done);

 private:
  using Task = std::function<void()>;
  /// The right of one body to exist. It ends with the last copy.
  using Slot = std::shared_ptr<void>;
  /// The change that sending a chunk makes to its row in the database.
  enum class RowChange { create, update };

  void registerForChunkCreationWithInterval(double seconds);
  void cutCurrentSession() REQUIRES(queue_);
  void flush() REQUIRES(queue_);
  /// Queues the purge of delivered sessions, and the chunks to resend.
  void checkChunkStatusAndCleanTables(const std::vector<KLVChunkRow>& rows) REQUIRES(queue_);
  void purge(const std::string& sid);

  /// Inserts a new chunk's row now and queues its body.
  void sendNewChunk(const KLVChunkRow& chunk) REQUIRES(queue_);
  /// Updates an unaccepted chunk's row and posts its body. Called by a task of the send queue.
  void resendChunk(const KLVChunkRow& chunk) REQUIRES(queue_);
  /// Writes the chunk's row. Returns its reporting times, or nullopt if the chunk has no events and must not be sent.
  std::optional<Array> recordChunk(const KLVChunkRow& chunk, RowChange change) REQUIRES(queue_);
  void updateCurrentIndicies(std::uint64_t end) REQUIRES(queue_);
  [[nodiscard]] bool hasEvents(const std::string& sid, std::uint64_t start, std::uint64_t end);
  KLVChunkDetails readEvents(const std::string& sid, std::uint64_t start, std::uint64_t end);
  void buildAndPost(const KLVChunkRow& chunk, const Array& reportingTimes) REQUIRES(queue_);
  void postChunk(const Dictionary& body, const std::string& chunkId) REQUIRES(queue_);

  /// Appends `task` to the send queue. It runs when all tasks before it have run and a slot is free.
  void enqueue(Task task) REQUIRES(queue_);
  void runSendQueue() REQUIRES(queue_);
  [[nodiscard]] Slot takeSlot() REQUIRES(queue_);

  KLVChunkManagerDelegate& delegate_;
  const std::string currentSessionIdentifier_;
  // Queue: the chunk queue.
  std::uint64_t currentChunkIndex_ GUARDED_BY(queue_) = kFirstChunk;
  std::uint64_t currentEventIndex_ GUARDED_BY(queue_) = kFirstEvent;
  std::deque<Task> sendQueue_ GUARDED_BY(queue_);
  std::size_t slotsTaken_ GUARDED_BY(queue_) = 0;

  DispatchQueue queue_{"com.kelvo.serial.chunkmanager"};  // the chunk queue
};

}  // namespace kelvo
