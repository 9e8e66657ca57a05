#include "kelvo-collector/store/Types.h"

#include <utility>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Problems.h"
#include "kelvo-collector/store/Schema.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

/// One type of an attribute.
struct Seen {
  unsigned type = 0;
  std::int64_t count = 0;
  std::int64_t event = 0;  // the first one with a value of this type
  Value value;             // of that event
};

/// Returns the types of an attribute, the rarest first. Of types that are equally frequent, the later one comes first.
std::vector<Seen> readTypes(Database& database, std::int64_t scope, const AttributeOf& of) {
  Database::Query rows(database,
                       "SELECT type, count, event, value FROM attributes JOIN attribute_types AS t ON t.attribute = key"
                       " WHERE session = ? AND name = ? AND kind = ? AND attributes.attribute = ?"
                       " ORDER BY count, event DESC",
                       scope, of.name, of.kind, of.attribute);
  std::vector<Seen> types;
  while (rows.next()) {
    Seen& seen = types.emplace_back();
    seen.type = static_cast<unsigned>(rows.number());
    seen.count = rows.number();
    seen.event = rows.number();
    seen.value = parseJSON(rows.text()).value_or(Value());
  }
  return types;
}

Dictionary described(const Seen& seen) {
  return {{"type", nameOfType(seen.type)}, {"value", seen.value}, {"event", seen.event}};
}

std::string example(const Seen& seen) {
  return jsonText(seen.value).value_or("null") + " in event " + std::to_string(seen.event);
}

/// Returns the problem without its count. `types` are those of all sessions; its last element is the usual type.
Problem problemOf(const AttributeOf& of, const std::vector<Seen>& types, const Place& place) {
  const Seen &rare = types.front(), &usual = types.back();
  Array values;
  for (const Seen& seen : types) values.append(described(seen));
  Problem problem;
  problem.kind = kTypeChanges;
  problem.name = of.name;
  problem.attribute = of.attribute;
  problem.message = quoted(of.attribute) + " of " + quoted(of.name) + " is " +
                    (rare.count < usual.count ? "usually a " : "a ") + nameOfType(usual.type) + " (" + example(usual) +
                    "), but also a " + nameOfType(rare.type) + " (" + example(rare) + ")";
  problem.value = std::move(values);
  problem.place = place;
  return problem;
}

/// Writes the problem's row of one session, if that session has a value whose type is not `usual`.
void setForSession(Database& database, const AttributeOf& of, unsigned usual, std::int64_t session, Problem problem) {
  problem.count = 0;
  problem.place.session = session;
  for (const Seen& seen : readTypes(database, session, of)) {
    if (seen.type == usual) continue;
    if (problem.count == 0) problem.event = seen.event;
    problem.count += seen.count;
  }
  if (problem.count > 0) setProblem(database, session, problem);
}

std::vector<std::int64_t> sessionsWith(Database& database, const AttributeOf& of) {
  Database::Query rows(database,
                       "SELECT session FROM attributes WHERE session > 0 AND name = ? AND kind = ? AND attribute = ?",
                       of.name, of.kind, of.attribute);
  std::vector<std::int64_t> sessions;
  while (rows.next()) sessions.push_back(rows.number());
  return sessions;
}

/// Returns the type that was the most frequent one when the problem was last written, empty if it is a new problem.
std::string usualTypeSoFar(Database& database, const Problem& problem) {
  Database::Query row(database,
                      "SELECT json_extract(value, '$[#-1].type') FROM problem_rows"
                      " WHERE scope = 0 AND kind = ? AND name = ? AND attribute = ?",
                      problem.kind, problem.name, problem.attribute);
  return row.next() ? row.text() : std::string();
}

}  // namespace

TypeBit typeOf(const Value& value) {
  if (value.get<std::string>() != nullptr) return kText;
  if (value.get<bool>() != nullptr) return kBoolean;
  if (value.isNumber()) return kNumber;
  if (value.get<Array>() != nullptr) return kList;
  return value.get<Dictionary>() != nullptr ? kDictionary : kNoType;
}

const char* nameOfType(unsigned type) {
  switch (type) {
    case kText: return "text";
    case kNumber: return "number";
    case kBoolean: return "boolean";
    case kList: return "list";
    default: return "dictionary";
  }
}

void reportTypes(Database& database, const AttributeOf& of, const Place& place) {
  const std::vector<Seen> types = readTypes(database, kAllSessions, of);
  if (types.size() < 2) return;
  const Seen& usual = types.back();
  Problem problem = problemOf(of, types, place);
  const bool isSameFault = usualTypeSoFar(database, problem) == nameOfType(usual.type);
  if (!isSameFault) removeProblem(database, problem);

  problem.event = types.front().event;
  problem.count = 0;
  for (const Seen& seen : types) problem.count += seen.type == usual.type ? 0 : seen.count;
  setProblem(database, kAllSessions, problem);
  const auto sessions = isSameFault ? std::vector{place.session} : sessionsWith(database, of);
  for (const std::int64_t session : sessions) setForSession(database, of, usual.type, session, problem);
}

Array typesOf(Database& database, const std::string& name, const std::string& attribute) {
  Array list;
  for (const std::string kind : {"app", "aggregate"}) {
    for (const Seen& seen : readTypes(database, kAllSessions, {kind, name, attribute})) {
      Dictionary type = described(seen);
      type.set("count", seen.count);
      list.append(std::move(type));
    }
  }
  return list;
}

}  // namespace kelvo::collector
