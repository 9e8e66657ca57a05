#pragma once

#include <cstdint>

namespace kelvo::collector {

/// The key under which the count tables hold the totals of all sessions.
inline constexpr std::int64_t kAllSessions = 0;

/// Creates the tables. An index serves each list on the page, and each number on the page is counted on arrival, so the
/// cost of a page does not grow with the store.
inline constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS requests (sequence INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL,
  method TEXT NOT NULL, target TEXT NOT NULL, headers TEXT NOT NULL, status INTEGER NOT NULL, body BLOB NOT NULL,
  application TEXT NOT NULL DEFAULT '', device TEXT NOT NULL DEFAULT '');
CREATE INDEX IF NOT EXISTS requests_by_device ON requests (application, device) WHERE device <> '';

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
  user_id TEXT NOT NULL DEFAULT '', device_id TEXT NOT NULL DEFAULT '');
CREATE UNIQUE INDEX IF NOT EXISTS sessions_by_id ON sessions (id, application, device_id);
CREATE INDEX IF NOT EXISTS sessions_by_device ON sessions (application, device_id, launch);
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
  evicted INTEGER NOT NULL DEFAULT 0, PRIMARY KEY (session, first)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS evictions (session INTEGER, number INTEGER, events INTEGER NOT NULL, chunks INTEGER NOT NULL,
  PRIMARY KEY (session, number)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS ledgers (session INTEGER PRIMARY KEY, number INTEGER NOT NULL, ledger TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS checks_off (kind TEXT PRIMARY KEY) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS verdicts (event INTEGER PRIMARY KEY, session INTEGER NOT NULL, name TEXT NOT NULL,
  good INTEGER NOT NULL, faults TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS verdicts_by_result ON verdicts (good);

CREATE TABLE IF NOT EXISTS users (key INTEGER PRIMARY KEY, application TEXT NOT NULL, id TEXT NOT NULL,
  attributes TEXT NOT NULL, received INTEGER NOT NULL, secret TEXT NOT NULL DEFAULT '');
CREATE UNIQUE INDEX IF NOT EXISTS users_by_id ON users (id, application);
CREATE INDEX IF NOT EXISTS users_by_arrival ON users (received);
CREATE TABLE IF NOT EXISTS user_history (id INTEGER PRIMARY KEY, user INTEGER NOT NULL, received INTEGER NOT NULL,
  attributes TEXT NOT NULL, changed TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS history_by_user ON user_history (user);

CREATE TABLE IF NOT EXISTS erased (device TEXT PRIMARY KEY) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS erasures (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, application TEXT NOT NULL,
  sessions INTEGER NOT NULL, chunks INTEGER NOT NULL, events INTEGER NOT NULL, requests INTEGER NOT NULL);

CREATE TABLE IF NOT EXISTS documents (name TEXT PRIMARY KEY, body TEXT NOT NULL) WITHOUT ROWID;
)sql";

/// Brings the tables of an earlier version, whose sessions have a column "problems", to the present form.
inline constexpr const char* kUpgrade = R"sql(
DROP TABLE problems; ALTER TABLE sessions DROP COLUMN problems;
ALTER TABLE sessions ADD COLUMN user_id TEXT NOT NULL DEFAULT '';
)sql";

/// Brings the tables of an earlier version, whose sessions have no column "device_id", to the present form. Their
/// requests stay without a device.
inline constexpr const char* kUpgradeDevices = R"sql(
ALTER TABLE requests ADD COLUMN application TEXT NOT NULL DEFAULT '';
ALTER TABLE requests ADD COLUMN device TEXT NOT NULL DEFAULT '';
ALTER TABLE users ADD COLUMN secret TEXT NOT NULL DEFAULT '';
ALTER TABLE gaps ADD COLUMN evicted INTEGER NOT NULL DEFAULT 0;
ALTER TABLE sessions ADD COLUMN device_id TEXT NOT NULL DEFAULT '';
UPDATE sessions SET device_id = coalesce(json_extract(device, '$.id'), '') WHERE json_valid(device);
DROP INDEX sessions_by_id;
)sql";

/// Deletes all requests and everything derived from them, erasures included. Documents and the choice of checks stay,
/// and sequence numbers continue.
inline constexpr const char* kForgetArrivals = R"sql(
DELETE FROM requests; DELETE FROM chunks; DELETE FROM sessions; DELETE FROM events; DELETE FROM points;
DELETE FROM names; DELETE FROM counters; DELETE FROM attributes; DELETE FROM attribute_values;
DELETE FROM attribute_types; DELETE FROM problem_rows; DELETE FROM occurrences; DELETE FROM gaps; DELETE FROM verdicts;
DELETE FROM users; DELETE FROM user_history; DELETE FROM evictions; DELETE FROM ledgers; DELETE FROM erased;
DELETE FROM erasures;
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
DELETE FROM evictions WHERE session IN (SELECT key FROM empty);
DELETE FROM ledgers WHERE session IN (SELECT key FROM empty);
DELETE FROM problem_rows WHERE scope IN (SELECT key FROM empty);
DELETE FROM sessions WHERE key IN (SELECT key FROM empty);
DROP TABLE empty;
)sql";

