#include "kelvo-inspect/Home.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "kelvo-inspect/Events.h"
#include "kelvo-inspect/Journal.h"
#include "kelvo-inspect/Ledger.h"
#include "kelvo-inspect/Reader.h"
#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/JSON.h"
#include "platform/PropertyList.h"
#include "records/KLVFileNames.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVSession.h"
#include "storage/KLVSchema.h"

namespace kelvo::inspect {
namespace {

namespace fs = std::filesystem;

std::uint64_t sizeOf(const std::string& path) {
  std::error_code failure;
  const auto bytes = fs::file_size(path, failure);
  return failure ? 0 : bytes;
}

Array arrayOf(std::vector<Dictionary> rows) {
  Array all;
  for (auto& row : rows) all.append(std::move(row));
  return all;
}

struct Session {
  Array chunks;
  Dictionary events;
  std::string table;           // its events table, empty if there is none
  std::int64_t lastEvent = 0;  // identifier of the newest event
  std::int64_t lastCut = 0;    // identifier of the last event in a chunk
  std::int64_t countsWaiting = 0;
  Value waitingSince;  // the earliest time of what the service has not accepted

  /// Notes that something waits since `time`, milliseconds since 1970.
  void waits(const Value& time) {
    if (waitingSince.isNull() || time.asInt64() < waitingSince.asInt64()) waitingSince = time;
  }
};

/// Sessions by id. An id begins with the launch time, so the oldest session comes first.
using Sessions = std::map<std::string, Session>;

void readEventCounts(Reader& reader, Sessions& sessions) {
  for (const auto& [id, table] : reader.eventsTables()) {
    Session& session = sessions[id];
    session.table = quotedName(table);
    for (const auto& kind :
         reader.rows(fmt::format("SELECT {0}, COUNT(*) AS count FROM {1} GROUP BY {0}", kKLVType, session.table))) {
      session.events.set(description(kind[kKLVType]), kind["count"]);
    }
    for (const auto& row : reader.rows("SELECT MAX(identifier) AS last FROM " + session.table)) {
      session.lastEvent = row["last"].asInt64();
    }
  }
}

/// Returns the time of the earliest event from number `first` to `last`, null if there is none.
Value timeOfEarliest(Reader& reader, const Session& session, const SessionClock& clock, const Value& first,
                     const Value& last) {
  if (session.table.empty()) return {};
  const auto sql =
      fmt::format("SELECT MIN({}) AS time FROM {} WHERE {} BETWEEN ? AND ?", kKLVTime, session.table, kKLVEventIndex);
  for (const auto& row : reader.rows(sql, Array{first, last})) return clock.timeOf(row["time"]);
  return {};
}

void readChunks(Reader& reader, const std::string& library, Sessions& sessions) {
  const auto sql = fmt::format("SELECT * FROM {} ORDER BY {}, {}", kKLVChunkMetaInfo, kKLVChunkSid, kKLVChunkCid);
  for (const auto& row : reader.rows(sql)) {
    const auto id = description(row[kKLVChunkSid]);
    Session& session = sessions[id];
    const auto* times = row[kKLVChunkReportingTimes].get<std::string>();
    Dictionary chunk{{"number", row[kKLVChunkCid]},
                     {"start", row[kKLVChunkStart]},
                     {"end", row[kKLVChunkEnd]},
                     {"accepted", row[kKLVChunkStatus] == Value(kKLVChunkAccepted)},
                     {"reporting_times", times != nullptr ? parseJSON(*times) : std::nullopt}};
    if (row[kKLVChunkStatus] == Value(kKLVChunkEvicted)) chunk.set("evicted", true);
    if (!row[kKLVChunkStatus].asBool()) {
      const SessionClock clock(library, id);
      const Value earliest = timeOfEarliest(reader, session, clock, row[kKLVChunkStart], row[kKLVChunkEnd]);
      chunk.set("waiting_since", earliest.isNull() ? clock.timeOf(0) : earliest);
      session.waits(chunk["waiting_since"]);
    }
    session.chunks.append(std::move(chunk));
    session.lastCut = std::max(session.lastCut, row[kKLVChunkEnd].asInt64());
  }
}

/// Finds what waits in no chunk: events that are not cut yet, and counts of aggregate events. Counts have no time: they
/// wait since the session's launch.
void readUncut(Reader& reader, const std::string& library, Sessions& sessions) {
  const bool notesSent = reader.hasTable(kKLVAggregatesSent);
  for (auto& [id, session] : sessions) {
    const SessionClock clock(library, id);
    const auto number = [&, id = id](std::string_view column, std::string_view table) {
      const auto sql = fmt::format("SELECT SUM({}) AS sum FROM {} WHERE {} = ?", column, table, kKLVAggSid);
      const auto rows = reader.rows(sql, Array{id});
      return rows.empty() ? 0 : rows.front()["sum"].asInt64();
    };
    if (session.lastEvent > session.lastCut) {
      session.waits(timeOfEarliest(reader, session, clock, session.lastCut + 1, session.lastEvent));
    }
    const auto sent = notesSent ? number(kKLVAggregatesSentTotal, kKLVAggregatesSent) : 0;
    session.countsWaiting = std::max<std::int64_t>(0, number(kKLVAggCount, kKLVAggEvents) - sent);
    if (session.countsWaiting > 0) session.waits(clock.timeOf(0));
  }
}

Array describe(const Sessions& sessions, const std::string& library) {
  Array all;
  for (const auto& [id, session] : sessions) {
    Dictionary entry{{"id", id}};
    if (KLVSession::isIdentifier(id)) {
      for (const auto& [key, value] : attributesOfRecord(joinPath(joinPath(library, id), kKLVSessionInfo))) {
        entry.set(key, value);
      }
    }
    entry.set("events", session.events);
    entry.set("chunks", session.chunks);
    entry.set("not_cut", std::max<std::int64_t>(0, session.lastEvent - session.lastCut));
    entry.set("counts_waiting", session.countsWaiting);
    if (!session.waitingSince.isNull()) entry.set("waiting_since", session.waitingSince);
    all.append(std::move(entry));
  }
  return all;
}

Dictionary describeFile(const fs::path& file, const std::string& library) {
  Dictionary entry{{"path", fs::path(file).lexically_relative(library).string()}};
  entry.set("bytes", sizeOf(file.string()));
  if (file.extension() == ".lock" || file.extension() == ".plist" || file.extension() == ".journal") return entry;
  std::string problem;
  const auto text = readFile(file.string(), &problem);
  if (text && text->empty()) return entry;
  const auto content = text ? parseJSON(*text, &problem) : std::nullopt;
  content ? entry.set("content", *content) : entry.set("problem", problem);
  return entry;
}

void readFiles(const std::string& library, Sessions& sessions, Array& files, Value& defaults) {
  std::vector<fs::path> found;
  std::error_code failure;
  for (fs::recursive_directory_iterator at(library, failure), end; at != end; at.increment(failure)) {
    if (at->is_regular_file(failure)) found.push_back(at->path());
  }
  std::sort(found.begin(), found.end());
  for (const auto& file : found) {
    files.append(describeFile(file, library));
    if (file.filename() == kKLVSessionInfo) sessions.try_emplace(file.parent_path().filename().string());
    if (file.extension() != ".plist") continue;
    const auto text = readFile(file.string());
    if (const auto content = text ? parsePropertyList(*text) : std::nullopt) defaults = *content;
  }
}

}  // namespace

Dictionary readHome(const std::string& home) {
  const auto library = libraryOf(home);
  const auto path = databaseOf(home);
  Reader reader(path);
  Sessions sessions;
  Array files;
  Value defaults;
  readFiles(library, sessions, files, defaults);
  readEventCounts(reader, sessions);
  readChunks(reader, library, sessions);
  readUncut(reader, library, sessions);
  auto lifetime = arrayOf(reader.rows(fmt::format("SELECT * FROM {} ORDER BY {} DESC, {}", kKLVLifetimeEvents,
                                                  kKLVLifetimeCount, kKLVLifetimeEventName)));
  auto aggregates = arrayOf(reader.rows(fmt::format("SELECT * FROM {} ORDER BY {}, {}, {}, {}", kKLVAggEvents,
                                                    kKLVAggSid, kKLVAggName, kKLVAttrKey, kKLVAttrValue)));
  if (reader.problem().empty()) {
    for (const auto& row : reader.rows("PRAGMA quick_check(1)")) {
      if (row["quick_check"] != Value("ok")) reader.setProblem(description(row["quick_check"]));
    }
  }

  auto savedEvents = readSavedEvents(reader, library);
  auto ledger = readLedger(path, savedEvents);

  Dictionary database{{"path", path}};
  if (fileExists(path)) database.set("bytes", sizeOf(path) + sizeOf(path + "-wal"));
  if (!reader.problem().empty()) database.set("problem", reader.problem());
  const auto user = HomeLock::holderOf(library);
  return {{"home", home},
          {"used_by", user ? Value(*user) : Value()},
          {"database", std::move(database)},
          {"sessions", describe(sessions, library)},
          {"saved_events", std::move(savedEvents)},
          {"ledger", std::move(ledger)},
          {"journals", readJournals(library)},
          {"lifetime_events", std::move(lifetime)},
          {"aggregate_events", std::move(aggregates)},
          {"files", std::move(files)},
          {"user_defaults", std::move(defaults)}};
}

}  // namespace kelvo::inspect
