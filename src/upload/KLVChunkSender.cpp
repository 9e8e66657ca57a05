#include "upload/KLVChunkSender.h"

#include <utility>

#include "platform/Clock.h"
#include "records/KLVChunk.h"
#include "upload/KLVChunkBody.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

using Trigger = KLVResendPolicy::Trigger;

constexpr long kAcceptedStatus = 200;

std::string idOf(const KLVChunkRow& row) {
  return KLVChunk::CMID(row.sid, row.cid);
}

bool resends() {
  return KLVDeliveryRules::current().resendsWhileRunning;
}

}  // namespace

KLVChunkSender::KLVChunkSender(KLVChunkManagerDelegate& delegate, DispatchQueue& chunkQueue)
    : delegate_(delegate), queue_(chunkQueue), sendQueue_(chunkQueue) {}

void KLVChunkSender::start(std::weak_ptr<void> owner, std::function<void(const KLVChunkRow&)> accepted) {
  owner_ = owner;
  accepted_ = std::move(accepted);
  sendQueue_.setOwner(std::move(owner));
}

void KLVChunkSender::sendNew(const KLVChunkRow& row, const Array& reportingTimes) {
  queue_.assertCurrent();
  known_.insert(idOf(row));
  sendQueue_.enqueue([this, row, reportingTimes] {
    queue_.assertCurrent();
    postNew(row, reportingTimes);
  });
}

bool KLVChunkSender::resend(const KLVChunkRow& row) {
  queue_.assertCurrent();
  if (!known_.insert(idOf(row)).second) return false;
  enqueueResend(row);
  return true;
}

void KLVChunkSender::enqueueResend(const KLVChunkRow& row) {
  sendQueue_.enqueue([this, row] {
    queue_.assertCurrent();
    postAgain(row);
  });
}

void KLVChunkSender::postNew(const KLVChunkRow& row, const Array& reportingTimes) {
  if (resends() && !policy_.mayPost(Clock::monotonic())) return postpone(row);
  post(row, reportingTimes);
}

void KLVChunkSender::postAgain(const KLVChunkRow& row) {
  if (resends() && !policy_.mayResend(Clock::monotonic())) return postpone(row);
  const Array reportingTimes{KLVTimer::sharedTimer().currentTimeInMillis()};
  delegate_.updateChunkMetaInfo(
      std::make_shared<KLVChunkMetaInfo>(row.sid, row.cid, row.start, row.end, reportingTimes));
  post(row, reportingTimes);
}

void KLVChunkSender::post(const KLVChunkRow& row, const Array& reportingTimes) {
  auto body = KLVChunkBody::build(row, reportingTimes, delegate_);
  if (!body) return onAttemptEnded({row});
  // The completion holds the slot. So the attempt ends once it has been called, or destroyed without a call.
  const auto attempt = std::make_shared<Attempt>(Attempt{row});
  auto slot = sendQueue_.takeSlot([this, attempt] {
    queue_.assertCurrent();
    onAttemptEnded(*attempt);
  });
  const auto completion = [this, attempt, total = body->aggregateTotal, slot = std::move(slot)](
                              const auto&, const auto& response, const auto& error) {
    const long statusCode = response ? response->statusCode : 0;
    const std::string chunkId = idOf(attempt->row);
    if (error || statusCode != kAcceptedStatus) {
      if (response) attempt->retryAfter = response->retryAfter;
      KLV_WARN("failed to send chunk - {}, responsecode - {}", chunkId, statusCode);
      return;
    }
    attempt->accepted = true;
    delegate_.updateChunkMetaStatus(std::make_shared<KLVChunk>(chunkId), total);
    KLV_DEBUG("Successfully sent chunk - {}, responsecode - {}", chunkId, statusCode);
  };
  delegate_.postDataToURL(byReplacing(kKLVSDKChunkURL, "<app-id>", delegate_.applicationIdentifier()), body->content,
                          std::nullopt, completion);
}

void KLVChunkSender::onAttemptEnded(const Attempt& attempt) {
  const std::string chunkId = idOf(attempt.row);
  if (attempt.accepted) {
    known_.erase(chunkId);
    accepted_(attempt.row);
    if (resends()) note(anyWaits() ? Trigger::accepted : Trigger::acceptedAlone);
  } else if (resends()) {
    failed_.push_back(attempt.row);
    note(Trigger::failed, attempt.retryAfter);
  } else {
    known_.erase(chunkId);
  }
}

void KLVChunkSender::postpone(const KLVChunkRow& row) {
  postponed_.push_back(row);
  note(Trigger::postponed);
}

// --- Rounds of waiting chunks

void KLVChunkSender::resendWaiting() {
  queue_.assertCurrent();
  if (resends() && anyWaits()) note(Trigger::foreground);
}

void KLVChunkSender::note(KLVResendPolicy::Trigger trigger, std::optional<std::chrono::seconds> retryAfter) {
  const double random = std::uniform_real_distribution(0.0, 1.0)(random_);
  policy_ = policy_.after(trigger, Clock::monotonic(), random, retryAfter);
  beginRoundIfDue();
}

void KLVChunkSender::beginRoundIfDue() {
  const auto now = Clock::monotonic();
  if (!policy_.due) return;
  if (!policy_.isDue(now)) return wakeAt(*policy_.due);
  policy_ = policy_.afterStartOfRound(now);
  auto round = std::exchange(postponed_, {});
  const auto failed = std::exchange(failed_, {});
  round.insert(round.end(), failed.begin(), failed.end());
  for (const KLVChunkRow& row : round) enqueueResend(row);
}

void KLVChunkSender::wakeAt(KLVResendPolicy::Instant time) {
  if (wakeUp_ && *wakeUp_ <= time) return;
  wakeUp_ = time;
  queue_.after(time - Clock::monotonic(), [this, owner = owner_, time] {
    const auto alive = owner.lock();
    if (alive == nullptr) return;
    queue_.assertCurrent();
    if (wakeUp_ == time) wakeUp_.reset();
    beginRoundIfDue();
  });
}

}  // namespace kelvo
