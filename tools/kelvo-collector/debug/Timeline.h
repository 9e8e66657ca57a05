#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

/// Returns the plot of the session `id` in seconds since its launch: screens, foreground periods, points, chunk
/// boundaries. Lists that are too long are sampled over the whole session. Returns nullopt if there is no such session.
/// Thread: call it inside `Store::read`.
[[nodiscard]] std::optional<Dictionary> timeline(Database& database, const std::string& id);

}  // namespace kelvo::collector
