#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

/// Seconds since the launch. The end does not belong to the period.
struct Period {
  std::int64_t from;
  std::int64_t to;
};

/// Returns the plot of the session `id` in seconds since its launch: screens, foreground periods, points, chunk
/// boundaries. Only the points are limited to `period`. If they are too many, each row covers several seconds ("span")
/// and counts all events of a kind in them; "gathered" is then true. Too many screens are sampled over the whole
/// session; "sampled" is then true. The plot has the first 500 foreground periods and the newest 500 chunks. Returns
/// nullopt if there is no such session. Thread: call it inside `Store::read`.
[[nodiscard]] std::optional<Dictionary> timeline(Database& database, const std::string& id, const Period& period);

}  // namespace kelvo::collector
