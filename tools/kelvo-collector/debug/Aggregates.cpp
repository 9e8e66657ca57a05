#include "kelvo-collector/debug/Aggregates.h"

#include <utility>
#include <vector>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/store/Database.h"

namespace kelvo::collector {
namespace {

constexpr int kMostNames = 100;
constexpr int kMostAttributes = 50;
/// Limits for the values of an attribute: in the list of all events, and for a single event.
constexpr int kFewValues = 20;
constexpr int kMostValues = 200;

Array valuesOf(Database& database, std::int64_t session, const std::string& name, const std::string& attribute,
               int most) {
  Database::Query rows(
      database,
      "SELECT value, sum(count) AS times FROM attributes JOIN attribute_values AS v ON v.attribute = key"
      " WHERE session = ? AND name = ? AND attributes.attribute = ?"
      " GROUP BY value ORDER BY times DESC, value LIMIT ?",
      session, name, attribute, most);
  Array list;
  while (rows.next()) {
    Dictionary value{{"value", stored(rows.text())}};
    value.set("count", rows.number());
    list.append(std::move(value));
  }
  return list;
}

Array attributesOf(Database& database, std::int64_t session, const std::string& name, int mostValues) {
  std::vector<std::pair<std::string, std::int64_t>> found;
  {
    Database::Query rows(database,
                         "SELECT attribute, max(distinct_values) FROM attributes WHERE session = ? AND name = ?"
                         " GROUP BY attribute ORDER BY attribute LIMIT ?",
                         session, name, kMostAttributes);
    while (rows.next()) {
      std::string attribute = rows.text();
      found.emplace_back(std::move(attribute), rows.number());
    }
  }
  Array list;
  for (const auto& [attribute, distinct] : found) {
    list.append(Dictionary{{"name", attribute},
                           {"distinct", distinct},
                           {"values", valuesOf(database, session, name, attribute, mostValues)}});
  }
  return list;
}

}  // namespace

Dictionary aggregates(Database& database, const Filter& filter) {
  const auto session = sessionOf(database, filter);
  if (!session) return {{"events", Array{}}};
  std::vector<std::pair<std::string, std::int64_t>> names;
  {
    Database::Query rows(database,
                         "SELECT name, sum(count) AS times FROM names WHERE session = ?1"
                         " AND kind IN ('app', 'aggregate') AND (?2 = '' OR name = ?2)"
                         " GROUP BY name ORDER BY times DESC, name LIMIT ?3",
                         *session, filter.name, kMostNames);
    while (rows.next()) {
      std::string name = rows.text();
      names.emplace_back(std::move(name), rows.number());
    }
  }
  Array events;
  for (const auto& [name, count] : names) {
    const int most = filter.name.empty() ? kFewValues : kMostValues;
    events.append(
        Dictionary{{"name", name}, {"count", count}, {"attributes", attributesOf(database, *session, name, most)}});
  }
  return {{"events", std::move(events)}};
}

}  // namespace kelvo::collector
