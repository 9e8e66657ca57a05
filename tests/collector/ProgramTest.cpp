#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "CollectorTest.h"
#include "support/Program.h"

namespace kelvo::test {
namespace {

/// The program of this build.
Program collector(const char* option, const std::string& value = {}) {
  const auto tests = std::filesystem::canonical("/proc/self/exe").parent_path();
  std::vector<std::string> command{tests.parent_path() / "tools/kelvo-collector/kelvo-collector", option};
  if (!value.empty()) command.push_back(value);
  return {command, {}};
}

TEST(CollectorProgram, SaysWhereItListensServesAndEndsAtASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Program program = collector("--port", "0");
    while (program.output().find('\n') == std::string::npos) std::this_thread::yield();
    const std::string first = program.output(), begin = "listening on ";
    ASSERT_EQ(first.rfind(begin + "http://127.0.0.1:", 0), 0U) << first;
    const std::string url = first.substr(begin.size(), first.find('\n') - begin.size());
    EXPECT_EQ(curl(url + "/debug/requests").json()["requests"], Value(Array{}));

    EXPECT_EQ(collector("--port", url.substr(url.rfind(':') + 1)).wait(), 1);  // it is taken
    program.kill(signal);
    EXPECT_EQ(program.wait(), 0);
  }
}

TEST(CollectorProgram, WrongUsageEndsWithTwo) {
  for (const char* port : {"65536", "-1", "80x"}) EXPECT_EQ(collector("--port", port).wait(), 2) << port;
  EXPECT_EQ(collector("--port").wait(), 2);
  EXPECT_EQ(collector("--verbose").wait(), 2);
}

}  // namespace
}  // namespace kelvo::test
