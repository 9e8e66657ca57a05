#include "kelvo-server/store/Statements.h"

namespace kelvo::server {
namespace {

// Arrays are parameters column by column; `unnest` makes their rows. The writer folds the rows by key and sorts them,
// so that concurrent transactions lock them in one order.

// A report of a device changes its columns if it is newer. The epoch marks a report that was just made.
#define IF_NEWER(column)                                                                                       \
#column " = CASE WHEN excluded.reported >= d.reported OR excluded.reported = 'epoch' THEN excluded." #column \
          " ELSE d." #column " END, "
// A chunk changes the columns of its session if it is the session's last chunk so far.
#define IF_LAST(column) \
#column " = CASE WHEN excluded.highest_chunk >= s.highest_chunk THEN excluded." #column " ELSE s." #column " END, "

constexpr const char* kTexts[] = {
    "BEGIN",
    "COMMIT",
    "ROLLBACK",

    // kReportDevices. It locks the rows of all devices, and comes first in each transaction: see kErase.
    "INSERT INTO devices AS d (app, device, erase_secret_hash, user_id, user_attributes, app_version, system_version,"
    " hardware_model, width, height, token, installed, reported)"
    " SELECT app, device, secret, user_id, attributes::jsonb, app_version, system_version, model, width, height, token,"
    " installed, reported FROM unnest($1::text[], $2::text[], $3::text[], $4::text[], $5::text[], $6::text[],"
    " $7::text[], $8::text[], $9::float8[], $10::float8[], $11::text[], $12::timestamptz[], $13::timestamptz[])"
    " AS n(app, device, secret, user_id, attributes, app_version, system_version, model, width, height, token,"
    " installed, reported)"
    " ON CONFLICT (app, device) DO UPDATE SET " IF_NEWER(user_id) IF_NEWER(user_attributes) IF_NEWER(app_version)
        IF_NEWER(system_version) IF_NEWER(hardware_model) IF_NEWER(width) IF_NEWER(height) IF_NEWER(installed)
    "erase_secret_hash = coalesce(d.erase_secret_hash, excluded.erase_secret_hash),"
    " token = coalesce(excluded.token, d.token), reported = greatest(d.reported, excluded.reported),"
    " last_arrived = excluded.last_arrived",

    // kFindErased
    "SELECT n.app, n.device FROM unnest($1::text[], $2::text[]) AS n(app, device)"
    " JOIN erased e ON e.app = n.app AND e.device_hash = kelvo_device_hash(n.device)",

    // kInsertIds
    "INSERT INTO chunks (app, session, number, device, fingerprint, events, attributes)"
    " SELECT app, session, number, device, fingerprint, events, attributes::jsonb"
    " FROM unnest($1::text[], $2::text[], $3::int[], $4::text[], $5::text[], $6::int[], $7::text[])"
    " AS n(app, session, number, device, fingerprint, events, attributes)"
    " WHERE NOT EXISTS (SELECT FROM erased e WHERE e.app = n.app AND e.device_hash = kelvo_device_hash(n.device))"
    " ORDER BY app, session, number"
    " ON CONFLICT DO NOTHING RETURNING app, session, number",

    // kFindIds
    "SELECT c.app, c.session, c.number, c.fingerprint FROM unnest($1::text[], $2::text[], $3::int[])"
    " AS n(app, session, number) JOIN chunks c USING (app, session, number)",

    // kInsertEvents
    "INSERT INTO events (app, session, device, user_id, app_version, system_version, kind, name, since_launch, time,"
    " seconds, attributes, full_name)"
    " SELECT app, session, device, user_id, app_version, system_version, kind, name, since_launch, time, seconds,"
    " attributes::jsonb, full_name FROM unnest($1::text[], $2::text[], $3::text[], $4::text[], $5::text[], $6::text[],"
    " $7::text[], $8::text[], $9::int[], $10::timestamptz[], $11::int[], $12::text[], $13::text[])"
    " AS n(app, session, device, user_id, app_version, system_version, kind, name, since_launch, time, seconds,"
    " attributes, full_name)",

    // kAddToSessions
    "INSERT INTO sessions AS s (app, session, device, user_id, started, seconds, is_first, is_fatal, launch_type,"
    " app_version, system_version, hardware_model, library_version, attributes, highest_chunk, chunks, events, screens,"
    " incidents)"
    " SELECT app, session, device, user_id, started, seconds, is_first, is_fatal, launch_type, app_version,"
    " system_version, model, library_version, attributes::jsonb, highest_chunk, chunks, events, screens, incidents"
    " FROM unnest($1::text[], $2::text[], $3::text[], $4::text[], $5::timestamptz[], $6::float8[], $7::bool[],"
    " $8::bool[], $9::text[], $10::text[], $11::text[], $12::text[], $13::text[], $14::text[], $15::int[], $16::int[],"
    " $17::int[], $18::int[], $19::int[])"
    " AS n(app, session, device, user_id, started, seconds, is_first, is_fatal, launch_type, app_version,"
    " system_version, model, library_version, attributes, highest_chunk, chunks, events, screens, incidents)"
    " ON CONFLICT (app, session) DO UPDATE SET " IF_LAST(app_version) IF_LAST(system_version) IF_LAST(hardware_model)
        IF_LAST(library_version) IF_LAST(attributes)
    "user_id = CASE WHEN excluded.highest_chunk >= s.highest_chunk THEN coalesce(excluded.user_id, s.user_id)"
    " ELSE coalesce(s.user_id, excluded.user_id) END,"
    " seconds = greatest(s.seconds, excluded.seconds), is_first = s.is_first OR excluded.is_first,"
    " is_fatal = s.is_fatal OR excluded.is_fatal, highest_chunk = greatest(s.highest_chunk, excluded.highest_chunk),"
    " chunks = s.chunks + excluded.chunks, events = s.events + excluded.events,"
    " screens = s.screens + excluded.screens, incidents = s.incidents + excluded.incidents, last_arrived = excluded.last_arrived",

    // kRaiseAggregates
    "INSERT INTO aggregates AS a (app, session, name, attribute, value, count)"
    " SELECT * FROM unnest($1::text[], $2::text[], $3::text[], $4::text[], $5::text[], $6::int8[])"
    " ON CONFLICT (app, session, digest) DO UPDATE SET count = excluded.count WHERE a.count < excluded.count",

    // kCountDuplicates
    "UPDATE chunks c SET arrivals = arrivals + 1 FROM unnest($1::text[], $2::text[], $3::int[])"
    " AS n(app, session, number) WHERE c.app = n.app AND c.session = n.session AND c.number = n.number",

    // kKeepConflicts
    "INSERT INTO conflicts AS c (app, session, number, fingerprint, device, body)"
    " SELECT app, session, number, fingerprint, device, body::jsonb"
    " FROM unnest($1::text[], $2::text[], $3::int[], $4::text[], $5::text[], $6::text[])"
    " AS n(app, session, number, fingerprint, device, body)"
    " ON CONFLICT (app, session, number, fingerprint) DO UPDATE SET arrivals = c.arrivals + 1",

    // kForgetDevices
    "DELETE FROM devices d USING unnest($1::text[], $2::text[]) AS n(app, device)"
    " WHERE d.app = n.app AND d.device = n.device",

    // kKeepUnreadable
    "INSERT INTO quarantine AS q (app, digest, reason, device, body)"
    " SELECT $1::text, $2::text, $3::text, $4::text, $5::bytea WHERE NOT EXISTS (SELECT FROM erased e"
    " WHERE e.app = $1::text AND e.device_hash = kelvo_device_hash($4::text))"
    " ON CONFLICT (app, digest) DO UPDATE SET arrivals = q.arrivals + 1",

    // kLockDevice. It waits for a chunk of this device that is being committed, also for the device's first one.
    "INSERT INTO devices AS d (app, device) VALUES ($1::text, $2::text)"
    " ON CONFLICT (app, device) DO UPDATE SET device = d.device"
    " RETURNING erase_secret_hash, reported <> '-infinity'",

    // kErase
    "SELECT kelvo_erase($1::text, $2::text, kelvo_device_hash($2::text))",

    "SELECT kelvo_add_partitions(3)",
    "SELECT kelvo_count_days()",
    "SELECT kelvo_drop_partitions((now() AT TIME ZONE 'UTC')::date - $1::text::int)",
    "SELECT kelvo_delete_before((now() AT TIME ZONE 'UTC')::date - $1::text::int)",
};
static_assert(sizeof kTexts / sizeof kTexts[0] == kNumberOfStatements);

}  // namespace

std::span<const char* const> statements() {
  return kTexts;
}

}  // namespace kelvo::server
