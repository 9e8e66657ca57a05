#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

#include "util/KLVHostLimits.h"
#include "util/KLVLedger.h"

namespace kelvo {

/// A host call on its way into the store: its task, its event and its write carry one each. The call counts as waiting
/// while they live. Thread-safe.
class KLVWaitingCall {
 public:
  KLVWaitingCall() = default;  ///< counts no call
  KLVWaitingCall(const KLVWaitingCall& other) noexcept : counts_(other.counts_) {
    if (counts_) waiting_.fetch_add(1, std::memory_order_relaxed);
  }
  KLVWaitingCall(KLVWaitingCall&& other) noexcept : counts_(std::exchange(other.counts_, false)) {}
  KLVWaitingCall& operator=(KLVWaitingCall other) noexcept {
    std::swap(counts_, other.counts_);
    return *this;
  }
  ~KLVWaitingCall() {
    if (counts_) waiting_.fetch_sub(1, std::memory_order_relaxed);
  }

  /// Returns a call that counts. Returns one that does not count if `Options::maxWaitingCalls` calls wait: the caller
  /// drops the call. A WARN line follows within a second, one for all that are refused in it. If the call `isEvent`,
  /// the ledger counts it as refused.
  [[nodiscard]] static KLVWaitingCall admit(bool isEvent = true) noexcept {
    KLVWaitingCall call;
    call.counts_ = waiting_.fetch_add(1, std::memory_order_relaxed) < KLVHostLimits::currentMostWaitingCalls();
    if (!call.counts_) refuse(isEvent);
    return call;
  }
  [[nodiscard]] explicit operator bool() const noexcept { return counts_; }

 private:
  static void refuse(bool isEvent) noexcept;

  static std::atomic<std::size_t> waiting_;
  bool counts_ = false;
};

}  // namespace kelvo
