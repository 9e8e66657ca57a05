#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::inspect {

/// What `readHome` gave, as aligned text for a terminal. Stored text cannot control the terminal: its control
/// characters show as "?".
[[nodiscard]] std::string report(const Dictionary& home);

}  // namespace kelvo::inspect
