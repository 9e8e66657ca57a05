#include "storage/KLVWaiting.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "records/KLVEventType.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVSQLText.h"
#include "storage/KLVSchema.h"

namespace kelvo {
namespace {

using Rows = std::vector<Dictionary>;

/// Events of a session, by number, both included.
struct Range {
  std::uint64_t first;
  std::uint64_t last;
};

struct Session {
  std::vector<Range> unaccepted;  // neighbours are one range
  std::uint64_t lastInChunk = 0;
};

std::optional<Rows> rows(FMKLVDatabase& db, const std::string& sql) {
  const auto set = db.executeQuery(sql);
  if (set == nullptr) return std::nullopt;
  Rows all;
  FMKLVError failure;
  while (set->nextWithError(&failure)) all.push_back(set->resultDictionary().value_or(Dictionary()));
  return failure.code == 0 ? std::optional(std::move(all)) : std::nullopt;
}

std::string typesInChunks() {
  std::string names;
  for (const KLVEventType type : kTypesInChunks) {
    names += fmt::format("{}'{}'", names.empty() ? "" : ",", stringFromType(type));
  }
  return names;
}

void add(Session& session, const Range& chunk, bool isAccepted) {
  session.lastInChunk = std::max(session.lastInChunk, chunk.last);
  if (isAccepted || chunk.last < chunk.first) return;
  auto& ranges = session.unaccepted;
  if (!ranges.empty() && ranges.back().last + 1 == chunk.first) {
    ranges.back().last = chunk.last;
  } else {
    ranges.push_back(chunk);
  }
}

}  // namespace

std::optional<std::uint64_t> KLVWaiting::eventsIn(FMKLVDatabase& db, std::string_view table, std::uint64_t first,
                                                  std::uint64_t last) {
  if (last < first) return 0;
  const auto found =
      rows(db, fmt::format("select COUNT(*) as n from {} where identifier >= {} and identifier <= {} and {} in ({})",
                           quotedName(table), first, last, kKLVType, typesInChunks()));
  return found && !found->empty() ? std::optional(found->front()["n"].asUInt64()) : std::nullopt;
}

std::optional<KLVWaiting> KLVWaiting::in(FMKLVDatabase& db, std::string_view currentSession) {
  const std::string prefix = std::string(kKLVEvents) + "_";
  const auto chunks =
      rows(db, fmt::format("select * from {} order by {}, {}", kKLVChunkMetaInfo, kKLVChunkSid, kKLVChunkStart));
  const auto tables = rows(db, "select name from sqlite_master where type = 'table'");
  if (!chunks || !tables) return std::nullopt;

  KLVWaiting waiting;
  std::map<std::string, Session, std::less<>> sessions;
  for (const auto& chunk : *chunks) {
    const bool isAccepted = chunk[kKLVChunkStatus].asBool();
    if (!isAccepted) ++waiting.chunks;
    add(sessions[chunk[kKLVChunkSid].asText().value_or("")],
        {chunk[kKLVChunkStart].asUInt64(), chunk[kKLVChunkEnd].asUInt64()}, isAccepted);
  }
  for (const auto& table : *tables) {
    const std::string name = table["name"].asText().value_or("");
    if (!name.starts_with(prefix)) continue;
    const std::string_view sid = std::string_view(name).substr(prefix.size());
    const Session& session = sessions[std::string(sid)];
    for (const Range& range : session.unaccepted) {
      const auto count = eventsIn(db, name, range.first, range.last);
      if (!count) return std::nullopt;
      waiting.events += *count;
    }
    const auto tail = eventsIn(db, name, session.lastInChunk + 1, INT64_MAX);
    if (!tail) return std::nullopt;
    waiting.events += *tail;
    if (sid == currentSession) waiting.newEvents = *tail;
  }
  return waiting;
}

KLVWaiting KLVWaiting::inHome(const std::string& home) {
  const std::string path = joinPath(home, fmt::format("Documents/{}{}", kKLVDatabaseDirectory, kKLVDatabaseFile));
  FMKLVDatabase db(path);
  db.setLogsErrors(false);
  if (!fileExists(path) || !db.openWithFlags(SQLITE_OPEN_READONLY)) return {};
  return in(db, "").value_or(KLVWaiting());
}

}  // namespace kelvo
