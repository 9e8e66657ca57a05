#include <sys/resource.h>

#include <boost/asio/io_context.hpp>
#include <charconv>
#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <string_view>

#include "Fleet.h"
#include "util/KLVLogger.h"

namespace {

using kelvo::bench::Plan;

constexpr const char* kHelp = R"(usage: kelvo-bench-fleet [OPTION]... URL...

Plays devices against the services at URLs (http://ADDRESS:PORT). Each device cuts a chunk at each beat of its timer and
resends as the library does. Ends with status 1 if a chunk is not accepted at the end.

  --devices N          (1000)
  --events N           events in a chunk (10)
  --timer SECONDS      between two cuts (30)
  --before SECONDS     the first phase (60)
  --outage SECONDS     the second phase: no device reaches the service (0)
  --after SECONDS      the third phase (0)
  --settle SECONDS     the last phase, without cuts: at most this long, until no chunk waits (120)
  --pace X             seconds of a device in one second (1)
  --reconnect          each chunk gets a connection of its own
  --forwarded          each device has an address of its own, in X-Forwarded-For
  --app ID             the application (fleet)
  --group N            fleets with different groups have different devices (1)
  --report SECONDS     between two lines of the output (10)
  --watch NAME=PID     prints the CPU time of the process PID and its children; may be repeated
  --ledger FILE        writes a line "session,accepted chunks" for each device
)";

template <class Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number >= 0;
}

/// Reads one option. Returns false if it is none, or its value is unusable.
bool readOption(Plan& plan, std::string_view name, std::string_view value) {
  const std::map<std::string_view, unsigned*> numbers{
      {"--timer", &plan.timer},   {"--before", &plan.before}, {"--outage", &plan.outage}, {"--after", &plan.after},
      {"--settle", &plan.settle}, {"--report", &plan.report}, {"--group", &plan.group},   {"--devices", &plan.devices}};
  const std::map<std::string_view, std::string*> texts{{"--app", &plan.application}, {"--ledger", &plan.ledger}};
  if (const auto number = numbers.find(name); number != numbers.end()) return readNumber(value, *number->second);
  if (const auto text = texts.find(name); text != texts.end()) return *text->second = value, true;
  if (name == "--events") return readNumber(value, plan.events);
  if (name == "--pace") return readNumber(value, plan.pace) && plan.pace > 0;
  const auto equals = value.find('=');
  if (name != "--watch" || equals == value.npos) return false;
  pid_t process = 0;
  plan.processes[std::string(value.substr(0, equals))].push_back(0);
  if (!readNumber(value.substr(equals + 1), process)) return false;
  plan.processes[std::string(value.substr(0, equals))].back() = process;
  return true;
}

bool readArguments(Plan& plan, int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--reconnect") {
      plan.reconnects = true;
    } else if (argument == "--forwarded") {
      plan.isForwarded = true;
    } else if (const auto service = kelvo::bench::Service::parse(std::string(argument))) {
      plan.services.push_back(*service);
    } else if (i + 1 == count || !readOption(plan, argument, arguments[i + 1])) {
      return false;
    } else {
      ++i;
    }
  }
  return !plan.services.empty() && plan.devices > 0 && plan.timer > 0;
}

/// Each device has a connection.
void raiseFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int count, char** arguments) {
  Plan plan;
  if (!readArguments(plan, count, arguments)) {
    std::fputs(kHelp, stderr);
    return 2;
  }
  raiseFileLimit();
  kelvo::KLVLogger::setLogLevel(kelvo::KLVLogger::Level::error);
  try {
    boost::asio::io_context loop(1);
    return kelvo::bench::Fleet(plan, loop).play() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvo-bench-fleet: %s\n", error.what());
    return 2;
  }
}
