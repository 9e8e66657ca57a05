#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::inspect {

/// Returns the ledger of the database at `path` by entry, null if it has none. `savedEvents`: see `readSavedEvents`.
/// The entry "waiting" is measured in the other tables of the same moment. The member "faults" is an array of
/// sentences, one for each sum that does not agree with the others or with what is measured.
[[nodiscard]] Value readLedger(const std::string& path, const Array& savedEvents);

}  // namespace kelvo::inspect
