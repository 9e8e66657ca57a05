#!/usr/bin/env python3
"""Tests the functions that keep the partitions and delete data, with several connections at once.

usage: scripts/postgres exec --fast tests/server/tables.py
"""
import pathlib
import re
import subprocess
import sys
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
EVENT = ("INSERT INTO events (arrived, since_launch, time, app, session, device, kind, name)"
         " VALUES ({day}, 0, now(), 'shop', 's-{device}', '{device}', 'app', '{name}');")
TODAY = "(now() AT TIME ZONE 'UTC')::date"
DATA = ("devices", "chunks", "sessions", "aggregates", "conflicts", "quarantine", "events")
# One row of a device in each table of DATA.
ROWS = ("INSERT INTO devices (app, device, reported) VALUES ('shop', '{device}', now());"
        "INSERT INTO chunks (app, session, number, device, fingerprint, events) VALUES ('shop', 's-{device}', 1,"
        " '{device}', 'f', 1);"
        "INSERT INTO sessions (app, session, device, started) VALUES ('shop', 's-{device}', '{device}', now());"
        "INSERT INTO aggregates (app, session, name, attribute, value, count) VALUES ('shop', 's-{device}', 'n', '', '', 1);"
        "INSERT INTO conflicts (app, session, number, fingerprint, device, body) VALUES ('shop', 's-{device}', 1, 'g',"
        " '{device}', '{{}}');"
        "INSERT INTO quarantine (app, digest, reason, body) VALUES ('shop', '{device}', 'r', '<{device}');"
        + EVENT.format(day=TODAY, device="{device}", name="Event"))


def start(sql):
    return subprocess.Popen(["psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-c", sql], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)


def finish(process):
    out, error = process.communicate(timeout=30)
    if process.returncode != 0:
        raise RuntimeError(error)
    return out.strip()


def run(sql):
    return finish(start(sql))


