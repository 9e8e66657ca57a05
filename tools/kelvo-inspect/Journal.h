#pragma once

#include <optional>
#include <string>

#include "kelvo-inspect/Doctor.h"
#include "kelvo/Value.h"

namespace kelvo::inspect {

/// Returns the journal's files of a home, usually one, as a process of this user would find them. Changes nothing, and
/// works while a process writes to them. Each file has "path", "bytes", "unfinished" (numbers of calls by kind),
/// "torn" (calls that a kill cut off, or that are being written now), and "problem" if it cannot be read.
[[nodiscard]] Array readJournals(const std::string& library);

/// Returns a finding if programs with this home and this `Info.plist` have no journal.
[[nodiscard]] std::optional<Finding> examineJournal(const std::string& library, const Dictionary& info);

}  // namespace kelvo::inspect
