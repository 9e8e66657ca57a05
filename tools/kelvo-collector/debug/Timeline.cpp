#include <algorithm>
#include <utility>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/store/Database.h"

namespace kelvo::collector {
namespace {

constexpr std::size_t kMostPoints = 2000;
constexpr std::size_t kMostScreens = 500;
constexpr std::size_t kMostMarks = 500;
/// A plot that would hold too much shows a few of each of that many stretches of time.
constexpr int kStretches = 100;

/// Rows of one list of a plot: all when they are few, else a sample from everywhere. `sql` takes session, first and
/// last second, and most rows.
template <class Read>
Array sampled(Database& database, const char* sql, std::int64_t session, double length, std::size_t most,
              bool& isSample, Read read) {
  Array list;
  const auto append = [&](double from, double to, std::size_t rows) {
    Database::Query query(database, sql, session, from, to, rows);
    while (query.next()) list.append(read(query));
  };
  append(-1e10, 1e10, most + 1);
  if (list.size() <= most) return list;
  isSample = true;
  list = {};
  for (int i = 0; i < kStretches; ++i) {
    append(length * i / kStretches, length * (i + 1) / kStretches, most / kStretches);
  }
  return list;
}

Dictionary readScreen(Database::Query& row) {
  Dictionary screen{{"name", row.text()}};
  const Value attributes = stored(row.text());
  const auto* of = attributes.get<Dictionary>();
  screen.set("navigation_id", of == nullptr ? Value() : (*of)["navigation_id"]);
  screen.set("start", row.real());
  screen.set("duration", of == nullptr ? 0.0 : (*of)["duration"].asDouble());
  return screen;
}

Dictionary readPoint(Database::Query& row) {
  Dictionary point{{"time", row.number()}, {"kind", row.text()}, {"name", row.text()}};
  point.set("count", row.number());
  return point;
}

/// From each coming to the foreground until the next going to the background.
Array activeStretches(Database& database, std::int64_t session) {
  Database::Query rows(database,
                       "SELECT name, time FROM events WHERE session = ? AND kind = 'system'"
                       " AND name IN ('FOREGROUND', 'BACKGROUND') ORDER BY time, id LIMIT ?",
                       session, kMostMarks * 2);
  Array list;
  std::optional<double> start;
  while (rows.next()) {
    const bool comes = rows.text() == "FOREGROUND";
    const double time = rows.real();
    if (comes && !start) start = time;
    if (comes || !start) continue;
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

std::optional<Dictionary> timeline(Database& database, const std::string& id) {
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
  plot.set("active", activeStretches(database, session));
  plot.set("points", sampled(database,
                             "SELECT second, kind, name, count FROM points WHERE session = ? AND second >= ?"
                             " AND second < ? ORDER BY second LIMIT ?",
                             session, length, kMostPoints, isSample, readPoint));
  plot.set("chunks", chunkBoundaries(database, session));
  plot.set("sampled", isSample);
  return plot;
}

}  // namespace kelvo::collector
