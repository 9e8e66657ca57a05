#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kelvo/Export.h"
#include "kelvo/Value.h"

namespace kelvo {

/// The kinds of event; the numbers are stored and sent.
enum class KLVEventType : std::uint64_t {
  system = 0,  ///< the application came to the foreground, or went to the background
  ceNavigation = 1,
  navigation = 2,
  userInteraction = 3,
  app = 4,        ///< logged by the host
  client = 5,     ///< logged by the host, for plug-ins on this device
  aggregate = 6,  ///< logged by the host, only counted
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
  session = 17,  ///< a session begins
  chunk = 18,    ///< a chunk is about to be cut
  customError = 19,
  applicationCrash = 20,
  unknown = UINT64_MAX,  ///< what an undefined name parses to
};

/// "System", "CENavigation", ... "ApplicationCrash"; "undefined" for any other value.
[[nodiscard]] KELVO_EXPORT std::string_view stringFromType(KLVEventType type);

/// The key of one exact event, "<type number>___<name>": listeners register under it. The type is the one that the
/// event has once it is classified: an event that the service wants as a client event has the type `client`.
[[nodiscard]] KELVO_EXPORT std::string identifierKey(KLVEventType type, std::string_view identifier);

/// Something that happened, as a listener sees it.
struct Event {
  std::string name;  ///< such as "Purchase", "BACKGROUND"; a random UUID for an error that the host reported
  KLVEventType type = KLVEventType::unknown;  ///< after classification
  Dictionary attributes;                      ///< those of the host, flat, and those that the library added
  std::int64_t time = 0;                      ///< whole seconds since the library was loaded
};

}  // namespace kelvo
