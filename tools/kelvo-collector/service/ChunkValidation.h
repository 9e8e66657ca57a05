#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

/// Why `body` is no chunk, naming the first member that is wrong ("chunk_details.app_events[3].time is not an
/// integer"); nullopt for a good one. Members that nobody asked for are let through.
[[nodiscard]] std::optional<std::string> faultOfChunk(const Value& body);

/// The same for the body of a user-info upload.
[[nodiscard]] std::optional<std::string> faultOfUserInfo(const Value& body);

}  // namespace kelvo::collector
