#include "kelvo-collector/store/Quality.h"

#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "kelvo-collector/store/Schema.h"
#include "kelvo-collector/store/Verdicts.h"

namespace kelvo::collector {
namespace {

constexpr int kMostCompared = 16;  // earlier events with which one event is compared

bool isBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

Dictionary withoutLibraryAttributes(const Dictionary& attributes) {
  Dictionary own;
  for (const auto& [name, value] : attributes) {
    if (!isOfLibrary(name)) own.set(name, value);
  }
  return own;
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

void Quality::report(Problem problem) {
  problem.place = place_;
  addProblem(database_, problem);
}

void Quality::checkOrder(std::int64_t highestSoFar, const std::optional<Evicted>& evicted) {
  noteNumber(database_, place_, highestSoFar, evicted);
  if (place_.chunk >= highestSoFar) return;
  report({.kind = "chunk-order",
          .name = sessionId_,
          .message = "chunk " + std::to_string(place_.chunk) + " came after chunk " + std::to_string(highestSoFar),
          .value = place_.chunk});
}

void Quality::checkDuration(const Dictionary& object, const char* member, const std::string& name,
                            std::optional<std::int64_t> event) {
  const Value* value = object.find(member);
  if (value == nullptr || !value->isNumber() || value->asDouble() >= 0) return;
  const std::string of = event ? quoted(name) : "the session";
  report({.kind = "negative-duration",
          .name = name,
          .attribute = member,
          .message = quoted(member) + " of " + of + " is below zero",
          .value = *value,
          .event = event});
}

void Quality::checkSession(const Dictionary& record) {
  for (const char* member : {"duration", "total_duration", "startup_time"}) {
    checkDuration(record, member, {}, std::nullopt);
  }
}

void Quality::checkRepetition(const CheckedEvent& event) {
  const Dictionary attributes = withoutLibraryAttributes(event.attributes);
  std::int64_t other = 0;
  {
    Database::Query earlier(database_,
                            "SELECT id, attributes FROM events WHERE kind = 'app' AND session = ? AND name = ?"
                            " AND time = ? AND id < ? ORDER BY id DESC LIMIT ?",
                            place_.session, event.name, event.time, event.id, kMostCompared);
    while (other == 0 && earlier.next()) {
      const std::int64_t id = earlier.number();
      if (withoutLibraryAttributes(dictionaryFromJSON(earlier.text())) == attributes) other = id;
    }
  }
  if (other == 0) return;
  report({.kind = "suspected-duplicate",
          .name = event.name,
          .message = quoted(event.name) + " was logged again in the same second with the same attributes (events " +
                     std::to_string(other) + " and " + std::to_string(event.id) + ")",
          .value = attributes,
          .event = event.id});
}

void Quality::checkEvent(const CheckedEvent& event) {
  if (isBlank(event.name)) {
    report({.kind = "event-without-name",
            .message = "an event of the kind " + quoted(event.kind) + " has no name",
            .value = event.name,
            .event = event.id});
  }
  checkDuration(event.members, "duration", event.name, event.id);
  if (event.kind != "app") return;
  checkDuration(event.attributes, "duration", event.name, event.id);
  checkRepetition(event);
  judge(event);
}

void Quality::judge(const CheckedEvent& event) {
  const bool isAggregate = event.kind == "aggregate";
  keepVerdict(database_, expectations_, {event.id, {event.name, event.attributes, isAggregate}, place_});
}

void Quality::checkNewName(const std::string& kind, const std::string& name, std::int64_t event) {
  std::string before;
  {
    Database::Query other(database_,
                          "SELECT name FROM names WHERE session = 0 AND lower(name) = lower(?1) AND name <> ?1"
                          " AND (kind = ?2 OR (kind IN ('app', 'aggregate') AND ?2 IN ('app', 'aggregate'))) LIMIT 1",
                          name, kind);
    if (!other.next()) return;
    before = other.text();
  }
  report({.kind = "names-differ-in-case",
          .name = name,
          .message = quoted(name) + " and " + quoted(before) + " differ only in case",
          .value = Array{name, before},
          .event = event});
}

void Quality::reportConflict(const std::string& chunkId, std::int64_t firstRequest, std::int64_t secondRequest) {
  report({.kind = "conflicting-duplicate",
          .name = sessionId_,
          .message = "chunk " + quoted(chunkId) + " came again with other events",
          .value = Dictionary{{"id", chunkId}, {"first_request", firstRequest}, {"request", secondRequest}}});
}

void Quality::reportTooManyValues(const std::string& name, const std::string& attribute, std::int64_t count,
                                  std::int64_t event) {
  report(
      {.kind = "too-many-values",
       .name = name,
       .attribute = attribute,
       .message = quoted(attribute) + " of " + quoted(name) + " has more than " + std::to_string(count - 1) + " values",
       .value = Dictionary{{"name", name}, {"attribute", attribute}, {"values", count}},
       .event = event});
}

}  // namespace kelvo::collector
