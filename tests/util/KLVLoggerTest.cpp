#include "util/KLVLogger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <memory>
#include <regex>
#include <set>
#include <thread>

#include "platform/Problem.h"
#include "support/LogCapture.h"
#include "util/KLVLogRules.h"

namespace kelvo::test {

/// A class with a name such as the library's own classes have.
struct KLVSpeaker {
  static void say() { KLV_WARN("from {} and {} {} {}", "a class", 1, true, std::optional<std::string>()); }
  [[nodiscard]] std::vector<std::pair<std::string, int>> sayFromLambda() const {
    [] { KLV_INFO("{}", "{} %s\\n stays as it is"); }();
    return {};
  }
};

namespace {

TEST(Logger, TheLevelDecidesWhichMessagesAreWritten) {
  const LogCapture log;
  using Level = KLVLogger::Level;
  const std::pair<Level, const char*> cases[] = {
      {Level::debug, "DIWE"}, {Level::info, "IWE"}, {Level::warn, "IWE"}, {Level::error, "IE"}};
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
    EXPECT_EQ(written, expected);
  }
  int evaluations = 0;
  KLVLogger::setLogLevel(Level::error);
  KLV_DEBUG("{}", ++evaluations);
  EXPECT_EQ(evaluations, 0) << "the arguments of a filtered message are not evaluated";
}

/// The environment overrides the host's choice, and the host's choice the service's.
TEST(LogRules, EnvironmentThenHostThenServiceDecide) {
  constexpr auto kNone = std::optional<LogLevel>();
  const struct {
    const char* environment;
    std::optional<LogLevel> host;
    std::optional<LogLevel> service;
    const char* written;
    bool carriesHostData;
  } cases[] = {{nullptr, kNone, kNone, "DIWE", true},
               {"", kNone, LogLevel::error, "IE", true},
               {nullptr, LogLevel::error, LogLevel::debug, "E", false},
               {nullptr, LogLevel::info, LogLevel::error, "IWE", false},
               {nullptr, LogLevel::debug, LogLevel::error, "DIWE", true},
               {nullptr, LogLevel::off, LogLevel::debug, "", false},
               {"off", LogLevel::debug, LogLevel::debug, "", false},
               {"error", kNone, LogLevel::debug, "E", false},
               {"warn", LogLevel::debug, kNone, "WE", false},
               {"info", LogLevel::error, kNone, "IWE", false},
               {"debug", LogLevel::error, LogLevel::error, "DIWE", true},
               {"INFO", kNone, LogLevel::warn, "IWE", true},
               {"loud", LogLevel::error, kNone, "E", false}};
  for (const auto& [environment, host, service, expected, carriesHostData] : cases) {
    KLVLogRules rules;
    const bool understood = rules.obey(environment);
    if (service) rules.serve(*service);  // a saved configuration may come first
    if (host) rules.choose(*host);
    if (service) rules.serve(*service);
    std::string written;
    for (const auto& [level, letter] :
         {std::pair{LogLevel::debug, 'D'}, {LogLevel::info, 'I'}, {LogLevel::warn, 'W'}, {LogLevel::error, 'E'}}) {
      if (rules.writes(level)) written += letter;
    }
    SCOPED_TRACE(environment != nullptr ? environment : "unset");
    EXPECT_EQ(written, expected);
    EXPECT_EQ(rules.carriesHostData(), carriesHostData);
    const std::set<std::string> unknown{"INFO", "loud"};
    EXPECT_EQ(understood, unknown.count(environment != nullptr ? environment : "") == 0);
  }
}

/// Runs in a process of its own, because the choice cannot be taken back.
TEST(LoggerDeathTest, TheHostsChoiceFiltersInfoAndHidesItsData) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto speak = [] {
    KLVLogger::chooseLevel(LogLevel::info);
    if (KLVLogger::setLogLevel(LogLevel::debug)) KLV_ERROR("the service has the last word");
    KLV_DEBUG("debug");
    KLV_INFO("before {}", KLVLogger::hostData("secret"));
    KLVLogger::chooseLevel(LogLevel::error);
    KLV_INFO("after");
    KLVLogger::drain(std::chrono::seconds(10));
    std::exit(0);
  };
  EXPECT_EXIT(speak(), testing::ExitedWithCode(0), "^<KLV INFO> before \\(hidden\\) [^\n]*\n$");
}

TEST(Logger, AMessageIsOneLine) {
  const LogCapture log;
  KLV_ERROR("{}", "a\nb\x1b[2J\u0085\u2028 \xC3\xA9");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].find(R"(<KLV ERROR> a\nb\x1b[2J\u0085\u2028 é test::)"), 0U) << lines[0];
}

TEST(Logger, ALineNamesItsMethodAndPlace) {
  const LogCapture log;
  const auto before = log.lines().size();
  KLVSpeaker::say();
  static_cast<void>(KLVSpeaker().sayFromLambda());
  reportProblem("void kelvo::Files::write(int)", "disk full");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size() - before, 3U);
  const char* expected[] = {R"(<KLV WARN> from a class and 1 1 \(null\) test::KLVSpeaker::say:\d+)",
                            R"(<KLV INFO> \{\} %s\\n stays as it is test::KLVSpeaker::sayFromLambda:\d+)",
                            R"(<KLV ERROR> disk full Files::write:\d+)"};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(std::regex_match(lines[before + i], std::regex(expected[i]))) << lines[before + i];
  }
}

