#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace kelvo {

/// The entries of the ledger: `kelvo/Ledger.h` documents them.
enum class KLVLedgerEntry : std::uint8_t {
  logged,
  refusedNameless,
  refusedUncleanable,
  refusedDisabled,
  refusedTerminated,
  refusedStorm,
  droppedBeforeConsent,
  ignored,
  counted,
  forPlugins,
  stored,
  notStored,
  notForUpload,
  sent,
  accepted,
  evictedForSpace,
  evictedForAge,
  lost,
};
inline constexpr std::size_t kLedgerEntries = static_cast<std::size_t>(KLVLedgerEntry::lost) + 1;

/// Counts what became of the events of this process. Thread-safe; never blocks.
class KLVLedger {
 public:
  static KLVLedger& shared();

  void add(KLVLedgerEntry entry, std::uint64_t events = 1) noexcept {
    counts_[static_cast<std::size_t>(entry)].fetch_add(events, std::memory_order_relaxed);
  }
  [[nodiscard]] std::uint64_t count(KLVLedgerEntry entry) const noexcept {
    return counts_[static_cast<std::size_t>(entry)].load(std::memory_order_relaxed);
  }

 private:
  std::array<std::atomic<std::uint64_t>, kLedgerEntries> counts_{};
};

}  // namespace kelvo
