#pragma once

#include <optional>
#include <string_view>

#include "kelvo-service/Service.h"

namespace kelvo::server {

/// Sets path and parameters of `request` from the target of its request line, percent-decoded. Returns false if the
/// target is malformed, or decodes to a text with a zero byte.
[[nodiscard]] bool readTarget(std::string_view target, service::Request& request);

}  // namespace kelvo::server
