#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "records/KLVEvent.h"
#include "upload/KLVChunkManagerDelegate.h"
#include "upload/KLVChunkRanges.h"
#include "upload/KLVChunkSender.h"
#include "upload/KLVFlushPlan.h"

namespace kelvo {

/// Cuts stored events into numbered chunks, has them posted, and purges delivered sessions.
///
/// A cut covers the events after the last chunk, up to the newest event. `KLVChunkRanges` divides it into chunks. A
/// chunk is posted only once its row is in the database; without a row, the next trigger cuts the same events again.
/// A repeating timer cuts the current session, and so does BACKGROUND.
///
/// "klv_app_opened" flushes the earlier sessions, never a running one. `KLVFlushPlan` has the decisions:
/// - drop: a session without events and chunks is deleted with its files;
/// - cut: the tails of all earlier sessions, or of those that two counts select (`KLVDeliveryRules`);
/// - resend: `KLVChunkSender` posts every unaccepted chunk again, with the same id, range and events;
/// - purge: a session is deleted once every chunk is accepted and no event follows. A tail that is posted or left out
///   keeps its session.
///
/// Thread: all state is used on the chunk queue only. The public functions may be called on any thread.
class KLVChunkManager final : public KLVEventListener, public std::enable_shared_from_this<KLVChunkManager> {
 public:
  /// Registers on the bus and starts the timer with `intervalIn(configuration)`. `delegate` must outlive the manager.
  static std::shared_ptr<KLVChunkManager> initWithConfiguration(const std::optional<Dictionary>& configuration,
                                                                KLVChunkManagerDelegate& delegate);
  /// Returns "max_fg_chunk_send_time" of `configuration` in seconds, at least 1; 30 if it is missing, 0, below 0 (with
  /// a WARN line) or not finite (with a WARN line).
  [[nodiscard]] static double intervalIn(const std::optional<Dictionary>& configuration);
  /// For `initWithConfiguration` only.
  explicit KLVChunkManager(KLVChunkManagerDelegate& delegate);

  void onEvent(const std::shared_ptr<KLVEvent>& event) override;
  /// Queues a cut of the current session.
  void sendCurrentChunk();
  /// Cuts the current session and posts everything that waits. Calls `done` on the chunk queue, and passes false if the
  /// cut failed: once all of it is accepted or cannot be before the next launch, or at once after the cut, unless
  /// `waits`.
  void deliverNow(bool waits, std::function<void(bool isCut)> done);
  /// Thread: any.
  [[nodiscard]] KLVDeliveryState deliveryState() const { return sender_.state(); }
  /// Queues a flush.
  void flushPreviousChunks();
  /// Queues the change to the session of the controller, if that is another one than the current session. The session
  /// so far is cut to its end, and everything unsent is queued.
  void followSession();

  /// Ends the manager: nothing is cut or posted any more, and pending waits end. Calls `done` on the chunk queue.
  void retire(std::function<void()> done);

  /// Calls `done` on the chunk queue after everything queued so far.
  void whenIdle(std::function<void()> done) { queue_.async(std::move(done)); }
  /// Calls `done` on the chunk queue once the chunks of all cuts and flushes queued so far are posted.
  void whenPosted(std::function<void()> done);

 private:
  /// How far a session is cut, and how many of its chunks this process knows to be unaccepted.
  struct Progress {
    std::uint64_t nextChunk = kFirstChunk;
    std::uint64_t nextEvent = kFirstEvent;
    std::size_t unaccepted = 0;
  };
  /// `nothing` means that no event follows the last chunk. `failed` means that a later trigger must try again.
  enum class Cut { nothing, made, failed };

  /// Runs `work` on the chunk queue, unless the manager is retired.
  void perform(std::function<void()> work);
  void registerForChunkCreationWithInterval(double seconds);
  Cut cutCurrentSession() REQUIRES(queue_);
  void whenSettled(std::function<void(bool isCut)> done) REQUIRES(queue_);

