#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kelvo-service/Service.h"
#include "kelvo/Value.h"

// The answers about sessions, the totals, and the parts that all listings share. Every answer is bounded and begins at
// a given row, so its cost does not grow with the store. Thread: call these inside `Store::read`.

namespace kelvo::collector {

class Database;
using service::Request;

/// The default and the maximum number of rows on a page.
inline constexpr std::int64_t kUsualRows = 100;
inline constexpr std::int64_t kMostRows = 1000;

/// The limits of a listing. An empty text does not limit it.
struct Filter {
  std::string session = {};  ///< id
  std::string kind = {};
  std::string name = {};
  std::string text = {};   ///< part of the name or of the attributes, in any case
  std::string user = {};   ///< part of the user's id, in any case
  std::int64_t after = 0;  ///< the row after which the listing begins: the `next` of the page before
  std::size_t limit = kUsualRows;
  /// For events only. The listing then begins below the row `after`, with the newest event if `after` is 0.
  bool newestFirst = false;
};

/// Returns the filter that the query of `request` describes. Values out of range count as absent.
[[nodiscard]] Filter filterOf(const Request& request);

/// Returns the row of the session with this id, 0 if there is none. If several applications have a session
/// with this id, returns the latest.
[[nodiscard]] std::int64_t sessionKey(Database& database, const std::string& id);
/// Returns the row of the session that limits the listing, 0 for all sessions, nullopt if there is no such session.
[[nodiscard]] std::optional<std::int64_t> sessionOf(Database& database, const Filter& filter);

/// Returns a page of sessions, latest arrival first. `before` is the `next` of the page before, 0 for the first
/// page. `find` limits the list to sessions with this text in the user's id, the session's id, the application or the
/// device. The page examines a bounded number of rows, so it may hold fewer than `limit` and still have a `next`.
[[nodiscard]] Dictionary listSessions(Database& database, std::int64_t before, std::size_t limit,
                                      const std::string& find = {});
/// Returns one session as `listSessions` shows it, empty if there is none.
[[nodiscard]] Dictionary sessionRow(Database& database, std::int64_t key);
/// Returns a session with its records, its newest 1000 chunks, and what its device says about evictions and in its
/// ledger; nullopt if there is none.
[[nodiscard]] std::optional<Dictionary> sessionDetails(Database& database, const std::string& id);

/// Returns the totals, and the counts of events by kind and of the 200 most frequent names.
[[nodiscard]] Dictionary counts(Database& database);
/// Returns the total of all sessions: "sessions", "chunks" or "events".
[[nodiscard]] std::int64_t totalOf(Database& database, const char* item);
/// Returns the counters of a session (0: of all sessions) that are above 0, by item.
[[nodiscard]] Dictionary countersOf(Database& database, std::int64_t session, const char* what);

/// Returns true if `text` contains `part`, in any case.
[[nodiscard]] bool contains(const std::string& text, const std::string& part);
/// Parses a JSON text of the store. Returns null if it is unusable.
[[nodiscard]] Value stored(const std::string& json);

}  // namespace kelvo::collector
