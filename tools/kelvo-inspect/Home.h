#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::inspect {

/// What a home directory holds, read without changing it, also while a process uses it:
///
/// - "home", "used_by" (a process id, or null);
/// - "database": "path", "bytes" (its log included), and "problem" when it cannot be read or is damaged;
/// - "sessions", oldest first: "id", what the session's file says ("launch_time", "launch_type", "duration" ...),
///   "events" (by kind), "chunks" ("number", "start", "end", "accepted", "reporting_times"), "not_cut" (events after
///   the last chunk);
/// - "lifetime_events" and "aggregate_events": rows as they are stored;
/// - "files" below Library, each with "path", "bytes" and "content" (JSON), or "problem";
/// - "user_defaults".
[[nodiscard]] Dictionary readHome(const std::string& home);

}  // namespace kelvo::inspect
