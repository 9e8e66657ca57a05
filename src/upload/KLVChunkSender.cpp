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

KLVDeliveryFailure failureOf(long status, const std::optional<HTTPError>& error) {
  if (error) return {FlushOutcome::noService, 0, "no service: " + error->localizedDescription, error->isFinal};
  return {FlushOutcome::refused, static_cast<int>(status), "the service answered " + std::to_string(status)};
}

bool resends() {
  return KLVDeliveryRules::current().resendsWhileRunning;
}

}  // namespace

KLVChunkSender::KLVChunkSender(KLVChunkManagerDelegate& delegate, DispatchQueue& chunkQueue)
    : delegate_(delegate), queue_(chunkQueue), sendQueue_(chunkQueue) {}

void KLVChunkSender::start(std::weak_ptr<void> owner, std::function<void(const KLVChunkRow&)> accepted,
                           std::function<void()> failed) {
  owner_ = owner;
  accepted_ = std::move(accepted);
  failedAttempt_ = std::move(failed);
  sendQueue_.setOwner(std::move(owner));
}

void KLVChunkSender::retire() {
  queue_.assertCurrent();
  isRetired_ = true;
  known_.clear();
  givenUp_.clear();
  postponed_.clear();
  failed_.clear();
  update();
}

void KLVChunkSender::sendNew(const KLVChunkRow& row, const Array& reportingTimes) {
  queue_.assertCurrent();
  known_.insert(idOf(row));
  sendQueue_.enqueue([this, row, reportingTimes] {
    queue_.assertCurrent();
    if (known_.contains(idOf(row))) postNew(row, reportingTimes);
  });
  update();
}

bool KLVChunkSender::resend(const KLVChunkRow& row) {
  queue_.assertCurrent();
  if (!known_.insert(idOf(row)).second) return false;
  givenUp_.erase(idOf(row));
  enqueueResend(row);
  update();
  return true;
}

bool KLVChunkSender::isInFlight(const KLVChunkRow& row) const {
  queue_.assertCurrent();
  return inFlight_.contains(idOf(row));
}

void KLVChunkSender::forget(const KLVChunkRow& row) {
  queue_.assertCurrent();
  const std::string id = idOf(row);
  known_.erase(id);
  givenUp_.erase(id);
  for (auto* waiting : {&postponed_, &failed_})
    std::erase_if(*waiting, [&](const auto& each) { return idOf(each) == id; });
  update();
}

void KLVChunkSender::enqueueResend(const KLVChunkRow& row) {
  sendQueue_.enqueue([this, row] {
    queue_.assertCurrent();
    if (known_.contains(idOf(row))) postAgain(row);
  });
}

void KLVChunkSender::postNew(const KLVChunkRow& row, const Array& reportingTimes) {
  if (isRetired_) return;
  if (resends() && !policy_.mayPost(Clock::monotonic())) return postpone(row);
  post(row, reportingTimes);
}

void KLVChunkSender::postAgain(const KLVChunkRow& row) {
  if (isRetired_) return;
  if (resends() && !policy_.mayResend(Clock::monotonic())) return postpone(row);
  const Array reportingTimes{KLVTimer::sharedTimer().currentTimeInMillis()};
  delegate_.updateChunkMetaInfo(
      std::make_shared<KLVChunkMetaInfo>(row.sid, row.cid, row.start, row.end, reportingTimes));
  post(row, reportingTimes);
}

