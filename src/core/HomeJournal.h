#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "journal/KLVJournalEntry.h"

namespace kelvo {

/// The journal of the home that this process holds. Thread: the controller's queue or the lifecycle queue, unless
/// noted.
namespace HomeJournal {

/// What the entries of one session carry as its name: the start of their process, from which the times of its events
/// count, and the session's id, empty before the session exists.
struct Session {
  Date start{};
  std::string id{};
  [[nodiscard]] std::string text() const;
  /// Returns no id, and the start 0, for any other text.
  [[nodiscard]] static Session from(std::string_view text);
};

/// Opens the journal if the delivery rules want one, and writes the calls into it that wait already. Returns the
/// entries that earlier processes left unfinished. Without a journal, later calls are not recorded. Blocks on the disk.
[[nodiscard]] std::vector<KLVJournalEntry> open();
/// Later calls belong to the session `id`.
void enter(const std::string& id);
/// Empties the journal: an erasure deletes its file.
void erase();
/// Returns the paths of all files that the journal of this home may be in.
[[nodiscard]] std::vector<std::string> paths();

}  // namespace HomeJournal
}  // namespace kelvo
