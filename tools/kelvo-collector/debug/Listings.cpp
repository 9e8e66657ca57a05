#include "kelvo-collector/debug/Listings.h"

#include <strings.h>

#include <cstring>
#include <utility>

#include "kelvo-collector/service/Parameters.h"
#include "kelvo-collector/service/Service.h"
#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr std::size_t kMostChunks = 1000;
/// Rows that one page of events examines at most.
constexpr std::size_t kExaminedRows = 50'000;
constexpr int kMostNames = 200;

#define KELVO_SESSION_COLUMNS \
  "SELECT id, application, record, app, device, received, chunks, events, problems, sequence FROM sessions "

/// Returns the session in the current row of `query`. Sets `sequence` to its position in the order of arrival.
Dictionary readSession(Database::Query& query, std::int64_t& sequence) {
  Dictionary row{{"id", query.text()}, {"application", query.text()}};
  const Dictionary record = dictionaryFromJSON(query.text()), app = dictionaryFromJSON(query.text());
  const Dictionary device = dictionaryFromJSON(query.text());
  for (const char* name : {"app_name", "app_version"}) row.set(name, app[name]);
  row.set("device", device["id"]);
  for (const char* name : {"hardware_model", "os_version"}) row.set(name, device[name]);
  for (const char* name :
       {"launch_time", "launch_type", "is_first_session", "is_fatal", "duration", "total_duration"}) {
    row.set(name, record[name]);
  }
  row.set("last_received", query.number());
  for (const char* name : {"chunks", "events", "problems"}) row.set(name, query.number());
  sequence = query.number();
  return row;
}

Array chunksOf(Database& database, std::int64_t session) {
  Database::Query rows(database,
                       "SELECT number, id, time, events, duplicate, conflict, request FROM chunks"
                       " WHERE session = ? ORDER BY request DESC LIMIT ?",
                       session, kMostChunks);
  Array list;
  while (rows.next()) {
    Dictionary chunk{{"number", rows.number()}, {"id", rows.text()}, {"received", rows.number()}};
    chunk.set("events", rows.number());
    for (const char* name : {"duplicate", "conflict"}) chunk.set(name, rows.number() != 0);
    chunk.set("sequence", rows.number());
    list.append(std::move(chunk));
  }
  return list;
}

#define KELVO_EVENT_COLUMNS                                                                                    \
  "SELECT events.id, kind, name, attributes, sessions.id, chunk, events.time, requests.time FROM events JOIN " \
  "sessions ON key = session JOIN requests ON requests.sequence = request "

#define KELVO_EVENTS_BY(condition)                                                               \
  {                                                                                              \
    KELVO_EVENT_COLUMNS "WHERE " condition "events.id > ?4 ORDER BY events.id LIMIT ?5",         \
        KELVO_EVENT_COLUMNS "WHERE " condition "events.id < ?4 ORDER BY events.id DESC LIMIT ?5" \
  }

/// Returns the query for the most selective index. `listEvents` checks the other limits row by row.
const char* eventsQuery(const Filter& filter) {
  static constexpr const char* queries[][2] = {KELVO_EVENTS_BY("session = ?1 AND "), KELVO_EVENTS_BY("name = ?2 AND "),
                                               KELVO_EVENTS_BY("kind = ?3 AND "), KELVO_EVENTS_BY("")};
  const int by = !filter.session.empty() ? 0 : !filter.name.empty() ? 1 : !filter.kind.empty() ? 2 : 3;
  return queries[by][filter.newestFirst ? 1 : 0];
}

bool contains(const std::string& text, const std::string& part) {
  return strcasestr(text.c_str(), part.c_str()) != nullptr;
}

/// Returns the event in the current row of `row`, whose first four columns have been read.
Dictionary readRestOfEvent(Database::Query& row, std::int64_t id, std::string kind, std::string name,
                           const std::string& attributes) {
  Dictionary event{{"id", id}, {"session", row.text()}, {"chunk", row.number()}};
  event.set("kind", std::move(kind));
  event.set("name", std::move(name));
  event.set("time", row.real());
  event.set("received", row.number());
  event.set("attributes", stored(attributes));
  return event;
}

std::int64_t totalOf(Database& database, const char* item) {
  Database::Query row(database, "SELECT count FROM counters WHERE session = 0 AND what = 'total' AND item = ?", item);
  return row.next() ? row.number() : 0;
}

