#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::service {

/// Returns a 64-bit hash of `value` as 16 hexadecimal digits. The order of dictionary members does not matter.
[[nodiscard]] std::string fingerprint(const Value& value);

}  // namespace kelvo::service
