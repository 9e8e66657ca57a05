#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::inspect {

/// Formats the result of `readHome` as aligned tables for a terminal. Prints control characters in stored text as "?",
/// so that stored text cannot control the terminal.
[[nodiscard]] std::string report(const Dictionary& home);

}  // namespace kelvo::inspect
