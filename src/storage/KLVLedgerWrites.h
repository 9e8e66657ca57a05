#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "util/KLVLedger.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {

class FMKLVDatabase;
class KLVPersistantStore;

/// Counts `events` under `entry` in the transaction of the current job: the count is lost if the transaction is rolled
/// back. Always returns true, because the last statement of the transaction writes the count.
/// `call`: the host call that the events are of.
[[nodiscard]] bool countInLedger(KLVPersistantStore& store, KLVLedgerEntry entry, std::int64_t events,
                                 const KLVWaitingCall& call = {});

/// Returns the table of the ledger, from entry to sum; nullopt if it cannot be read.
[[nodiscard]] std::optional<Dictionary> readLedger(FMKLVDatabase& db);

/// Collects what the jobs of one transaction count, and adds it to the table of the ledger as their last statement.
/// The same statement adds the outcomes of events that never reach the database. Used by one thread at a time.
class KLVLedgerWrites {
 public:
  /// Counts events of this process, or of the earlier one that made the `call`.
  void count(KLVLedgerEntry entry, std::int64_t events, const KLVWaitingCall& call = {}) {
    (call.isOfEarlierProcess() ? fromJournal_ : own_)[entry] += events;
  }
  /// Counts events of a rescue file.
  void countFromFile(KLVLedgerEntry entry, std::int64_t events) { fromFiles_[entry] += events; }

  /// Returns whether events have an outcome that the database does not know.
  [[nodiscard]] static bool isBehind();
  /// Adds the sums, in the open transaction. A failure is logged and fails nothing else: the next transaction adds
  /// them.
  void write(FMKLVDatabase& db);
  void committed();
  /// The transaction is rolled back, and its jobs run again.
  void rolledBack() { own_ = fromFiles_ = fromJournal_ = {}; }
  /// The transaction is rolled back for good. Its own events are not stored; those of files and of the journal remain
  /// there.
  void failed();

  /// Reads the table `kelvo_ledger` once it exists, and takes up its sums. A new table in a home whose earlier database
  /// is gone begins with the kept copy: what waited there is lost. Does nothing once it has succeeded.
  void open(FMKLVDatabase& db);
  [[nodiscard]] bool isOpen() const noexcept { return isOpen_; }
  /// Keeps a copy of the sums, once they are read, in the user defaults, in case the database is damaged.
  void keepCopy() const;
  /// The same with the sums of the database at `path`, which was set aside, if they can be read.
  static void keepCopyOf(const std::string& path);

 private:
  KLVLedgerSums own_;
  KLVLedgerSums fromFiles_;
  KLVLedgerSums fromJournal_;
  KLVLedgerSums due_;  // what `write` has added
  bool isOpen_ = false;
};

}  // namespace kelvo
