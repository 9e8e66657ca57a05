#pragma once

#include <cstdint>
#include <string>

#include "kelvo-collector/store/Expectations.h"
#include "kelvo-collector/store/Problems.h"
#include "kelvo/Value.h"

// Verdicts: whether an application event, or an aggregate event of a session, is as expected. Thread: inside a
// transaction of the database.

namespace kelvo::collector {

class Database;

/// A stored event.
struct JudgedEvent {
  std::int64_t id;
  EventToJudge event;
  Place place;
};

/// Judges an event, and stores and counts the verdict. The verdict on an aggregate replaces the one on its earlier
/// sums; only new faults are problems. Does nothing if the event has no expectation.
void keepVerdict(Database& database, const Expectations& expectations, const JudgedEvent& event);

/// Forgets all verdicts and judges the stored events again.
void judgeAgain(Database& database, const Expectations& expectations);

}  // namespace kelvo::collector
