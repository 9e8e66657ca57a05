#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <set>

#include "platform/ThreadSafety.h"

namespace kelvo::collector {

/// Wakes the threads that wait for news: new events, a changed service, an erased device, a reset store. It carries no
/// content; a woken thread looks the news up itself. Thread-safe.
class Bell {
 public:
  /// Owns a descriptor that becomes readable when the bell rings and stays readable until `clear`.
  /// Thread: one thread owns a subscription, which must not outlive its bell.
  class Subscription {
   public:
    explicit Subscription(Bell& bell);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    /// Returns false if there are too many subscriptions already. Such a subscription has no descriptor.
    [[nodiscard]] bool isActive() const noexcept { return descriptor_ >= 0; }
    [[nodiscard]] int descriptor() const noexcept { return descriptor_; }
    void clear() const;

   private:
    Bell& bell_;
    int descriptor_ = -1;
  };

  /// Wakes all subscribers.
  void ring() EXCLUDES(mutex_);
  /// Counts a change of the service, then rings.
  void ringForServiceChange() EXCLUDES(mutex_);
  /// Counts an erasure, then rings.
  void ringForErasure() EXCLUDES(mutex_);
  /// Counts a reset of the store, then rings.
  void ringForReset() EXCLUDES(mutex_);

  /// The number of calls so far. A subscriber compares it with the number that it saw last.
  [[nodiscard]] std::uint64_t serviceChanges() const noexcept { return serviceChanges_; }
  [[nodiscard]] std::uint64_t erasures() const noexcept { return erasures_; }
  [[nodiscard]] std::uint64_t resets() const noexcept { return resets_; }

 private:
  std::atomic<std::uint64_t> serviceChanges_{0};
  std::atomic<std::uint64_t> erasures_{0};
  std::atomic<std::uint64_t> resets_{0};
  Mutex mutex_;
  std::set<int> descriptors_ GUARDED_BY(mutex_);  // of the active subscriptions
};

}  // namespace kelvo::collector
