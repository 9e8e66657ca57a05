#include "core/HeldCalls.h"

#include <algorithm>
#include <utility>

#include "util/KLVLogger.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {
namespace {

bool isEvent(const HeldCalls::Held& held) {
  return held.kind == HeldCalls::Kind::event;
}

bool isReport(const HeldCalls::Held& held) {
  return held.kind == HeldCalls::Kind::report;
}

}  // namespace

// A dropped report may own the last reference to an object of the host, whose destructor may call the library. So all
// calls are destroyed after the unlock.

bool HeldCalls::keep(Kind kind, std::function<void()>& call) {
  if (isOpen_) return false;
  Calls dropped;
  const Lock lock(mutex_);
  if (isOpen_) return false;
  calls_.push_back({kind, std::move(call)});
  if (kind == Kind::event) ++events_;
  if (kind == Kind::report) ++reports_;
  limit_ ? trimToLimit(dropped) : trimReports(dropped);
  return true;
}

void HeldCalls::limit(std::size_t mostCalls) {
  Calls dropped;
  const Lock lock(mutex_);
  limit_ = mostCalls;
  trimToLimit(dropped);
}

void HeldCalls::open(const std::function<void(Calls&)>& take) {
  Calls taken;
  const Lock lock(mutex_);
  if (isOpen_) return;
  taken.swap(calls_);
  events_ = 0;
  reports_ = 0;
  take(taken);
  isOpen_ = true;
}

void HeldCalls::close() {
  KLVWaitingCall::suspendJournal();
  const Lock lock(mutex_);
  limit_.reset();
  isOpen_ = false;
}

HeldCalls::Calls HeldCalls::clear(KLVLedgerEntry fate) {
  const Lock lock(mutex_);
  KLVLedger::shared().add(fate, events_.exchange(0));
  reports_ = 0;
  return std::exchange(calls_, {});
}

void HeldCalls::drop() {
  open([](const Calls& calls) {
    const auto events = std::count_if(calls.begin(), calls.end(), isEvent);
    KLVLedger::shared().add(KLVLedgerEntry::droppedBeforeConsent, static_cast<std::uint64_t>(events));
  });
}

void HeldCalls::trimReports(Calls& dropped) {
  if (reports_ <= kMostReports) return;
  if (std::exchange(warnsOfReports_, false)) KLV_WARN("Keeping only the last {} reports until the start", kMostReports);
  const auto oldest = std::find_if(calls_.begin(), calls_.end(), isReport);
  dropped.splice(dropped.end(), calls_, oldest);
  --reports_;
}

void HeldCalls::trimToLimit(Calls& dropped) {
  while (calls_.size() > *limit_) {
    if (std::exchange(warnsOfLimit_, false)) {
      KLV_WARN("More than {} calls wait for the user's consent: the oldest are dropped", *limit_);
    }
    dropped.splice(dropped.end(), calls_, calls_.begin());
    if (isReport(dropped.back())) --reports_;
    if (!isEvent(dropped.back())) continue;
    --events_;
    KLVLedger::shared().add(KLVLedgerEntry::droppedBeforeConsent);
  }
}

}  // namespace kelvo
