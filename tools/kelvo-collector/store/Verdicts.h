#pragma once

#include <cstdint>
#include <string>

#include "kelvo-collector/store/Problems.h"
#include "kelvo/Value.h"

// Verdicts: whether an application event is as expected. Thread: inside a transaction of the database.

namespace kelvo::collector {

class Database;
class Expectations;

/// A stored application event.
struct JudgedEvent {
  std::int64_t id;
  const std::string& name;
  const Dictionary& attributes;
  Place place;
};

/// Judges an event, and stores and counts the verdict. Does nothing if the event has no expectation.
void keepVerdict(Database& database, const Expectations& expectations, const JudgedEvent& event);

/// Forgets all verdicts and judges the stored events again.
void judgeAgain(Database& database, const Expectations& expectations);

}  // namespace kelvo::collector
