#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>

namespace kelvo::collector {

/// Tells whoever listens that something came or changed; what it was, the listener looks up. Safe from any thread.
class Bell {
 public:
  /// A descriptor that becomes readable when the bell rings, until `clear`.
  class Ear {
   public:
    explicit Ear(Bell& bell);
    ~Ear();
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;

    /// False when too many listen already; it never hears anything then.
    [[nodiscard]] bool listens() const noexcept { return descriptor_ >= 0; }
    [[nodiscard]] int descriptor() const noexcept { return descriptor_; }
    void clear() const;

   private:
    Bell& bell_;
    int descriptor_ = -1;
  };

  void ring();
  void serviceChanged();
  void wasReset();

  /// How often each has happened.
  [[nodiscard]] std::uint64_t serviceChanges() const noexcept { return serviceChanges_; }
  [[nodiscard]] std::uint64_t resets() const noexcept { return resets_; }

 private:
  std::atomic<std::uint64_t> serviceChanges_{0};
  std::atomic<std::uint64_t> resets_{0};
  std::mutex mutex_;  // guards what follows
  std::set<int> descriptors_;
};

}  // namespace kelvo::collector
