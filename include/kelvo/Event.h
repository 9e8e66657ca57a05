#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kelvo/Export.h"
#include "kelvo/Value.h"

namespace kelvo {

/// The types of events. The numbers are part of `identifierKey` and never change.
enum class KLVEventType : std::uint64_t {
  system = 0,  ///< the application came to the foreground (FOREGROUND) or is leaving it (BACKGROUND)
  ceNavigation = 1,
  navigation = 2,
  userInteraction = 3,
  app = 4,        ///< logged by the host, stored and sent
  client = 5,     ///< logged by the host, for plug-ins on this device
  aggregate = 6,  ///< logged by the host; only counted
  push = 7,
  inApp = 8,
  inlineView = 9,
  nudge = 10,
  inlineText = 11,
  inlineCoachmark = 12,
  walkthrough = 13,
  screenshot = 14,
  survey = 15,
  // Kept: 16 has no name; it prints as "undefined" and no text parses to it.
  session = 17,  ///< a session has begun
  chunk = 18,    ///< a chunk is about to be cut
  customError = 19,
  applicationCrash = 20,
  unknown = UINT64_MAX,  ///< the result of parsing an undefined name
};

/// Returns "System", "CENavigation" ... "ApplicationCrash"; "undefined" for any other value. Thread-safe.
[[nodiscard]] KELVO_EXPORT std::string_view stringFromType(KLVEventType type);

/// Returns the key "<type number>___<name>" under which a listener registers for one exact event. `type` is the type
/// after classification: `client` for an event that the service's lists make a client event. Thread-safe.
[[nodiscard]] KELVO_EXPORT std::string identifierKey(KLVEventType type, std::string_view identifier);

/// A recorded occurrence, as a listener receives it.
struct Event {
  std::string name;  ///< such as "Purchase", "BACKGROUND"; a random UUID for an error that the host reported
  KLVEventType type = KLVEventType::unknown;  ///< after classification
  Dictionary attributes;                      ///< the host's, flattened, and the library's
  std::int64_t time = 0;                      ///< whole seconds since the library was loaded
};

}  // namespace kelvo
