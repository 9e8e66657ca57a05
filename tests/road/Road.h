#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kelvo-collector/Script.h"
#include "kelvo-collector/Server.h"
#include "kelvo-collector/ServiceState.h"
#include "kelvo/Value.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {

using collector::Script;

/// One launch of kelvo-log, a real process on this test's home. Lines are played as they are added.
class Launch {
 public:
  /// `wrapper` stands before the program's name: another program that sets limits and runs it.
  Launch(const std::string& serviceURL, std::vector<std::string> arguments, Program::Environment environment,
         std::vector<std::string> wrapper = {});

  /// Plays one JSON line.
  Launch& play(const std::string& line);
  Launch& log(const std::string& name) { return play(R"({"name": ")" + name + R"("})"); }
  Launch& untilReady() { return play(R"({"call": "waitUntilReady", "seconds": 20})"); }
  /// Ends the input and waits: the exit status.
  int quit();
  Launch& kill();

  [[nodiscard]] std::string errors() const { return program_->errors(); }
  [[nodiscard]] std::string output() const { return program_->output(); }
  [[nodiscard]] bool waitForError(const std::string& text) const { return program_->waitForError(text); }

 private:
  std::unique_ptr<Program> program_;
};

/// A home, and a collector in this process.
class Road : public testing::Test {
 protected:
  Road() { service.start(); }

  /// A launch started by hand with the application id "shop".
  Launch launch(std::vector<std::string> arguments = {"--app-id", "shop"}, Program::Environment environment = {},
                std::vector<std::string> wrapper = {}) {
    environment.emplace("KELVO_HOME", homeOfLaunches_);
    return {service.baseURL(), std::move(arguments), std::move(environment), std::move(wrapper)};
  }

  /// From here on there is nothing on the disk: another home.
  void moveToFreshHome(const std::string& name) { homeOfLaunches_ = home() + "/" + name; }
  [[nodiscard]] const std::string& homeOfLaunches() const { return homeOfLaunches_; }

  /// Everything that the database answers to `query`, a text a row, columns joined by "|".
  [[nodiscard]] std::vector<std::string> stored(const std::string& query) const;
  /// The id column of all stored events of all sessions.
  [[nodiscard]] std::vector<std::string> storedEvents() const;
  /// The application events of all chunks that arrived, but for "klv_app_opened": the name and the chunk's id.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> arrivals() const;
  /// Their names.
  [[nodiscard]] std::vector<std::string> arrivedEvents() const;
  /// A bundle whose Info.plist holds `kelvo` under that name, and `more`.
  static std::string bundle(const std::string& kelvo, const std::string& more = {});
  /// Switches debug lines on for the launches that follow.
  static void logDebugLines();

  collector::Server service;

 private:
  std::string homeOfLaunches_ = home();
};

/// Waits until `condition` holds.
template <class Condition>
[[nodiscard]] bool reached(Condition condition) {
  for (int i = 0; i < 4000 && !condition(); ++i) usleep(5000);
  return condition();
}

/// The member at the end of a path: `at(chunk, {"chunk_meta", "id"})`; null when there is none.
Value at(const Value& value, std::initializer_list<std::string_view> path);
std::size_t count(const std::string& text, const std::string& part);

}  // namespace kelvo::test
