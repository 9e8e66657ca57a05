#pragma once

#include <string_view>

#include "records/KLVRecordKeys.h"

namespace kelvo {

// The database on disk: its path below the Documents directory, its tables and their columns. The names never change.
inline constexpr std::string_view kKLVDatabaseDirectory = "kelvo-db/v1.0.0/";
inline constexpr std::string_view kKLVDatabaseFile = "com.kelvo.sessions.sqlite";

/// Events: one table for each session, called "events_<session id>". `identifier` counts the events from 1. The other
/// columns are the keys of an event's storage form (records/KLVRecordKeys.h).
inline constexpr std::string_view kKLVEvents = "events";
inline constexpr std::string_view kKLVEventsColumns =
    "identifier INTEGER PRIMARY KEY AUTOINCREMENT, id text, __additional_info__ text, time REAL, type text";

/// Chunks that were cut: their range of events, and their status: NULL until the service accepts them. The columns are
/// the kKLVChunk... keys of records/KLVRecordKeys.h. A settled chunk, accepted or evicted, is never sent again.
inline constexpr int kKLVChunkAccepted = 1;
inline constexpr int kKLVChunkEvicted = 2;
inline constexpr std::string_view kKLVChunkMetaInfo = "chunkmeta";
inline constexpr std::string_view kKLVChunkMetaInfoColumns =
    "id text PRIMARY KEY, sid text, cid int, start int, end int, reporting_times text, status bool";
/// Our own index, so that a purge does not read the rows of all sessions.
inline constexpr std::string_view kKLVChunkMetaInfoIndex = "kelvo_chunkmeta_sid";

/// Counts of a session's aggregate events: one row per event name, and one per event name, attribute and value.
inline constexpr std::string_view kKLVAggEvents = "aggregate_events";
inline constexpr std::string_view kKLVAggEventsColumns =
    "sid text, name text, e_count int, attr_key text, attr_value text, PRIMARY KEY (sid, name, attr_key, attr_value)";
inline constexpr std::string_view kKLVAggSid = "sid";
inline constexpr std::string_view kKLVAggName = "name";
inline constexpr std::string_view kKLVAggCount = "e_count";
inline constexpr std::string_view kKLVAttrKey = "attr_key";
inline constexpr std::string_view kKLVAttrValue = "attr_value";

/// The number of times that each event was logged since the installation.
inline constexpr std::string_view kKLVLifetimeEvents = "lifetime_events";
inline constexpr std::string_view kKLVLifetimeEventsColumns = "name text, count int, PRIMARY KEY (name)";
inline constexpr std::string_view kKLVLifetimeEventName = "name";
inline constexpr std::string_view kKLVLifetimeCount = "count";

/// Tables of our own. Other programs that know the database need not know them.
/// The upload forms of a chunk's cut, as one JSON text.
inline constexpr std::string_view kKLVChunkRecords = "kelvo_chunk_records";
inline constexpr std::string_view kKLVChunkRecordsColumns = "id text PRIMARY KEY, sid text, records text";
inline constexpr std::string_view kKLVChunkRecordsText = "records";

/// The sum of a session's aggregate counts that the service has.
inline constexpr std::string_view kKLVAggregatesSent = "kelvo_aggregates_sent";
inline constexpr std::string_view kKLVAggregatesSentColumns = "sid text PRIMARY KEY, total int";
inline constexpr std::string_view kKLVAggregatesSentTotal = "total";

/// The names of the rescue files whose events are stored.
inline constexpr std::string_view kKLVRescuedFiles = "kelvo_rescued_files";
inline constexpr std::string_view kKLVRescuedFilesColumns = "name text PRIMARY KEY";
inline constexpr std::string_view kKLVRescuedFileName = "name";

/// Evictions that the service does not know yet: the session of the evicted chunks, and the chunk that reports them,
/// empty until it is cut.
inline constexpr std::string_view kKLVEvictions = "kelvo_evictions";
inline constexpr std::string_view kKLVEvictionsColumns = "sid text, chunk text, events int, chunks int";

/// What became of the events since the installation: a number for each entry of util/KLVLedger.h. Each transaction that
/// moves events updates it.
inline constexpr std::string_view kKLVLedger = "kelvo_ledger";
inline constexpr std::string_view kKLVLedgerColumns = "entry text PRIMARY KEY, total int";
inline constexpr std::string_view kKLVLedgerEntryName = "entry";
inline constexpr std::string_view kKLVLedgerTotal = "total";

/// The calls of the journal whose effects are in the database: one row with the epoch that the numbers belong to, and
/// the text of a `KLVSequenceSet`. The transaction with a call's effects adds its number.
inline constexpr std::string_view kKLVJournalCalls = "kelvo_journal";
inline constexpr std::string_view kKLVJournalCallsColumns = "id int PRIMARY KEY, epoch text, finished text";
inline constexpr std::string_view kKLVJournalEpoch = "epoch";
inline constexpr std::string_view kKLVJournalFinished = "finished";

}  // namespace kelvo