  // --- Cutting (KLVChunkManager+Cutting.cpp)
  /// Cuts all events after the session's last chunk.
  Cut cutToEnd(const std::string& sid, Progress& progress) REQUIRES(queue_);
  /// Cuts a chunk without events if aggregate counts changed and no unaccepted chunk will carry them.
  Cut cutAggregates(const std::string& sid, Progress& progress) REQUIRES(queue_);
  /// Inserts the chunk's row and queues its body. Returns false, and changes nothing, if there is no row.
  [[nodiscard]] bool cutChunk(const std::string& sid, Progress& progress, const KLVChunkRanges::Range& range)
      REQUIRES(queue_);

  // --- Limits (KLVChunkManager+Limits.cpp)
  void watchGrowth();
  void checkLimits();  ///< queues `enforceLimits`
  /// Deletes data beyond the limits of the host. The age is checked once an hour.
  void enforceLimits() REQUIRES(queue_);
  void enforceSpace(std::uint64_t limit) REQUIRES(queue_);
  void enforceAge(std::chrono::hours limit) REQUIRES(queue_);
  /// Returns the chunks that are neither accepted nor in flight, those of earlier sessions first, in the order of their
  /// numbers.
  [[nodiscard]] std::vector<KLVChunkRow> evictableChunks() REQUIRES(queue_);
  [[nodiscard]] bool isOlder(const KLVChunkRow& chunk, Date limit) REQUIRES(queue_);
  /// Cuts the tails of earlier sessions that the flush leaves uncut, if `selects` returns true.
  void cutTails(const std::function<bool(const KLVChunkRow& tail)>& selects) REQUIRES(queue_);
  /// Deletes the first of `chunks` as long as `excess` returns a number of bytes to free.
  void evict(std::vector<KLVChunkRow> chunks, const std::function<std::uint64_t()>& excess, KLVLedgerEntry why)
      REQUIRES(queue_);

  // --- Flushing (KLVChunkManager+Flushing.cpp)
  void flush() REQUIRES(queue_);
  void flushAgainIfDue() REQUIRES(queue_);
  /// Returns nullopt if the chunks' rows cannot be read.
  [[nodiscard]] std::optional<std::vector<KLVEarlierSession>> readEarlierSessions() REQUIRES(queue_);
  [[nodiscard]] bool isEmpty(const KLVEarlierSession& session) REQUIRES(queue_);
  void flushByCounts(const std::vector<KLVEarlierSession>& earlier) REQUIRES(queue_);
  void purgeIfSettled(const KLVEarlierSession& session) REQUIRES(queue_);
  void flushEverySession(const std::vector<KLVEarlierSession>& earlier) REQUIRES(queue_);
  /// Cuts the tail of a session that has ended. Purges the session if there is none and every chunk is accepted.
  void settle(const std::string& sid) REQUIRES(queue_);
  /// The chunk is accepted or evicted.
  void onSettled(const KLVChunkRow& chunk) REQUIRES(queue_);
  void purge(const std::string& sid);

  KLVChunkManagerDelegate& delegate_;
  DispatchQueue queue_{"com.kelvo.serial.chunkmanager"};  // the chunk queue
  KLVChunkSender sender_;
  // Queue: the chunk queue.
  bool isRetired_ GUARDED_BY(queue_) = false;
  std::string currentSessionIdentifier_ GUARDED_BY(queue_);
  Progress current_ GUARDED_BY(queue_);
  std::map<std::string, Progress> ended_ GUARDED_BY(queue_);  // sessions to deliver while the process runs
  std::optional<Date> ageChecked_ GUARDED_BY(queue_);
  bool isBeyondLimit_ GUARDED_BY(queue_) = false;       // because chunks in flight stay
  std::set<std::string> unsettled_ GUARDED_BY(queue_);  // those whose cut failed, or whose purge is not committed
  bool hasNotFlushed_ GUARDED_BY(queue_) = false;       // because the rows could not be read
};

}  // namespace kelvo
