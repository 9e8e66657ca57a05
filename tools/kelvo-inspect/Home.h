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
///   "events" (counts by kind), "chunks" ("number", "start", "end", "accepted", "reporting_times", "waiting_since",
///   "evicted" if its events were deleted unsent),
///   "not_cut" (number of events after the last chunk), "counts_waiting" (counts of aggregate events that the service
///   has not accepted). "waiting_since" (milliseconds since 1970) is the time of the earliest event that the service
///   has not accepted; for counts, the session's launch. It is missing if nothing waits;
/// - "saved_events": see `readSavedEvents`; "ledger": see `readLedger`; "journals": see `readJournals`;
/// - "lifetime_events" and "aggregate_events": the stored rows;
/// - "files" below Library, each with "path", "bytes" and "content" (JSON), or "problem";
/// - "user_defaults".
[[nodiscard]] Dictionary readHome(const std::string& home);

}  // namespace kelvo::inspect
