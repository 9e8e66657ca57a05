#pragma once

#include <cstdint>
#include <optional>

#include "kelvo/Value.h"

// The answers about events. Thread: call these inside `Store::read`.

namespace kelvo::collector {

class Database;
struct Filter;

/// Returns a page of events. It examines a bounded number of rows, so a page may hold fewer than `limit` events, even
/// none, and still have a `next`.
[[nodiscard]] Dictionary listEvents(Database& database, const Filter& filter);
/// Returns an event with its JSON exactly as it arrived, nullopt if there is none.
[[nodiscard]] std::optional<Dictionary> eventDetails(Database& database, std::int64_t id);
/// Returns the number of matching events. An aggregate counts as often as its sender counted it. Only `session`, `kind`
/// and `name` of the filter apply.
[[nodiscard]] std::int64_t countEvents(Database& database, const Filter& filter);
/// Returns a page of the events that are as expected, or of those that are not, each with its faults, and the number of
/// all such events. Only `session`, `name` and the position of the filter apply.
[[nodiscard]] Dictionary listJudged(Database& database, bool good, const Filter& filter);

}  // namespace kelvo::collector
