#include "Device.h"

#include <utility>

namespace kelvo::bench {

using Trigger = KLVResendPolicy::Trigger;

void Device::cut() {
  queue_.push_back({++last_, true});
}

std::optional<std::uint32_t> Device::next(Instant now, Random& random) {
  if (isPosting()) return std::nullopt;
  beginRoundIfDue(now);
  // A postponed chunk may begin a round, which adds tasks to the queue.
  while (!queue_.empty()) {
    const Task task = queue_.front();
    queue_.pop_front();
    if (task.isNew ? policy_.mayPost(now) : policy_.mayResend(now)) {
      inFlight_ = task.number;
      return task.number;
    }
    postponed_.push_back(task.number);
    note(Trigger::postponed, std::nullopt, now, random);
  }
  return std::nullopt;
}

void Device::answered(bool isAccepted, std::optional<std::chrono::seconds> retryAfter, Instant now, Random& random) {
  const auto number = std::exchange(inFlight_, 0);
  if (isAccepted) {
    ++accepted_;
    const bool anyWaits = !postponed_.empty() || !failed_.empty();
    note(anyWaits ? Trigger::accepted : Trigger::acceptedAlone, std::nullopt, now, random);
  } else {
    failed_.push_back(number);
    note(Trigger::failed, retryAfter, now, random);
  }
}

std::optional<Device::Instant> Device::wakeUp() const {
  return policy_.due;
}

void Device::note(Trigger trigger, std::optional<std::chrono::seconds> retryAfter, Instant now, Random& random) {
  policy_ = policy_.after(trigger, now, std::uniform_real_distribution(0.0, 1.0)(random), retryAfter);
  beginRoundIfDue(now);
}

void Device::beginRoundIfDue(Instant now) {
  if (!policy_.isDue(now)) return;
  policy_ = policy_.afterStartOfRound(now);
  for (auto* waiting : {&postponed_, &failed_}) {
    for (const auto number : std::exchange(*waiting, {})) queue_.push_back({number, false});
  }
}

}  // namespace kelvo::bench
