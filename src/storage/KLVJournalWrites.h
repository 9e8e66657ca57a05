#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "journal/KLVSequenceSet.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {

class FMKLVDatabase;

/// The numbers of the journal's calls whose effects are stored in the database.
struct KLVFinishedCalls {
  std::uint64_t epoch = 0;  ///< of the numbers; 0: the database knows no journal
  KLVSequenceSet numbers{};

  /// Reads the table of the database at `path`, with a connection of its own. Returns no epoch if there is no database
  /// or table, or the database is damaged: a start sets it aside. Returns nullopt if it cannot be read now.
  [[nodiscard]] static std::optional<KLVFinishedCalls> inDatabase(const std::string& path);
};

/// Notes in each transaction the calls whose effects it has, as its last statement but one: then a kill between the
/// commit and the marks in the journal stores nothing twice. Used by one thread at a time, except for the static
/// functions.
class KLVJournalWrites {
 public:
  /// The journal is open with this epoch and these finished numbers.
  static void begin(KLVFinishedCalls known);
  /// The journal is erased: its numbers mean nothing any more.
  static void end() { begin({}); }
  /// Returns the epoch of the open journal, 0 if there is none. Thread: any.
  [[nodiscard]] static std::uint64_t epoch();

  /// The transaction of the current job has all effects of `call`.
  void settle(const KLVWaitingCall& call);
  /// Writes the numbers, in the open transaction. Returns false on failure: the transaction must not be committed.
  [[nodiscard]] bool write(FMKLVDatabase& db);
  /// Finishes the entries.
  void committed();
  /// The transaction is rolled back, and its jobs run again.
  void rolledBack() { calls_.clear(); }
  /// Nothing of the calls of this transaction is stored any more, or all of it is: finishes the entries.
  void finishAll();
  /// The transaction cannot be committed, because of the disk: its calls stay in the journal for the next launch.
  /// Returns whether there are any.
  [[nodiscard]] bool failed();

 private:
  std::vector<KLVWaitingCall> calls_;  // settled in this transaction
  std::optional<KLVSequenceSet> due_;  // what `write` has written
};

}  // namespace kelvo
