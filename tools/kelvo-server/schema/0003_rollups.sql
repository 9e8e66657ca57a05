-- Counts of events by day of arrival. No event joins a day that is over, so a day is counted once.
--
-- Distributed by app: no engine distributes by a generated column, and the table is small.
CREATE TABLE daily_events (
  arrived date NOT NULL,
  app text NOT NULL,
  digest uuid NOT NULL GENERATED ALWAYS AS (md5(kind || chr(1) || name || chr(1) || coalesce(app_version, ''))::uuid) STORED,
  kind text NOT NULL,
  name text NOT NULL,
  app_version text,
  events bigint NOT NULL,
  seconds bigint,
  PRIMARY KEY (arrived, app, digest)
);
COMMENT ON TABLE daily_events IS 'Counts of the events that arrived on a day that is over. They stay when the events age out. Ask the view event_counts.';
COMMENT ON COLUMN daily_events.arrived IS 'Day of arrival, in UTC';
COMMENT ON COLUMN daily_events.app IS 'Id of the application';
COMMENT ON COLUMN daily_events.digest IS 'Hash of kind, name and version';
COMMENT ON COLUMN daily_events.kind IS 'Kind of the events';
COMMENT ON COLUMN daily_events.name IS 'Name of the events, of the incidents their type';
COMMENT ON COLUMN daily_events.app_version IS 'Version of the application';
COMMENT ON COLUMN daily_events.events IS 'Number of events';
COMMENT ON COLUMN daily_events.seconds IS 'Seconds that the screen was shown; NULL for all other kinds';

-- The events of days that are not counted yet, as rows of daily_events.
CREATE VIEW uncounted_events AS
  SELECT arrived, app, kind, CASE kind WHEN 'observation' THEN coalesce(attributes ->> 'incident_type', '') ELSE name END AS name,
         app_version, count(*) AS events, sum(seconds) AS seconds
  FROM events
  WHERE arrived > coalesce((SELECT max(arrived) FROM daily_events), '-infinity')
  GROUP BY arrived, app, kind, 4, app_version;
COMMENT ON VIEW uncounted_events IS 'Counts of the events that arrived on days that daily_events does not have yet';

CREATE VIEW event_counts AS
  SELECT arrived, app, kind, name, app_version, events, seconds FROM daily_events
  UNION ALL
  SELECT arrived, app, kind, name, app_version, events, seconds FROM uncounted_events;
COMMENT ON VIEW event_counts IS 'Counts of all events by day of arrival, exact at any time';

-- Counts the days that are over and returns their number. A day is over one hour after midnight, when every transaction
-- that began on it has ended. Safe to call at the same time.
CREATE FUNCTION kelvo_count_days() RETURNS integer LANGUAGE plpgsql AS $$
DECLARE
  last_day date := ((now() - interval '1 hour') AT TIME ZONE 'UTC')::date - 1;
  before date;
BEGIN
  LOCK TABLE daily_events IN SHARE ROW EXCLUSIVE MODE;
  SELECT max(arrived) INTO before FROM daily_events;
  INSERT INTO daily_events (arrived, app, kind, name, app_version, events, seconds)
    SELECT arrived, app, kind, name, app_version, events, seconds FROM uncounted_events WHERE arrived <= last_day;
  RETURN (SELECT count(DISTINCT arrived) FROM daily_events WHERE before IS NULL OR arrived > before);
END $$;
COMMENT ON FUNCTION kelvo_count_days IS 'Adds the days that are over to daily_events';
