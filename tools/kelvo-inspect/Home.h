#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::inspect {

/// Returns the content of a home. Changes nothing, and works while a process uses the home. The members are:
///
/// - "home", "used_by" (a process id, or null);
/// - "database": "path", "bytes" (including the write-ahead log), and "problem" if it is damaged or cannot be read;
/// - "sessions", oldest first: "id", the attributes in the session's file ("launch_time", "launch_type", "duration"
/// ...),
///   "events" (counts by kind), "chunks" ("number", "start", "end", "accepted", "reporting_times"), "not_cut" (number
///   of events after the last chunk);
/// - "lifetime_events" and "aggregate_events": the stored rows;
/// - "files" below Library, each with "path", "bytes" and "content" (JSON), or "problem";
/// - "user_defaults".
[[nodiscard]] Dictionary readHome(const std::string& home);

}  // namespace kelvo::inspect
