#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kelvo-collector/http/Server.h"
#include "kelvo-collector/service/Script.h"
#include "kelvo-collector/service/ServiceState.h"
#include "kelvo/Value.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {

using collector::Script;
using Texts = std::vector<std::string>;

/// One launch of kelvo-log. Lines are played as they are added.
class Launch : public Program {
 public:
  using Program::Program;

  /// Plays one JSON line.
  Launch& play(const std::string& line) {
    writeLine(line);
    return *this;
  }
  /// Plays a call with its other members.
  Launch& call(const std::string& name, const std::string& members = {}) {
    return play(R"({"call": ")" + name + '"' + (members.empty() ? "" : ", ") + members + "}");
  }
  Launch& log(const std::string& name) { return play(R"({"name": ")" + name + R"("})"); }
  Launch& untilReady() { return call("waitUntilReady", R"("seconds": 20)"); }
  /// Ends the input and waits: the exit status.
  int quit() {
    closeInput();
    return wait();
  }
};

/// A home, and a collector in this process.
class Road : public testing::Test {
 protected:
  Road() { service.start(); }

  /// A program with this test's home and collector. `wrapper` stands before its command: another program that sets
  /// limits and runs it.
  template <class Started = Program>
  Started run(Texts command, Program::Environment environment = {}, const Texts& wrapper = {}) const {
    command.insert(command.begin(), wrapper.begin(), wrapper.end());
    environment.emplace("KELVO_HOME", homeOfLaunches_);
    environment.emplace("KELVO_SERVER_BASE_URL", service.baseURL());
    return {command, environment};
  }

  /// A launch started by hand with the application id "shop".
  Launch launch(Texts arguments = {"--app-id", "shop"}, const Program::Environment& environment = {},
                const Texts& wrapper = {}) const {
    arguments.insert(arguments.begin(), KELVO_LOG_PROGRAM);
    return run<Launch>(arguments, environment, wrapper);
  }

  /// From here on there is nothing on the disk: another home.
  void moveToFreshHome(const std::string& name) { homeOfLaunches_ = home() + "/" + name; }
  [[nodiscard]] const std::string& homeOfLaunches() const { return homeOfLaunches_; }

  /// Everything that the database answers to `query`, a text a row, columns joined by "|".
  [[nodiscard]] Texts stored(const std::string& query) const;
  /// The id column of all stored events of all sessions.
  [[nodiscard]] Texts storedEvents() const;
  /// The application events of all chunks that arrived, but for "klv_app_opened": the name and the chunk's id.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> arrivals() const;
  /// Their names.
  [[nodiscard]] Texts arrivedEvents() const;
  /// A bundle whose Info.plist holds `kelvo` under that name, and `more`.
  static std::string bundle(const std::string& kelvo, const std::string& more = {});
  /// How much the launches that follow log.
  static void setLogLevel(const std::string& level);

  collector::Server service;

 private:
  std::string homeOfLaunches_ = home();
};

/// Waits for what nothing tells of; whether it came.
bool eventually(const std::function<bool()>& condition);

/// The member at the end of a path: `at(chunk, {"chunk_meta", "id"})`; null when there is none.
Value at(const Value& value, std::initializer_list<std::string_view> path);
std::size_t count(const std::string& text, const std::string& part);

}  // namespace kelvo::test
