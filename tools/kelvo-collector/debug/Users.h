#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "kelvo/Value.h"

// The answers about users and erased devices. Thread: call these inside `Store::read`.

namespace kelvo::collector {

class Database;

/// Returns at most `limit` users with their current attributes, latest upload first.
[[nodiscard]] Dictionary listUsers(Database& database, std::size_t limit);
/// Returns the newest `limit` states of a user's attributes, newest first, each with the names that changed. Returns
/// nullopt if there is no user with this id.
[[nodiscard]] std::optional<Dictionary> userHistory(Database& database, const std::string& id, std::size_t limit);
/// Returns the latest `limit` erasures, newest first: when, of which application, and how much was deleted.
[[nodiscard]] Dictionary listErasures(Database& database, std::size_t limit);

}  // namespace kelvo::collector
