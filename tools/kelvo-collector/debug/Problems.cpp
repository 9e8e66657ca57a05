#include "kelvo-collector/debug/Problems.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Types.h"

namespace kelvo::collector {
namespace {

// The session and the chunk are those of the event, if there is one.
#define KELVO_PROBLEM_COLUMNS                                                               \
  "SELECT p.id, p.kind, p.name, attribute, message, value, p.time, s.id, s.user_id, event," \
  " coalesce(e.chunk, p.chunk)"
#define KELVO_PROBLEM_PLACE \
  " LEFT JOIN events e ON e.id = event LEFT JOIN sessions s ON s.key = coalesce(e.session, p.session) "

Dictionary readProblem(Database::Query& row, std::int64_t& id) {
  id = row.number();
  Dictionary problem{{"id", id}};
  for (const char* member : {"kind", "name", "attribute", "message"}) problem.set(member, row.text());
  problem.set("value", stored(row.text()));
  problem.set("time", row.number());
  for (const char* member : {"session", "user"}) problem.set(member, row.text());
  const bool hasEvent = !row.isNull();
  const std::int64_t event = row.number();
  problem.set("event", hasEvent ? Value(event) : Value());
  problem.set("chunk", row.number());
  return problem;
}

Dictionary countsByKind(Database& database, std::int64_t session) {
  Database::Query rows(database,
                       "SELECT kind, count(*) FROM problem_rows WHERE scope = ?" KELVO_CHECKED_KINDS
                       " GROUP BY kind ORDER BY kind",
                       session);
  Dictionary counts;
  while (rows.next()) {
    const std::string kind = rows.text();
    counts.set(kind, rows.number());
  }
  return counts;
}

bool isKind(const std::string& name) {
  return std::find(std::begin(kProblemKinds), std::end(kProblemKinds), name) != std::end(kProblemKinds);
}

}  // namespace

Dictionary listProblems(Database& database, const Filter& filter) {
  const auto session = sessionOf(database, filter);
  if (!session) return {{"problems", Array{}}, {"counts", Dictionary{}}, {"next", nullptr}};
  Array list;
  std::int64_t last = 0;
  {
    Database::Query rows(database,
                         KELVO_PROBLEM_COLUMNS
                         ", count FROM problem_rows p" KELVO_PROBLEM_PLACE
                         "WHERE scope = ?1 AND p.id > ?2 AND (?3 = '' OR p.kind = ?3)"
                         " AND p.kind NOT IN (SELECT kind FROM checks_off) ORDER BY p.id LIMIT ?4",
                         *session, filter.after, filter.kind, filter.limit);
    while (rows.next()) {
      Dictionary problem = readProblem(rows, last);
      problem.set("count", rows.number());
      list.append(std::move(problem));
    }
  }
  const bool full = list.size() == filter.limit;
  return {{"problems", std::move(list)},
          {"counts", countsByKind(database, *session)},
          {"next", full ? Value(last) : Value()}};
}

std::optional<Dictionary> problemDetails(Database& database, std::int64_t id, std::int64_t after, std::size_t limit) {
  std::int64_t ignored = 0, scope = 0;
  Dictionary problem;
  {
    Database::Query row(
        database, KELVO_PROBLEM_COLUMNS ", count, scope FROM problem_rows p" KELVO_PROBLEM_PLACE "WHERE p.id = ?", id);
    if (!row.next()) return std::nullopt;
    problem = readProblem(row, ignored);
    problem.set("count", row.number());
    scope = row.number();
  }
  const std::string name = *problem["name"].asText(), attribute = *problem["attribute"].asText();
  const std::string kind = *problem["kind"].asText();
  Array list;
  std::int64_t last = 0;
  Database::Query rows(database,
                       KELVO_PROBLEM_COLUMNS " FROM occurrences p" KELVO_PROBLEM_PLACE
                                             "WHERE p.kind = ?1 AND p.name = ?2 AND attribute = ?3 AND p.id > ?4"
                                             " AND (?5 = 0 OR p.session = ?5) ORDER BY p.id LIMIT ?6",
                       kind, name, attribute, after, scope, limit);
  while (rows.next()) list.append(readProblem(rows, last));
  const bool full = list.size() == limit;
  Dictionary details{{"problem", std::move(problem)}, {"occurrences", std::move(list)}};
  details.set("next", full ? Value(last) : Value());
  if (kind == "attribute-type-changes") details.set("types", typesOf(database, name, attribute));
  return details;
}

std::int64_t numberOfProblems(Database& database) {
  Database::Query row(database, "SELECT count(*) FROM problem_rows WHERE scope = 0" KELVO_CHECKED_KINDS);
  return row.next() ? row.number() : 0;
}

Dictionary checks(Database& database) {
  Dictionary all;
  for (const char* kind : kProblemKinds) all.set(kind, true);
  Database::Query rows(database, "SELECT kind FROM checks_off");
  while (rows.next()) all.set(rows.text(), false);
  return all;
}

std::vector<std::string> faultsOfChecks(const Value& choice) {
  const auto* kinds = choice.get<Dictionary>();
  if (kinds == nullptr) return {"the body is not an object with kinds of problems"};
  std::vector<std::string> faults;
  for (const auto& [kind, isOn] : *kinds) {
    if (!isKind(kind))
      faults.push_back("there is no check " + kind);
    else if (isOn.get<bool>() == nullptr)
      faults.push_back(kind + " is not true or false");
  }
  return faults;
}

void switchChecks(Database& database, const Dictionary& choice) {
  for (const auto& [kind, isOn] : choice) {
    const char* sql =
        isOn.asBool() ? "DELETE FROM checks_off WHERE kind = ?" : "INSERT OR IGNORE INTO checks_off VALUES (?)";
    Database::Query(database, sql, std::string(kind)).execute();
  }
}

}  // namespace kelvo::collector
