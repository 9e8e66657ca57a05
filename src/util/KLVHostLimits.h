#pragma once

#include <cstddef>
#include <cstdint>

namespace kelvo {

/// The limits that the host has chosen for this process: members of `Options`, with the defaults resolved.
struct KLVHostLimits {
  std::size_t mostHeldCalls = 1000;       ///< calls in memory until the user decides about consent
  std::size_t mostWaitingCalls = 100000;  ///< calls that are not yet stored
  std::uint64_t mostStoredBytes = 0;      ///< of the home's data; 0: no limit
  std::uint32_t mostStoredDays = 0;       ///< age of stored data; 0: no limit
  bool sendsLedger = false;               ///< chunks carry the ledger

  /// The limits of this process: the defaults above until `choose` is called. Thread-safe.
  [[nodiscard]] static KLVHostLimits current() noexcept;
  static void choose(const KLVHostLimits& limits) noexcept;
};

}  // namespace kelvo
