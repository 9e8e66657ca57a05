#pragma once

#include "kelvo/Value.h"

namespace kelvo::service {

/// A kind of event, and the members of an upload that hold its parts.
struct EventKind {
  const char* list;        ///< list in "chunk_details"
  const char* kind;        ///< name of the kind in the tables
  const char* name;        ///< member with the event's name
  const char* time;        ///< member with the event's time
  const char* attributes;  ///< member with the attributes; null if all other members are attributes
};

inline constexpr EventKind kEventKinds[] = {
    {"system_events", "system", "name", "time", nullptr},
    {"navigation_events", "navigation", "name", "transition_time", nullptr},
    {"app_events", "app", "name", "time", "additional_info"},
    {"user_events", "user", "id", "time", nullptr},
    {"incidents", "observation", "incident_id", "time_of_occurrence", "incident_specific_details"}};

/// Returns the attributes of `event`, empty if they are no object.
[[nodiscard]] Dictionary attributesOf(const Dictionary& event, const EventKind& kind);
/// Returns the event's time in whole or broken seconds since the session's launch, between -1e9 and 1e9.
[[nodiscard]] double timeOf(const Dictionary& event, const EventKind& kind);
/// Returns a hash of all events of a chunk. It leaves out aggregate counts, attributes of the session and reporting
/// times, because a resent chunk carries newer ones. `details` is the member "chunk_details".
[[nodiscard]] std::string fingerprintOfEvents(const Dictionary& details);

}  // namespace kelvo::service