void KLVChunkSender::post(const KLVChunkRow& row, const Array& reportingTimes) {
  auto body = KLVChunkBody::build(row, reportingTimes, delegate_);
  if (!body) {
    return onAttemptEnded({.row = row, .failure = {FlushOutcome::deadline, 0, "a chunk's events could not be read"}});
  }
  inFlight_.insert(idOf(row));
  // The completion holds the slot. So the attempt ends once it has been called, or destroyed without a call.
  const auto attempt = std::make_shared<Attempt>(
      Attempt{.row = row, .events = body->events, .failure = {FlushOutcome::noService, 0, "no request could be sent"}});
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
      attempt->failure = failureOf(statusCode, error);
      KLV_WARN("failed to send chunk - {}, responsecode - {}", chunkId, statusCode);
      return;
    }
    // The attempt ends with the commit. If it fails, the row stays unaccepted, so the chunk waits like a refused one.
    attempt->failure = {FlushOutcome::deadline, 0, "the acceptance of a chunk could not be stored"};
    delegate_.updateChunkMetaStatus(std::make_shared<KLVChunk>(chunkId), total,
                                    [attempt, slot] { attempt->accepted = true; });
    KLV_DEBUG("Successfully sent chunk - {}, responsecode - {}", chunkId, statusCode);
  };
  delegate_.postChunk(byReplacing(kKLVSDKChunkURL, "<app-id>", delegate_.applicationIdentifier()),
                      std::move(body->text), {{std::string(kKLVEraseHeader), KLVDeviceInfo::eraseSecret()}},
                      completion);
}

void KLVChunkSender::onAttemptEnded(const Attempt& attempt) {
  if (isRetired_) return;
  const std::string chunkId = idOf(attempt.row);
  inFlight_.erase(chunkId);
  {
    const Lock lock(stateMutex_);
    if (attempt.accepted) {
      ++state_.deliveredChunks;
      state_.deliveredEvents += attempt.events;
    } else {
      ++state_.failures;
      state_.latestFailure = attempt.failure;
    }
  }
  if (attempt.accepted) {
    known_.erase(chunkId);
    accepted_(attempt.row);
    if (resends()) note(anyWaits() ? Trigger::accepted : Trigger::acceptedAlone);
  } else if (resends()) {
    failed_.push_back(attempt.row);
    note(Trigger::failed, attempt.retryAfter);
  } else {
    known_.erase(chunkId);
    givenUp_.insert(chunkId);
  }
  if (!attempt.accepted) failedAttempt_();
  update();
}

void KLVChunkSender::postpone(const KLVChunkRow& row) {
  postponed_.push_back(row);
  note(Trigger::postponed);
  update();
}

// --- The state

KLVDeliveryState KLVChunkSender::state() const {
  const Lock lock(stateMutex_);
  return state_;
}

void KLVChunkSender::whenSettled(std::function<void()> done) {
  queue_.assertCurrent();
  settled_.push_back(std::move(done));
  update();
}

void KLVChunkSender::update() {
  const std::size_t underWay = known_.size() - postponed_.size() - failed_.size();
  bool isHopeless = false;
  {
    const Lock lock(stateMutex_);
    state_.underWay = underWay;
    state_.waiting = known_.size() + givenUp_.size();
    isHopeless = state_.latestFailure && state_.latestFailure->isFinal;
  }
  if (underWay > 0 || !(known_.empty() || isHopeless)) return;
  for (const auto& done : std::exchange(settled_, {})) done();
}

// --- Rounds of waiting chunks

void KLVChunkSender::resendWaiting() {
  queue_.assertCurrent();
  if (resends() && anyWaits()) note(Trigger::foreground);
}

void KLVChunkSender::resendNow() {
  queue_.assertCurrent();
  if (resends() && anyWaits()) note(Trigger::demanded);
}

void KLVChunkSender::note(KLVResendPolicy::Trigger trigger, std::optional<std::chrono::seconds> retryAfter) {
  const double random = std::uniform_real_distribution(0.0, 1.0)(random_);
  policy_ = policy_.after(trigger, Clock::monotonic(), random, retryAfter);
  beginRoundIfDue();
}

void KLVChunkSender::beginRoundIfDue() {
  if (isRetired_) return;
  const auto now = Clock::monotonic();
  if (!policy_.due) return;
  if (!policy_.isDue(now)) return wakeAt(*policy_.due);
  policy_ = policy_.afterStartOfRound(now);
  auto round = std::exchange(postponed_, {});
  const auto failed = std::exchange(failed_, {});
  round.insert(round.end(), failed.begin(), failed.end());
  for (const KLVChunkRow& row : round) enqueueResend(row);
  update();
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
