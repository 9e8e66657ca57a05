#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

// What a page or a test asks about what arrived. Each answer is bounded, and read from a place onwards, so that it
// costs the same however much there is.

/// What a listing is limited to; empty texts limit nothing.
struct Filter {
  std::string session = {};  ///< the id of a session
  std::string kind = {};
  std::string name = {};
  std::string text = {};    ///< part of a name or of the attributes, in any case
  std::int64_t after = 0;   ///< the id of the last row that is known
  std::size_t limit = 100;  ///< most rows
  /// Of events: `after` is then the row that the next ones are older than, 0 for the newest.
  bool newestFirst = false;
};

/// Row of the session with that id, the newest one when several applications have one; 0 when there is none.
[[nodiscard]] std::int64_t sessionKey(Database& database, const std::string& id);

/// Newest first; `before` is the cursor of the page before, 0 for the first page.
[[nodiscard]] Dictionary listSessions(Database& database, std::int64_t before, std::size_t limit);
/// A session as the listing shows it.
[[nodiscard]] Dictionary sessionRow(Database& database, std::int64_t key);
/// A session with its records and its newest 1000 chunks; nullopt when there is none.
[[nodiscard]] std::optional<Dictionary> sessionDetails(Database& database, const std::string& id);
/// Bands, points and marks of a session's plot, at most some thousands, in seconds since the launch.
[[nodiscard]] std::optional<Dictionary> timeline(Database& database, const std::string& id);

/// Looks at a bounded number of rows: a page may hold fewer than `limit`, even none, and still name a next one.
[[nodiscard]] Dictionary listEvents(Database& database, const Filter& filter);
/// One event with the exact text that arrived.
[[nodiscard]] std::optional<Dictionary> eventDetails(Database& database, std::int64_t id);
[[nodiscard]] Dictionary listProblems(Database& database, const Filter& filter);

[[nodiscard]] Dictionary counts(Database& database);
/// How often the events that fit have come; an aggregate counts as often as its sender counted it.
[[nodiscard]] std::int64_t countEvents(Database& database, const Filter& filter);
/// Counts by event and attribute value.
[[nodiscard]] Dictionary aggregates(Database& database, const Filter& filter);
[[nodiscard]] Dictionary listUsers(Database& database, std::size_t limit);
[[nodiscard]] std::optional<Dictionary> userHistory(Database& database, const std::string& id, std::size_t limit);

/// The value of a JSON text out of the store.
[[nodiscard]] Value stored(const std::string& json);

}  // namespace kelvo::collector
