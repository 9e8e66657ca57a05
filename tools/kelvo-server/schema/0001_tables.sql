-- The tables of kelvo-server. `kelvo-server migrate` runs each file of this directory once, in one transaction.
--
-- Distribution: a sharded engine distributes the tables of a session by `session` and the table of devices by `device`.
-- Each primary key contains that column. A chunk therefore commits on two shards at most: its session's and its device's.
-- Ids are not unique across applications, so each key begins with `app`.

-- Distributed by session. Never partitioned: a unique key across partitions would have to contain the day.
CREATE TABLE chunks (
  app text NOT NULL,
  session text NOT NULL,
  number integer NOT NULL,
  device text NOT NULL,
  fingerprint text NOT NULL,
  events integer NOT NULL,
  attributes jsonb NOT NULL DEFAULT '{}',
  arrived timestamptz NOT NULL DEFAULT now(),
  arrivals integer NOT NULL DEFAULT 1,
  PRIMARY KEY (app, session, number)
);
CREATE INDEX chunks_by_device ON chunks (app, device);
COMMENT ON TABLE chunks IS 'The id of each stored chunk, kept for ever: a chunk that arrives again is recognised after its events have aged out.';
COMMENT ON COLUMN chunks.app IS 'Id of the application';
COMMENT ON COLUMN chunks.session IS 'Id of the session';
COMMENT ON COLUMN chunks.number IS 'Number of the chunk in its session, from 1';
COMMENT ON COLUMN chunks.device IS 'Id of the device; an erasure finds all ids of a device by it';
COMMENT ON COLUMN chunks.fingerprint IS 'Hash of the chunk''s events, without attributes, aggregates and reporting times';
COMMENT ON COLUMN chunks.events IS 'Number of events in the chunk, 0 if it carries aggregates only';
COMMENT ON COLUMN chunks.attributes IS 'Attributes of the chunk: {"evicted": {"events": N, "chunks": M}} if the device had to delete unsent data before it, {"ledger": {...}} with the device''s counts if the application sends them';
COMMENT ON COLUMN chunks.arrived IS 'Time of the first arrival';
COMMENT ON COLUMN chunks.arrivals IS 'Number of arrivals with these events; more than 1 if the device did not receive an answer';

-- Distributed by session. The transaction that inserts a chunk's id inserts its events, so they need no key of their own.
CREATE TABLE events (
  arrived date NOT NULL DEFAULT ((now() AT TIME ZONE 'UTC')::date),
  since_launch integer NOT NULL,
  time timestamptz NOT NULL,
  seconds integer,
  app text NOT NULL,
  session text NOT NULL,
  device text NOT NULL,
  user_id text,
  kind text NOT NULL,
  name text NOT NULL,
  app_version text,
  system_version text,
  attributes jsonb NOT NULL DEFAULT '{}'
) PARTITION BY RANGE (arrived);
CREATE INDEX events_by_name ON events (app, name, time);
CREATE INDEX events_by_device ON events (app, device, time);
COMMENT ON TABLE events IS 'Every event, once. One partition for each day of arrival; a condition on `arrived` reads the partitions of these days only.';
COMMENT ON COLUMN events.arrived IS 'Day of arrival, in UTC';
COMMENT ON COLUMN events.since_launch IS 'Whole seconds between the launch and the event';
COMMENT ON COLUMN events.time IS 'Time of the event by the device''s clock: the launch time of the session plus since_launch';
COMMENT ON COLUMN events.seconds IS 'Whole seconds that a screen was shown; NULL for all other kinds';
COMMENT ON COLUMN events.app IS 'Id of the application';
COMMENT ON COLUMN events.session IS 'Id of the session';
COMMENT ON COLUMN events.device IS 'Id of the device';
COMMENT ON COLUMN events.user_id IS 'The application''s own id of its user (user attribute custom_user_id) in the sending that stored the event; NULL if it named none';
COMMENT ON COLUMN events.kind IS 'app, navigation (a screen), system (FOREGROUND, BACKGROUND), user, or observation (an incident)';
COMMENT ON COLUMN events.name IS 'Name of the event or screen; id of the incident';
COMMENT ON COLUMN events.app_version IS 'Version of the application';
COMMENT ON COLUMN events.system_version IS 'Version of the operating system';
COMMENT ON COLUMN events.attributes IS 'Attributes of the event. The library adds klv_lt_count, the number of earlier events of this name on the device, and klv_lt_count_slot. A screen has navigation_id, an incident incident_type';

