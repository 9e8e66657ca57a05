#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "CollectorTest.h"
#include "support/Program.h"

namespace kelvo::test {
namespace {

/// Starts the collector of this build.
Program collector(std::vector<std::string> arguments) {
  const auto tests = std::filesystem::canonical("/proc/self/exe").parent_path();
  arguments.insert(arguments.begin(), tests.parent_path() / "tools/kelvo-collector/kelvo-collector");
  return {arguments, {}};
}

/// Returns the address that the collector prints when it listens.
std::string addressOf(const Program& program) {
  EXPECT_TRUE(program.waitForOutput("\n"));
  const std::string first = program.output(), begin = "listening on ";
  EXPECT_EQ(first.rfind(begin + "http", 0), 0U) << first;
  return first.substr(begin.size(), first.find('\n') - begin.size());
}

TEST(CollectorProgram, ServesUntilASignalAndTheNextRunHasTheStoredData) {
  const auto [certificate, key] = makeCertificate();
  std::vector<std::string> arguments{"--port", "0", "--data", home() + "/made/for/it"};
  for (const int signal : {SIGINT, SIGTERM}) {
    Program program = collector(arguments);
    const std::string url = addressOf(program);
    if (signal == SIGINT) {
      EXPECT_EQ(collector({"--port", url.substr(url.rfind(':') + 1)}).wait(), 1) << "the port is taken";
      EXPECT_EQ(post(url + "/v2/api/app7/chunks", kSampleChunk).status, 200);
      EXPECT_EQ(curl("-X PUT -d '{\"enabled\": false}' " + url + "/debug/enabled").status, 200);
    }
    EXPECT_EQ(curl("-k " + url + "/debug/counts").json()["chunks"], Value(1));
    EXPECT_EQ(curl("-k " + url + "/v2/api/app7/sdk/enabled-status").json()["enabled"], Value(false));
    program.kill(signal);
    EXPECT_EQ(program.wait(), 0);
    arguments.insert(arguments.end(), {"--tls-cert", certificate, "--tls-key", key});
  }
}

TEST(CollectorProgram, WrongUsageExitsWithStatus2) {
  for (const char* port : {"65536", "-1", "80x"}) EXPECT_EQ(collector({"--port", port}).wait(), 2) << port;
  const std::vector<std::string> wrong[] = {{"--port"}, {"--verbose"}, {"--data", ""}, {"--tls-cert", "c.pem"}};
  for (const auto& arguments : wrong) EXPECT_EQ(collector(arguments).wait(), 2) << arguments[0];
  EXPECT_EQ(collector({"--port", "0", "--tls-cert", "/absent", "--tls-key", "/absent"}).wait(), 1);
}

}  // namespace
}  // namespace kelvo::test
