-- A column of a view has the comment of the table's column with its name, or one of its own.
DO $$
DECLARE
  command text;
BEGIN
  FOR command IN
    SELECT format('COMMENT ON COLUMN %I.%I IS %L', view, shown.attname, description)
    FROM (VALUES ('screens', 'events'), ('incidents', 'events'), ('users', 'devices'), ('event_counts', 'daily_events'),
                 ('uncounted_events', 'daily_events')) AS views (view, source)
      JOIN pg_attribute AS shown ON shown.attrelid = view::regclass
      JOIN pg_attribute AS kept ON kept.attrelid = source::regclass AND kept.attname = shown.attname
      JOIN pg_description ON objoid = kept.attrelid AND objsubid = kept.attnum AND classoid = 'pg_class'::regclass
  LOOP
    EXECUTE command;
  END LOOP;
END $$;
COMMENT ON COLUMN screens.name IS 'Name of the screen';
COMMENT ON COLUMN screens.navigation_id IS 'Id of the screen, as the application''s code names it';
COMMENT ON COLUMN incidents.incident IS 'Id of the incident';
COMMENT ON COLUMN incidents.type IS 'Type of the incident';
COMMENT ON COLUMN incidents.message IS 'Message of the error';
COMMENT ON COLUMN users.id IS 'The application''s own id of the user, or the device if it named none';
COMMENT ON COLUMN users.device IS 'The device that reported last';
COMMENT ON COLUMN users.attributes IS 'User attributes of the latest sending of any device';
