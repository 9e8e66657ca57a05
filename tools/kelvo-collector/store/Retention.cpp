#include "kelvo-collector/store/Retention.h"

#include <algorithm>
#include <optional>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Schema.h"

namespace kelvo::collector {
namespace {

/// Each step deletes this part of the requests, so that a few steps free much, and none takes long.
constexpr std::int64_t kSteps = 64;

std::int64_t numberFrom(Database& database, const char* sql) {
  Database::Query row(database, sql);
  return row.next() ? row.number() : 0;
}

struct OldRequest {
  std::int64_t sequence;
  std::int64_t time;
};

/// Returns the newest request of the next step, nullopt if there are no requests.
std::optional<OldRequest> lastOfStep(Database& database) {
  const std::int64_t count = numberFrom(database, "SELECT count(*) FROM requests");
  Database::Query row(database, "SELECT sequence, time FROM requests ORDER BY sequence LIMIT 1 OFFSET ?",
                      std::max<std::int64_t>(count / kSteps, 1) - 1);
  if (!row.next()) return std::nullopt;
  const std::int64_t sequence = row.number();
  return OldRequest{sequence, row.number()};
}

void deleteUpTo(Database& database, const OldRequest& last) {
  for (const char* sql : {"DELETE FROM verdicts WHERE event IN (SELECT id FROM events WHERE request <= ?)",
                          "DELETE FROM events WHERE request <= ?", "DELETE FROM chunks WHERE request <= ?",
                          "DELETE FROM requests WHERE sequence <= ?"}) {
    Database::Query(database, sql, last.sequence).execute();
  }
  for (const char* sql : {"DELETE FROM user_history WHERE received <= ?", "DELETE FROM users WHERE received <= ?"}) {
    Database::Query(database, sql, last.time).execute();
  }
  database.run(kForgetEmptySessions);
}

}  // namespace

std::int64_t usedBytes(Database& database) {
  const std::int64_t pages = numberFrom(database, "PRAGMA page_count") - numberFrom(database, "PRAGMA freelist_count");
  return pages * numberFrom(database, "PRAGMA page_size");
}

void forgetOldest(Database& database, std::int64_t most) {
  while (usedBytes(database) > most) {
    const auto last = lastOfStep(database);
    if (!last) return database.run(kForgetArrivals);
    deleteUpTo(database, *last);
  }
}

}  // namespace kelvo::collector
