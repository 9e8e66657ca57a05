#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <future>
#include <random>

#include "records/KLVEvents.h"
#include "storage/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "support/TestHome.h"

extern char** environ;

namespace kelvo::test {
namespace {

constexpr const char* kWriterHome = "KELVO_TEST_WRITER_HOME";
constexpr const char* kWriterSession = "KELVO_TEST_WRITER_SESSION";
constexpr int kReports = 3;  // the writer's end of the pipe
constexpr std::uint32_t kBatch = 20;

/// Runs in a process of its own until it is killed: stores events named 1, 2, 3 ... and reports each batch once the
/// handler says that it is stored.
TEST(Kill, DISABLED_Writer) {
  const char* itsHome = std::getenv(kWriterHome);
  if (itsHome == nullptr) GTEST_SKIP() << "only a part of another test";
  setenv("KELVO_HOME", itsHome, 1);
  const std::string session = std::getenv(kWriterSession);
  KLVDataHandler handler(session);
  handler.startWithCompletionHandler({});
  for (std::uint32_t number = 1;; ++number) {
    const auto event = std::make_shared<KLVObservationEvent>(std::to_string(number));
    event->setCustomInfo(std::string(200, 'x'), "padding");
    handler.saveEventInfo(event, session);
    handler.upsertLifetimeEvent(std::make_shared<KLVObservationEvent>(std::string("all")));
    if (number % kBatch != 0) continue;
    std::promise<void> reported;
    handler.whenStored([&] {
      if (::write(kReports, &number, sizeof number) != sizeof number) std::abort();
      reported.set_value();
    });
    reported.get_future().wait();
  }
}

class Writer {
 public:
  explicit Writer(const std::string& session) {
    int ends[2] = {};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reports_ = ends[0];
    // What the writer's own start leaves behind lies in this test's home, too, and goes with it.
    setenv("TMPDIR", home().c_str(), 1);
    setenv(kWriterHome, home().c_str(), 1);
    setenv(kWriterSession, session.c_str(), 1);
    std::string arguments[] = {"writer", "--gtest_filter=Kill.DISABLED_Writer", "--gtest_also_run_disabled_tests"};
    char* const argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], kReports);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    EXPECT_EQ(posix_spawn(&process_, "/proc/self/exe", &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() { ::close(reports_); }

  /// False when the writer is gone and all its reports are read.
  bool nextReport() { return ::read(reports_, &last_, sizeof last_) == sizeof last_; }
  [[nodiscard]] std::uint32_t last() const { return last_; }
  void kill() {
    ::kill(process_, SIGKILL);
    int status = 0;
    ::waitpid(process_, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  }

 private:
  pid_t process_ = -1;
  int reports_ = -1;
  std::uint32_t last_ = 0;
};

TEST(Kill, WhatWasReportedAsStoredSurvivesAKillAtAnyMoment) {
  std::mt19937 random{std::random_device()()};
  for (int round = 1; round <= 10; ++round) {
    const auto session = "S" + std::to_string(round);
    SCOPED_TRACE(session);
    Writer writer(session);
    for (auto left = random() % 40 + 1; left > 0; --left) ASSERT_TRUE(writer.nextReport());
    for (volatile auto spin = random() % 500000; spin > 0;) spin = spin - 1;  // to somewhere inside the next batch
    writer.kill();
    while (writer.nextReport()) {
    }

    KLVDataHandler handler("after");
    handler.startWithCompletionHandler({});
    FMKLVDatabase db(documents("kelvo-db/v1.0.0/com.kelvo.sessions.sqlite"));
    ASSERT_TRUE(db.open());
    const auto check = db.executeQuery("pragma integrity_check");
    ASSERT_TRUE(check && check->next());
    EXPECT_EQ(check->objectForColumnIndex(0), "ok");

    const auto rows = handler.getEventsBetween(1, UINT64_MAX, session, std::nullopt);
    ASSERT_GE(rows.size(), writer.last());
    ASSERT_LE(rows.size(), writer.last() + kBatch);
    for (std::size_t row = 0; row < rows.size(); ++row) ASSERT_EQ(rows[row]["id"], std::to_string(row + 1));
    static std::int64_t counted = 0;
    const auto count = (*handler.retrieveLifetimeEventWithName("all"))["count"].asInt64();
    EXPECT_GE(count, counted + writer.last());
    EXPECT_LE(count, counted + static_cast<std::int64_t>(rows.size()));
    counted = count;
  }
}

}  // namespace
}  // namespace kelvo::test
