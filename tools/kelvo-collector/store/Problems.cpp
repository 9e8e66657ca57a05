#include "kelvo-collector/store/Problems.h"

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Schema.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr std::int64_t kMostOccurrences = 1000;  // kept of one row

void bindOptional(Database::Query& query, const std::optional<std::int64_t>& number) {
  number ? query.bind(*number) : query.bind(nullptr);
}

/// Inserts the row with `count` occurrences, or adds them to the row's count. Returns the count so far.
std::int64_t addToRow(Database& database, std::int64_t scope, const Problem& problem) {
  Database::Query insert(
      database,
      "INSERT INTO problem_rows (scope, kind, name, attribute, count, message, value, session, chunk, time, event)"
      " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (scope, kind, name, attribute)"
      " DO UPDATE SET count = count + excluded.count, time = excluded.time RETURNING count",
      scope, problem.kind, problem.name, problem.attribute, problem.count, problem.message,
      jsonText(problem.value).value_or("null"), problem.place.session, problem.place.chunk, problem.place.time);
  bindOptional(insert, problem.event);
  const std::int64_t count = insert.next() ? insert.number() : 0;
  insert.execute();
  return count;
}

}  // namespace

void addProblem(Database& database, const Problem& problem) {
  const std::int64_t count = addToRow(database, kAllSessions, problem);
  addToRow(database, problem.place.session, problem);
  if (count > kMostOccurrences) return;
  Database::Query insert(database,
                         "INSERT INTO occurrences (kind, name, attribute, message, value, session, chunk, time, event)"
                         " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                         problem.kind, problem.name, problem.attribute, problem.message,
                         jsonText(problem.value).value_or("null"), problem.place.session, problem.place.chunk,
                         problem.place.time);
  bindOptional(insert, problem.event);
  insert.execute();
}

void setProblem(Database& database, std::int64_t scope, const Problem& problem) {
  if (problem.count == 0) {
    Database::Query(database, "DELETE FROM problem_rows WHERE scope = ? AND kind = ? AND name = ? AND attribute = ?",
                    scope, problem.kind, problem.name, problem.attribute)
        .execute();
    return;
  }
  Database::Query update(database,
                         "UPDATE problem_rows SET count = ?, message = ?, value = ?, session = ?, chunk = ?, time = ?,"
                         " event = ? WHERE scope = ? AND kind = ? AND name = ? AND attribute = ?",
                         problem.count, problem.message, jsonText(problem.value).value_or("null"),
                         problem.place.session, problem.place.chunk, problem.place.time);
  bindOptional(update, problem.event);
  update.bind(scope);
  for (const std::string* text : {&problem.kind, &problem.name, &problem.attribute}) update.bind(*text);
  update.execute();
  if (!database.changed()) addToRow(database, scope, problem);
}

void removeProblem(Database& database, const Problem& problem) {
  Database::Query(database, "DELETE FROM problem_rows WHERE kind = ? AND name = ? AND attribute = ?", problem.kind,
                  problem.name, problem.attribute)
      .execute();
}

void removeProblems(Database& database, const char* kind) {
  Database::Query(database, "DELETE FROM problem_rows WHERE kind = ?", kind).execute();
  Database::Query(database, "DELETE FROM occurrences WHERE kind = ?", kind).execute();
}

}  // namespace kelvo::collector
