#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace kelvo {

/// The limits that the host has chosen for this process: members of `Options`.
struct KLVHostLimits {
  static constexpr std::uint64_t kJournalBytes = std::uint64_t{4} << 20;
  static constexpr std::uint64_t kLeastJournalBytes = std::uint64_t{64} << 10;
  static constexpr std::uint64_t kMostJournalBytes = std::uint64_t{64} << 20;

  std::size_t mostHeldCalls = 1000;                ///< calls in memory until the user decides about consent
  std::size_t mostWaitingCalls = 100000;           ///< calls that are not yet stored
  std::optional<std::uint64_t> mostStoredBytes{};  ///< of the home's data; 0: no limit; nullopt: the delivery rules'
  std::uint32_t mostStoredDays = 0;                ///< age of stored data; 0: no limit
  std::uint64_t journalBytes = kJournalBytes;      ///< size of the journal; 0: none
  bool sendsLedger = false;                        ///< chunks carry the ledger

  /// The limits of this process: the defaults above until `choose` is called. `mostStoredBytes` has a value.
  /// Thread-safe.
  [[nodiscard]] static KLVHostLimits current() noexcept;
  /// Returns `current().mostWaitingCalls` without a lock: every host call asks.
  [[nodiscard]] static std::size_t currentMostWaitingCalls() noexcept {
    return waitingCalls.load(std::memory_order_relaxed);
  }
  static void choose(const KLVHostLimits& limits) noexcept;

 private:
  static std::atomic<std::size_t> waitingCalls;
};

}  // namespace kelvo
