#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

/// Checks one chunk while it is stored, and writes a row for each problem. A check reads the chunk and existing counts
/// only, so its cost does not grow with the store. Thread: inside a transaction of `database`.
class Quality {
 public:
  /// `session` is the key of the session's row, `chunk` the chunk's number, and `time` the time of arrival in
  /// milliseconds since 1970.
  Quality(Database& database, std::int64_t session, std::int64_t chunk, std::int64_t time)
      : database_(database), session_(session), chunk_(chunk), time_(time) {}

  /// Reports the chunk numbers missing between `highestSoFar` and this chunk, or that this chunk is late.
  void checkOrder(std::int64_t highestSoFar);
  void checkSession(const Dictionary& record);
  void checkEvent(const std::string& kind, const std::string& name, const Dictionary& event, std::int64_t id);
  /// Reports a new `name` that differs from a known name only in case.
  void checkNewName(const std::string& kind, const std::string& name, std::int64_t event);
  void reportConflict(const std::string& chunkId, std::int64_t firstRequest, std::int64_t secondRequest);
  void reportTypeChange(const std::string& name, const std::string& attribute, const std::string& before,
                        const std::string& now, const Value& value, std::int64_t event);
  void reportTooManyValues(const std::string& name, const std::string& attribute, std::int64_t count);

 private:
  void report(const char* kind, const std::string& message, const Value& value, std::optional<std::int64_t> event,
              std::int64_t chunk);
  /// Deletes the report that this chunk is missing.
  void resolveMissing();
  void checkDuration(const Dictionary& object, const char* member, const std::string& of,
                     std::optional<std::int64_t> event);

  Database& database_;
  std::int64_t session_;
  std::int64_t chunk_;
  std::int64_t time_;
};

/// Adds `count` to a counter of `session`, which may be `kAllSessions`.
void addToCounter(Database& database, std::int64_t session, const char* what, const std::string& item,
                  std::int64_t count);

}  // namespace kelvo::collector