Dictionary countersOf(Database& database, std::int64_t session, const char* what) {
  Database::Query rows(database,
                       "SELECT item, count FROM counters WHERE session = ? AND what = ? AND count > 0 ORDER BY item",
                       session, what);
  Dictionary all;
  while (rows.next()) {
    const std::string item = rows.text();
    all.set(item, rows.number());
  }
  return all;
}

/// Returns the number of events that a listing has on all pages, null if the store does not count it.
Value eventTotal(Database& database, const Filter& filter, std::int64_t session) {
  if (!filter.kind.empty() || !filter.name.empty() || !filter.text.empty()) return {};
  if (filter.session.empty()) return totalOf(database, "events");
  Database::Query row(database, "SELECT events FROM sessions WHERE key = ?", session);
  return row.next() ? row.number() : 0;
}

}  // namespace

Value stored(const std::string& json) {
  return parseJSON(json).value_or(Value());
}

Filter filterOf(const Question& question) {
  const Parameters parameters(question.parameters);
  Filter filter;
  filter.session = parameters.text("session");
  filter.kind = parameters.text("kind");
  filter.name = parameters.text("name");
  filter.text = parameters.text("text");
  filter.after = parameters.number("after", 0, INT64_MAX).value_or(0);
  filter.limit = static_cast<std::size_t>(parameters.number("limit", 1, kMostRows).value_or(kUsualRows));
  filter.newestFirst = parameters.text("order") == "desc";
  return filter;
}

std::int64_t sessionKey(Database& database, const std::string& id) {
  Database::Query row(database, "SELECT key FROM sessions WHERE id = ? ORDER BY sequence DESC LIMIT 1", id);
  return row.next() ? row.number() : 0;
}

std::optional<std::int64_t> sessionOf(Database& database, const Filter& filter) {
  if (filter.session.empty()) return 0;
  const std::int64_t key = sessionKey(database, filter.session);
  return key == 0 ? std::nullopt : std::optional(key);
}

Dictionary listSessions(Database& database, std::int64_t before, std::size_t limit) {
  Database::Query rows(database, KELVO_SESSION_COLUMNS "WHERE sequence < ? ORDER BY sequence DESC LIMIT ?",
                       before > 0 ? before : INT64_MAX, limit);
  Array list;
  std::int64_t last = 0;
  while (rows.next()) list.append(readSession(rows, last));
  const bool full = list.size() == limit;
  return {{"sessions", std::move(list)}, {"next", full ? Value(last) : Value()}};
}

Dictionary sessionRow(Database& database, std::int64_t key) {
  Database::Query row(database, KELVO_SESSION_COLUMNS "WHERE key = ?", key);
  std::int64_t sequence = 0;
  return row.next() ? readSession(row, sequence) : Dictionary{};
}

std::optional<Dictionary> sessionDetails(Database& database, const std::string& id) {
  const std::int64_t key = sessionKey(database, id);
  if (key == 0) return std::nullopt;
  Dictionary details{{"session", sessionRow(database, key)}};
  {
    Database::Query row(database, "SELECT record, user, device, app, sdk FROM sessions WHERE key = ?", key);
    if (row.next()) {
      for (const char* name : {"record", "user", "device", "app", "sdk"}) details.set(name, stored(row.text()));
    }
  }
  details.set("chunks", chunksOf(database, key));
  return details;
}

Dictionary listEvents(Database& database, const Filter& filter) {
  const std::int64_t session = sessionOf(database, filter).value_or(0);  // no session has row 0
  const Value total = eventTotal(database, filter, session);
  Array list;
  std::int64_t last = 0;
  std::size_t examined = 0;
  bool more = false;
  {
    const std::int64_t after = filter.newestFirst && filter.after == 0 ? INT64_MAX : filter.after;
    Database::Query rows(database, eventsQuery(filter), session, filter.name, filter.kind, after, kExaminedRows + 1);
    while (rows.next()) {
      more = list.size() == filter.limit || examined++ == kExaminedRows;
      if (more) break;
      last = rows.number();
      std::string kind = rows.text(), name = rows.text();
      const std::string attributes = rows.text();
      if (!filter.kind.empty() && kind != filter.kind) continue;
      if (!filter.name.empty() && name != filter.name) continue;
      if (!filter.text.empty() && !contains(name, filter.text) && !contains(attributes, filter.text)) continue;
      list.append(readRestOfEvent(rows, last, std::move(kind), std::move(name), attributes));
    }
  }
  return {{"events", std::move(list)}, {"next", more ? Value(last) : Value()}, {"total", total}};
}

