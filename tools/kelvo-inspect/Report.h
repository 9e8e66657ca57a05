#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::inspect {

/// Formats the result of `readHome` as aligned tables for a terminal, with notes on values that look wrong but are
/// not. Prints control characters in stored text as escapes, so that stored text cannot control the terminal.
[[nodiscard]] std::string report(const Dictionary& home);
/// The same for the result of `readEvents`.
[[nodiscard]] std::string reportEvents(const Dictionary& events);

}  // namespace kelvo::inspect
