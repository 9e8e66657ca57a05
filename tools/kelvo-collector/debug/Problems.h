#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-collector/store/Problems.h"
#include "kelvo/Value.h"

// The answers about problems, and the switches of the checks. A problem whose check is off is kept but not shown.
// Thread: call these inside `Store::read`, `switchChecks` inside `Store::change`.

/// The end of a condition on the column "kind": the check is on.
#define KELVO_CHECKED_KINDS " AND kind NOT IN (SELECT kind FROM checks_off)"

namespace kelvo::collector {

class Database;
struct Filter;

/// Returns a page of problems, with the number of problems of each kind. Only `session`, `kind` and the position of the
/// filter apply.
[[nodiscard]] Dictionary listProblems(Database& database, const Filter& filter);
/// Returns one problem with a page of its occurrences after `after`, nullopt if there is none. A problem of types also
/// has the count of each type.
[[nodiscard]] std::optional<Dictionary> problemDetails(Database& database, std::int64_t id, std::int64_t after,
                                                       std::size_t limit);
/// Returns the number of all problems.
[[nodiscard]] std::int64_t numberOfProblems(Database& database);

/// Returns for each kind of problem whether its check is on.
[[nodiscard]] Dictionary checks(Database& database);
/// Returns the errors in a choice of checks like `{"suspected-duplicate": false}`, none if it is valid.
[[nodiscard]] std::vector<std::string> faultsOfChecks(const Value& choice);
/// Switches the checks in a valid `choice` on or off. Others stay as they are.
void switchChecks(Database& database, const Dictionary& choice);

}  // namespace kelvo::collector
