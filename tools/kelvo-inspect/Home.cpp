#include "kelvo-inspect/Home.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/JSON.h"
#include "platform/PropertyList.h"
#include "records/KLVFileNames.h"
#include "records/KLVRecordKeys.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVSchema.h"

namespace kelvo::inspect {
namespace {

namespace fs = std::filesystem;

const std::string kEventsPrefix = std::string(kKLVEvents) + "_";

/// Reads rows through a read-only connection. On failure, `rows` returns no rows and `problem` the reason.
class Reader {
 public:
  explicit Reader(const std::string& path) : database_(path) {
    database_.setLogsErrors(false);
    if (!fileExists(path)) {
      problem_ = "there is no database";
    } else if (!database_.openWithFlags(SQLITE_OPEN_READONLY)) {
      problem_ = "it cannot be opened";
    }
  }

  std::vector<Dictionary> rows(const std::string& sql, const Array& arguments = {}) {
    std::vector<Dictionary> found;
    if (!database_.isOpen()) return found;
    const auto set = database_.executeQuery(sql, arguments);
    FMKLVError failure;
    if (set == nullptr) {
      problem_ = database_.lastErrorMessage();
      return found;
    }
    while (set->nextWithError(&failure)) found.push_back(set->resultDictionary().value_or(Dictionary()));
    if (failure.code != 0) problem_ = failure.message;
    return found;
  }

  [[nodiscard]] const std::string& problem() const noexcept { return problem_; }
  void setProblem(std::string problem) { problem_ = std::move(problem); }

 private:
  FMKLVDatabase database_;
  std::string problem_;
};

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

std::string quotedName(const std::string& table) {
  std::string quoted = "\"";
  for (const char byte : table) quoted += byte == '"' ? std::string("\"\"") : std::string(1, byte);
  return quoted + '"';
}

/// Returns the dictionary in a JSON text, empty if there is none.
Dictionary dictionaryFromJSON(const std::optional<std::string>& text) {
  return parseJSON(text.value_or("")).value_or(Value()).asDictionary().value_or(Dictionary());
}

/// Returns the attributes in a record's file, where they are one JSON text within the JSON.
Dictionary attributesOfRecord(const std::string& path) {
  return dictionaryFromJSON(dictionaryFromJSON(readFile(path))[kKLVAdditionalInfo].asText());
}

struct Session {
  Array chunks;
  Dictionary events;
  std::int64_t lastEvent = 0;  // identifier of the newest event
  std::int64_t lastCut = 0;    // identifier of the last event in a chunk
};

/// Sessions by id. An id begins with the launch time, so the oldest session comes first.
using Sessions = std::map<std::string, Session>;

void readEvents(Reader& reader, Sessions& sessions) {
  for (const auto& table : reader.rows("SELECT name FROM sqlite_master WHERE type = 'table'")) {
    const auto* name = table["name"].get<std::string>();
    if (name == nullptr || !name->starts_with(kEventsPrefix)) continue;
    Session& session = sessions[name->substr(kEventsPrefix.size())];
    const auto events = quotedName(*name);
    for (const auto& kind :
         reader.rows(fmt::format("SELECT {0}, COUNT(*) AS count FROM {1} GROUP BY {0}", kKLVType, events))) {
      session.events.set(description(kind[kKLVType]), kind["count"]);
    }
    for (const auto& row : reader.rows("SELECT MAX(identifier) AS last FROM " + events)) {
      session.lastEvent = row["last"].asInt64();
    }
  }
}

void readChunks(Reader& reader, Sessions& sessions) {
  const auto sql = fmt::format("SELECT * FROM {} ORDER BY {}, {}", kKLVChunkMetaInfo, kKLVChunkSid, kKLVChunkCid);
  for (const auto& row : reader.rows(sql)) {
    Session& session = sessions[description(row[kKLVChunkSid])];
    const auto* times = row[kKLVChunkReportingTimes].get<std::string>();
    session.chunks.append(Dictionary{{"number", row[kKLVChunkCid]},
                                     {"start", row[kKLVChunkStart]},
                                     {"end", row[kKLVChunkEnd]},
                                     {"accepted", row[kKLVChunkStatus].asBool()},
                                     {"reporting_times", times != nullptr ? parseJSON(*times) : std::nullopt}});
    session.lastCut = std::max(session.lastCut, row[kKLVChunkEnd].asInt64());
  }
}

Array describe(const Sessions& sessions, const std::string& library) {
  Array all;
  for (const auto& [id, session] : sessions) {
    Dictionary entry{{"id", id}};
    for (const auto& [key, value] : attributesOfRecord(joinPath(joinPath(library, id), kKLVSessionInfo))) {
      entry.set(key, value);
    }
    entry.set("events", session.events);
    entry.set("chunks", session.chunks);
    entry.set("not_cut", std::max<std::int64_t>(0, session.lastEvent - session.lastCut));
    all.append(std::move(entry));
  }
  return all;
}

Dictionary describeFile(const fs::path& file, const std::string& library) {
  Dictionary entry{{"path", fs::path(file).lexically_relative(library).string()}};
  entry.set("bytes", sizeOf(file.string()));
  if (file.extension() == ".lock" || file.extension() == ".plist") return entry;
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
  const auto library = joinPath(home, "Library");
  const auto path =
      joinPath(joinPath(home, "Documents"), std::string(kKLVDatabaseDirectory) + std::string(kKLVDatabaseFile));
  Reader reader(path);
  Sessions sessions;
  Array files;
  Value defaults;
  readFiles(library, sessions, files, defaults);
  readEvents(reader, sessions);
  readChunks(reader, sessions);
  auto lifetime = arrayOf(reader.rows(fmt::format("SELECT * FROM {} ORDER BY {} DESC, {}", kKLVLifetimeEvents,
                                                  kKLVLifetimeCount, kKLVLifetimeEventName)));
  auto aggregates = arrayOf(reader.rows(fmt::format("SELECT * FROM {} ORDER BY {}, {}, {}, {}", kKLVAggEvents,
                                                    kKLVAggSid, kKLVAggName, kKLVAttrKey, kKLVAttrValue)));
  if (reader.problem().empty()) {
    for (const auto& row : reader.rows("PRAGMA quick_check(1)")) {
      if (row["quick_check"] != Value("ok")) reader.setProblem(description(row["quick_check"]));
    }
  }

  Dictionary database{{"path", path}};
  if (fileExists(path)) database.set("bytes", sizeOf(path) + sizeOf(path + "-wal"));
  if (!reader.problem().empty()) database.set("problem", reader.problem());
  const auto user = HomeLock::holderOf(library);
  return {{"home", home},
          {"used_by", user ? Value(*user) : Value()},
          {"database", std::move(database)},
          {"sessions", describe(sessions, library)},
          {"lifetime_events", std::move(lifetime)},
          {"aggregate_events", std::move(aggregates)},
          {"files", std::move(files)},
          {"user_defaults", std::move(defaults)}};
}

}  // namespace kelvo::inspect