/// Counts the totals by kind, name, attribute, value and problem anew from those of the sessions, so that no text of a
/// deleted session remains in them.
inline constexpr const char* kCountAnew = R"sql(
DELETE FROM names WHERE session = 0;
INSERT INTO names SELECT 0, kind, name, sum(count) FROM names GROUP BY kind, name;
DELETE FROM counters WHERE session = 0 AND what <> 'total';
INSERT INTO counters SELECT 0, what, item, sum(count) FROM counters WHERE session > 0 GROUP BY what, item;

CREATE TEMP TABLE parts AS SELECT part.key AS part, whole.key AS whole FROM attributes part JOIN attributes whole
  ON whole.session = 0 AND whole.name = part.name AND whole.kind = part.kind AND whole.attribute = part.attribute
  WHERE part.session > 0;
CREATE TEMP TABLE sums (whole INTEGER, value TEXT, count INTEGER, PRIMARY KEY (whole, value)) WITHOUT ROWID;
INSERT INTO sums SELECT whole, value, sum(count) FROM attribute_values JOIN parts ON part = attribute
  GROUP BY whole, value;
DELETE FROM attribute_values WHERE attribute IN (SELECT key FROM attributes WHERE session = 0)
  AND NOT EXISTS (SELECT 1 FROM sums WHERE whole = attribute AND sums.value = attribute_values.value);
UPDATE attribute_values SET count = sums.count FROM sums WHERE whole = attribute AND sums.value = attribute_values.value;
DELETE FROM attribute_types WHERE attribute IN (SELECT key FROM attributes WHERE session = 0);
INSERT INTO attribute_types SELECT whole, type, sum(count), min(event), value FROM attribute_types
  JOIN parts ON part = attribute GROUP BY whole, type;
DELETE FROM attributes WHERE session = 0 AND key NOT IN (SELECT whole FROM parts);
UPDATE attributes SET distinct_values = (SELECT count(*) FROM attribute_values WHERE attribute = key),
  types = coalesce((SELECT sum(type) FROM attribute_types WHERE attribute = key), 0) WHERE session = 0;
DROP TABLE parts; DROP TABLE sums;

DELETE FROM problem_rows WHERE kind = 'names-differ-in-case' AND EXISTS (SELECT 1 FROM json_each(problem_rows.value) AS one
  WHERE one.value NOT IN (SELECT name FROM names WHERE session = 0));
DELETE FROM occurrences WHERE kind = 'names-differ-in-case' AND EXISTS (SELECT 1 FROM json_each(occurrences.value) AS one
  WHERE one.value NOT IN (SELECT name FROM names WHERE session = 0));
DELETE FROM problem_rows WHERE scope = 0;
INSERT INTO problem_rows (scope, kind, name, attribute, count, message, value, session, event, chunk, time)
  SELECT 0, kind, name, attribute, total, message, value, session, event, chunk, time FROM problem_rows
  JOIN (SELECT min(id) AS first, sum(count) AS total FROM problem_rows GROUP BY kind, name, attribute) ON id = first
  ORDER BY id;
)sql";

}  // namespace kelvo::collector
