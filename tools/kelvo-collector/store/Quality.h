#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

/// What is wrong in one chunk, looked for while it is kept. Every check looks at the chunk and at what is counted
/// already, never at all that ever arrived.
class Quality {
 public:
  /// `session` is the row of the session, `time` when the chunk arrived, in milliseconds since 1970.
  Quality(Database& database, std::int64_t session, std::int64_t chunk, std::int64_t time)
      : database_(database), session_(session), chunk_(chunk), time_(time) {}

  /// Numbers are missing between the highest one so far and this one, or this one is late.
  void checkOrder(std::int64_t highestSoFar);
  void checkSession(const Dictionary& record);
  void checkEvent(const std::string& kind, const std::string& name, const Dictionary& event, std::int64_t id);
  /// For a name that came for the first time.
  void checkNewName(const std::string& kind, const std::string& name, std::int64_t event);
  void reportConflict(const std::string& chunkId, std::int64_t firstRequest, std::int64_t secondRequest);
  void reportTypeChange(const std::string& name, const std::string& attribute, const std::string& before,
                        const std::string& now, const Value& value, std::int64_t event);
  void reportTooManyValues(const std::string& name, const std::string& attribute, std::int64_t count);

 private:
  void report(const char* kind, const std::string& message, const Value& value, std::optional<std::int64_t> event,
              std::int64_t chunk);
  void resolveMissing();
  void checkDuration(const Dictionary& object, const char* member, const std::string& of,
                     std::optional<std::int64_t> event);

  Database& database_;
  std::int64_t session_;
  std::int64_t chunk_;
  std::int64_t time_;
};

/// Adds to a count of all sessions (0) or of one.
void addToCounter(Database& database, std::int64_t session, const char* what, const std::string& item,
                  std::int64_t count);

}  // namespace kelvo::collector
