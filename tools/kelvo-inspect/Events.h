#pragma once

#include <optional>
#include <string>

#include "kelvo-inspect/Reader.h"
#include "kelvo/Value.h"

namespace kelvo::inspect {

/// Returns the stored events of a home, the oldest session first. With `name`, only the events of that name. Changes
/// nothing, and works while a process uses the home. The members of the result are:
///
/// - "events", each with "time" (milliseconds since 1970, or null), "session" (null for an event that a process saved
///   at its end for the next launch), "number" (in its session, from 1), "kind", "name", "attributes", "accepted", and
///   "waiting_since" (milliseconds since 1970) unless it is accepted;
/// - "problem" if the database is damaged or cannot be read.
[[nodiscard]] Dictionary readEvents(const std::string& home, const std::optional<std::string>& name);

/// Returns the files of events that a process saved at its end, and that the next launch will store. Each has "time"
/// (when it was written, milliseconds since 1970) and "events" (their storage forms).
[[nodiscard]] Array readSavedEvents(Reader& reader, const std::string& library);

}  // namespace kelvo::inspect
