#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/CollectionGate.h"
#include "journal/KLVJournalEntry.h"
#include "records/KLVEvents.h"

namespace kelvo {

/// What the unfinished calls of earlier processes come to. Each event, attribute and token carries its call, which is
/// finished with it. A call that comes to nothing is finished at once.
///
/// An event has the time of its call, in seconds since the start of the process that made it. A screen lasts until the
/// next screen or BACKGROUND of its session, or else until the last call there. Reports of activity come to their
/// events; they do not change the duration of their session, and restart none.
struct JournalReplay {
  /// Takes an event of the session with this id; empty: none existed at the call.
  using Take = std::function<void(const std::shared_ptr<KLVEvent>& event, const std::string& session)>;
  struct Token {
    std::string text;
    KLVWaitingCall call;
  };

  std::map<std::string, std::vector<BufferedAttributes>> ofSessions;
  std::optional<Token> token;  ///< of the device, the latest one

  /// Calls `take` with one event after the other, in the order of the calls; with a screen where it ends. `counts` must
  /// outlive the events.
  JournalReplay(const std::vector<KLVJournalEntry>& entries, KLVLifetimeCounts& counts, const Take& take);
  /// Removes the calls that set attributes of the user from `entries`, and returns them.
  [[nodiscard]] static std::vector<BufferedAttributes> takeUserAttributes(std::vector<KLVJournalEntry>& entries);
};

/// Marks an entry whose attributes are to be flattened by one level more: `KLVJournalCall::flags`.
inline constexpr std::uint8_t kKLVJournalFlattens = 1;

}  // namespace kelvo