-- Receives events of a day that has no partition yet, so that no event is refused.
CREATE TABLE events_default PARTITION OF events DEFAULT;

CREATE VIEW screens AS
  SELECT arrived, time, since_launch, seconds, app, session, device, user_id, name,
         attributes ->> 'navigation_id' AS navigation_id, app_version, system_version
  FROM events WHERE kind = 'navigation';
COMMENT ON VIEW screens IS 'The screens among the events, each with the seconds that it was shown';

CREATE VIEW incidents AS
  SELECT arrived, time, since_launch, app, session, device, user_id, name AS incident,
         attributes ->> 'incident_type' AS type, attributes ->> 'error_message' AS message, app_version,
         system_version, attributes
  FROM events WHERE kind = 'observation';
COMMENT ON VIEW incidents IS 'The errors among the events';

-- Distributed by session.
CREATE TABLE sessions (
  app text NOT NULL,
  session text NOT NULL,
  device text NOT NULL,
  user_id text,
  started timestamptz NOT NULL,
  seconds double precision NOT NULL DEFAULT 0,
  is_first boolean NOT NULL DEFAULT false,
  is_fatal boolean NOT NULL DEFAULT false,
  launch_type text,
  app_version text,
  system_version text,
  hardware_model text,
  library_version text,
  attributes jsonb NOT NULL DEFAULT '{}',
  highest_chunk integer NOT NULL DEFAULT 0,
  chunks integer NOT NULL DEFAULT 0,
  events integer NOT NULL DEFAULT 0,
  screens integer NOT NULL DEFAULT 0,
  incidents integer NOT NULL DEFAULT 0,
  arrived date NOT NULL DEFAULT ((now() AT TIME ZONE 'UTC')::date),
  last_arrived timestamptz NOT NULL DEFAULT now(),
  PRIMARY KEY (app, session)
) WITH (fillfactor = 70);  -- each chunk updates its row in place
CREATE INDEX sessions_by_start ON sessions (app, started);
CREATE INDEX sessions_by_device ON sessions (app, device, started);
CREATE INDEX sessions_by_user ON sessions (app, user_id, started) WHERE user_id IS NOT NULL;
CREATE INDEX sessions_by_arrival ON sessions (arrived);
COMMENT ON TABLE sessions IS 'Each session of which a chunk has arrived';
COMMENT ON COLUMN sessions.app IS 'Id of the application';
COMMENT ON COLUMN sessions.session IS 'Id of the session';
COMMENT ON COLUMN sessions.device IS 'Id of the device';
COMMENT ON COLUMN sessions.user_id IS 'The application''s own id of its user, the last one that was named; NULL if none was';
COMMENT ON COLUMN sessions.started IS 'Launch time by the device''s clock';
COMMENT ON COLUMN sessions.seconds IS 'Length: the greatest of the reported durations and the times of all events';
COMMENT ON COLUMN sessions.is_first IS 'True for the first session of an installation';
COMMENT ON COLUMN sessions.is_fatal IS 'True if the session reported that it ended in a crash';
COMMENT ON COLUMN sessions.launch_type IS 'Type of the launch, as reported';
COMMENT ON COLUMN sessions.app_version IS 'Version of the application';
COMMENT ON COLUMN sessions.system_version IS 'Version of the operating system';
COMMENT ON COLUMN sessions.hardware_model IS 'Model of the hardware';
COMMENT ON COLUMN sessions.library_version IS 'Version of the library';
COMMENT ON COLUMN sessions.attributes IS 'Attributes of the session, the latest';
COMMENT ON COLUMN sessions.highest_chunk IS 'Highest number of an arrived chunk';
COMMENT ON COLUMN sessions.chunks IS 'Number of arrived chunks; less than highest_chunk if some are missing';
COMMENT ON COLUMN sessions.events IS 'Number of arrived events of all kinds';
COMMENT ON COLUMN sessions.screens IS 'Number of screens among the events';
COMMENT ON COLUMN sessions.incidents IS 'Number of incidents among the events';
COMMENT ON COLUMN sessions.arrived IS 'Day of the first arrival, in UTC; it decides when the row ages out';
COMMENT ON COLUMN sessions.last_arrived IS 'Time of the last arrival';

