-- Demo data: the application "shop" over eight weeks from Monday, 2026-03-02. The same rows each time.
--
--   psql -f tools/kelvo-server/demo/demo.sql                      60 devices, about 20,000 events
--   psql -v devices=36400 -f tools/kelvo-server/demo/demo.sql     about 10 million events
--
-- Needs the tables of `kelvo-server migrate`, without events of "shop".
\set ON_ERROR_STOP on
\set QUIET on
\if :{?devices}
\else
  \set devices 60
\endif
BEGIN;
SET LOCAL TimeZone = 'UTC';

-- Returns a number from 0 to sides - 1 that depends on the seed and the salt only.
CREATE FUNCTION pg_temp.roll(seed bigint, salt integer, sides integer) RETURNS integer LANGUAGE sql IMMUTABLE AS
  $$ SELECT ('x' || left(md5(seed || '/' || salt), 7))::bit(28)::integer % sides $$;
CREATE FUNCTION pg_temp.id(seed bigint, salt integer) RETURNS text LANGUAGE sql IMMUTABLE AS
  $$ SELECT upper(md5(seed || '/' || salt)::uuid::text) $$;

-- 60 of 100 users have told their name. Each tenth device is the second one of the user of the ninth.
CREATE TEMP TABLE demo_devices ON COMMIT DROP AS
  SELECT i, pg_temp.id(i, 1) AS device, (pg_temp.roll(i, 2, 56) * (pg_temp.roll(i, 3, 3) + 1)) / 3 AS first_day,
         CASE WHEN pg_temp.roll(person, 4, 10) < 6 THEN 'customer-' || person END AS user_id,
         (ARRAY['free', 'free', 'free', 'silver', 'silver', 'gold'])[1 + pg_temp.roll(person, 5, 6)] AS plan,
         (ARRAY[2, 2, 2, 3, 10, 10, 15, 20, 45, 60])[1 + pg_temp.roll(i, 8, 10)] AS activity,
         pg_temp.roll(i, 6, 18) AS update_lag, (ARRAY['12', '12', '13'])[1 + pg_temp.roll(i, 7, 3)] AS system_version
  FROM (SELECT i, CASE WHEN i % 10 = 0 THEN i - 1 ELSE i END AS person
        FROM generate_series(1, :devices) AS i) AS all_devices;

-- A device is used on its first day, then on few or many days, by its activity in percent. Each session has 8 to 33 events, `pace` seconds apart,
-- ten in a chunk. Some sessions have lost their second chunk: evicted, still on the device, or for no known reason.
CREATE TEMP TABLE demo_sessions ON COMMIT DROP AS
  SELECT seed, d.*, started,
         (extract(epoch FROM started) * 1000)::bigint || '-' || device AS session, first_day = day AND visit = 0 AS is_first,
         CASE WHEN day >= 38 + update_lag THEN '2.5(131)' WHEN day >= 14 + update_lag THEN '2.4(118)' ELSE '2.3(102)' END
           AS app_version,
         8 + pg_temp.roll(seed, 10, 26) AS events, 4 + pg_temp.roll(seed, 11, 12) AS pace,
         CASE WHEN pg_temp.roll(seed, 10, 26) > 12 AND pg_temp.roll(seed, 12, 12) = 0 THEN pg_temp.roll(seed, 13, 3) + 1
           ELSE 0 END AS gap,
         (started + make_interval(days => CASE WHEN pg_temp.roll(seed, 14, 30) = 0 THEN 1 + pg_temp.roll(seed, 15, 4)
                                          ELSE 0 END))::date AS arrived
  FROM demo_devices AS d
    CROSS JOIN LATERAL generate_series(first_day, 55) AS day
    CROSS JOIN generate_series(0, 1) AS visit
    CROSS JOIN LATERAL (SELECT (i * 56 + day) * 2 + visit AS seed) AS s
    CROSS JOIN LATERAL (SELECT timestamptz '2026-03-02 07:00' + make_interval(days => day, hours => visit * 8,
                          secs => pg_temp.roll(seed, 16, 25000) + pg_temp.roll(seed, 17, 1000) / 1000.0) AS started) AS t
  WHERE pg_temp.roll(seed, 18, 100) < CASE WHEN day = first_day THEN 100 - 70 * visit ELSE activity END;

SELECT kelvo_add_partitions(60, '2026-03-02') AS partitions \gset

