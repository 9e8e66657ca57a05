#include <algorithm>
#include <stdexcept>
#include <utility>

#include "kelvo/Testing.h"
#include "platform/Clock.h"
#include "testing/Recording.h"

namespace kelvo::testing {
namespace {

using collector::Script;

constexpr std::size_t kMostCallsInMessage = 20;

bool isEvent(const Call& call) {
  constexpr std::string_view kKinds[] = {"application event", "client event", "aggregate event", "custom error"};
  return std::find(std::begin(kKinds), std::end(kKinds), call.kind) != std::end(kKinds);
}

bool hasAtLeast(const Dictionary& attributes, const Dictionary& expected) {
  return std::all_of(expected.begin(), expected.end(), [&](const auto& entry) {
    const Value* const found = attributes.find(entry.first);
    return found != nullptr && *found == entry.second;
  });
}

std::string lineOf(const Call& call) {
  std::string line = call.kind + (call.name.empty() ? "" : " " + call.name);
  if (!call.attributes.empty()) line += " " + description(call.attributes);
  return call.refused.empty() ? line : line + " (refused: " + call.refused + ")";
}

/// Returns the latest of the calls, one line each.
std::string listOf(const std::vector<Call>& calls) {
  if (calls.empty()) return "The host has made no call that carries data.";
  const auto left = calls.size() - std::min(calls.size(), kMostCallsInMessage);
  std::string list = "The host has made " + std::to_string(calls.size()) + " calls:";
  if (left > 0) list += "\n  ... (" + std::to_string(left) + " earlier ones)";
  for (auto call = calls.begin() + static_cast<std::ptrdiff_t>(left); call != calls.end(); ++call) {
    list += "\n  " + lineOf(*call);
  }
  return list;
}

/// Returns how often an entry of a chunk's `list` counts: as one event with this value under `key`, or as `count`.
std::int64_t countIn(const Dictionary& details, const char* list, const char* key, const std::string& name) {
  std::int64_t count = 0;
  for (const Value& value : details[list].asArray().value_or(Array())) {
    const Dictionary entry = value.asDictionary().value_or(Dictionary());
    if (entry[key] == Value(name)) count += entry.contains("count") ? entry["count"].asInt64() : 1;
  }
  return count;
}

}  // namespace

void Service::fail(const std::string& part, const Fault& fault, int times) {
  const auto script = [&]() -> Script {
    switch (fault.kind_) {
      case Fault::Kind::status: return Script(fault.status_);
      case Fault::Kind::garbage: return Script::garbage();
      case Fault::Kind::cut: return Script::cut();
      case Fault::Kind::lostAnswer: return Script::losingTheAnswer();
      case Fault::Kind::late: return Script::late(fault.delay_);
      case Fault::Kind::silence: break;
    }
    return Script::never();
  };
  recording_->service.follow(part, script().times(static_cast<std::size_t>(std::max(times, 0))));
}

void Service::recover() {
  recording_->service.recover();
}

void Service::setEnabled(bool enabled) {
  recording_->service.state.setEnabled(enabled);
}

void Service::setLists(const Array& client, const Array& aggregate, const Array& ignored) {
  recording_->service.state.setClientEvents(client, aggregate, ignored);
}

void Service::configure(const std::string& key, const Value& value) {
  recording_->service.state.setConfigurationValue(key, value);
}

std::vector<std::string> Service::requests() const {
  waitForWork();
  return recording_->service.requests();
}

std::vector<Dictionary> Service::chunks() const {
  waitForWork();
  return recording_->service.chunks();
}

Recorder::Recorder(Options options) : recording_(std::make_unique<Recording>()), service_(*recording_) {
  recording_->startWith(std::move(options));
  recording_->beginLaunch();
}

Recorder::Recorder(NotStarted) : recording_(std::make_unique<Recording>()), service_(*recording_) {
  recording_->beginLaunch();
}

Recorder::~Recorder() = default;

Result Recorder::logged(const std::string& name, const Dictionary& attributes) const {
  const auto all = calls();
  const bool isThere = std::any_of(all.begin(), all.end(), [&](const Call& call) {
    return isEvent(call) && call.refused.empty() && call.name == name && hasAtLeast(call.attributes, attributes);
  });
  const std::string expected = attributes.empty() ? name : name + " " + description(attributes);
  return {isThere, "Expected event: " + expected + "\n" + listOf(all)};
}

std::vector<std::string> Recorder::events() const {
  std::vector<std::string> names;
  for (const Call& call : calls()) {
    if (isEvent(call) && call.refused.empty()) names.push_back(call.name);
  }
  return names;
}

std::vector<std::string> Recorder::screens() const {
  settle();
  return recording_->screens();
}

std::vector<Call> Recorder::calls() const {
  settle();
  return recording_->calls();
}

int Recorder::delivered(const std::string& name) const {
  std::int64_t count = 0;
  for (const Dictionary& chunk : service_.chunks()) {
    const Dictionary details = chunk["chunk_details"].asDictionary().value_or(Dictionary());
    for (const char* list : {"app_events", "system_events", "navigation_events", "agg_events"}) {
      count += countIn(details, list, "name", name);
    }
    for (const Value& value : details["incidents"].asArray().value_or(Array())) {
      const Dictionary incident = value.asDictionary().value_or(Dictionary());
      const auto more = incident["incident_specific_details"].asDictionary().value_or(Dictionary());
      if (more["error_message"] == Value(name)) ++count;
    }
  }
  return static_cast<int>(count);
}

void Recorder::advance(std::chrono::nanoseconds time) {
  if (time.count() < 0) throw std::logic_error("The clock does not go back");
  settle();
  Clock::advance(time);
}

Date Recorder::now() const {
  return Clock::now();
}

void Recorder::settle() const {
  waitForWork();
}

void Recorder::relaunch() {
  settle();
  recording_->endLaunch();
  recording_->beginLaunch();
}

void Recorder::killed(const std::function<void()>& code) {
  settle();
  recording_->endLaunch();
  const bool isKilled = recording_->runKilled(code);
  recording_->beginLaunch();
  if (!isKilled) throw std::runtime_error("The launch that was to be killed has ended by itself");
}

const std::string& Recorder::home() const noexcept {
  return recording_->home();
}

}  // namespace kelvo::testing
