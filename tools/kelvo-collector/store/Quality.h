#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo-collector/store/Gaps.h"
#include "kelvo-collector/store/Problems.h"
#include "kelvo-collector/store/Types.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;
class Expectations;

/// An event of the chunk that is being stored.
struct CheckedEvent {
  const std::string& kind;
  const std::string& name;
  const Dictionary& members;  ///< as received
  const Dictionary& attributes;
  double time;  ///< seconds since the launch
  std::int64_t id;
};

/// Checks one chunk while it is stored, and writes a row for each problem. A check reads the chunk and a bounded number
/// of rows, so its cost does not grow with the store. Thread: inside a transaction of `database`.
class Quality {
 public:
  /// `sessionId` is the id of the session in `place`.
  Quality(Database& database, const Place& place, const std::string& sessionId, const Expectations& expectations)
      : database_(database), place_(place), sessionId_(sessionId), expectations_(expectations) {}

  /// Reports the chunk numbers missing between `highestSoFar` and this chunk, or that this chunk is late. `evicted` is
  /// what the chunk says about evictions.
  void checkOrder(std::int64_t highestSoFar, const std::optional<Evicted>& evicted);
  void checkSession(const Dictionary& record);
  void checkEvent(const CheckedEvent& event);
  /// Compares an application event, or the newest sums of an aggregate event, with the expectations.
  void judge(const CheckedEvent& event);
  /// Reports a new `name` that differs from a known name only in case.
  void checkNewName(const std::string& kind, const std::string& name, std::int64_t event);
  /// Reports an attribute with values of several types.
  void checkTypes(const AttributeOf& of) { reportTypes(database_, of, place_); }
  void reportConflict(const std::string& chunkId, std::int64_t firstRequest, std::int64_t secondRequest);
  void reportTooManyValues(const std::string& name, const std::string& attribute, std::int64_t count,
                           std::int64_t event);

 private:
  void report(Problem problem);
  void checkDuration(const Dictionary& object, const char* member, const std::string& name,
                     std::optional<std::int64_t> event);
  /// Reports an application event that was logged twice in one second with the same attributes.
  void checkRepetition(const CheckedEvent& event);

  Database& database_;
  const Place place_;
  const std::string& sessionId_;
  const Expectations& expectations_;
};

/// Adds `count` to a counter of `session`, which may be `kAllSessions`.
void addToCounter(Database& database, std::int64_t session, const char* what, const std::string& item,
                  std::int64_t count);

}  // namespace kelvo::collector
