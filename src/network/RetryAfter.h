#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Returns the wait that a `Retry-After` field asks for, from 0 seconds to 1 hour. `field` is a number of seconds or an
/// HTTP date, which is compared with `now`. Returns 0 for a past date, 1 hour for a longer wait, and nullopt for any
/// other text.
[[nodiscard]] std::optional<std::chrono::seconds> retryAfter(const std::string& field, Date now);

}  // namespace kelvo
