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

/// What the chunk manager asks of the controller; every call may come on the chunk queue.
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
  /// Returns once the listeners have had every event dispatched so far.
  virtual void waitUntilDelivered() = 0;

  /// Number of stored events of the session; 0 when it has no table.
  virtual std::uint64_t numberOfEventsWithIdentifier(const std::optional<std::string>& identifier) = 0;
  /// Stored events from `start` to `end`, both included; `KLVEventType::system` stands for every type.
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

  /// The deletions that `deletions` asks for are all done, or none, whenever the process is killed.
  virtual void writeTogether(const std::function<void()>& deletions) = 0;

  /// `completion` is not called when no request could be formed.
  virtual void postDataToURL(const std::optional<std::string>& path, const std::optional<Dictionary>& body,
                             const std::optional<Dictionary>& headerFields, HTTPCompletion completion) = 0;

 protected:
  ~KLVChunkManagerDelegate() = default;  // never deleted through this type
};

/// Cuts a session's stored events into numbered chunks and posts them.
///
/// Chunk k covers the events after chunk k-1 up to the newest at the time of the cut. A chunk is cut by a repeating
/// timer, when the application goes to the background, and at launch for earlier sessions. One whose upload failed is
/// sent again at the next launch with the same id, range and events; a session all of whose chunks were accepted is
/// deleted. All state is touched on the chunk queue only.
///
/// Only so many bodies are with the HTTP client at once; later chunks wait in a line, first come, first served. What
/// waits there is small: a chunk's row is in the database, and its events are read when its turn comes.
class KLVChunkManager final : public KLVEventListener, public std::enable_shared_from_this<KLVChunkManager> {
 public:
  /// Registers on the bus and starts the timer: "max_fg_chunk_send_time" of `configuration` in seconds, 30 without.
  /// `delegate` must outlive the manager.
  static std::shared_ptr<KLVChunkManager> initWithConfiguration(const std::optional<Dictionary>& configuration,
                                                                KLVChunkManagerDelegate& delegate);
  /// For `initWithConfiguration`.
  explicit KLVChunkManager(KLVChunkManagerDelegate& delegate);

  void onEvent(const std::shared_ptr<KLVEvent>& event) override;
  void sendCurrentChunk();
  void flushPreviousChunks();

  /// Calls `done` on the chunk queue once all cuts and flushes so far are posted.
  void whenPosted(std::function<void()> done);

 private:
  using Task = std::function<void()>;
  /// One of the places with the HTTP client; free again when the last copy dies.
  using Place = std::shared_ptr<void>;

  void registerForChunkCreationWithInterval(double seconds);
  void cutCurrentSession();
  void flush();
  void checkChunkStatusAndCleanTables(const std::vector<KLVChunkRow>& rows);
  void purge(const std::string& sid);
  void updateCurrentIndicies(std::uint64_t end);
  void sendChunk(const std::optional<std::string>& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end,
                 bool shouldCreateNewEntryInMetaTable);
  [[nodiscard]] bool hasEvents(const std::string& sid, std::uint64_t start, std::uint64_t end);
  KLVChunkDetails readEvents(const std::string& sid, std::uint64_t start, std::uint64_t end);
  void recordMeta(const KLVChunkRow& chunk, const Array& reportingTimes, bool shouldCreateNewEntryInMetaTable);
  void buildAndPost(const KLVChunkRow& chunk, const Array& reportingTimes);
  void postChunk(const Dictionary& body, const std::string& chunkId);

  /// Runs `task` once those before it have had their turn and there is a place for what it may post.
  void inLine(Task task);
  void serveLine();
  [[nodiscard]] Place takePlace();

  KLVChunkManagerDelegate& delegate_;
  std::uint64_t currentChunkIndex_ = 1;
  std::uint64_t currentEventIndex_ = 1;
  const std::string currentSessionIdentifier_;
  std::deque<Task> line_;
  std::size_t placesTaken_ = 0;
  DispatchQueue queue_{"com.kelvo.serial.chunkmanager"};
};

}  // namespace kelvo
