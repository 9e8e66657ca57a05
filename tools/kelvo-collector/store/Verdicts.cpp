#include "kelvo-collector/store/Verdicts.h"

#include <utility>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Expectations.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "kelvo-collector/store/Quality.h"
#include "kelvo-collector/store/Schema.h"

namespace kelvo::collector {
namespace {

constexpr const char* kUnexpected = "not-as-expected";

}  // namespace

void keepVerdict(Database& database, const Expectations& expectations, const JudgedEvent& event) {
  if (!expectations.cover(event.name)) return;
  const std::vector<Fault> faults = expectations.faultsOf(event.name, event.attributes);
  Array list;
  for (const Fault& fault : faults) {
    list.append(Dictionary{{"attribute", fault.attribute}, {"fault", fault.message}});
    Problem problem{.kind = kUnexpected,
                    .name = event.name,
                    .attribute = fault.attribute,
                    .message = quoted(event.name) + ": " + fault.message,
                    .value = fault.value,
                    .event = event.id,
                    .place = event.place};
    addProblem(database, problem);
  }
  Database::Query(database, "INSERT INTO verdicts VALUES (?, ?, ?, ?, ?)", event.id, event.place.session, event.name,
                  int(faults.empty()), jsonText(list).value_or("[]"))
      .execute();
  for (const std::int64_t session : {kAllSessions, event.place.session}) {
    addToCounter(database, session, faults.empty() ? "good" : "bad", event.name, 1);
  }
}

void judgeAgain(Database& database, const Expectations& expectations) {
  database.run("DELETE FROM verdicts; DELETE FROM counters WHERE what IN ('good', 'bad')");
  removeProblems(database, kUnexpected);
  for (const std::string& name : expectations.names()) {
    Database::Query rows(database,
                         "SELECT events.id, attributes, session, chunk, requests.time FROM events"
                         " JOIN requests ON sequence = request WHERE name = ? AND kind = 'app' ORDER BY events.id",
                         name);
    while (rows.next()) {
      const std::int64_t id = rows.number();
      const Dictionary attributes = dictionaryFromJSON(rows.text());
      Place place;
      place.session = rows.number();
      place.chunk = rows.number();
      place.time = rows.number();
      keepVerdict(database, expectations, {id, name, attributes, place});
    }
  }
}

}  // namespace kelvo::collector
