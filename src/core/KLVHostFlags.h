#pragma once

#include <atomic>

#include "util/KLVUtilities+Views.h"

namespace kelvo {

/// Flags that the host and its plug-ins have set in the controller. Thread: any.
class KLVHostFlags {
 public:
  void markAsCordova() noexcept { isCordova_ = true; }
  [[nodiscard]] bool isCordova() const noexcept { return isCordova_; }
  void markAsReactNative() noexcept { KLVUtilities::setIsReactNative(true); }
  [[nodiscard]] bool isReactNative() const noexcept { return KLVUtilities::isReactNative(); }

  void setActionInProgress(bool inProgress) noexcept { actionInProgress_ = inProgress; }
  [[nodiscard]] bool actionInProgress() const noexcept { return actionInProgress_; }

  /// While a main loop is blocked, cuts wait for no title. Calls with true and false come in pairs.
  void setMainLoopBlocked(bool isBlocked) noexcept { blockedMainLoops_ += isBlocked ? 1 : -1; }

 protected:
  KLVHostFlags() = default;
  ~KLVHostFlags() = default;  // never deleted through this type
  [[nodiscard]] bool isMainLoopBlocked() const noexcept { return blockedMainLoops_ > 0; }

 private:
  std::atomic<bool> isCordova_{false};
  std::atomic<bool> actionInProgress_{false};
  std::atomic<int> blockedMainLoops_{0};
};

}  // namespace kelvo
