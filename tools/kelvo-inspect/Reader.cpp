#include "kelvo-inspect/Reader.h"

#include <sqlite3.h>

#include <charconv>

#include "platform/Files.h"
#include "platform/JSON.h"
#include "records/KLVFileNames.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVSession.h"
#include "storage/KLVSchema.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Dates.h"

namespace kelvo::inspect {
namespace {

constexpr double kMillisecondsPerSecond = 1000;

}  // namespace

std::string databaseOf(const std::string& home) {
  return joinPath(joinPath(home, "Documents"), std::string(kKLVDatabaseDirectory) + std::string(kKLVDatabaseFile));
}

std::string libraryOf(const std::string& home) {
  return joinPath(home, "Library");
}

Dictionary dictionaryFromJSON(const std::optional<std::string>& text) {
  return parseJSON(text.value_or("")).value_or(Value()).asDictionary().value_or(Dictionary());
}

Dictionary attributesOfRecord(const std::string& path) {
  return dictionaryFromJSON(dictionaryFromJSON(readFile(path))[kKLVAdditionalInfo].asText());
}

Dictionary unnested(const Dictionary& attributes) {
  Dictionary all = attributes;
  all.remove(kKLVCustomInfo);
  return KLVUtilities::addTwoDictionaries(all, attributes[kKLVCustomInfo].asDictionary().value_or(Dictionary()));
}

std::string quotedName(std::string_view name) {
  std::string quoted = "\"";
  for (const char byte : name) quoted += byte == '"' ? std::string("\"\"") : std::string(1, byte);
  return quoted + '"';
}

Reader::Reader(const std::string& path) : database_(path) {
  database_.setLogsErrors(false);
  if (!fileExists(path)) {
    problem_ = "there is no database";
  } else if (!database_.openWithFlags(SQLITE_OPEN_READONLY)) {
    problem_ = "it cannot be opened";
  }
}

std::vector<Dictionary> Reader::rows(const std::string& sql, const Array& arguments) {
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

std::map<std::string, std::string> Reader::eventsTables() {
  const std::string prefix = std::string(kKLVEvents) + "_";
  std::map<std::string, std::string> tables;
  for (const auto& table : rows("SELECT name FROM sqlite_master WHERE type = 'table'")) {
    const auto* name = table["name"].get<std::string>();
    if (name != nullptr && name->starts_with(prefix)) tables.emplace(name->substr(prefix.size()), *name);
  }
  return tables;
}

bool Reader::hasTable(std::string_view name) {
  return !rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name = ?", Array{name}).empty();
}

SessionClock::SessionClock(const std::string& library, const std::string& session) {
  const auto directory = joinPath(library, session);
  const auto attributes = attributesOfRecord(joinPath(directory, kKLVSessionInfo));
  // A session that starts after a long absence has its own launch time; the clock of its events goes on.
  if (attributes[kKLVLaunchType] == Value(kKLVRestart)) {
    start_ = attributesOfRecord(joinPath(directory, kKLVSDKInfo))[kKLVSDKStartTime].asInt64();
  } else {
    const auto loaded = KLVUtilities::timeIntervalFromKLVDateString(attributes[kKLVLaunchTimeString].asText());
    start_ = static_cast<std::int64_t>(loaded * kMillisecondsPerSecond);
  }
  if (start_ == 0) std::from_chars(session.data(), session.data() + session.size(), start_);
}

Value SessionClock::timeOf(const Value& seconds) const {
  if (!seconds.isNumber()) return {};
  return start_ + static_cast<std::int64_t>(seconds.asDouble() * kMillisecondsPerSecond);
}

}  // namespace kelvo::inspect
