#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// The kind of a host call. The numbers are in the file, so they never change. 0 is none of them.
enum class KLVJournalKind : std::uint8_t {
  appEvent = 1,           ///< text: the name; info: the attributes
  clientEvent = 2,        ///< text: the name; info: the attributes
  aggregateEvent = 3,     ///< text: the name; info: the attributes
  customError = 4,        ///< text: the error; info: the attributes
  screen = 5,             ///< `KelvoSDK::logScreenWithName`; text: the title
  willShow = 6,           ///< text: the screen's class; info: "title", if the host gave one
  didShow = 7,            ///< as `willShow`; unfinished until the screen's event is stored
  userAttributes = 8,     ///< info
  sessionAttributes = 9,  ///< info
  userIdentifier = 10,    ///< text
  deviceToken = 11,       ///< text; unfinished until a chunk's row has the record of the device
  becameActive = 12,
  resignsActive = 13,
  crash = 14,        ///< the session ended with a crash; text: the session; info: "duration", if known
  pluginEvent = 15,  ///< flags: the event's type; text: the name; info: the attributes
};

/// The smallest and the largest kind. A number outside is damage.
inline constexpr auto kKLVFirstJournalKind = KLVJournalKind::appEvent;
inline constexpr auto kKLVLastJournalKind = KLVJournalKind::pluginEvent;

/// Returns the name of a kind for people: "application event".
[[nodiscard]] const char* nameOf(KLVJournalKind kind) noexcept;

/// One call of the host with all of its data.
struct KLVJournalCall {
  KLVJournalKind kind{};
  std::uint8_t flags = 0;  ///< of the caller; the journal does not read them
  Date time{};             ///< of the call, in nanoseconds
  std::optional<std::string> text{};
  std::optional<Dictionary> info{};
};

/// A call as the journal's file keeps it.
struct KLVJournalEntry {
  std::uint64_t sequence = 0;  ///< its number, never 0; it grows with each call of one epoch
  std::string session{};       ///< the session that was current at the call; empty: none was yet
  KLVJournalCall call{};
};

}  // namespace kelvo