TEST(Logger, ASinkMayThrowLogAndBeReplaced) {
  int seen = 0;  // used on the log thread only, until the log is drained
  KLVLogger::setSink([&](KLVLogger::Level, std::string_view) {
    if (++seen == 1) KLV_INFO("from inside the sink");
    throw std::runtime_error("the host's own trouble");
  });
  KLV_INFO("one");
  ASSERT_TRUE(KLVLogger::drain(std::chrono::seconds(10)));
  ASSERT_TRUE(KLVLogger::drain(std::chrono::seconds(10)));  // the sink has logged a line, too
  const LogCapture log;
  KLV_INFO("two");
  EXPECT_EQ(log.count("two"), 1U);
  EXPECT_EQ(seen, 2);
}

/// Standard error, replaced by a pipe until the object dies.
class PipedStandardError {
 public:
  PipedStandardError() {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    reader_ = ::fdopen(ends[0], "r");
  }
  PipedStandardError(const PipedStandardError&) = delete;
  PipedStandardError& operator=(const PipedStandardError&) = delete;
  ~PipedStandardError() {
    ::close(before_);
    std::fclose(reader_);
  }
  std::FILE* reader() { return reader_; }
  void restore() { ::dup2(before_, STDERR_FILENO); }  // closes the pipe's last writer

 private:
  const int before_ = ::dup(STDERR_FILENO);
  std::FILE* reader_;
};

TEST(Logger, AReaderThatKeepsUpGetsEveryLineOfABurst) {
  constexpr int kLines = 50000;
  PipedStandardError pipe;
  auto reader = std::async(std::launch::async, [&] {
    int inOrder = 0, number = 0;
    for (char line[256]; std::fgets(line, sizeof line, pipe.reader()) != nullptr;) {
      if (std::sscanf(line, "<KLV INFO> line %d.", &number) == 1 && number == inOrder) ++inOrder;
    }
    return inOrder;
  });
  for (int i = 0; i < kLines; ++i) KLV_INFO("line {}.", i);
  EXPECT_TRUE(KLVLogger::drain(std::chrono::seconds(60)));
  pipe.restore();
  EXPECT_EQ(reader.get(), kLines);
}

/// Holds the log thread in the sink, so that it takes the lines of `log` together, for standard error.
void logTogether(const std::function<void()>& log) {
  const auto release = std::make_shared<std::promise<void>>();
  const auto held = std::make_shared<std::promise<void>>();
  KLVLogger::setSink([held, released = release->get_future().share()](KLVLogger::Level, std::string_view) {
    held->set_value();
    released.wait();
  });
  KLV_INFO("for the sink");
  held->get_future().wait();
  KLVLogger::setSink(nullptr);
  log();
  release->set_value();
}

TEST(Logger, AStalledReaderNeverHoldsACallerUpAndLostLinesAreCounted) {
  constexpr int kLines = 20000;
  const auto log = [] {
    for (int i = 0; i < kLines; ++i) KLV_INFO("line {}.", i);  // must not block
  };
  for (const bool areTakenTogether : {false, true}) {
    PipedStandardError pipe;  // nobody reads it yet
    areTakenTogether ? logTogether(log) : log();
    // The limit ends the wait. Before that, the log thread drops all lines but the oldest.
    EXPECT_FALSE(KLVLogger::drain(std::chrono::seconds(2)));

    int written = 0, dropped = 0, last = -1;
    auto reader = std::async(std::launch::async, [&] {
      int number = 0;
      for (char line[256]; std::fgets(line, sizeof line, pipe.reader()) != nullptr;) {
        if (std::sscanf(line, "<KLV WARN> %d log lines were dropped", &number) == 1) {
          dropped += number;
        } else {
          EXPECT_EQ(std::sscanf(line, "<KLV INFO> line %d.", &number), 1) << line;
          EXPECT_LT(std::exchange(last, number), number) << "in order";
          ++written;
        }
      }
    });
    EXPECT_TRUE(KLVLogger::drain(std::chrono::seconds(60)));
    pipe.restore();
    reader.get();
    EXPECT_GT(dropped, 0);
    EXPECT_GE(written, 4096) << "at least as many as may wait";
    EXPECT_EQ(written + dropped, kLines);
  }
}

TEST(Logger, LinesOfAStallThatAreAllWrittenAreDone) {
  PipedStandardError pipe;
  logTogether([] {
    for (int i = 0; i < 2000; ++i) KLV_INFO("more than a pipe holds");
  });
  // The log thread takes these lines, too, when it has waited for a second.
  for (int i = 0; i < 20; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) KLV_INFO("late");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  auto reader = std::async(std::launch::async, [&] {
    for (char line[256]; std::fgets(line, sizeof line, pipe.reader()) != nullptr;) continue;
  });
  EXPECT_TRUE(KLVLogger::drain(std::chrono::seconds(10)));
  pipe.restore();
}

}  // namespace
}  // namespace kelvo::test
