#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "core/DataDescription.h"
#include "kelvo-inspect/Doctor.h"
#include "kelvo-inspect/Events.h"
#include "kelvo-inspect/Home.h"
#include "kelvo-inspect/Report.h"
#include "platform/JSON.h"

namespace kelvo::inspect {
namespace {

enum ExitStatus { kFine = 0, kFoundProblems = 1, kWrongUsage = 2 };

constexpr const char* kHelp =
    R"(usage: kelvo-inspect [--json] [HOME]
       kelvo-inspect --events [NAME] [--json] [HOME]
       kelvo-inspect --doctor [--program EXECUTABLE] [HOME]
       kelvo-inspect --describe [--json]

Prints sessions, events by kind, chunks, the journal, the ledger, counts, files
and user defaults of a home as tables, or with --json as one JSON object.
HOME is the directory that contains Library and Documents; the default is
KELVO_HOME. The tool changes nothing, and works while a program uses the home.
A sum of the ledger that disagrees with the tables is a FAULT.

--events lists the stored events, or those of one NAME: time, session, kind,
name, attributes, and "accepted" by the service or "waiting since" a time. A
directory after --events is HOME; --events=NAME takes any name.

--doctor checks the usual causes of trouble and prints one line for each:
switch, bundle, plug-ins, consent, home, journal, authorities, proxy, the
service's answer, clock.
--program is the executable that links the library; its bundle and home are
checked.

--describe prints every kind of data that programs with this build of Kelvo may
collect: what it is, its purpose, where it is stored, and for how long.
Exit status: 0 no problem found; 1 problem found; 2 wrong usage.
)";

constexpr std::string_view kEventsOf = "--events=";

struct Options {
  bool json = false;
  bool doctor = false;
  bool events = false;
  bool describe = false;
  std::optional<std::string> eventName;  // nullopt: events of all names
  std::optional<std::string> program;
  std::optional<std::string> home;
};

int refuse(std::string_view reason) {
  std::fprintf(stderr, "kelvo-inspect: %s; see kelvo-inspect --help\n", std::string(reason).c_str());
  return kWrongUsage;
}

int printFindings(const Options& options) {
  int status = kFine;
  for (const Finding& finding : examine(options.program, options.home)) {
    const bool bad = finding.grade == Finding::Grade::bad;
    if (bad) status = kFoundProblems;
    const char* mark = bad ? "BAD " : finding.grade == Finding::Grade::good ? "ok  " : "?   ";
    fmt::print("{}{:<12}{}{}\n", mark, finding.subject, finding.result,
               finding.advice.empty() ? "" : ". " + finding.advice + ".");
  }
  return status;
}

int printDescription(bool json) {
  const Dictionary data = dataDescription();
  if (json) fmt::print("{}\n", describingJSONText(data));
  for (const auto& [name, kind] : data) {
    if (json) break;
    const Dictionary texts = kind.asDictionary().value_or(Dictionary());
    fmt::print("{}\n  what     {}\n  purpose  {}\n  stored   {}, {}\n", name, description(texts["what"]),
               description(texts["purpose"]), description(texts["stored"]), description(texts["kept"]));
  }
  return kFine;
}

/// Returns the exit status for a part of the home that may have a "problem".
int statusOf(const Value& part) {
  return part.asDictionary().value_or(Dictionary()).contains("problem") ? kFoundProblems : kFine;
}

int printHome(Options options) {
  if (!options.home) {
    const char* home = std::getenv("KELVO_HOME");
    if (home == nullptr || *home == '\0') return refuse("give a home directory, or set KELVO_HOME");
    options.home = home;
  }
  if (!std::filesystem::is_directory(*options.home)) {
    std::fprintf(stderr, "kelvo-inspect: %s is not a directory\n", options.home->c_str());
    return kFoundProblems;
  }
  const auto content = options.events ? readEvents(*options.home, options.eventName) : readHome(*options.home);
  if (options.json) {
    fmt::print("{}\n", describingJSONText(content));
  } else {
    fmt::print("{}", options.events ? reportEvents(content) : report(content));
  }
  return statusOf(options.events ? Value(content) : content["database"]);
}

int run(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") {
      std::fputs(kHelp, stdout);
      return kFine;
    }
    if (argument == "--json") {
      options.json = true;
    } else if (argument == "--doctor") {
      options.doctor = true;
    } else if (argument == "--describe") {
      options.describe = true;
    } else if (argument == "--events") {
      options.events = true;
      if (i + 1 < count && arguments[i + 1][0] != '-' && !std::filesystem::is_directory(arguments[i + 1])) {
        options.eventName = arguments[++i];
      }
    } else if (argument.substr(0, kEventsOf.size()) == kEventsOf) {
      options.events = true;
      options.eventName = argument.substr(kEventsOf.size());
    } else if (argument == "--program" && i + 1 < count) {
      options.program = arguments[++i];
    } else if (argument.substr(0, 1) == "-" || options.home) {
      return refuse(fmt::format("wrong argument: {}", argument));
    } else {
      options.home = argument;
    }
  }
  if (options.describe) {
    if (options.doctor || options.events || options.home) return refuse("--describe is used alone or with --json");
    return printDescription(options.json);
  }
  if (options.doctor && (options.json || options.events)) return refuse("--doctor is used alone or with --program");
  if (!options.doctor && options.program) return refuse("--program needs --doctor");
  return options.doctor ? printFindings(options) : printHome(std::move(options));
}

}  // namespace
}  // namespace kelvo::inspect

int main(int count, char** arguments) {
  try {
    return kelvo::inspect::run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvo-inspect: %s\n", error.what());
    return kelvo::inspect::kFoundProblems;
  }
}
