#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "journal/KLVJournalEntry.h"
#include "journal/KLVJournalFormat.h"

namespace kelvo {

/// A parsed journal file.
struct KLVJournalContents {
  std::optional<KLVJournalFileHeader> header{};  ///< nullopt: damaged
  std::uint64_t epoch = 0;                       ///< of the header, else of the latest entry; 0: no entry counts
  std::uint64_t latestNumber = 0;                ///< the largest that a sound entry has; 0: there is none
  std::size_t torn = 0;                          ///< entries that a call began and did not complete, or damaged ones
  std::vector<KLVJournalEntry> unfinished{};     ///< of `epoch`, in the order of their numbers, each number once
};

/// Reads the whole content of a journal's file. Trusts nothing in it: it may be damaged, or made by somebody else. The
/// file may be one that its process writes to meanwhile; entries that are being written count as torn then.
[[nodiscard]] KLVJournalContents readJournal(std::string_view file);

}  // namespace kelvo
