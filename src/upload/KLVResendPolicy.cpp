#include "upload/KLVResendPolicy.h"

#include <algorithm>

namespace kelvo {
namespace {

using std::chrono::seconds;
using Instant = KLVResendPolicy::Instant;

constexpr seconds kFirstDelay(30);
constexpr seconds kLongestDelay(1800);
constexpr seconds kShortestGap(5);
/// One body for each place of the send queue.
constexpr unsigned kMostFailuresInARow = 8;

Clock::Duration delay(unsigned failedRounds, double random) {
  auto whole = kFirstDelay;
  for (unsigned round = 0; round < failedRounds && whole < kLongestDelay; ++round) whole *= 2;
  whole = std::min(whole, kLongestDelay);
  return std::chrono::duration_cast<Clock::Duration>(std::chrono::duration<double>(whole) * (0.5 + random / 2));
}

void makeDue(KLVResendPolicy& policy, Instant time) {
  if (policy.notBefore) time = std::max(time, *policy.notBefore);
  policy.due = policy.due ? std::min(*policy.due, time) : time;
}

void makeDueAtOnce(KLVResendPolicy& policy, Instant now) {
  makeDue(policy, policy.latest ? std::max(now, *policy.latest + kShortestGap) : now);
}

void makeDueLater(KLVResendPolicy& policy, Instant now, double random) {
  if (policy.due) return;
  makeDue(policy, now + delay(policy.failedRounds, random));
  ++policy.failedRounds;
}

}  // namespace

KLVResendPolicy KLVResendPolicy::after(Trigger trigger, Instant now, double random,
                                       std::optional<seconds> retryAfter) const {
  KLVResendPolicy next = *this;
  switch (trigger) {
    case Trigger::accepted:
    case Trigger::acceptedAlone:
      next.failedRounds = next.failuresInARow = 0;
      next.due.reset();
      if (trigger == Trigger::accepted) makeDueAtOnce(next, now);
      break;
    case Trigger::foreground: makeDueAtOnce(next, now); break;
    case Trigger::demanded: makeDue(next, now); break;
    case Trigger::failed:
      ++next.failuresInARow;
      if (retryAfter && retryAfter->count() > 0) {
        next.notBefore = std::max(next.notBefore.value_or(now), now + *retryAfter);
        next.due = next.notBefore;
      } else {
        makeDueLater(next, now, random);
      }
      break;
    case Trigger::postponed: makeDueLater(next, now, random); break;
  }
  return next;
}

KLVResendPolicy KLVResendPolicy::afterStartOfRound(Instant now) const {
  KLVResendPolicy next = *this;
  next.latest = now;
  next.due.reset();
  next.failuresInARow = 0;
  return next;
}

bool KLVResendPolicy::mayResend(Instant now) const {
  return mayPost(now) && failuresInARow < kMostFailuresInARow;
}

}  // namespace kelvo