INSERT INTO events (arrived, since_launch, time, seconds, app, session, device, user_id, kind, name, app_version,
                    system_version, attributes)
  SELECT arrived, since_launch, date_trunc('milliseconds', started) + make_interval(secs => since_launch),
         CASE kind WHEN 'navigation' THEN 2 * pace END, 'shop', session, device, user_id, kind,
         CASE kind WHEN 'observation' THEN pg_temp.id(event, 20) ELSE name END, app_version, system_version,
         CASE
           WHEN kind = 'system' THEN '{}'
           WHEN kind = 'navigation' THEN jsonb_build_object('navigation_id', name || 'Controller')
           WHEN kind = 'observation' THEN jsonb_build_object('incident_type', 'KLVCustomError', 'error_message',
             (ARRAY['Payment refused', 'Timeout'])[1 + roll % 2], 'code', 50 + roll % 2)
           WHEN name = 'Search' THEN jsonb_build_object('term', (ARRAY['lamp', 'chair', 'table', 'rug'])[1 + roll % 4],
             'klv_lt_count', p, 'klv_lt_count_slot', p::text)
           WHEN name = 'Purchase' THEN jsonb_build_object('total', 5 + roll % 95 + 0.9, 'payment',
             (ARRAY['card', 'card', 'invoice'])[1 + roll % 3], 'klv_lt_count', p, 'klv_lt_count_slot', p::text)
           WHEN name = 'klv_app_opened' THEN jsonb_build_object('type', 'normal', 'klv_lt_count', p, 'klv_lt_count_slot', p::text)
           ELSE jsonb_build_object('item', 'item-' || roll % 8, 'klv_lt_count', p, 'klv_lt_count_slot', p::text)
         END
  FROM demo_sessions
    CROSS JOIN LATERAL generate_series(1, events) AS p
    CROSS JOIN LATERAL (SELECT seed * 40 + p AS event, (p - 1) * pace AS since_launch,
                               pg_temp.roll(seed * 40 + p, 19, 1000) AS roll)
      AS e
    CROSS JOIN LATERAL (SELECT
      CASE WHEN p IN (1, events) THEN 'system' WHEN p % 3 = 0 THEN 'navigation' WHEN roll > 992 THEN 'observation'
           ELSE 'app' END AS kind,
      CASE WHEN p = 1 THEN 'FOREGROUND' WHEN p = events THEN 'BACKGROUND' WHEN p = 2 THEN 'klv_app_opened'
           WHEN p % 3 = 0 THEN (ARRAY['Home', 'Results', 'Product', 'Basket', 'Settings'])[1 + roll % 5]
           WHEN roll < 350 THEN 'Search' WHEN roll < 700 THEN 'View product' WHEN roll < 850 THEN 'Add to basket'
           WHEN roll < 920 THEN 'Purchase' ELSE 'Share' END AS name) AS k
  WHERE gap = 0 OR p NOT BETWEEN 11 AND 20;

INSERT INTO chunks (app, session, number, device, fingerprint, events, attributes, arrived)
  SELECT 'shop', session, number, device, left(md5(session || number), 16), least(10, events - 10 * (number - 1)),
         CASE WHEN gap = 1 AND number = 3 THEN '{"evicted": {"events": 10, "chunks": 1}}'
              WHEN gap = 2 AND number = 3 THEN '{"ledger": {"stored": 30, "accepted": 10, "waiting": 20, "evicted": 0}}'
              ELSE '{}' END::jsonb, arrived + started::time
  FROM demo_sessions CROSS JOIN LATERAL generate_series(1, (events + 9) / 10) AS number
  WHERE gap = 0 OR number <> 2;

INSERT INTO sessions (app, session, device, user_id, started, seconds, is_first, launch_type, app_version, system_version,
                      hardware_model, library_version, highest_chunk, chunks, events, screens, incidents, arrived,
                      last_arrived)
  SELECT 'shop', session, device, user_id, started, (d.events - 1) * pace, is_first, 'normal', app_version, system_version,
         'x86_64', '288', (d.events + 9) / 10, (d.events + 9) / 10 - (gap > 0)::integer, e.events, screens,
         incidents, arrived, arrived + started::time
  FROM demo_sessions AS d
    JOIN (SELECT session, count(*) AS events, count(*) FILTER (WHERE kind = 'navigation') AS screens,
                 count(*) FILTER (WHERE kind = 'observation') AS incidents
          FROM events WHERE app = 'shop' GROUP BY session) AS e USING (session);

INSERT INTO aggregates (app, session, name, attribute, value, count, arrived)
  SELECT 'shop', session, 'Scroll', attribute, value, count, arrived
  FROM demo_sessions CROSS JOIN LATERAL
    (VALUES ('', '', 3 + events), ('page', 'list', events), ('page', 'product', 3)) AS a (attribute, value, count)
  WHERE seed % 5 = 0;

INSERT INTO devices (app, device, user_id, user_attributes, app_version, system_version, hardware_model, width, height,
                     installed, reported, first_arrived, last_arrived)
  SELECT DISTINCT ON (device) 'shop', device, user_id,
         jsonb_strip_nulls(jsonb_build_object('custom_user_id', user_id, 'plan', plan)), app_version, system_version, 'x86_64',
         1920, 1080, min(started) OVER w, started, min(started) OVER w, max(arrived + started::time) OVER w
  FROM demo_sessions WINDOW w AS (PARTITION BY device) ORDER BY device, started DESC;
COMMIT;
ANALYZE;
