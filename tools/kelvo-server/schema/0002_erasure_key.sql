-- The key of the hashes in `erased`. One row, made once for all instances. A sharded engine keeps a copy on each node.
CREATE TABLE erasure_key (
  one boolean PRIMARY KEY DEFAULT true CHECK (one),
  key text NOT NULL DEFAULT gen_random_uuid()::text || gen_random_uuid()::text
);
INSERT INTO erasure_key DEFAULT VALUES;
COMMENT ON TABLE erasure_key IS 'Whoever has this key and the id of a device can find out if the device was erased';
COMMENT ON COLUMN erasure_key.one IS 'Always true: there is one row';
COMMENT ON COLUMN erasure_key.key IS 'A random text';

CREATE FUNCTION kelvo_device_hash(device text) RETURNS text LANGUAGE sql STABLE AS $$
  SELECT encode(sha256(convert_to(key, 'UTF8') || sha256(convert_to(key || device, 'UTF8'))), 'hex') FROM erasure_key
$$;
COMMENT ON FUNCTION kelvo_device_hash IS 'The keyed hash of a device''s id, as in erased.device_hash';
