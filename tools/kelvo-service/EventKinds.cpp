#include "kelvo-service/EventKinds.h"

#include <algorithm>
#include <cmath>

#include "kelvo-service/Fingerprint.h"

namespace kelvo::service {
namespace {

constexpr double kLatestSecond = 1e9;  // distance from the launch

}  // namespace

Dictionary attributesOf(const Dictionary& event, const EventKind& kind) {
  if (kind.attributes != nullptr) return event[kind.attributes].asDictionary().value_or(Dictionary());
  Dictionary others = event;
  others.remove(kind.name);
  others.remove(kind.time);
  return others;
}

double timeOf(const Dictionary& event, const EventKind& kind) {
  const double time = event[kind.time].asDouble();
  return std::isfinite(time) ? std::clamp(time, -kLatestSecond, kLatestSecond) : 0;
}

std::string fingerprintOfEvents(const Dictionary& details) {
  Dictionary covered;
  for (const EventKind& kind : kEventKinds) {
    if (const Value* list = details.find(kind.list)) covered.set(kind.list, *list);
  }
  return fingerprint(covered);
}

}  // namespace kelvo::service
