#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/CollectionGate.h"
#include "journal/KLVJournalEntry.h"
#include "records/KLVEvents.h"

namespace kelvo {

/// What the unfinished calls of earlier processes come to. Each event and each attribute carries its call, which is
/// finished with it. A call that comes to nothing is finished at once.
///
/// An event has the time of its call, in seconds since the start of the process that made it. A screen lasts until the
/// next screen or BACKGROUND of its session, or else until the last call there. Reports of activity come to their
/// events; they do not change the duration of their session, and restart none.
struct JournalReplay {
  struct Event {
    std::shared_ptr<KLVEvent> event;
    std::string session;  ///< empty: none existed at the call
  };
  std::vector<Event> events;  ///< in the order of the calls; a screen where it ends
  std::map<std::string, std::vector<BufferedAttributes>> ofSessions;

  /// `counts` must outlive the events.
  JournalReplay(const std::vector<KLVJournalEntry>& entries, KLVLifetimeCounts& counts);
  /// Removes the calls that set attributes of the user from `entries`, and returns them.
  [[nodiscard]] static std::vector<BufferedAttributes> takeUserAttributes(std::vector<KLVJournalEntry>& entries);
};

/// Marks an entry whose attributes are to be flattened by one level more: `KLVJournalCall::flags`.
inline constexpr std::uint8_t kKLVJournalFlattens = 1;

}  // namespace kelvo
