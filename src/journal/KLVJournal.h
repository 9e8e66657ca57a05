#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "journal/KLVJournalEntry.h"
#include "journal/KLVJournalPlace.h"
#include "journal/KLVSequenceSet.h"
#include "kelvo/Value.h"

namespace kelvo {

class KLVJournalRing;
struct KLVJournalFormers;

/// Keeps the host's calls from their return until their effects are stored, so that a kill of the process loses none.
///
/// It is a ring of entries in a file of fixed size, which is mapped into memory: the kernel keeps the pages when the
/// process dies. A power cut may lose the latest entries. The file is allocated when it is made, so that a full disk is
/// an error of `open`, never a signal.
///
/// **Numbers.** An entry's sequence number is its place in an endless row of 64-byte slots, so numbers ascend, with
/// gaps. The entry covers the numbers from its own up to `endOf` it. Each `open` makes a new file, into which it copies
/// the unfinished entries under new numbers, above all known ones. The new file replaces the old ones in one step, so
/// that a kill leaves either. The file may be in two places. One that is out of sight for a while, because the user's
/// runtime directory is, keeps its entries, and no other file uses their numbers: without an earlier file in sight,
/// numbers begin 2^34 to 2^48 higher, at random.
///
/// **Epochs.** Numbers mean something only together with the random epoch that database and journal share. `open` takes
/// the database's epoch. Entries of another epoch were made beside another database, so its finished numbers do not
/// apply to them: all of them are returned. A fresh database beside an old journal therefore stores its entries, and a
/// fresh journal beside an old database continues its numbers.
///
/// Thread: any, except where a function says otherwise. In a forked child, nothing is written.
class KLVJournal {
 public:
  /// The journal of this process. It is never destroyed.
  static KLVJournal& shared();

  KLVJournal() noexcept;
  KLVJournal(const KLVJournal&) = delete;
  KLVJournal& operator=(const KLVJournal&) = delete;
  ~KLVJournal();

  /// Returns a random epoch for a fresh database, never 0.
  [[nodiscard]] static std::uint64_t randomEpoch();
  /// Returns the epoch of the files of earlier processes, 0 if there are none. Blocks on the disk.
  [[nodiscard]] static std::uint64_t epochOf(const KLVJournalSettings& settings);

  /// Opens the journal of the home that this process holds, for the database with this `epoch`. Returns the unfinished
  /// entries of earlier processes in the order of their numbers, without those in `finished`; those of another epoch
  /// come first. They stay in the journal until `finish`. Later numbers are above `latestSequence`, the largest that
  /// the database knows.
  ///
  /// If the file cannot be made, writes one line: INFO if no file system is suitable, else ERROR. The journal stays
  /// closed then. Entries are returned even so, under their old numbers, and the next launch returns those again that
  /// are not in `finished`. Entries of another epoch wait for a launch that can make the file. If an earlier file
  /// cannot be read now, for example for lack of descriptors, all entries wait, after one ERROR line. With a size of 0,
  /// the journal stays closed, too, but earlier entries are returned as usual.
  ///
  /// Blocks on the disk. One thread at a time; again only after `erase`.
  [[nodiscard]] std::vector<KLVJournalEntry> open(const KLVJournalSettings& settings, std::uint64_t epoch,
                                                  std::uint64_t latestSequence, const KLVSequenceSet& finished);

  /// Copies a call into the journal. Once it returns, a kill cannot lose the call. Returns the entry's number. Returns
  /// 0 if the journal is closed or full, or if the call is larger than a quarter of it. No lock, no system call, no
  /// allocation. `flags` as in `KLVJournalCall`; `info` in the form of `KLVCodedDictionary`; nullopt is kept as such.
  [[nodiscard]] std::uint64_t write(KLVJournalKind kind, std::uint8_t flags, Date time,
                                    std::optional<std::string_view> text,
                                    std::optional<std::string_view> info) noexcept;

  /// Makes later entries carry the session's id, up to 255 bytes; an empty one means none. One thread at a time.
  void setSession(std::string_view session);

  /// Marks an entry as finished: all effects of its call are stored, or it was refused. Its space becomes free once all
  /// entries before it are finished, too. Ignores 0 and numbers that are finished already. Never blocks on the disk.
  ///
  /// An entry that stays unfinished while later ones are finished over half of the ring, such as that of an open
  /// screen, moves on to the head under its own number. Up to 64 entries at a time can do so; beyond them, the ring
  /// fills.
  void finish(std::uint64_t sequence) noexcept;

  /// Returns the first number behind those that an unfinished entry covers: `set.add(sequence, endOf(sequence))`.
  /// Returns `sequence` + 1 if there is no such entry.
  [[nodiscard]] std::uint64_t endOf(std::uint64_t sequence) noexcept;

  /// Adds to `set` every number whose entry is finished and whose space is free, and all numbers of the files that
  /// `open` has replaced. The database adds them to its finished numbers in each transaction, so that the set stays
  /// small: beside them, it has one range for each file out of sight.
  void addFreed(KLVSequenceSet& set);

  /// Closes the journal and overwrites all entries with zeros, in the file, too. Waits for calls that are inside
  /// `write`. `open` then continues with the epoch of the new database. Numbers go on. Not together with `open`.
  void erase() noexcept;

  /// Returns whether `write` takes calls.
  [[nodiscard]] bool isOpen() const noexcept;
  /// Returns how many calls an open journal has not taken, because it was full or the call too large.
  [[nodiscard]] std::uint64_t refused() const noexcept { return refused_.load(std::memory_order_relaxed); }
  /// Returns how many torn entries `open` has skipped.
  [[nodiscard]] std::size_t torn() const noexcept { return torn_; }

 private:
  struct Opened;

  [[nodiscard]] std::uint64_t firstNumberAfter(const KLVJournalFormers& formers, std::uint64_t latest,
                                               std::uint64_t slots) const noexcept;
  [[nodiscard]] std::unique_ptr<Opened> make(const KLVJournalSettings& settings, const KLVJournalFormers& formers,
                                             std::uint64_t epoch, std::uint64_t latest,
                                             std::vector<KLVJournalEntry>& entries) const;
  void replace(const KLVJournalFormers& formers, std::unique_ptr<Opened> opened, std::uint64_t epoch, bool takesCalls);

  std::atomic<KLVJournalRing*> ring_{nullptr};
  std::atomic<const std::string*> session_{nullptr};
  std::atomic<std::uint64_t> refused_{0};
  std::size_t torn_ = 0;
  KLVSequenceSet replaced_;                      ///< numbers of earlier files of this epoch
  std::vector<std::unique_ptr<Opened>> opened_;  ///< the last one is in use; late calls may still look at the others
  std::deque<std::string> sessions_;             ///< never shrinks, because a writer may read any of them
};

}  // namespace kelvo