-- Distributed by session. `digest` is in the key instead of the texts, because an index refuses very long texts.
CREATE TABLE aggregates (
  app text NOT NULL,
  session text NOT NULL,
  digest uuid NOT NULL GENERATED ALWAYS AS (md5(name || chr(1) || attribute || chr(1) || value)::uuid) STORED,
  name text NOT NULL,
  attribute text NOT NULL,
  value text NOT NULL,
  count bigint NOT NULL,
  arrived date NOT NULL DEFAULT ((now() AT TIME ZONE 'UTC')::date),
  PRIMARY KEY (app, session, digest)
);
CREATE INDEX aggregates_by_name ON aggregates (app, left(name, 100), left(attribute, 100));
CREATE INDEX aggregates_by_arrival ON aggregates (arrived);
COMMENT ON TABLE aggregates IS 'Events that the application only counts: running totals of each session, the largest that arrived';
COMMENT ON COLUMN aggregates.app IS 'Id of the application';
COMMENT ON COLUMN aggregates.session IS 'Id of the session';
COMMENT ON COLUMN aggregates.digest IS 'Hash of name, attribute and value';
COMMENT ON COLUMN aggregates.name IS 'Name of the event';
COMMENT ON COLUMN aggregates.attribute IS 'Name of the attribute; empty in the row that counts the event itself';
COMMENT ON COLUMN aggregates.value IS 'Value of the attribute; empty in the row that counts the event itself';
COMMENT ON COLUMN aggregates.count IS 'Number of events in the session, with this value if the row has an attribute';
COMMENT ON COLUMN aggregates.arrived IS 'Day of the first arrival, in UTC; it decides when the row ages out';

-- Distributed by device. A chunk locks the row of its device before it reads `erased`; an erasure locks it, too.
CREATE TABLE devices (
  app text NOT NULL,
  device text NOT NULL,
  erase_secret_hash text,
  user_id text,
  user_attributes jsonb NOT NULL DEFAULT '{}',
  app_version text,
  system_version text,
  hardware_model text,
  width double precision,
  height double precision,
  token text,
  installed timestamptz,
  reported timestamptz NOT NULL DEFAULT '-infinity',
  first_arrived timestamptz NOT NULL DEFAULT now(),
  last_arrived timestamptz NOT NULL DEFAULT now(),
  PRIMARY KEY (app, device)
) WITH (fillfactor = 70);  -- each chunk updates its row in place
CREATE INDEX devices_by_user ON devices (app, user_id) WHERE user_id IS NOT NULL;
COMMENT ON TABLE devices IS 'Each device, with the latest attributes of its user. An installation is a device of its own.';
COMMENT ON COLUMN devices.app IS 'Id of the application';
COMMENT ON COLUMN devices.device IS 'Id of the device, made at the first start';
COMMENT ON COLUMN devices.erase_secret_hash IS 'Hash of the first secret that the device sent; only a request with this secret erases the device. NULL if it sent none';
COMMENT ON COLUMN devices.user_id IS 'The application''s own id of its user, NULL if it named none';
COMMENT ON COLUMN devices.user_attributes IS 'User attributes of the latest sending';
COMMENT ON COLUMN devices.app_version IS 'Version of the application';
COMMENT ON COLUMN devices.system_version IS 'Version of the operating system';
COMMENT ON COLUMN devices.hardware_model IS 'Model of the hardware';
COMMENT ON COLUMN devices.width IS 'Width of the screen in points';
COMMENT ON COLUMN devices.height IS 'Height of the screen in points';
COMMENT ON COLUMN devices.token IS 'Registration token for messages to the device';
COMMENT ON COLUMN devices.installed IS 'Time of the installation by the device''s clock';
COMMENT ON COLUMN devices.reported IS 'Time of the sending that these columns are from, by the device''s clock; an older sending changes none of them';
COMMENT ON COLUMN devices.first_arrived IS 'Time of the first arrival';
COMMENT ON COLUMN devices.last_arrived IS 'Time of the last arrival';

CREATE VIEW users AS
  SELECT DISTINCT ON (app, coalesce(user_id, device))
         app, coalesce(user_id, device) AS id, user_id, device, user_attributes AS attributes, reported
  FROM devices ORDER BY app, coalesce(user_id, device), reported DESC;
COMMENT ON VIEW users IS 'Each user with the latest attributes. Devices with the same user_id are one user; a device without one is a user of its own.';

