#pragma once

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;
struct Filter;

/// Returns the counts of application events and aggregates by name, attribute and attribute value, the highest first.
/// Only `session` and `name` of the filter apply. Thread: call it inside `Store::read`.
[[nodiscard]] Dictionary aggregates(Database& database, const Filter& filter);

}  // namespace kelvo::collector
