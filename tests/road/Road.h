#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "kelvo-collector/http/Server.h"
#include "kelvo-collector/service/Script.h"
#include "kelvo-service/ServiceState.h"
#include "kelvo/Value.h"
#include "support/Eventually.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {

#if defined(__SANITIZE_THREAD__)
inline constexpr std::string_view kSanitizer = "thread";
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr std::string_view kSanitizer = "address";
#else
inline constexpr std::string_view kSanitizer;
#endif

/// The environment of a program that may exit while OpenSSL sets itself up: its unfinished lists are no leak.
inline const Program::Environment kWithoutLeakCheck{{"ASAN_OPTIONS", "detect_leaks=0"}};

/// Returns the environment of a program whose wall clock the test moves through `file`, with the preloaded `library`.
/// The address sanitizer must be loaded first, so the clock stays with it.
inline Program::Environment movableClock(const char* library, const std::string& file) {
  if (kSanitizer == "address") return kWithoutLeakCheck;
  return {{"LD_PRELOAD", library}, {"KELVO_TEST_CLOCK", file}};
}

}  // namespace kelvo::test

// The harness of the whole-process tests: a road test follows events all the way from a host's call to the service.
//
// A test is a process with three parts:
// - The service: `service` is a kelvo-collector that runs in the test process. The test can script its misbehaviour,
// and
//   read all requests and chunks that arrived.
// - The host: `launch()` starts kelvo-log as a child process. kelvo-log links the real library and makes a host call
// for
//   each line that it reads. `run()` starts any other host.
// - The home: a fresh directory of this test, in which all launches find the data of earlier launches. The test can
// read
//   its files and its database between launches.
//
// A typical test launches a host, makes calls, ends the host, and compares what was stored and what arrived:
//
//   auto host = launch();
//   host.untilReady().log("Purchase").call("willResignActive");
//   EXPECT_EQ(host.quit(), 0);
//   EXPECT_EQ(arrivedEvents(), Texts{"Purchase"});

namespace kelvo::test {

using collector::Script;
using Texts = std::vector<std::string>;

/// A running kelvo-log. It makes each call as soon as the test adds the line.
class Launch : public Program {
 public:
  using Program::Program;

  /// Adds one line of JSON.
  Launch& play(const std::string& line) {
    writeLine(line);
    return *this;
  }
  /// Adds a call. `members` are further members of the line's JSON object: `"seconds": 1`.
  Launch& call(const std::string& name, const std::string& members = {}) {
    return play(R"({"call": ")" + name + '"' + (members.empty() ? "" : ", ") + members + "}");
  }
  /// Logs an application event.
  Launch& log(const std::string& name) { return play(R"({"name": ")" + name + R"("})"); }
  /// Lets kelvo-log wait until the library has started, before it makes the next call.
  Launch& untilReady() { return call("waitUntilReady", R"("seconds": 20)"); }
  /// Ends the input, blocks until kelvo-log ends, and returns its exit status: 0 if everything was delivered, 3 if
  /// something was not (`kelvo-log --help` lists all).
  int quit() {
    closeInput();
    return wait();
  }
};

/// A test with a home of its own and a collector in its own process.
class Road : public testing::Test {
 protected:
  Road() { service.start(); }

  /// Starts `command` with this test's home and service. `wrapper` precedes the command; it is a program that changes
  /// the conditions, such as the user or a limit, and then runs the command.
  template <class Started = Program>
  Started run(Texts command, Program::Environment environment = {}, const Texts& wrapper = {}) const {
    command.insert(command.begin(), wrapper.begin(), wrapper.end());
    environment.emplace("KELVO_HOME", homeOfLaunches_);
    environment.emplace("KELVO_SERVER_BASE_URL", service.baseURL());
    return {command, environment};
  }

  /// Starts kelvo-log, by default with the application id "shop".
  Launch launch(Texts arguments = {"--app-id", "shop"}, Program::Environment environment = {},
                const Texts& wrapper = {}) const {
    arguments.insert(arguments.begin(), KELVO_LOG_PROGRAM);
    environment.insert(environment.begin(), {"KELVO_LOG", "debug"});  // a later value replaces it
    return run<Launch>(arguments, environment, wrapper);
  }

  /// Lets later launches use another home, which does not exist yet.
  void moveToFreshHome(const std::string& name) { homeOfLaunches_ = home() + "/" + name; }
  [[nodiscard]] const std::string& homeOfLaunches() const { return homeOfLaunches_; }

  /// Returns the paths of all files in the home, or in `part` of it. The host may create and delete files meanwhile.
  [[nodiscard]] Texts files(const std::string& part = {}) const;
  /// Runs an SQL query on the database of the home. Returns one text for each row, with columns joined by "|"; an error
  /// is a row, too.
  [[nodiscard]] Texts stored(const std::string& query) const;
  /// Returns the names of all stored events of all sessions.
  [[nodiscard]] Texts storedEvents() const;
  /// Returns name and chunk id of each application event that arrived, in order. Leaves out "klv_app_opened", which the
  /// library logs itself at each launch.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> arrivals() const;
  /// Returns the names in `arrivals`.
  [[nodiscard]] Texts arrivedEvents() const;
  /// Returns the value at `key` of every event of `kind` ("navigation_events" ...) that arrived, in order.
  [[nodiscard]] Texts arrived(std::string_view kind, std::string_view key = "name") const;
  /// Writes a bundle and returns its path. `kelvo` is the content of the Info.plist's dictionary "Kelvo"; `more` are
  /// further entries of the Info.plist.
  static std::string bundle(const std::string& kelvo, const std::string& more = {});
  /// Sets the log level of later launches through a saved configuration.
  static void setLogLevel(const std::string& level);

  collector::Server service;

 private:
  std::string homeOfLaunches_ = home();
};

/// Runs an SQL query on the database `file`; see `Road::stored`.
Texts queried(const std::string& file, const std::string& query);

/// Returns the member at the end of a path of keys, null if there is none: `at(chunk, {"chunk_meta", "id"})`.
Value at(const Value& value, std::initializer_list<std::string_view> path);
/// Returns how often `part` occurs in `text`.
std::size_t count(const std::string& text, const std::string& part);

}  // namespace kelvo::test
