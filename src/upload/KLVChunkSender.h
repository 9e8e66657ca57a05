#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "upload/KLVChunkManagerDelegate.h"
#include "upload/KLVDeliveryState.h"
#include "upload/KLVFlushPlan.h"
#include "upload/KLVResendPolicy.h"
#include "upload/KLVSendQueue.h"

namespace kelvo {

/// Posts chunks whose rows are in the database, and marks those that the service accepts.
///
/// A chunk that is not accepted waits. `KLVResendPolicy` decides when waiting chunks are posted again; without that
/// rule (`KLVDeliveryRules::resendsWhileRunning`) they wait for the next launch. Thread: the chunk queue.
class KLVChunkSender {
 public:
  KLVChunkSender(KLVChunkManagerDelegate& delegate, DispatchQueue& chunkQueue);
  /// `owner` keeps this object and the chunk queue alive while requests run. `accepted` is called on the chunk queue
  /// with each accepted chunk, `failed` after each attempt that failed. Call before anything else.
  void start(std::weak_ptr<void> owner, std::function<void(const KLVChunkRow&)> accepted, std::function<void()> failed);

  /// Forgets all chunks and ends pending waits. Nothing is posted any more.
  void retire();

  /// Queues a chunk that was just cut.
  void sendNew(const KLVChunkRow& row, const Array& reportingTimes);
  /// Queues an unaccepted chunk of the database, with new reporting times. Returns false, and does nothing, if the
  /// chunk is queued, in flight or waiting already.
  bool resend(const KLVChunkRow& row);
  /// Queues the waiting chunks, if the policy allows it now.
  void resendWaiting();
  /// The same without a delay, except for a time that the service asks for.
  void resendNow();
  /// Posts nothing while the result lives, on the chunk queue.
  [[nodiscard]] std::shared_ptr<void> hold() { return sendQueue_.hold(); }
  /// Returns whether a request with the chunk is under way, or its answer is not stored yet.
  [[nodiscard]] bool isInFlight(const KLVChunkRow& row) const;
  /// Forgets a chunk that is not in flight: it was deleted, and is not sent.
  void forget(const KLVChunkRow& row);
  /// Calls `done` on the chunk queue once no chunk is under way or waits to be resent, or no service can be reached.
  void whenSettled(std::function<void()> done);
  /// Thread: any.
  [[nodiscard]] KLVDeliveryState state() const EXCLUDES(stateMutex_);
  /// Calls `done` once all chunks queued so far are posted, or wait.
  void whenPosted(std::function<void()> done) { sendQueue_.enqueue(std::move(done)); }

 private:
  /// The outcome of one attempt to post a chunk.
  struct Attempt {
    KLVChunkRow row;
    bool accepted = false;
    std::uint64_t events = 0;
    std::optional<std::chrono::seconds> retryAfter = std::nullopt;
    KLVDeliveryFailure failure{};
  };

  void enqueueResend(const KLVChunkRow& row) REQUIRES(queue_);
  void postNew(const KLVChunkRow& row, const Array& reportingTimes) REQUIRES(queue_);
  void postAgain(const KLVChunkRow& row) REQUIRES(queue_);
  void post(const KLVChunkRow& row, const Array& reportingTimes) REQUIRES(queue_);
  void onAttemptEnded(const Attempt& attempt) REQUIRES(queue_);
  void postpone(const KLVChunkRow& row) REQUIRES(queue_);
  /// Publishes the state, and ends waits for it.
  void update() REQUIRES(queue_) EXCLUDES(stateMutex_);
  [[nodiscard]] bool anyWaits() const REQUIRES(queue_) { return !postponed_.empty() || !failed_.empty(); }
  /// Tells the policy of `trigger`, and begins a round if one is due.
  void note(KLVResendPolicy::Trigger trigger, std::optional<std::chrono::seconds> retryAfter = std::nullopt)
      REQUIRES(queue_);
  void beginRoundIfDue() REQUIRES(queue_);
  void wakeAt(KLVResendPolicy::Instant time) REQUIRES(queue_);

  KLVChunkManagerDelegate& delegate_;
  DispatchQueue& queue_;  // the chunk queue
  std::weak_ptr<void> owner_;
  std::function<void(const KLVChunkRow&)> accepted_;
  std::function<void()> failedAttempt_;
  KLVSendQueue sendQueue_;
  // Queue: the chunk queue.
  std::set<std::string> known_ GUARDED_BY(queue_);  // ids of the chunks that are queued, in flight or waiting
  std::set<std::string> inFlight_ GUARDED_BY(queue_);
  std::set<std::string> givenUp_ GUARDED_BY(queue_);  // ids of the chunks that wait for the next launch
  // Waiting chunks. A round begins with the postponed ones, so that chunks that always fail do not hold up the others.
  std::vector<KLVChunkRow> postponed_ GUARDED_BY(queue_);
  std::vector<KLVChunkRow> failed_ GUARDED_BY(queue_);
  KLVResendPolicy policy_ GUARDED_BY(queue_);
  std::optional<KLVResendPolicy::Instant> wakeUp_ GUARDED_BY(queue_);  // of the earliest timer
  std::vector<std::function<void()>> settled_ GUARDED_BY(queue_);
  bool isRetired_ GUARDED_BY(queue_) = false;
  mutable Mutex stateMutex_;
  KLVDeliveryState state_ GUARDED_BY(stateMutex_);
  std::minstd_rand random_ GUARDED_BY(queue_){std::random_device()()};
};

}  // namespace kelvo
