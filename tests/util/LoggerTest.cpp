#include "util/KLVLogger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <regex>
#include <sstream>

#include "platform/Problem.h"
#include "support/LogCapture.h"

namespace kelvo::test {

/// Has names as the library's own classes have.
struct KLVSpeaker {
  static void say() { KLV_WARN("from {} and {} {} {}", "a class", 1, true, std::optional<std::string>()); }
  [[nodiscard]] std::vector<std::pair<std::string, int>> sayFromLambda() const {
    [] { KLV_INFO("{}", "{} %s\\n stays as it is"); }();
    return {};
  }
};

namespace {

void sayFromNowhere() {
  KLV_INFO("here");
}

TEST(Logger, TheLevelDecidesWhatIsWritten) {
  const LogCapture log;
  const std::pair<int, const char*> cases[] = {{-1, "DIWE"}, {0, "DIWE"}, {1, "DIWE"}, {2, "IWE"}, {3, "IE"}, {4, "I"}};
  for (const auto& [level, expected] : cases) {
    KLVLogger::setLogLevel(level);
    const auto before = log.lines().size();
    KLV_DEBUG("debug");
    KLV_INFO("info");
    KLV_WARN("warn");
    KLV_ERROR("error");
    std::string written;
    const auto lines = log.lines();
    for (auto i = before; i < lines.size(); ++i) written += lines[i].at(5);  // "<KLV DEBUG> ..."
    EXPECT_EQ(written, expected) << level;
  }
  int evaluations = 0;
  KLVLogger::setLogLevel(3);
  KLV_DEBUG("{}", ++evaluations);
  EXPECT_EQ(evaluations, 0) << "a filtered line leaves its arguments alone";
}

TEST(Logger, ALineNamesItsMethodAndPlace) {
  const LogCapture log;
  const auto before = log.lines().size();
  KLVSpeaker::say();
  static_cast<void>(KLVSpeaker().sayFromLambda());
  sayFromNowhere();
  reportProblem("void kelvo::Files::write(int)", "disk full");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size() - before, 4U);
  const char* expected[] = {R"(<KLV WARN> from a class and 1 1 \(null\) test::KLVSpeaker::say:\d+)",
                            R"(<KLV INFO> \{\} %s\\n stays as it is test::KLVSpeaker::sayFromLambda:\d+)",
                            R"(<KLV INFO> here test::.*sayFromNowhere:\d+)",
                            R"(<KLV ERROR> disk full Files::write:\d+)"};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_TRUE(std::regex_match(lines[before + i], std::regex(expected[i]))) << lines[before + i];
  }
}

TEST(Logger, ASinkMayThrowAndBeReplacedAndLog) {
  int seen = 0;  // on the log thread only, until drained
  KLVLogger::setSink([&](KLVLogger::Level, std::string_view) {
    if (++seen == 1) KLV_INFO("from inside the sink");
    throw std::runtime_error("the host's own trouble");
  });
  KLV_INFO("one");
  ASSERT_TRUE(KLVLogger::drain(std::chrono::seconds(10)));
  ASSERT_TRUE(KLVLogger::drain(std::chrono::seconds(10)));  // what the sink itself logged
  const LogCapture log;
  KLV_INFO("two");
  EXPECT_EQ(log.count("two"), 1U);
  EXPECT_EQ(seen, 2);
}

TEST(Logger, AStalledReaderNeverHoldsACallerUpAndLostLinesAreCounted) {
  constexpr int kLines = 20000;
  int pipe[2];  // in place of standard error, and read by nobody
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  const int standardError = ::dup(STDERR_FILENO);
  ::dup2(pipe[1], STDERR_FILENO);
  ::close(pipe[1]);
  for (int i = 0; i < kLines; ++i) KLV_INFO("line {}.", i);  // would hang here
  EXPECT_FALSE(KLVLogger::drain(std::chrono::milliseconds(50))) << "the limit ends the wait";

  std::string text;
  auto reader = std::async(std::launch::async, [&] {
    char buffer[65536];
    for (ssize_t count = 0; (count = ::read(pipe[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
  });
  EXPECT_TRUE(KLVLogger::drain(std::chrono::seconds(60)));
  ::dup2(standardError, STDERR_FILENO);  // ends the pipe
  reader.get();

  const std::regex form("<KLV (?:INFO> line (\\d+)\\.|WARN> (\\d+) log lines were dropped).*");
  int written = 0, dropped = 0, last = -1;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, form)) << line;
    if (match[2].matched) {
      dropped += std::stoi(match[2]);
      continue;
    }
    EXPECT_LT(std::exchange(last, std::stoi(match[1])), std::stoi(match[1])) << "in order";
    ++written;
  }
  EXPECT_GT(dropped, 0);
  EXPECT_GE(written, 4096) << "as many as may wait";
  EXPECT_EQ(written + dropped, kLines);
}

}  // namespace
}  // namespace kelvo::test
