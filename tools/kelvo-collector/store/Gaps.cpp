#include "kelvo-collector/store/Gaps.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Schema.h"

namespace kelvo::collector {
namespace {

constexpr std::int64_t kMostGapsInText = 20;
constexpr int kExplainedSessions = 500;
constexpr std::int64_t kMostEvicted = 1'000'000'000;  // higher counts are clamped, so that no sum overflows

void addGap(Database& database, std::int64_t session, std::int64_t first, std::int64_t last) {
  if (first > last) return;
  Database::Query(database, "INSERT OR REPLACE INTO gaps VALUES (?, ?, ?, 0)", session, first, last).execute();
}

/// Takes the chunk's number out of the gap that contains it. Returns false if there is none.
bool closeGap(Database& database, const Place& place) {
  std::int64_t first = 0, last = 0;
  {
    Database::Query gap(database,
                        "SELECT first, last FROM gaps WHERE session = ?1 AND first <= ?2 AND last >= ?2 LIMIT 1",
                        place.session, place.chunk);
    if (!gap.next()) return false;
    first = gap.number();
    last = gap.number();
  }
  Database::Query(database, "DELETE FROM gaps WHERE session = ? AND first = ?", place.session, first).execute();
  addGap(database, place.session, first, place.chunk - 1);
  addGap(database, place.session, place.chunk + 1, last);
  return true;
}

/// A gap, or an eviction if `chunks` is not 0.
struct Step {
  std::int64_t session;
  std::int64_t number;  // the first one of the gap
  std::int64_t size;
  std::int64_t evicted;  // the explained part of the size, as stored
  std::int64_t chunks;
};

/// Returns the gaps and evictions of the device of `session`, the latest first.
std::vector<Step> stepsOf(Database& database, std::int64_t session) {
  Database::Query rows(
      database,
      "WITH near AS (SELECT key, launch FROM sessions WHERE (application, device_id) ="
      "   (SELECT application, device_id FROM sessions WHERE key = ?) ORDER BY launch DESC LIMIT ?)"
      " SELECT key, first AS number, last - first + 1, evicted, 0, launch FROM near JOIN gaps ON session = key"
      " UNION ALL SELECT key, number, 0, 0, chunks, launch FROM near JOIN evictions ON session = key"
      " ORDER BY launch DESC, key DESC, number DESC",
      session, kExplainedSessions);
  std::vector<Step> steps;
  while (rows.next()) steps.push_back({rows.number(), rows.number(), rows.number(), rows.number(), rows.number()});
  return steps;
}

/// Divides the evicted chunks among the gaps. Returns the sessions of which a gap has another part than before.
std::set<std::int64_t> explainGaps(Database& database, std::int64_t session) {
  std::set<std::int64_t> changed;
  std::int64_t left = 0;
  for (const Step& step : stepsOf(database, session)) {
    left += step.chunks;
    const std::int64_t evicted = std::min(left, step.size);
    left -= evicted;
    if (evicted == step.evicted) continue;
    Database::Query(database, "UPDATE gaps SET evicted = ? WHERE session = ? AND first = ?", evicted, step.session,
                    step.number)
        .execute();
    changed.insert(step.session);
  }
  return changed;
}

/// Appends "5" or "2 to 5" to a list.
void appendNumbers(std::string& list, std::int64_t first, std::int64_t last) {
  list += (list.empty() ? "" : ", ") + std::to_string(first);
  if (last > first) list += " to " + std::to_string(last);
}

/// Rewrites the report of the session's missing chunks. `time` is that of the chunk that changed it.
void reportGaps(Database& database, std::int64_t session, std::int64_t time) {
  Problem problem{.kind = "missing-chunk", .place = {session, 0, time}, .count = 0};
  std::int64_t evicted = 0;
  std::string numbers;
  Array gaps;
  {
    Database::Query row(database,
                        "SELECT id, (SELECT sum(last - first + 1 - evicted) FROM gaps WHERE session = key),"
                        " (SELECT sum(evicted) FROM gaps WHERE session = key AND evicted <= last - first)"
                        " FROM sessions WHERE key = ?",
                        session);
    if (!row.next()) return;
    problem.name = row.text();
    problem.count = row.number();
    evicted = row.number();
  }
  Database::Query rows(database,
                       "SELECT first, last FROM gaps WHERE session = ? AND evicted <= last - first ORDER BY first"
                       " LIMIT ?",
                       session, kMostGapsInText + 1);
  while (rows.next()) {
    const std::int64_t first = rows.number(), last = rows.number();
    if (gaps.empty()) problem.place.chunk = first;
    if (gaps.size() == kMostGapsInText) {
      numbers += " ...";
      break;
    }
    gaps.append(Array{first, last});
    appendNumbers(numbers, first, last);
  }
  const bool isOne = problem.count + evicted == 1;
  problem.message = (isOne ? "chunk " : "chunks ") + numbers + (isOne ? " is missing" : " are missing");
  if (evicted > 0) problem.message += ", of which the device evicted " + std::to_string(evicted);
  problem.value = std::move(gaps);
  setProblem(database, kAllSessions, problem);
  setProblem(database, session, problem);
}

}  // namespace

std::optional<Evicted> evictedOf(const Dictionary& chunkAttributes) {
  const auto* evicted = chunkAttributes["evicted"].get<Dictionary>();
  if (evicted == nullptr) return std::nullopt;
  return Evicted{std::clamp<std::int64_t>((*evicted)["events"].asInt64(), 0, kMostEvicted),
                 std::clamp<std::int64_t>((*evicted)["chunks"].asInt64(), 0, kMostEvicted)};
}

void noteNumber(Database& database, const Place& place, std::int64_t highestSoFar,
                const std::optional<Evicted>& evicted) {
  bool changed = false;
  if (evicted) {
    Database::Query(database, "INSERT OR REPLACE INTO evictions VALUES (?, ?, ?, ?)", place.session, place.chunk,
                    evicted->events, evicted->chunks)
        .execute();
    changed = true;
  }
  if (place.chunk < highestSoFar) {
    changed = closeGap(database, place) || changed;
  } else if (place.chunk - highestSoFar > 1) {
    addGap(database, place.session, highestSoFar + 1, place.chunk - 1);
    changed = true;
  }
  if (!changed) return;
  std::set<std::int64_t> sessions = explainGaps(database, place.session);
  sessions.insert(place.session);
  for (const std::int64_t session : sessions) reportGaps(database, session, place.time);
}

Value evictionsOf(Database& database, std::int64_t session) {
  Database::Query row(database,
                      "SELECT sum(events), sum(chunks), (SELECT sum(evicted) FROM gaps WHERE session = ?1)"
                      " FROM evictions WHERE session = ?1",
                      session);
  if (!row.next()) return {};
  Dictionary all;
  std::int64_t sum = 0;
  for (const char* name : {"events", "chunks", "explained"}) {
    const std::int64_t number = row.number();
    all.set(name, number);
    sum += number;
  }
  return sum == 0 ? Value() : Value(std::move(all));
}

}  // namespace kelvo::collector