class Blocker:
    """A transaction that runs `sql` and then stays open until the block ends."""

    def __init__(self, sql):
        self.sql = sql

    def __enter__(self):
        self.process = subprocess.Popen(["psql", "-XqAt"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.process.stdin.write(f"BEGIN; {self.sql}; SELECT 'open';\n")
        self.process.stdin.flush()
        while self.process.stdout.readline().strip() != "open":
            pass

    def __exit__(self, *_):
        self.process.stdin.write("COMMIT;\n")
        self.process.communicate(timeout=30)


class Partitions(unittest.TestCase):
    def setUp(self):
        self.apply(range(1, 100))

    @staticmethod
    def apply(numbers):
        """Applies the schema's files of these numbers, to an empty database if the first is among them."""
        if 1 in numbers:
            run("DROP SCHEMA public CASCADE; CREATE SCHEMA public")
        for file in sorted((ROOT / "tools/kelvo-server/schema").glob("*.sql")):
            if int(file.name[:4]) in numbers:
                subprocess.run(["psql", "-Xq1", "-v", "ON_ERROR_STOP=1", "-f", str(file)], check=True)

    def await_waiting(self, number):
        """Blocks until so many connections wait for a lock."""
        end = time.monotonic() + 20
        while run("SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'") != str(number):
            self.assertLess(time.monotonic(), end)

    def test_late_partitions_take_over_events_of_their_days_only(self):
        run(EVENT.format(day=TODAY, device="d", name="Today")
            + EVENT.format(day=TODAY + " - 9", device="d", name="Long ago"))
        self.assertEqual(run("SELECT kelvo_add_partitions(), kelvo_add_partitions()"), "2|0")
        self.assertEqual(run("SELECT name FROM events_default"), "Long ago")
        self.assertEqual(run("SELECT count(*) FROM events"), "2")

    def test_instances_add_partitions_at_the_same_time_while_chunks_commit(self):
        run("SELECT kelvo_add_partitions(1)")
        with Blocker(EVENT.format(day=TODAY, device="d", name="Open")):  # a commit under way, into another partition
            instances = [start("SELECT kelvo_add_partitions(5)") for _ in range(6)]
            self.assertEqual(sum(int(finish(instance)) for instance in instances), 4)

    def test_a_long_query_delays_partitions_and_refuses_nothing(self):
        with Blocker("SELECT count(*) FROM events"):
            self.assertEqual(run("SELECT kelvo_add_partitions()"), "0")
            run(EVENT.format(day=TODAY, device="d", name="Kept"))
        self.assertEqual(run("SELECT kelvo_add_partitions()"), "2")
        self.assertEqual(run(f"SELECT name FROM events WHERE arrived = {TODAY}"), "Kept")

    def test_retention_drops_old_days_and_keeps_ids(self):
        run(f"SELECT kelvo_add_partitions(4, {TODAY} - 3)")
        for age in range(4):
            run(EVENT.format(day=f"{TODAY} - {age}", device=f"d{age}", name=f"Age {age}")
                + f"INSERT INTO sessions (app, session, device, started, arrived) VALUES ('shop', 's-d{age}', 'd{age}',"
                f" now(), {TODAY} - {age});"
                f"INSERT INTO chunks (app, session, number, device, fingerprint, events) VALUES ('shop', 's-d{age}', 1,"
                f" 'd{age}', 'f', 1);")
        drop = f"SELECT kelvo_drop_partitions({TODAY} - 1)"
        with Blocker("SELECT count(*) FROM events"):
            begun = time.monotonic()
            self.assertEqual(run(drop), "0")
            self.assertLess(time.monotonic() - begun, 3)  # commits wait behind it
        self.assertEqual(run(drop), "2")
        run(f"SELECT kelvo_delete_before({TODAY} - 1)")
        self.assertEqual(run("SELECT string_agg(name, ', ' ORDER BY name) FROM events"), "Age 0, Age 1")
        self.assertEqual(run("SELECT count(*) FROM sessions"), "2")
        self.assertEqual(run("SELECT count(*) FROM chunks"), "4")

    def test_an_upgrade_keeps_the_rows_of_the_first_release(self):
        """The tables of version 3 were the first with data."""
        self.apply(range(1, 4))
        run("SELECT kelvo_add_partitions()" + ";" + ROWS.format(device="d"))
        before = {table: run(f"SELECT to_jsonb(t) FROM {table} AS t") for table in DATA}
        self.apply(range(4, 100))
        for table, row in before.items():
            with self.subTest(table):
                self.assertEqual(run(f"SELECT to_jsonb(t) @> '{row}' FROM {table} AS t"), "t")
        run(EVENT.format(day=TODAY, device="d", name="New"))
        self.assertEqual(run("SELECT count(*) FROM events"), "2")

    def test_an_erasure_and_the_chunks_of_its_device_wait_for_each_other_and_nothing_is_left(self):
        rows = "".join(ROWS.format(device=device) for device in ("gone", "stays"))
        with Blocker(rows):
            erasure = start("SELECT kelvo_erase('shop', 'gone', 'hash')")
            self.await_waiting(1)
        self.assertEqual(finish(erasure), "t")
        self.assertEqual(run("SELECT kelvo_erase('shop', 'gone', 'hash')"), "f")
        for table in DATA:
            left = run(f"SELECT t::text FROM {table} AS t")
            self.assertNotIn("gone", left.replace("676f6e65", "gone"), table)
            self.assertEqual(len(left.splitlines()), 1, table)
        self.assertEqual(run("SELECT device_hash FROM erased"), "hash")
        with Blocker("SELECT FROM sessions WHERE device = 'stays' FOR UPDATE"):
            erasure = start("SELECT kelvo_erase('shop', 'stays', 'hash 2')")
            self.await_waiting(1)
            chunk = start("INSERT INTO devices (app, device) VALUES ('shop', 'stays') ON CONFLICT (app, device)"
                          " DO UPDATE SET token = 'known' RETURNING coalesce(token, 'new')")
            self.await_waiting(2)
        self.assertEqual(finish(erasure) + finish(chunk), "tnew")
        with Blocker("UPDATE devices SET reported = now();" + EVENT.format(day=TODAY, device="stays", name="Event")):
            erasure = start("SELECT kelvo_erase('shop', 'stays', 'hash 2')")
            self.await_waiting(1)
        self.assertEqual(finish(erasure) + run("SELECT count(*) FROM events"), "t0")

    def test_each_key_contains_the_documented_distribution_key_and_each_column_has_a_comment(self):
        """What a sharded engine could not do: unique keys without the distribution key, sequences, triggers, foreign keys."""
        page = (ROOT / "docs/server.md").read_text()
        for table in run("SELECT relname FROM pg_class WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p')"
                         " AND NOT relispartition").split():
            with self.subTest(table=table):
                row = re.search(rf"^\| `{table}` \|[^|]*\| ([^|]*) \| ([^|]*) \|", page, re.MULTILINE)
                self.assertIsNotNone(row)
                key = f"'{row[2][1:-1]}'" if row[2].startswith("`") else "NULL"
                keys = run(f"SELECT string_agg(attname, ', ' ORDER BY position) FROM pg_index,"
                           f" unnest(indkey) WITH ORDINALITY AS k (attnum, position) JOIN pg_attribute USING (attnum)"
                           f" WHERE indrelid = '{table}'::regclass AND attrelid = indrelid AND indisunique GROUP BY indexrelid")
                self.assertEqual(keys, "" if row[1] == "none" else row[1].strip("`"))
                self.assertEqual(run(f"SELECT count(*) FROM pg_attribute WHERE attrelid = '{table}'::regclass"
                                     f" AND attname = {key} AND attnotnull AND attgenerated = ''"), "0" if key == "NULL" else "1")
                self.assertTrue(not keys or key == "NULL" or key.strip("'") in keys.split(", "))
        self.assertEqual(run("SELECT conname FROM pg_constraint WHERE contype IN ('f', 't') AND connamespace = 'public'::regnamespace"
                             " UNION SELECT relname FROM pg_class WHERE relkind = 'S' AND relnamespace = 'public'::regnamespace"
                             " UNION SELECT tgname FROM pg_trigger"), "")
        self.assertEqual(run("SELECT attrelid::regclass || '.' || attname FROM pg_attribute JOIN pg_class c ON c.oid = attrelid"
                             " WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p', 'v') AND attnum > 0"
                             " AND NOT relispartition AND col_description(attrelid, attnum) IS NULL"), "")


if __name__ == "__main__":
    unittest.main(verbosity=1, argv=sys.argv)
