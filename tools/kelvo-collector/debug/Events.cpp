#include "kelvo-collector/debug/Events.h"

#include <string>
#include <utility>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/store/Database.h"

namespace kelvo::collector {
namespace {

/// Rows that one page examines at most.
constexpr std::size_t kExaminedRows = 50'000;

#define KELVO_EVENT_COLUMNS                                                                            \
  "SELECT events.id, kind, name, attributes, user_id, sessions.id, chunk, events.time, requests.time " \
  "FROM events JOIN sessions ON key = session JOIN requests ON requests.sequence = request "

#define KELVO_EVENTS_BY(condition)                                                               \
  {                                                                                              \
    KELVO_EVENT_COLUMNS "WHERE " condition "events.id > ?4 ORDER BY events.id LIMIT ?5",         \
        KELVO_EVENT_COLUMNS "WHERE " condition "events.id < ?4 ORDER BY events.id DESC LIMIT ?5" \
  }

#define KELVO_JUDGED_COLUMNS                                                                                   \
  "SELECT events.id, kind, events.name, attributes, user_id, sessions.id, chunk, events.time, requests.time, " \
  "faults FROM verdicts JOIN events ON events.id = event JOIN sessions ON key = events.session JOIN requests " \
  "ON requests.sequence = request WHERE good = ?1 AND (?2 = '' OR verdicts.name = ?2) "                        \
  "AND (?3 = 0 OR verdicts.session = ?3) "

/// Returns the query for the most selective index. `listEvents` checks the other limits row by row.
const char* eventsQuery(const Filter& filter) {
  static constexpr const char* queries[][2] = {KELVO_EVENTS_BY("session = ?1 AND "), KELVO_EVENTS_BY("name = ?2 AND "),
                                               KELVO_EVENTS_BY("kind = ?3 AND "), KELVO_EVENTS_BY("")};
  const int by = !filter.session.empty() ? 0 : !filter.name.empty() ? 1 : !filter.kind.empty() ? 2 : 3;
  return queries[by][filter.newestFirst ? 1 : 0];
}

/// The first columns of an event's row, which decide whether the listing shows it.
struct EventHead {
  std::int64_t id;
  std::string kind, name, attributes, user;
};

EventHead readHead(Database::Query& row) {
  EventHead head{row.number(), row.text(), row.text(), row.text(), row.text()};
  return head;
}

bool matches(const EventHead& event, const Filter& filter) {
  if (!filter.kind.empty() && event.kind != filter.kind) return false;
  if (!filter.name.empty() && event.name != filter.name) return false;
  if (!filter.user.empty() && !contains(event.user, filter.user)) return false;
  return filter.text.empty() || contains(event.name, filter.text) || contains(event.attributes, filter.text);
}

/// Returns the event in the current row of `row`, whose first columns are `head`.
Dictionary readEvent(Database::Query& row, EventHead head) {
  Dictionary event{{"id", head.id}, {"session", row.text()}, {"chunk", row.number()}};
  event.set("kind", std::move(head.kind));
  event.set("name", std::move(head.name));
  event.set("user", std::move(head.user));
  event.set("time", row.real());
  event.set("received", row.number());
  event.set("attributes", stored(head.attributes));
  return event;
}

/// Returns the number of events that a listing has on all pages, null if the store does not count it.
Value eventTotal(Database& database, const Filter& filter, std::int64_t session) {
  if (!filter.kind.empty() || !filter.name.empty() || !filter.text.empty() || !filter.user.empty()) {
    return {};
  }
  if (filter.session.empty()) return totalOf(database, "events");
  Database::Query row(database, "SELECT events FROM sessions WHERE key = ?", session);
  return row.next() ? row.number() : 0;
}

}  // namespace

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
      EventHead head = readHead(rows);
      last = head.id;
      if (matches(head, filter)) list.append(readEvent(rows, std::move(head)));
    }
  }
  return {{"events", std::move(list)}, {"next", more ? Value(last) : Value()}, {"total", total}};
}

std::optional<Dictionary> eventDetails(Database& database, std::int64_t id) {
  Dictionary event;
  {
    Database::Query row(database, KELVO_EVENT_COLUMNS "WHERE events.id = ?", id);
    if (!row.next()) return std::nullopt;
    EventHead head = readHead(row);
    event = readEvent(row, std::move(head));
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

Dictionary listJudged(Database& database, bool good, const Filter& filter) {
  const auto session = sessionOf(database, filter);
  if (!session) return {{"events", Array{}}, {"next", nullptr}, {"count", 0}};
  Array list;
  std::int64_t last = 0;
  {
    const std::int64_t after = filter.newestFirst && filter.after == 0 ? INT64_MAX : filter.after;
    Database::Query rows(database,
                         filter.newestFirst ? KELVO_JUDGED_COLUMNS "AND event < ?4 ORDER BY event DESC LIMIT ?5"
                                            : KELVO_JUDGED_COLUMNS "AND event > ?4 ORDER BY event LIMIT ?5",
                         int(good), filter.name, *session, after, filter.limit);
    while (rows.next()) {
      EventHead head = readHead(rows);
      last = head.id;
      Dictionary event = readEvent(rows, std::move(head));
      event.set("faults", stored(rows.text()));
      list.append(std::move(event));
    }
  }
  Database::Query total(database,
                        "SELECT coalesce(sum(count), 0) FROM counters WHERE session = ?1 AND what = ?2"
                        " AND (?3 = '' OR item = ?3)",
                        *session, good ? "good" : "bad", filter.name);
  const std::int64_t count = total.next() ? total.number() : 0;
  const bool full = list.size() == filter.limit;
  return {{"events", std::move(list)}, {"next", full ? Value(last) : Value()}, {"count", count}};
}

}  // namespace kelvo::collector
