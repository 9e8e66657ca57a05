#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

#include "kelvo/Ledger.h"
#include "kelvo/Value.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// The entries of the ledger: `kelvo/Ledger.h` documents them. From `refusedNameless` to `notStored`, each is an
/// outcome: an event has one at most.
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

/// A number of events for each entry.
class KLVLedgerSums {
 public:
  std::int64_t& operator[](KLVLedgerEntry entry) { return sums_[static_cast<std::size_t>(entry)]; }
  std::int64_t operator[](KLVLedgerEntry entry) const { return sums_[static_cast<std::size_t>(entry)]; }
  KLVLedgerSums& operator+=(const KLVLedgerSums& other);
  KLVLedgerSums& operator-=(const KLVLedgerSums& other);
  bool operator==(const KLVLedgerSums& other) const = default;
  [[nodiscard]] std::int64_t outcomes() const;  ///< the sum of all outcomes
  /// Returns the stored events that the other sums do not explain: they wait in the database, or are lost with it.
  [[nodiscard]] std::int64_t unaccepted() const;
  /// Returns the sums by name, without those that are 0; and the sums of such a form.
  [[nodiscard]] Dictionary form() const;
  [[nodiscard]] static KLVLedgerSums from(const Dictionary& form);

 private:
  std::array<std::int64_t, kLedgerEntries> sums_{};
};

/// Counts what became of the events of this process, and knows the sums of the database.
///
/// An event counts as logged when it is made, and once more under its outcome when that is known. Thread-safe. `add`
/// and `refuse` never block; the others hold a mutex for some assignments.
class KLVLedger {
 public:
  static KLVLedger& shared();

  void add(KLVLedgerEntry entry, std::uint64_t events = 1) noexcept {
    counts_[static_cast<std::size_t>(entry)].fetch_add(events, std::memory_order_relaxed);
  }
  /// Counts an event that is refused when it is made.
  void refuse(KLVLedgerEntry outcome) noexcept {
    add(KLVLedgerEntry::logged);
    add(outcome);
  }
  [[nodiscard]] std::uint64_t count(KLVLedgerEntry entry) const noexcept {
    return counts_[static_cast<std::size_t>(entry)].load(std::memory_order_relaxed);
  }
  /// The number of events that wait for the user's consent.
  void setHeld(std::uint64_t events) noexcept { held_ = events; }
  /// Adds events that this process has written to a rescue file.
  void addRescued(std::uint64_t events) noexcept { rescued_ += events; }

  [[nodiscard]] Ledger ledger() const EXCLUDES(mutex_);
  /// Returns the counts since the installation by name, without those that are 0: the form in uploads.
  [[nodiscard]] Dictionary form() const;
  /// Begins the sums since the installation again, after an erasure. Events without an outcome yet count as logged
  /// after it.
  void reset() EXCLUDES(mutex_);

  // --- For the store, which writes the sums with the events.
  /// The store has opened a database with these sums.
  void opened(const KLVLedgerSums& table) EXCLUDES(mutex_);
  /// Returns the outcomes in this process that the database does not have yet.
  [[nodiscard]] KLVLedgerSums unwritten() const EXCLUDES(mutex_);
  /// The store has committed events: `own` of this process, `fromFiles` of rescue files, `fromJournal` of earlier
  /// processes. `written` has been added to the sums of the database, `unwritten` included.
  void committed(const KLVLedgerSums& own, const KLVLedgerSums& fromFiles, const KLVLedgerSums& fromJournal,
                 const KLVLedgerSums& written) EXCLUDES(mutex_);
  /// Returns the sums of the database after the latest commit.
  [[nodiscard]] KLVLedgerSums table() const EXCLUDES(mutex_);

 private:
  struct Counted {
    KLVLedgerSums own, all;
    std::uint64_t held, inMemory, rescued, waiting;
  };
  [[nodiscard]] Counted counted() const EXCLUDES(mutex_);

  std::array<std::atomic<std::uint64_t>, kLedgerEntries> counts_{};
  std::atomic<std::uint64_t> held_{0};
  std::atomic<std::uint64_t> rescued_{0};  // in files, of this process
  mutable Mutex mutex_;
  KLVLedgerSums written_ GUARDED_BY(mutex_);  // those of `counts_` that the database has
  /// The sums of the database without `written_`. Sums since the installation are `counts_` and these.
  KLVLedgerSums earlier_ GUARDED_BY(mutex_);
};

}  // namespace kelvo
