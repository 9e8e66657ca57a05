#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::service {

/// Returns nullopt if `body` is a valid chunk. Otherwise returns the first fault and names its member:
/// "chunk_details.app_events[3].time is not an integer". Unknown members are ignored.
[[nodiscard]] std::optional<std::string> faultOfChunk(const Value& body);

/// As `faultOfChunk`, for the body of a user-info upload.
[[nodiscard]] std::optional<std::string> faultOfUserInfo(const Value& body);

}  // namespace kelvo::service
