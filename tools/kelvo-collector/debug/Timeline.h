#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

/// Returns the plot of the session `id` in seconds since its launch: screens, foreground periods, points, chunk
/// boundaries. Screens and points are sampled over the whole session if there are too many; "sampled" is then true. The
/// plot has the first 500 foreground periods and the newest 500 chunks. Returns nullopt if there is no such session.
/// Thread: call it inside `Store::read`.
[[nodiscard]] std::optional<Dictionary> timeline(Database& database, const std::string& id);

}  // namespace kelvo::collector
