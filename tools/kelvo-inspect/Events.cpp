#include "kelvo-inspect/Events.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <vector>

#include "kelvo-inspect/Reader.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "records/KLVFileNames.h"
#include "records/KLVRecordKeys.h"
#include "storage/KLVSchema.h"

namespace kelvo::inspect {
namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;

/// The events of one session that the service has accepted: the first and the last number of each chunk.
using Accepted = std::map<std::int64_t, std::int64_t>;

bool contains(const Accepted& chunks, std::int64_t number) {
  const auto next = chunks.upper_bound(number);
  return next != chunks.begin() && number <= std::prev(next)->second;
}

std::map<std::string, Accepted> readAccepted(Reader& reader) {
  std::map<std::string, Accepted> all;
  for (const auto& row : reader.rows(fmt::format("SELECT * FROM {}", kKLVChunkMetaInfo))) {
    if (!row[kKLVChunkStatus].asBool()) continue;
    all[description(row[kKLVChunkSid])].emplace(row[kKLVChunkStart].asInt64(), row[kKLVChunkEnd].asInt64());
  }
  return all;
}

/// Returns the members that every listed event has. `row` is its storage form.
Dictionary describeEvent(const Dictionary& row) {
  const auto attributes = dictionaryFromJSON(row[kKLVAdditionalInfo].asText());
  return {{"kind", row[kKLVType]}, {"name", row[kKLVId]}, {"attributes", unnested(attributes)}};
}

std::int64_t modifiedAt(const std::string& path) {
  struct stat facts {};
  if (::stat(path.c_str(), &facts) != 0) return 0;
  return std::int64_t{facts.st_mtim.tv_sec} * kMillisecondsPerSecond + facts.st_mtim.tv_nsec / 1'000'000;
}

}  // namespace

Dictionary readEvents(const std::string& home, const std::optional<std::string>& name) {
  const auto library = libraryOf(home);
  Reader reader(databaseOf(home));
  auto chunks = readAccepted(reader);
  const auto filter = name ? fmt::format(" WHERE {} = ?", kKLVId) : std::string();
  const auto arguments = name ? Array{*name} : Array();
  Array events;
  for (const auto& [session, table] : reader.eventsTables()) {
    const SessionClock clock(library, session);
    const Accepted& ofSession = chunks[session];
    const auto sql = fmt::format("SELECT * FROM {}{} ORDER BY {}", quotedName(table), filter, kKLVEventIndex);
    for (const auto& row : reader.rows(sql, arguments)) {
      const bool accepted = contains(ofSession, row[kKLVEventIndex].asInt64());
      const Value time = clock.timeOf(row[kKLVTime]);
      Dictionary event{{"time", time}, {"session", session}, {"number", row[kKLVEventIndex]}};
      for (const auto& [key, value] : describeEvent(row)) event.set(key, value);
      event.set("accepted", accepted);
      if (!accepted) event.set("waiting_since", time);
      events.append(std::move(event));
    }
  }
  for (const Value& saved : readSavedEvents(reader, library)) {
    const auto file = *saved.get<Dictionary>();
    for (const Value& form : *file["events"].get<Array>()) {
      Dictionary event = describeEvent(form.asDictionary().value_or(Dictionary()));
      if (name && event["name"] != Value(*name)) continue;
      event.set("accepted", false);
      event.set("waiting_since", file["time"]);
      events.append(std::move(event));
    }
  }
  Dictionary result{{"events", std::move(events)}};
  if (!reader.problem().empty()) result.set("problem", reader.problem());
  return result;
}

Array readSavedEvents(Reader& reader, const std::string& library) {
  std::set<std::string> stored;  // the names of files whose events are in the database, too
  if (reader.hasTable(kKLVRescuedFiles)) {
    for (const auto& row : reader.rows(fmt::format("SELECT * FROM {}", kKLVRescuedFiles))) {
      stored.insert(description(row[kKLVRescuedFileName]));
    }
  }
  std::vector<std::string> paths;
  std::error_code failure;  // ignored: without the directory there are no files
  for (std::filesystem::directory_iterator at(library, failure), end; at != end; at.increment(failure)) {
    const auto name = at->path().filename().string();
    if (name.starts_with(kKLVEventsBuffer) && !stored.contains(name)) paths.push_back(at->path().string());
  }
  std::sort(paths.begin(), paths.end());
  Array files;
  for (const auto& path : paths) {
    const auto text = readFile(path);
    const auto events = text ? parseJSON(*text).value_or(Value()).asArray() : std::nullopt;
    if (events) files.append(Dictionary{{"time", modifiedAt(path)}, {"events", *events}});
  }
  return files;
}

}  // namespace kelvo::inspect
