#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

#include "Curl.h"

namespace kelvo::test {
namespace {

/// The program of this build, running, its standard output readable.
class Collector {
 public:
  explicit Collector(const char* option, const char* value = nullptr) {
    const auto tests = std::filesystem::canonical("/proc/self/exe").parent_path();
    const std::string program = tests.parent_path() / "tools/kelvo-collector/kelvo-collector";
    int ends[2];
    if (pipe(ends) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      close(ends[1]);
      execl(program.c_str(), program.c_str(), option, value, nullptr);
      _exit(127);
    }
    close(ends[1]);
    output_ = fdopen(ends[0], "r");
  }
  ~Collector() { fclose(output_); }

  std::string line() {
    char text[512] = "";
    return fgets(text, sizeof text, output_) == nullptr ? "" : text;
  }
  int end(int signal = 0) {
    if (signal != 0) kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  FILE* output_ = nullptr;
};

TEST(CollectorProgram, SaysWhereItListensServesAndEndsAtASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Collector collector("--port", "0");
    const std::string first = collector.line(), begin = "listening on ";
    ASSERT_EQ(first.rfind(begin + "http://127.0.0.1:", 0), 0U) << first;
    ASSERT_EQ(first.back(), '\n');
    const std::string url = first.substr(begin.size(), first.size() - begin.size() - 1);
    EXPECT_EQ(curl(url + "/debug/requests").json()["requests"], Value(Array{}));

    const std::string port = url.substr(url.rfind(':') + 1);
    EXPECT_EQ(Collector("--port", port.c_str()).end(), 1);  // it is taken
    EXPECT_EQ(collector.end(signal), 0);
  }
}

TEST(CollectorProgram, WrongUsageEndsWithTwoAndTheHelpFitsAScreen) {
  for (const char* port : {"65536", "-1", "80x", ""}) EXPECT_EQ(Collector("--port", port).end(), 2) << port;
  EXPECT_EQ(Collector("--port").end(), 2);
  EXPECT_EQ(Collector("--verbose").end(), 2);

  Collector help("--help");
  int lines = 0;
  for (std::string line; !(line = help.line()).empty(); ++lines) EXPECT_LE(line.size(), 81U) << line;
  EXPECT_GT(lines, 5);
  EXPECT_LE(lines, 24);
  EXPECT_EQ(help.end(), 0);
}

}  // namespace
}  // namespace kelvo::test