-- Distributed by session.
CREATE TABLE conflicts (
  app text NOT NULL,
  session text NOT NULL,
  number integer NOT NULL,
  fingerprint text NOT NULL,
  device text NOT NULL,
  body jsonb NOT NULL,
  arrived timestamptz NOT NULL DEFAULT now(),
  arrivals integer NOT NULL DEFAULT 1,
  PRIMARY KEY (app, session, number, fingerprint)
);
COMMENT ON TABLE conflicts IS 'Chunks with the id of a stored chunk but other events. Their events are not in `events`.';
COMMENT ON COLUMN conflicts.app IS 'Id of the application';
COMMENT ON COLUMN conflicts.session IS 'Id of the session';
COMMENT ON COLUMN conflicts.number IS 'Number of the chunk';
COMMENT ON COLUMN conflicts.fingerprint IS 'Hash of these events';
COMMENT ON COLUMN conflicts.device IS 'Id of the device';
COMMENT ON COLUMN conflicts.body IS 'The chunk as received';
COMMENT ON COLUMN conflicts.arrived IS 'Time of the first arrival with these events';
COMMENT ON COLUMN conflicts.arrivals IS 'Number of arrivals with these events';

-- Distributed by digest: an unreadable body names neither its session nor its device for certain.
CREATE TABLE quarantine (
  app text NOT NULL,
  digest text NOT NULL,
  reason text NOT NULL,
  device text,
  body bytea NOT NULL,
  arrived timestamptz NOT NULL DEFAULT now(),
  arrivals integer NOT NULL DEFAULT 1,
  PRIMARY KEY (app, digest)
);
COMMENT ON TABLE quarantine IS 'Bodies that are no chunk, or that the database refuses. The device was answered 200.';
COMMENT ON COLUMN quarantine.app IS 'Id of the application in the path';
COMMENT ON COLUMN quarantine.digest IS 'Hash of the body';
COMMENT ON COLUMN quarantine.reason IS 'The first fault';
COMMENT ON COLUMN quarantine.device IS 'Id of the device, NULL if the body does not name one';
COMMENT ON COLUMN quarantine.body IS 'The bytes as received';
COMMENT ON COLUMN quarantine.arrived IS 'Time of the first arrival';
COMMENT ON COLUMN quarantine.arrivals IS 'Number of arrivals of the same bytes';

-- Small. A sharded engine keeps a copy on each node, because every chunk looks here.
CREATE TABLE erased (
  app text NOT NULL,
  device_hash text NOT NULL,
  erased timestamptz NOT NULL DEFAULT now(),
  PRIMARY KEY (app, device_hash)
);
COMMENT ON TABLE erased IS 'Erased devices. A chunk of such a device is answered 200 and dropped.';
COMMENT ON COLUMN erased.app IS 'Id of the application';
COMMENT ON COLUMN erased.device_hash IS 'Keyed hash of the device''s id; without the server''s key it does not lead to the device';
COMMENT ON COLUMN erased.erased IS 'Time of the erasure';

-- Small. A sharded engine keeps a copy on each node, or distributes by app.
CREATE TABLE documents (
  app text NOT NULL,
  name text NOT NULL,
  body text NOT NULL,
  version bigint NOT NULL DEFAULT 1,
  changed timestamptz NOT NULL DEFAULT now(),
  PRIMARY KEY (app, name)
);
COMMENT ON TABLE documents IS 'The documents that the service serves: `kelvo-server put` writes them. A missing row means the default.';
COMMENT ON COLUMN documents.app IS 'Id of the application';
COMMENT ON COLUMN documents.name IS 'enabled, config, client-events, actions/rta or actions/survey';
COMMENT ON COLUMN documents.body IS 'The document, JSON, as it was put';
COMMENT ON COLUMN documents.version IS 'Number of times that it was put';
COMMENT ON COLUMN documents.changed IS 'Time of the last change';

-- Creates the missing partitions of `days` days from `first` (today, in UTC) and returns their number. Moves events of these days
-- out of the default partition first. Commits of chunks go on meanwhile, except those into the default partition. If a
-- long query holds the default partition, the rest is left to the next call.
CREATE FUNCTION kelvo_add_partitions(days integer DEFAULT 2, first date DEFAULT (now() AT TIME ZONE 'UTC')::date)
  RETURNS integer LANGUAGE plpgsql SET lock_timeout = '2s' AS $$
DECLARE
  day date;
  partition text;
  added integer := 0;
