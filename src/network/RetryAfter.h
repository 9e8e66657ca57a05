#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Returns the time that a `Retry-After` field asks for, measured from `now`: 0 seconds to 1 hour, longer times are
/// cut to 1 hour. `field` is a number of seconds or an HTTP date; a past date returns 0. Returns nullopt for any other
/// text.
[[nodiscard]] std::optional<std::chrono::seconds> retryAfter(const std::string& field, Date now);

}  // namespace kelvo
