#pragma once

#include <optional>
#include <string>

namespace kelvo::registry {

/// Returns the number of days from 1970-01-01 to a date "YYYY-MM-DD", nullopt if it is not one.
[[nodiscard]] std::optional<int> dayOf(const std::string& date);

/// Returns the present date, in UTC.
[[nodiscard]] std::string today();

}  // namespace kelvo::registry
