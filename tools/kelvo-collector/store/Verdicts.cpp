#include "kelvo-collector/store/Verdicts.h"

#include <set>
#include <utility>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "kelvo-collector/store/Quality.h"
#include "kelvo-collector/store/Schema.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr const char* kUnexpected = "not-as-expected";

/// Adds to the numbers of good or bad events of a name.
void countVerdict(Database& database, const JudgedEvent& judged, bool isGood, std::int64_t more) {
  for (const std::int64_t session : {kAllSessions, judged.place.session}) {
    addToCounter(database, session, isGood ? "good" : "bad", judged.event.name, more);
  }
}

/// Removes the verdict on the earlier sums of an aggregate. Returns its faults.
std::set<std::string> takeEarlier(Database& database, const JudgedEvent& judged) {
  Array faults;
  bool wasGood = false;
  {
    Database::Query earlier(database, "SELECT good, faults FROM verdicts WHERE event = ?", judged.id);
    if (!earlier.next()) return {};
    wasGood = earlier.number() != 0;
    faults = parseJSON(earlier.text()).value_or(Value()).asArray().value_or(Array());
  }
  Database::Query(database, "DELETE FROM verdicts WHERE event = ?", judged.id).execute();
  countVerdict(database, judged, wasGood, -1);
  std::set<std::string> messages;
  for (const Value& fault : faults) messages.insert(description(fault.asDictionary().value_or(Dictionary())["fault"]));
  return messages;
}

}  // namespace

void keepVerdict(Database& database, const Expectations& expectations, const JudgedEvent& judged) {
  const std::string& name = judged.event.name;
  if (!expectations.cover(name)) return;
  const std::vector<Fault> faults = expectations.faultsOf(judged.event);
  const auto known = judged.event.isAggregate ? takeEarlier(database, judged) : std::set<std::string>();
  Array list;
  for (const Fault& fault : faults) {
    list.append(Dictionary{{"attribute", fault.attribute}, {"fault", fault.message}});
    if (known.count(fault.message) != 0) continue;
    Problem problem{.kind = kUnexpected,
                    .name = name,
                    .attribute = fault.attribute,
                    .message = quoted(name) + ": " + fault.message,
                    .value = fault.value,
                    .event = judged.id,
                    .place = judged.place};
    addProblem(database, problem);
  }
  Database::Query(database, "INSERT INTO verdicts VALUES (?, ?, ?, ?, ?)", judged.id, judged.place.session, name,
                  int(faults.empty()), jsonText(list).value_or("[]"))
      .execute();
  countVerdict(database, judged, faults.empty(), 1);
}

void judgeAgain(Database& database, const Expectations& expectations) {
  database.run("DELETE FROM verdicts; DELETE FROM counters WHERE what IN ('good', 'bad')");
  removeProblems(database, kUnexpected);
  std::set<std::string> names;
  {
    Database::Query all(database, "SELECT name FROM names WHERE session = 0 AND kind IN ('app', 'aggregate')");
    while (all.next()) names.insert(all.text());
  }
  for (const std::string& name : names) {
    if (!expectations.cover(name)) continue;
    Database::Query rows(database,
                         "SELECT events.id, kind, attributes, session, chunk, requests.time FROM events JOIN requests"
                         " ON sequence = request WHERE name = ? AND kind IN ('app', 'aggregate') ORDER BY events.id",
                         name);
    while (rows.next()) {
      const std::int64_t id = rows.number();
      const bool isAggregate = rows.text() == "aggregate";
      const Dictionary attributes = dictionaryFromJSON(rows.text());
      Place place;
      place.session = rows.number();
      place.chunk = rows.number();
      place.time = rows.number();
      keepVerdict(database, expectations, {id, {name, attributes, isAggregate}, place});
    }
  }
}

}  // namespace kelvo::collector
