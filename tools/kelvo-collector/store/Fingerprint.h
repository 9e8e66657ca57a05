#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

/// 16 hexadecimal digits that are the same for equal values, in whatever order their members stand.
[[nodiscard]] std::string fingerprint(const Value& value);

}  // namespace kelvo::collector
