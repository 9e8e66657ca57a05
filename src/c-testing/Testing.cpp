// The functions of kelvo-testing.h.
#include "kelvo/Testing.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "c/HostCall.h"
#include "c/Interface.h"
#include "kelvo/kelvo-testing.h"

using namespace kelvo;
using testing::Fault;
using testing::Recorder;

namespace {

constexpr double kLongestTime = 1e9;  // seconds

/// The state of a test in C between two calls. It is never destroyed, so that no destructor runs at exit.
struct Kit {
  std::unique_ptr<Recorder> recorder;
  std::string message;
};

Kit& kit() {
  static auto* const instance = new Kit;
  return *instance;
}

/// Returns what `use` returns. If it throws, keeps the reason for the test, and returns `failed`.
template <class Result, class Use>
Result guarded(Result failed, Use&& use) noexcept {
  try {
    kit().message.clear();
    return std::forward<Use>(use)();
  } catch (const std::exception& fault) {
    c::guarded([&] { kit().message = fault.what(); });
  }
  return failed;
}

/// Does the same with the recorder. Without one, keeps that as the reason.
template <class Result, class Use>
Result used(Result failed, Use&& use) noexcept {
  return guarded(failed, [&] {
    if (kit().recorder == nullptr) throw std::logic_error("No recorder lives: call kelvo_testing_begin first");
    return std::forward<Use>(use)(*kit().recorder);
  });
}

/// Does the same with something that returns nothing. Returns false if it throws.
template <class Use>
bool done(Use&& use) noexcept {
  return used(false, [&](Recorder& recorder) {
    std::forward<Use>(use)(recorder);
    return true;
  });
}

template <class Start>
bool begin(Start&& start) {
  if (kit().recorder == nullptr) c::HostCall::allow();
  kit().recorder = std::make_unique<Recorder>(std::forward<Start>(start));
  return true;
}

std::string required(const char* argument, const char* what) {
  if (argument == nullptr) throw std::logic_error(std::string("The argument ") + what + " is NULL");
  return argument;
}

Value parsed(const char* json, const char* what) {
  std::string error;
  const auto value = Value::fromJSON(required(json, what), &error);
  if (!value) throw std::logic_error(std::string("The argument ") + what + " is no JSON: " + error);
  return *value;
}

/// Return the argument's value, an empty one for NULL.
Dictionary objectOf(const char* json, const char* what) {
  const auto object = json != nullptr ? parsed(json, what).asDictionary() : Dictionary();
  if (!object) throw std::logic_error(std::string("The argument ") + what + " is no JSON object");
  return *object;
}

Array listOf(const char* json, const char* what) {
  const auto list = json != nullptr ? parsed(json, what).asArray() : Array();
  if (!list) throw std::logic_error(std::string("The argument ") + what + " is no JSON list");
  return *list;
}

std::chrono::nanoseconds timeOf(double seconds) {
  if (!(seconds >= 0 && seconds <= kLongestTime)) throw std::logic_error("The time is not between 0 and 1e9 seconds");
  return std::chrono::nanoseconds(std::llround(seconds * std::nano::den));
}

double secondsOf(Date time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

/// Returns a copy of the JSON text of a list, for the caller.
template <class Element>
char* returned(const std::vector<Element>& elements) {
  Array list;
  for (const Element& element : elements) list.append(Value(element));
  return c::returned(description(Value(list)));
}

Fault faultOf(kelvo_testing_fault fault, double number) {
  switch (fault) {
    case KELVO_TESTING_STATUS:
      if (!(number >= 100 && number <= 599)) throw std::logic_error("The status is not between 100 and 599");
      return Fault::status(static_cast<int>(number));
    case KELVO_TESTING_GARBAGE: return Fault::garbage();
    case KELVO_TESTING_CUT: return Fault::cut();
    case KELVO_TESTING_LOST_ANSWER: return Fault::lostAnswer();
    case KELVO_TESTING_LATE: return Fault::late(std::chrono::duration_cast<std::chrono::milliseconds>(timeOf(number)));
    case KELVO_TESTING_SILENCE: return Fault::silence();
  }
  throw std::logic_error("There is no such fault");
}

int timesOf(std::uint32_t times) {
  return static_cast<int>(std::min<std::uint32_t>(times, std::numeric_limits<int>::max()));
}

}  // namespace

bool kelvo_testing_begin(const kelvo_options* options) {
  const char* const function = __func__;
  return guarded(false, [&] {
    const auto converted = c::optionsOf(function, options);
    if (!converted) throw std::logic_error("The size of the options is too small");
    return begin(*converted);
  });
}

bool kelvo_testing_begin_not_started(void) {
  return guarded(false, [] { return begin(Recorder::NotStarted()); });
}

bool kelvo_testing_end(void) {
  return done([](Recorder& recorder) {
    try {
      recorder.settle();
    } catch (const std::runtime_error&) {  // it is at work, and must end all the same
    }
    kit().recorder.reset();
  });
}

const char* kelvo_testing_message(void) {
  return kit().message.c_str();
}

bool kelvo_testing_logged(const char* name, const char* json) {
  return used(false, [&](Recorder& recorder) {
    const auto result = recorder.logged(required(name, "name"), objectOf(json, "json"));
    if (!result) kit().message = result.message();
    return static_cast<bool>(result);
  });
}

char* kelvo_testing_events(void) {
  return used<char*>(nullptr, [](Recorder& recorder) { return returned(recorder.events()); });
}

char* kelvo_testing_screens(void) {
  return used<char*>(nullptr, [](Recorder& recorder) { return returned(recorder.screens()); });
}

char* kelvo_testing_calls(void) {
  return used<char*>(nullptr, [](Recorder& recorder) {
    std::vector<Dictionary> calls;
    for (const testing::Call& call : recorder.calls()) {
      calls.push_back({{"kind", call.kind},
                       {"name", call.name},
                       {"attributes", call.attributes},
                       {"time", secondsOf(call.time)},
                       {"refused", call.refused}});
    }
    return returned(calls);
  });
}

int64_t kelvo_testing_delivered(const char* name) {
  return used<std::int64_t>(-1, [&](Recorder& recorder) { return recorder.delivered(required(name, "name")); });
}

char* kelvo_testing_requests(void) {
  return used<char*>(nullptr, [](Recorder& recorder) { return returned(recorder.service().requests()); });
}

char* kelvo_testing_chunks(void) {
  return used<char*>(nullptr, [](Recorder& recorder) { return returned(recorder.service().chunks()); });
}

char* kelvo_testing_home(void) {
  return used<char*>(nullptr, [](Recorder& recorder) { return c::returned(recorder.home()); });
}

bool kelvo_testing_advance(double seconds) {
  return done([&](Recorder& recorder) { recorder.advance(timeOf(seconds)); });
}

double kelvo_testing_now(void) {
  return used<double>(-1, [](Recorder& recorder) { return secondsOf(recorder.now()); });
}

bool kelvo_testing_settle(void) {
  return done([](Recorder& recorder) { recorder.settle(); });
}

bool kelvo_testing_relaunch(void) {
  return done([](Recorder& recorder) {
    recorder.settle();
    c::HostCall::allow();
    recorder.relaunch();
  });
}

bool kelvo_testing_killed(kelvo_callback code, void* context) {
  return done([&](Recorder& recorder) {
    recorder.killed([&] {
      if (code != nullptr) code(context);
    });
  });
}

bool kelvo_testing_refuse_chunks(int status, uint32_t times) {
  return kelvo_testing_fail("/chunks", KELVO_TESTING_STATUS, status, times);
}

bool kelvo_testing_fail(const char* part, kelvo_testing_fault fault, double number, uint32_t times) {
  return done([&](Recorder& recorder) {
    recorder.service().fail(part != nullptr ? part : "", faultOf(fault, number), timesOf(times));
  });
}

bool kelvo_testing_recover(void) {
  return done([](Recorder& recorder) { recorder.service().recover(); });
}

bool kelvo_testing_set_enabled(bool enabled) {
  return done([&](Recorder& recorder) { recorder.service().setEnabled(enabled); });
}

bool kelvo_testing_set_lists(const char* client, const char* aggregate, const char* ignored) {
  return done([&](Recorder& recorder) {
    recorder.service().setLists(listOf(client, "client"), listOf(aggregate, "aggregate"), listOf(ignored, "ignored"));
  });
}

bool kelvo_testing_configure(const char* key, const char* json) {
  return done([&](Recorder& recorder) { recorder.service().configure(required(key, "key"), parsed(json, "json")); });
}
