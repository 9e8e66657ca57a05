#pragma once

#include <string>
#include <string_view>

namespace kelvo {

// The database on disk. Its names are part of the interface and never change.
inline constexpr std::string_view kKLVDatabaseDirectory = "kelvo-db/v1.0.0/";
inline constexpr std::string_view kKLVDatabaseFile = "com.kelvo.sessions.sqlite";

/// Events of one session: a table of its own, "events_<session id>". `identifier` counts them from 1.
inline constexpr std::string_view kKLVEvents = "events";
inline constexpr std::string_view kKLVEventsColumns =
    "identifier INTEGER PRIMARY KEY AUTOINCREMENT, id text, __additional_info__ text, time REAL, type text";
inline constexpr std::string_view kKLVEventType = "type";

/// Chunks that were cut: their range of events, and whether the service accepted them (NULL until it did).
inline constexpr std::string_view kKLVChunkMetaInfo = "chunkmeta";
inline constexpr std::string_view kKLVChunkMetaInfoColumns =
    "id text PRIMARY KEY, sid text, cid int, start int, end int, reporting_times text, status bool";
inline constexpr std::string_view kKLVChunkId = "id";
inline constexpr std::string_view kKLVChunkSid = "sid";
inline constexpr std::string_view kKLVChunkCid = "cid";
inline constexpr std::string_view kKLVChunkStart = "start";
inline constexpr std::string_view kKLVChunkEnd = "end";
inline constexpr std::string_view kKLVChunkReportingTimes = "reporting_times";
inline constexpr std::string_view kKLVChunkStatus = "status";

/// Counts of a session's aggregate events, each also by attribute and value.
inline constexpr std::string_view kKLVAggEvents = "aggregate_events";
inline constexpr std::string_view kKLVAggEventsColumns =
    "sid text, name text, e_count int, attr_key text, attr_value text, PRIMARY KEY (sid, name, attr_key, attr_value)";
inline constexpr std::string_view kKLVAggSid = "sid";
inline constexpr std::string_view kKLVAggName = "name";
inline constexpr std::string_view kKLVAggCount = "e_count";
inline constexpr std::string_view kKLVAttrKey = "attr_key";
inline constexpr std::string_view kKLVAttrValue = "attr_value";

/// How often each event was logged since installation.
inline constexpr std::string_view kKLVLifetimeEvents = "lifetime_events";
inline constexpr std::string_view kKLVLifetimeEventsColumns = "name text, count int, PRIMARY KEY (name)";
inline constexpr std::string_view kKLVLifetimeEventName = "name";
inline constexpr std::string_view kKLVLifetimeCount = "count";

}  // namespace kelvo
