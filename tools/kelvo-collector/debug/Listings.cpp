#include "kelvo-collector/debug/Listings.h"

#include <cstring>
#include <utility>

#include "kelvo-collector/debug/Problems.h"
#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Gaps.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "kelvo-service/Parameters.h"
#include "kelvo-service/Service.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr std::size_t kMostChunks = 1000;
/// Sessions that one page examines at most if the listing has a limit.
constexpr int kExaminedSessions = 10'000;
constexpr int kMostNames = 200;

#define KELVO_SESSION_COLUMNS                                                       \
  "SELECT id, application, user_id, record, app, device, received, chunks, events," \
  " (SELECT count(*) FROM problem_rows WHERE scope = key" KELVO_CHECKED_KINDS "), sequence FROM sessions "

/// Returns the session in the current row of `query`. Sets `sequence` to its position in the order of arrival.
Dictionary readSession(Database::Query& query, std::int64_t& sequence) {
  Dictionary row{{"id", query.text()}, {"application", query.text()}, {"user", query.text()}};
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

/// Returns true if a member by which people look for a session contains `part`, in any case.
bool isFound(const Dictionary& session, const std::string& part) {
  for (const char* member : {"user", "id", "application", "app_name", "app_version", "device"}) {
    if (contains(session[member].asText().value_or(""), part)) return true;
  }
  return false;
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

/// Returns the newest ledger that the session's chunks carry, with the number of events that the store has of the
/// device, null if they carry none. The number leaves out aggregate events: devices do not store them.
Value ledgerOf(Database& database, std::int64_t session) {
  Dictionary ledger;
  {
    Database::Query row(database, "SELECT number, ledger FROM ledgers WHERE session = ?", session);
    if (!row.next()) return {};
    ledger.set("chunk", row.number());
    ledger.set("counts", stored(row.text()));
  }
  Database::Query row(database,
                      "SELECT sum(count) FROM counters JOIN sessions ON key = session WHERE what = 'kind'"
                      " AND item <> 'aggregate' AND (application, device_id) ="
                      " (SELECT application, device_id FROM sessions WHERE key = ?)",
                      session);
  ledger.set("received", row.next() ? row.number() : 0);
  return ledger;
}

std::int64_t sumOf(Database& database, const char* what) {
  Database::Query row(database, "SELECT sum(count) FROM counters WHERE session = 0 AND what = ?", what);
  return row.next() ? row.number() : 0;
}

}  // namespace

bool contains(const std::string& text, const std::string& part) {
  return strcasestr(text.c_str(), part.c_str()) != nullptr;
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

Value stored(const std::string& json) {
  return parseJSON(json).value_or(Value());
}

Filter filterOf(const Request& request) {
  const service::Parameters parameters(request.parameters);
  Filter filter;
  filter.session = parameters.text("session");
  filter.kind = parameters.text("kind");
  filter.name = parameters.text("name");
  filter.text = parameters.text("text");
  filter.user = parameters.text("user");
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

Dictionary listSessions(Database& database, std::int64_t before, std::size_t limit, const std::string& find) {
  Database::Query rows(database, KELVO_SESSION_COLUMNS "WHERE sequence < ? ORDER BY sequence DESC LIMIT ?",
                       before > 0 ? before : INT64_MAX, kExaminedSessions);
  Array list;
  std::int64_t last = 0;
  int examined = 0;
  for (; list.size() < limit && rows.next(); ++examined) {
    Dictionary row = readSession(rows, last);
    if (find.empty() || isFound(row, find)) list.append(std::move(row));
  }
  const bool more = list.size() == limit || examined == kExaminedSessions;
  return {{"sessions", std::move(list)}, {"next", more ? Value(last) : Value()}};
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
  details.set("evicted", evictionsOf(database, key));
  details.set("ledger", ledgerOf(database, key));
  return details;
}

Dictionary counts(Database& database) {
  Dictionary all;
  for (const char* item : {"sessions", "chunks", "events"}) all.set(item, totalOf(database, item));
  all.set("problems", numberOfProblems(database));
  for (const char* verdict : {"good", "bad"}) all.set(verdict, sumOf(database, verdict));
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

}  // namespace kelvo::collector