BEGIN
  FOR day IN SELECT first + i FROM generate_series(0, days - 1) AS i LOOP
    partition := 'events_' || to_char(day, 'YYYYMMDD');
    CONTINUE WHEN to_regclass(partition) IS NOT NULL;
    LOCK TABLE events IN SHARE UPDATE EXCLUSIVE MODE;  -- one caller at a time
    CONTINUE WHEN to_regclass(partition) IS NOT NULL;
    LOCK TABLE events_default IN ACCESS EXCLUSIVE MODE;
    EXECUTE format('CREATE TABLE %I (LIKE events INCLUDING DEFAULTS)', partition);
    EXECUTE format('WITH moved AS (DELETE FROM events_default WHERE arrived = %L RETURNING *)
                    INSERT INTO %I SELECT * FROM moved', day, partition);
    EXECUTE format('ALTER TABLE events ATTACH PARTITION %I FOR VALUES FROM (%L) TO (%L)', partition, day, day + 1);
    added := added + 1;
  END LOOP;
  RETURN added;
EXCEPTION WHEN lock_not_available THEN
  RETURN 0;
END $$;
COMMENT ON FUNCTION kelvo_add_partitions IS 'Creates the missing partitions of the given days';

-- Drops the partitions of the days before `first_kept` and returns their number. Leaves a partition that is in use to the
-- next call, because all commits would wait behind this one.
CREATE FUNCTION kelvo_drop_partitions(first_kept date) RETURNS integer LANGUAGE plpgsql SET lock_timeout = '200ms' AS $$
DECLARE
  partition text;
  dropped integer := 0;
BEGIN
  FOR partition IN
    SELECT c.relname FROM pg_inherits JOIN pg_class c ON c.oid = inhrelid
    WHERE inhparent = 'events'::regclass AND c.relname ~ '^events_\d{8}$'
      AND c.relname < 'events_' || to_char(first_kept, 'YYYYMMDD')
    ORDER BY c.relname
  LOOP
    BEGIN
      EXECUTE format('DROP TABLE %I', partition);
      dropped := dropped + 1;
    EXCEPTION WHEN lock_not_available THEN
      NULL;
    END;
  END LOOP;
  RETURN dropped;
END $$;
COMMENT ON FUNCTION kelvo_drop_partitions IS 'Drops the partitions of events that arrived before a day';

-- Deletes the rows that first arrived before `first_kept` from the small tables. Ids and devices stay. Must run in a
-- transaction of its own, so that commits do not wait for it.
CREATE FUNCTION kelvo_delete_before(first_kept date) RETURNS void LANGUAGE sql AS $$
  DELETE FROM events_default WHERE arrived < first_kept;
  DELETE FROM aggregates WHERE arrived < first_kept;
  DELETE FROM sessions WHERE arrived < first_kept;
  DELETE FROM conflicts WHERE arrived < first_kept::timestamp AT TIME ZONE 'UTC';
  DELETE FROM quarantine WHERE arrived < first_kept::timestamp AT TIME ZONE 'UTC';
$$;
COMMENT ON FUNCTION kelvo_delete_before IS 'Deletes sessions, aggregates, conflicts and quarantined bodies that arrived before a day';

-- Deletes all data of a device, its ids included, and remembers `hash` in `erased`. Must run in a transaction that holds
-- nothing else. Returns false if nothing of the device was stored.
CREATE FUNCTION kelvo_erase(of_app text, of_device text, hash text) RETURNS boolean LANGUAGE plpgsql AS $$
DECLARE
  was_known boolean;
  of_sessions text[];
BEGIN
  -- Waits for a chunk of this device that is being committed, also for its first one, which no other transaction sees.
  INSERT INTO devices AS d (app, device) VALUES (of_app, of_device)
    ON CONFLICT (app, device) DO UPDATE SET device = d.device
    RETURNING d.reported <> '-infinity' INTO was_known;
  INSERT INTO erased (app, device_hash) VALUES (of_app, hash) ON CONFLICT DO NOTHING;
  SELECT array_agg(DISTINCT session) INTO of_sessions FROM chunks WHERE app = of_app AND device = of_device;
  DELETE FROM events WHERE app = of_app AND device = of_device;
  DELETE FROM aggregates WHERE app = of_app AND session = ANY (of_sessions);
  DELETE FROM sessions WHERE app = of_app AND session = ANY (of_sessions);
  DELETE FROM conflicts WHERE app = of_app AND device = of_device;
  DELETE FROM quarantine WHERE app = of_app
    AND (device = of_device OR position(convert_to(of_device, 'UTF8') IN body) > 0);
  DELETE FROM chunks WHERE app = of_app AND device = of_device;
  DELETE FROM devices WHERE app = of_app AND device = of_device;
  RETURN was_known OR of_sessions IS NOT NULL;
END $$;
COMMENT ON FUNCTION kelvo_erase IS 'Erases a device';
