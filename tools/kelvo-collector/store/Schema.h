#pragma once

#include <cstdint>

namespace kelvo::collector {

/// The key under which the count tables hold the totals of all sessions.
inline constexpr std::int64_t kAllSessions = 0;

/// Creates the tables. An index serves each list on the page, and each number on the page is counted on arrival, so the
/// cost of a page does not grow with the store.
inline constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS requests (sequence INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL,
  method TEXT NOT NULL, target TEXT NOT NULL, headers TEXT NOT NULL, status INTEGER NOT NULL, body BLOB NOT NULL);

CREATE TABLE IF NOT EXISTS chunks (request INTEGER PRIMARY KEY, time INTEGER NOT NULL, application TEXT NOT NULL,
  id TEXT NOT NULL, session INTEGER NOT NULL, session_id TEXT NOT NULL, number INTEGER NOT NULL,
  event_counts TEXT NOT NULL, events INTEGER NOT NULL, last_event REAL NOT NULL, fingerprint TEXT NOT NULL,
  duplicate INTEGER NOT NULL, conflict INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS chunks_by_id ON chunks (application, id);
CREATE INDEX IF NOT EXISTS chunks_by_session ON chunks (session, request);

CREATE TABLE IF NOT EXISTS sessions (key INTEGER PRIMARY KEY, application TEXT NOT NULL, id TEXT NOT NULL,
  record TEXT NOT NULL, user TEXT NOT NULL, device TEXT NOT NULL, app TEXT NOT NULL, sdk TEXT NOT NULL,
  launch INTEGER NOT NULL, length REAL NOT NULL, highest_chunk INTEGER NOT NULL, received INTEGER NOT NULL,
  sequence INTEGER NOT NULL, chunks INTEGER NOT NULL, events INTEGER NOT NULL,
  user_id TEXT NOT NULL DEFAULT '');
CREATE UNIQUE INDEX IF NOT EXISTS sessions_by_id ON sessions (id, application);
CREATE INDEX IF NOT EXISTS sessions_by_arrival ON sessions (sequence);

CREATE TABLE IF NOT EXISTS events (id INTEGER PRIMARY KEY, session INTEGER NOT NULL, chunk INTEGER NOT NULL,
  request INTEGER NOT NULL, kind TEXT NOT NULL, name TEXT NOT NULL, time REAL NOT NULL, attributes TEXT NOT NULL,
  position INTEGER NOT NULL, size INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS events_by_request ON events (request);
CREATE INDEX IF NOT EXISTS events_by_session ON events (session);
CREATE INDEX IF NOT EXISTS events_by_kind ON events (kind);
CREATE INDEX IF NOT EXISTS events_by_name ON events (name);
CREATE INDEX IF NOT EXISTS screens ON events (session, time) WHERE kind = 'navigation';
CREATE INDEX IF NOT EXISTS activity ON events (session, time) WHERE kind = 'system';
CREATE INDEX IF NOT EXISTS app_events ON events (session, name, time) WHERE kind = 'app';
CREATE UNIQUE INDEX IF NOT EXISTS aggregates ON events (session, name) WHERE kind = 'aggregate';

CREATE TABLE IF NOT EXISTS points (session INTEGER, second INTEGER, kind TEXT, name TEXT, count INTEGER NOT NULL,
  PRIMARY KEY (session, second, kind, name)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS names (session INTEGER, kind TEXT, name TEXT, count INTEGER NOT NULL,
  PRIMARY KEY (session, kind, name)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS names_in_any_case ON names (lower(name)) WHERE session = 0;
CREATE TABLE IF NOT EXISTS counters (session INTEGER, what TEXT, item TEXT, count INTEGER NOT NULL,
  PRIMARY KEY (session, what, item)) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS attributes (key INTEGER PRIMARY KEY, session INTEGER NOT NULL, kind TEXT NOT NULL,
  name TEXT NOT NULL, attribute TEXT NOT NULL, types INTEGER NOT NULL, distinct_values INTEGER NOT NULL);
CREATE UNIQUE INDEX IF NOT EXISTS attributes_by_name ON attributes (session, name, kind, attribute);
CREATE TABLE IF NOT EXISTS attribute_values (attribute INTEGER, value TEXT, count INTEGER NOT NULL,
  PRIMARY KEY (attribute, value)) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS attribute_types (attribute INTEGER, type INTEGER, count INTEGER NOT NULL,
  event INTEGER NOT NULL, value TEXT NOT NULL, PRIMARY KEY (attribute, type)) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS problem_rows (id INTEGER PRIMARY KEY AUTOINCREMENT, scope INTEGER NOT NULL,
  kind TEXT NOT NULL, name TEXT NOT NULL, attribute TEXT NOT NULL, count INTEGER NOT NULL, message TEXT NOT NULL,
  value TEXT NOT NULL, session INTEGER NOT NULL, event INTEGER, chunk INTEGER NOT NULL, time INTEGER NOT NULL);
CREATE UNIQUE INDEX IF NOT EXISTS problem_rows_by_name ON problem_rows (scope, kind, name, attribute);
CREATE INDEX IF NOT EXISTS problem_rows_by_kind ON problem_rows (kind, name, attribute);
CREATE TABLE IF NOT EXISTS occurrences (id INTEGER PRIMARY KEY, kind TEXT NOT NULL, name TEXT NOT NULL,
  attribute TEXT NOT NULL, message TEXT NOT NULL, value TEXT NOT NULL, session INTEGER NOT NULL, event INTEGER,
  chunk INTEGER NOT NULL, time INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS occurrences_by_name ON occurrences (kind, name, attribute);
CREATE TABLE IF NOT EXISTS gaps (session INTEGER, first INTEGER, last INTEGER NOT NULL,
  PRIMARY KEY (session, first)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS checks_off (kind TEXT PRIMARY KEY) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS verdicts (event INTEGER PRIMARY KEY, session INTEGER NOT NULL, name TEXT NOT NULL,
  good INTEGER NOT NULL, faults TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS verdicts_by_result ON verdicts (good);

CREATE TABLE IF NOT EXISTS users (key INTEGER PRIMARY KEY, application TEXT NOT NULL, id TEXT NOT NULL,
  attributes TEXT NOT NULL, received INTEGER NOT NULL);
CREATE UNIQUE INDEX IF NOT EXISTS users_by_id ON users (id, application);
CREATE INDEX IF NOT EXISTS users_by_arrival ON users (received);
CREATE TABLE IF NOT EXISTS user_history (id INTEGER PRIMARY KEY, user INTEGER NOT NULL, received INTEGER NOT NULL,
  attributes TEXT NOT NULL, changed TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS history_by_user ON user_history (user);

CREATE TABLE IF NOT EXISTS documents (name TEXT PRIMARY KEY, body TEXT NOT NULL) WITHOUT ROWID;
)sql";

/// Brings the tables of an earlier version, whose sessions have a column "problems", to the present form.
inline constexpr const char* kUpgrade = R"sql(
DROP TABLE problems; ALTER TABLE sessions DROP COLUMN problems;
ALTER TABLE sessions ADD COLUMN user_id TEXT NOT NULL DEFAULT '';
)sql";

/// Deletes all requests and everything derived from them. Documents and the choice of checks stay, and sequence numbers
/// continue.
inline constexpr const char* kForgetArrivals = R"sql(
DELETE FROM requests; DELETE FROM chunks; DELETE FROM sessions; DELETE FROM events; DELETE FROM points;
DELETE FROM names; DELETE FROM counters; DELETE FROM attributes; DELETE FROM attribute_values;
DELETE FROM attribute_types; DELETE FROM problem_rows; DELETE FROM occurrences; DELETE FROM gaps; DELETE FROM verdicts;
DELETE FROM users; DELETE FROM user_history;
)sql";

/// Deletes every session that has no chunk left, and everything derived from it.
inline constexpr const char* kForgetEmptySessions = R"sql(
CREATE TEMP TABLE empty AS SELECT key FROM sessions WHERE NOT EXISTS (SELECT 1 FROM chunks WHERE session = key);
DELETE FROM attribute_values WHERE attribute IN (SELECT key FROM attributes WHERE session IN (SELECT key FROM empty));
DELETE FROM attribute_types WHERE attribute IN (SELECT key FROM attributes WHERE session IN (SELECT key FROM empty));
DELETE FROM attributes WHERE session IN (SELECT key FROM empty);
DELETE FROM events WHERE session IN (SELECT key FROM empty);
DELETE FROM points WHERE session IN (SELECT key FROM empty);
DELETE FROM names WHERE session IN (SELECT key FROM empty);
DELETE FROM counters WHERE session IN (SELECT key FROM empty);
DELETE FROM verdicts WHERE session IN (SELECT key FROM empty);
DELETE FROM occurrences WHERE session IN (SELECT key FROM empty);
DELETE FROM gaps WHERE session IN (SELECT key FROM empty);
DELETE FROM problem_rows WHERE scope IN (SELECT key FROM empty);
DELETE FROM sessions WHERE key IN (SELECT key FROM empty);
DROP TABLE empty;
)sql";

}  // namespace kelvo::collector
