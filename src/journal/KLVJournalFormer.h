#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "journal/KLVJournalPlace.h"
#include "journal/KLVJournalReader.h"

namespace kelvo {

/// A file of an earlier process that may have entries.
struct KLVJournalFormer {
  KLVJournalPlace place;
  KLVJournalContents contents;

  [[nodiscard]] std::uint64_t id() const { return contents.header ? contents.header->id : 0; }
  /// Returns the largest number that the file is known to use.
  [[nodiscard]] std::uint64_t latestNumber() const;
  /// Returns whether one of `files` has a copy of all entries of this one.
  [[nodiscard]] bool isIn(const std::vector<KLVJournalFormer>& files) const;
  /// Deletes the file, whose entries nobody needs. The Library directory keeps the file's header.
  void giveUp() const;
};

/// What earlier processes have left of the journal of one home.
///
/// An erasure deletes the Library directory's file, but perhaps not the one in the runtime directory of a login, which
/// it does not see. Each file therefore has the mark of its home, a random number. The Library directory always has a
/// file with the mark: the journal itself or, beside a runtime directory, a header without slots. A file in the runtime
/// directory counts only if it has the same mark.
struct KLVJournalFormers {
  std::uint64_t home = 0;  ///< the mark; 0: the Library directory has none
  std::vector<KLVJournalFormer> files;
  bool areReadable = true;  ///< false: one cannot be read now, for a reason that may pass

  /// Reads the files in `places`, and deletes those that do not count. Writes an ERROR line for one that cannot be
  /// read.
  [[nodiscard]] static KLVJournalFormers read(const std::vector<KLVJournalPlace>& places);
};

}  // namespace kelvo
