#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

// The rows of the quality report. Problems of one kind, name and attribute share a row with a count, once for all
// sessions and once for each session concerned. Thread: inside a transaction of the database.

namespace kelvo::collector {

class Database;

inline constexpr const char* kTypeChanges = "attribute-type-changes";

/// The kinds of problems; each is a check that can be switched off.
inline constexpr const char* kProblemKinds[] = {"missing-chunk",       "chunk-order",        "conflicting-duplicate",
                                                "suspected-duplicate", "event-without-name", "negative-duration",
                                                "not-as-expected",     kTypeChanges,         "names-differ-in-case",
                                                "too-many-values"};

/// The chunk in which a problem was found.
struct Place {
  std::int64_t session = 0;  ///< key of the session's row
  std::int64_t chunk = 0;    ///< number of the chunk
  std::int64_t time = 0;     ///< of arrival, in milliseconds since 1970
};

struct Problem {
  std::string kind = {};
  std::string name = {};       ///< of the event; the session's id if the problem concerns chunks
  std::string attribute = {};  ///< empty if no single attribute is at fault
  std::string message = {};
  Value value = {};  ///< the offending value
  std::optional<std::int64_t> event = {};
  Place place = {};
  std::int64_t count = 1;
};

/// Counts one occurrence in the rows of its session and of all sessions. Keeps the first 1000 occurrences of a row.
void addProblem(Database& database, const Problem& problem);
/// Replaces the row of one session, or of all sessions if `scope` is `kAllSessions`. Deletes it if the count is 0.
void setProblem(Database& database, std::int64_t scope, const Problem& problem);
/// Deletes all rows with the kind, name and attribute of `problem`.
void removeProblem(Database& database, const Problem& problem);
/// Deletes all problems of `kind`.
void removeProblems(Database& database, const char* kind);

/// Returns `text` in quotation marks.
[[nodiscard]] inline std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

}  // namespace kelvo::collector
