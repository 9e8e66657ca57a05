#include "kelvo-collector/debug/Timeline.h"

#include <cstdint>
#include <utility>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/store/Database.h"

namespace kelvo::collector {
namespace {

constexpr std::size_t kMostPoints = 2000;
constexpr std::int64_t kGathered = 200;  // rows per kind if the points are gathered
constexpr std::size_t kMostScreens = 500;
constexpr std::size_t kMostMarks = 500;
/// A list that is too long is sampled: it shows the first rows of each of so many equal periods.
constexpr int kPeriods = 100;
/// Seconds before and after all times of a session.
constexpr double kBeforeAll = -1e10;
constexpr double kAfterAll = 1e10;

/// Returns the rows of `sql`, all if they are at most `most`, otherwise a sample over the whole session; then sets
/// `isSample`. The parameters of `sql` are: session, first second, end second, maximum number of rows.
template <class Read>
Array sampled(Database& database, const char* sql, std::int64_t session, double length, std::size_t most,
              bool& isSample, Read read) {
  Array list;
  const auto append = [&](double from, double to, std::size_t rows) {
    Database::Query query(database, sql, session, from, to, rows);
    while (query.next()) list.append(read(query));
  };
  append(kBeforeAll, kAfterAll, most + 1);
  if (list.size() <= most) return list;
  isSample = true;
  list = {};
  for (int i = 0; i < kPeriods; ++i) {
    append(length * i / kPeriods, length * (i + 1) / kPeriods, most / kPeriods);
  }
  return list;
}

Dictionary readScreen(Database::Query& row) {
  Dictionary screen{{"name", row.text()}};
  const Dictionary attributes = stored(row.text()).asDictionary().value_or(Dictionary{});
  screen.set("navigation_id", attributes["navigation_id"]);
  screen.set("start", row.real());
  screen.set("duration", attributes["duration"].asDouble());
  return screen;
}

Array points(Database& database, std::int64_t session, const Period& period, std::size_t limit) {
  Database::Query rows(database,
                       "SELECT second, kind, name, count FROM points WHERE session = ? AND second >= ? AND second < ?"
                       " ORDER BY second LIMIT ?",
                       session, period.from, period.to, limit);
  Array list;
  while (rows.next()) {
    Dictionary point{{"time", rows.number()}, {"kind", rows.text()}, {"name", rows.text()}};
    point.set("count", rows.number());
    list.append(std::move(point));
  }
  return list;
}

/// Returns one row for each kind and each span with points.
Array gatheredPoints(Database& database, std::int64_t session, const Period& period) {
  std::int64_t first = 0, last = 0;
  {
    Database::Query row(database,
                        "SELECT min(second), max(second) FROM points WHERE session = ? AND second >= ? AND second < ?",
                        session, period.from, period.to);
    if (row.next()) {
      first = row.number();
      last = row.number();
    }
  }
  const std::int64_t span = (last - first) / kGathered + 1;
  Database::Query rows(database,
                       "SELECT (second - ?4) / ?5, kind, count(DISTINCT name), sum(count) FROM points"
                       " WHERE session = ?1 AND second >= ?2 AND second < ?3 GROUP BY 1, 2 ORDER BY 1",
                       session, period.from, period.to, first, span);
  Array list;
  while (rows.next()) {
    Dictionary bar{{"time", first + rows.number() * span}, {"span", span}, {"kind", rows.text()}};
    bar.set("names", rows.number());
    bar.set("count", rows.number());
    list.append(std::move(bar));
  }
  return list;
}

/// Returns the periods from each FOREGROUND event to the next BACKGROUND event. The last one may have no end.
Array activePeriods(Database& database, std::int64_t session) {
  Database::Query rows(database,
                       "SELECT name, time FROM events WHERE session = ? AND kind = 'system'"
                       " AND name IN ('FOREGROUND', 'BACKGROUND') ORDER BY time, id LIMIT ?",
                       session, kMostMarks * 2);
  Array list;
  std::optional<double> start;
  while (rows.next()) {
    const bool foreground = rows.text() == "FOREGROUND";
    const double time = rows.real();
    if (foreground && !start) start = time;
    if (foreground || !start) continue;
    list.append(Dictionary{{"start", *start}, {"end", time}});
    start.reset();
  }
  if (start) list.append(Dictionary{{"start", *start}, {"end", nullptr}});
  return list;
}

Array chunkBoundaries(Database& database, std::int64_t session) {
  Database::Query rows(database,
                       "SELECT number, last_event FROM chunks WHERE session = ? AND duplicate = 0 AND conflict = 0"
                       " ORDER BY request DESC LIMIT ?",
                       session, kMostMarks);
  Array list;
  while (rows.next()) {
    Dictionary chunk{{"number", rows.number()}};
    chunk.set("time", rows.real());
    list.append(std::move(chunk));
  }
  return list;
}

}  // namespace

std::optional<Dictionary> timeline(Database& database, const std::string& id, const Period& period) {
  const std::int64_t session = sessionKey(database, id);
  if (session == 0) return std::nullopt;
  std::int64_t launch = 0;
  double length = 0;
  {
    Database::Query row(database, "SELECT launch, length FROM sessions WHERE key = ?", session);
    if (row.next()) {
      launch = row.number();
      length = row.real();
    }
  }
  bool isSample = false;
  Dictionary plot{{"launch", launch}, {"length", length}};
  plot.set("screens", sampled(database,
                              "SELECT name, attributes, time FROM events WHERE session = ? AND kind = 'navigation'"
                              " AND time >= ? AND time < ? ORDER BY time, id LIMIT ?",
                              session, length, kMostScreens, isSample, readScreen));
  plot.set("active", activePeriods(database, session));
  Array marks = points(database, session, period, kMostPoints + 1);
  const bool isGathered = marks.size() > kMostPoints;
  plot.set("points", isGathered ? gatheredPoints(database, session, period) : std::move(marks));
  plot.set("gathered", isGathered);
  plot.set("chunks", chunkBoundaries(database, session));
  plot.set("sampled", isSample);
  return plot;
}

}  // namespace kelvo::collector