std::optional<Dictionary> eventDetails(Database& database, std::int64_t id) {
  Dictionary event;
  {
    Database::Query row(database, KELVO_EVENT_COLUMNS "WHERE events.id = ?", id);
    if (!row.next()) return std::nullopt;
    const std::int64_t number = row.number();
    std::string kind = row.text(), name = row.text();
    const std::string attributes = row.text();
    event = readRestOfEvent(row, number, std::move(kind), std::move(name), attributes);
  }
  Database::Query row(database,
                      "SELECT substr(body, position + 1, size), request FROM events"
                      " JOIN requests ON sequence = request WHERE id = ?",
                      id);
  Dictionary details{{"event", std::move(event)}};
  if (row.next()) {
    details.set("json", row.text());
    details.set("request", row.number());
  }
  return details;
}

Dictionary listProblems(Database& database, const Filter& filter) {
  const auto session = sessionOf(database, filter);
  const char* sql =
      !filter.session.empty() ? "SELECT p.id, s.id, kind, message, value, p.time, event, chunk FROM problems p"
                                " JOIN sessions s ON key = session WHERE session = ?1 AND p.id > ?3"
                                " AND (?2 = '' OR kind = ?2) ORDER BY p.id LIMIT ?4"
      : filter.kind.empty()   ? "SELECT p.id, s.id, kind, message, value, p.time, event, chunk FROM problems p"
                                " JOIN sessions s ON key = session WHERE p.id > ?3 ORDER BY p.id LIMIT ?4"
                              : "SELECT p.id, s.id, kind, message, value, p.time, event, chunk FROM problems p"
                                " JOIN sessions s ON key = session WHERE kind = ?2 AND p.id > ?3 ORDER BY p.id LIMIT ?4";
  Array list;
  std::int64_t last = 0;
  {
    Database::Query rows(database, sql, session.value_or(0), filter.kind, filter.after, filter.limit);
    while (rows.next()) {
      last = rows.number();
      Dictionary problem{{"id", last}, {"session", rows.text()}, {"kind", rows.text()}, {"message", rows.text()}};
      problem.set("value", stored(rows.text()));
      problem.set("time", rows.number());
      for (const char* name : {"event", "chunk"}) {
        const bool none = rows.isNull();
        const std::int64_t number = rows.number();
        problem.set(name, none ? Value() : Value(number));
      }
      list.append(std::move(problem));
    }
  }
  const bool full = list.size() == filter.limit;
  Dictionary byKind;
  if (session) byKind = countersOf(database, *session, "problem");
  return {{"problems", std::move(list)}, {"counts", std::move(byKind)}, {"next", full ? Value(last) : Value()}};
}

Dictionary counts(Database& database) {
  Dictionary all;
  for (const char* item : {"sessions", "chunks", "events", "problems"}) all.set(item, totalOf(database, item));
  all.set("byKind", countersOf(database, 0, "kind"));
  Database::Query rows(
      database, "SELECT kind, name, count FROM names WHERE session = 0 ORDER BY count DESC, name LIMIT ?", kMostNames);
  Array names;
  while (rows.next()) {
    Dictionary name{{"kind", rows.text()}, {"name", rows.text()}};
    name.set("count", rows.number());
    names.append(std::move(name));
  }
  all.set("byName", std::move(names));
  return all;
}

std::int64_t countEvents(Database& database, const Filter& filter) {
  const auto session = sessionOf(database, filter);
  if (!session) return 0;
  const char* sql = !filter.name.empty() ? "SELECT sum(count) FROM names WHERE session = ?1 AND name = ?3"
                                           " AND kind IN (SELECT item FROM counters WHERE session = 0 AND what = 'kind'"
                                           " AND (?2 = '' OR item = ?2))"
                                         : "SELECT sum(count) FROM counters WHERE session = ?1 AND what = 'kind'"
                                           " AND (?2 = '' OR item = ?2)";
  Database::Query row(database, sql, *session, filter.kind, filter.name);
  return row.next() ? row.number() : 0;
}

}  // namespace kelvo::collector
