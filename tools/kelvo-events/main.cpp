#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo-events/Dates.h"
#include "kelvo-events/Forms.h"
#include "kelvo-events/Names.h"
#include "kelvo-events/Registry.h"
#include "platform/Files.h"

namespace kelvo::registry {
namespace {

enum ExitStatus { kFine = 0, kFoundFaults = 1, kWrongUsage = 2 };

constexpr const char* kHelp =
    R"(usage: kelvo-events check FILE [--today YYYY-MM-DD]
       kelvo-events cpp FILE [--namespace NAME] [--output FILE]
       kelvo-events c FILE [--namespace NAME] [--output FILE]
       kelvo-events qml FILE [--output FILE]
       kelvo-events page FILE [--output FILE]
       kelvo-events expectations FILE [--output FILE]

Checks the registry of a host's events, and writes code and documents from it.
FILE is JSON:

  {"events": [{"name": "Purchase", "meaning": "The user has paid",
    "owner": "shop team", "kept_until": "2027-12-31", "attributes": [
      {"name": "item", "meaning": "What was bought", "type": "text",
       "values": ["book", {"text": "+1", "code": "plusOne"}]},
      {"name": "price", "meaning": "The price", "type": "number",
       "unit": "EUR", "min": 0, "max": 1000, "optional": true}]}]}

An event needs name, meaning and owner. It may have "aggregate": true (it is
only counted), kept_until (its last day) and code (the name of its function, if
not its own name). An attribute needs name, meaning and type: text, integer,
number or boolean. It may have unit, min and max (integer and number), values
(text), "optional": true, and code (the name of its type).

  check         prints all faults with line and column, and warnings: an event
                whose last day is near, and an aggregate of too many values. An
                event whose last day is over is a fault
  cpp           a C++17 header with a function for each event and a type for
                each attribute, in namespace events, or NAME ("shop::events")
  c             the same as a C99 header; NAME, or events, begins its names
  qml           a QML type with a function for each event
  page          a page in Markdown for people
  expectations  what kelvo-collector shall expect, and nothing else:
                kelvo-events expectations FILE | curl -T - URL/debug/expectations
  --today DATE  check as on this day (UTC)
  --output FILE write there, at once or not at all; without it, to standard
                output. Nothing is written if FILE has a fault
  --help        this text

CMake: kelvo_add_events(<target> FILE) writes the header when the file changes.
Exit status: 0 no fault; 1 a fault, or a file that cannot be read or written;
2 wrong usage.
)";

struct Options {
  std::string action;
  std::optional<std::string> file;
  std::string space = "events";
  std::string output;
  std::string date;  // empty: today
};

int refuse(const std::string& reason) {
  std::fprintf(stderr, "kelvo-events: %s; see kelvo-events --help\n", reason.c_str());
  return kWrongUsage;
}

int fail(const std::string& reason) {
  std::fprintf(stderr, "kelvo-events: %s\n", reason.c_str());
  return kFoundFaults;
}

std::string formOf(const Registry& registry, const Options& options) {
  if (options.action == "cpp") return cppForm(registry, options.space);
  if (options.action == "c") return cForm(registry, options.space);
  if (options.action == "qml") return qmlForm(registry);
  return options.action == "page" ? pageForm(registry) : expectationsForm(registry);
}

/// Prints the findings as compilers do: editors jump to them.
void print(const Reading& reading, const std::string& file) {
  for (const Finding& finding : reading.findings) {
    fmt::print(stderr, "{}:{}:{}: {}: {}{}{}\n", file, finding.line, finding.column,
               finding.isWarning ? "warning" : "error", finding.place, finding.place.empty() ? "" : ": ",
               finding.message);
  }
}

int perform(const Options& options) {
  const bool isCheck = options.action == "check";
  FileError error;
  const auto text = readFile(*options.file, &error);
  if (!text) return fail(*options.file + ": " + error);
  // Only a check asks for the date: a build of an old version must still work.
  const std::string date = options.date.empty() ? today() : options.date;
  const Reading reading = readRegistry(*text, isCheck ? date : std::string());
  print(reading, *options.file);
  if (reading.hasFaults()) return kFoundFaults;
  if (isCheck) {
    fmt::print("{}: {} events, no fault\n", *options.file, reading.registry.events.size());
    return kFine;
  }
  const std::string form = formOf(reading.registry, options);
  if (options.output.empty()) {
    fmt::print("{}", form);
    return std::fflush(stdout) == 0 ? kFine : fail("cannot write to standard output");
  }
  if (!writeFileAtomically(options.output, form, &error)) return fail(options.output + ": " + error);
  return kFine;
}

int run(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") {
      std::fputs(kHelp, stdout);
      return kFine;
    }
    std::string* value = argument == "--namespace" ? &options.space
                         : argument == "--output"  ? &options.output
                         : argument == "--today"   ? &options.date
                                                   : nullptr;
    if (value != nullptr) {
      if (++i == count) return refuse(fmt::format("{} needs a value", argument));
      *value = arguments[i];
    } else if (argument.substr(0, 1) == "-" || options.file) {
      return refuse(fmt::format("wrong argument: {}", argument));
    } else if (options.action.empty()) {
      options.action = argument;
    } else {
      options.file = argument;
    }
  }
  bool isKnown = false;
  for (const char* action : {"check", "cpp", "c", "qml", "page", "expectations"}) isKnown |= options.action == action;
  if (!isKnown) return refuse("the first argument is none of check, cpp, c, qml, page, expectations");
  if (!options.file) return refuse("give the file of the registry");
  if (!options.date.empty() && !dayOf(options.date)) return refuse("--today is not a date such as 2027-12-31");
  if (!isNamespace(options.space)) return refuse(fmt::format("\"{}\" is no namespace", options.space));
  return perform(options);
}

}  // namespace
}  // namespace kelvo::registry

int main(int count, char** arguments) {
  try {
    return kelvo::registry::run(count, arguments);
  } catch (const std::exception& error) {
    return kelvo::registry::fail(error.what());
  }
}
