-- An index refuses texts over about 2.7 kB, so a longer name has its whole text in a column of its own.
ALTER TABLE events ADD COLUMN full_name text;
COMMENT ON COLUMN events.name IS 'Name of the event or screen; id of the incident. Of a name over 2000 bytes, the beginning and a hash of the whole';
COMMENT ON COLUMN events.full_name IS 'The whole name, if it is longer than 2000 bytes; else NULL';
