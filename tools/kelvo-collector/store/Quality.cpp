#include "kelvo-collector/store/Quality.h"

#include <algorithm>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Schema.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

/// Most problem rows for one gap. In a longer gap, the last row covers all remaining numbers.
constexpr std::int64_t kMostRowsOfGap = 100;

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

bool isBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

}  // namespace

void addToCounter(Database& database, std::int64_t session, const char* what, const std::string& item,
                  std::int64_t count) {
  Database::Query(database,
                  "INSERT INTO counters VALUES (?, ?, ?, ?)"
                  " ON CONFLICT (session, what, item) DO UPDATE SET count = count + excluded.count",
                  session, what, item, count)
      .execute();
}

void Quality::report(const char* kind, const std::string& message, const Value& value,
                     std::optional<std::int64_t> event, std::int64_t chunk) {
  {
    Database::Query insert(database_,
                           "INSERT INTO problems (session, kind, message, value, chunk, time, event)"
                           " VALUES (?, ?, ?, ?, ?, ?, ?)",
                           session_, kind, message, jsonText(value).value_or("null"), chunk, time_);
    event ? insert.bind(*event) : insert.bind(nullptr);
    insert.execute();
  }
  addToCounter(database_, kAllSessions, "problem", kind, 1);
  addToCounter(database_, session_, "problem", kind, 1);
  addToCounter(database_, kAllSessions, "total", "problems", 1);
  Database::Query(database_, "UPDATE sessions SET problems = problems + 1 WHERE key = ?", session_).execute();
}

void Quality::resolveMissing() {
  Database::Query(database_, "DELETE FROM problems WHERE kind = 'missing-chunk' AND session = ? AND chunk = ?",
                  session_, chunk_)
      .execute();
  if (!database_.changed()) return;
  addToCounter(database_, kAllSessions, "problem", "missing-chunk", -1);
  addToCounter(database_, session_, "problem", "missing-chunk", -1);
  addToCounter(database_, kAllSessions, "total", "problems", -1);
  Database::Query(database_, "UPDATE sessions SET problems = problems - 1 WHERE key = ?", session_).execute();
}

void Quality::checkOrder(std::int64_t highestSoFar) {
  if (chunk_ < highestSoFar) {
    resolveMissing();
    report("chunk-order", "chunk " + std::to_string(chunk_) + " came after chunk " + std::to_string(highestSoFar),
           chunk_, std::nullopt, chunk_);
    return;
  }
  const std::int64_t missing = chunk_ - highestSoFar - 1;
  for (std::int64_t i = 1; i <= std::min(missing, kMostRowsOfGap); ++i) {
    const std::int64_t number = highestSoFar + i;
    const bool coversRest = i == kMostRowsOfGap && missing > kMostRowsOfGap;
    report("missing-chunk",
           coversRest ? "chunks " + std::to_string(number) + " to " + std::to_string(chunk_ - 1) + " are missing"
                      : "chunk " + std::to_string(number) + " is missing",
           number, std::nullopt, number);
  }
}

void Quality::checkDuration(const Dictionary& object, const char* member, const std::string& of,
                            std::optional<std::int64_t> event) {
  const Value* value = object.find(member);
  if (value == nullptr || !value->isNumber() || value->asDouble() >= 0) return;
  report("negative-duration", quoted(member) + " of " + of + " is below zero", *value, event, chunk_);
}

void Quality::checkSession(const Dictionary& record) {
  for (const char* member : {"duration", "total_duration", "startup_time"}) {
    checkDuration(record, member, "the session", std::nullopt);
  }
}

void Quality::checkEvent(const std::string& kind, const std::string& name, const Dictionary& event, std::int64_t id) {
  if (isBlank(name)) {
    report("event-without-name", "an event of the kind " + quoted(kind) + " has no name", name, id, chunk_);
  }
  checkDuration(event, "duration", quoted(name), id);
  if (const auto* attributes = event["additional_info"].get<Dictionary>()) {
    checkDuration(*attributes, "duration", quoted(name), id);
  }
}

void Quality::checkNewName(const std::string& kind, const std::string& name, std::int64_t event) {
  Database::Query other(database_,
                        "SELECT name FROM names WHERE session = 0 AND lower(name) = lower(?1) AND name <> ?1"
                        " AND (kind = ?2 OR (kind IN ('app', 'aggregate') AND ?2 IN ('app', 'aggregate'))) LIMIT 1",
                        name, kind);
  if (!other.next()) return;
  const std::string before = other.text();
  report("names-differ-in-case", quoted(name) + " and " + quoted(before) + " differ only in case", Array{name, before},
         event, chunk_);
}

void Quality::reportConflict(const std::string& chunkId, std::int64_t firstRequest, std::int64_t secondRequest) {
  report("conflicting-duplicate", "chunk " + quoted(chunkId) + " came again with other events",
         Dictionary{{"id", chunkId}, {"first_request", firstRequest}, {"request", secondRequest}}, std::nullopt,
         chunk_);
}

void Quality::reportTypeChange(const std::string& name, const std::string& attribute, const std::string& before,
                               const std::string& now, const Value& value, std::int64_t event) {
  report("attribute-type-changes",
         quoted(attribute) + " of " + quoted(name) + " is a " + now + " here and was a " + before + " before", value,
         event, chunk_);
}

void Quality::reportTooManyValues(const std::string& name, const std::string& attribute, std::int64_t count) {
  report("too-many-values",
         quoted(attribute) + " of " + quoted(name) + " has more than " + std::to_string(count - 1) + " values",
         Dictionary{{"name", name}, {"attribute", attribute}, {"values", count}}, std::nullopt, chunk_);
}

}  // namespace kelvo::collector
