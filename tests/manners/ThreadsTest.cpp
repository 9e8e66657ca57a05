// The library's threads in its host's process, and signals.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <set>
#include <thread>
#include <utility>

#include "manners/Manners.h"

namespace kelvo::test {
namespace {

struct Thread {
  std::string name;
  std::uint64_t blocked;  ///< mask of blocked signals
  long switches;          ///< voluntary context switches so far
};

/// Returns the library's threads. Fails for any other thread except the main one.
std::vector<Thread> threadsOfLibrary(const Program& host) {
  std::vector<Thread> threads;
  const std::string process = std::to_string(host.id());
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
    const std::string status = contentOf(entry.path() / "status");
    if (status.empty()) continue;  // the thread has just ended
    const auto field = [&](const char* name) { return linesAfter(std::string(name) + ":\t", status).at(0); };
    const bool isOurs = field("Name").rfind("kelvo.", 0) == 0;
    // The thread sanitizer has a thread with the program's name.
    EXPECT_TRUE(isOurs || entry.path().filename() == process || kSanitizer == "thread") << field("Name");
    if (!isOurs) continue;
    threads.push_back(
        {field("Name"), std::stoull(field("SigBlk"), nullptr, 16), std::stol(field("voluntary_ctxt_switches"))});
  }
  return threads;
}

long switchesOf(const Program& host) {
  long all = 0;
  for (const Thread& thread : threadsOfLibrary(host)) all += thread.switches;
  return all;
}

TEST_F(Manners, FiveThreadsThatLeaveSignalsToTheHostAndSleepWhenIdle) {
  using namespace std::chrono_literals;
  auto idle = host();
  play(idle, {"start", kStarted, "Event", "background"});
  ASSERT_TRUE(service.waitForChunks(1));
  long before = -1;
  // Wait until the work after the service's answer is done.
  for (long now = 0; now != before; std::this_thread::sleep_for(300ms)) before = std::exchange(now, switchesOf(idle));
  const auto threads = threadsOfLibrary(idle);
  std::set<std::string> names;
  for (const auto& [name, blocked, switches] : threads) {
    names.insert(name);
    for (int number = 1; number <= 64; ++number) {
      if (number == SIGKILL || number == SIGSTOP || number == 32 || number == 33) continue;  // these cannot be blocked
      const std::set<int> faults{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
      EXPECT_EQ((blocked >> (number - 1) & 1) != 0, faults.count(number) == 0) << name << ", signal " << number;
    }
  }
  EXPECT_LE(threads.size(), 5u);
  EXPECT_EQ(names.size(), threads.size());
  for (const char* name : {"kelvo.log", "kelvo.net", "kelvo.pool.1", "kelvo.pool.2"}) EXPECT_EQ(names.count(name), 1u);
  // A sanitizer adds switches of its own.
  if (!kSanitizer.empty()) return;
  before = switchesOf(idle);
  std::this_thread::sleep_for(3s);
  EXPECT_LE(switchesOf(idle) - before, 2);
}

TEST_F(Manners, LinkedAndNeverCalledItSaysOneLineAndIsNotThere) {
  moveToFreshHome("untouched");
  auto program = host();
  program.writeLine("run echo up");
  EXPECT_TRUE(program.waitForOutput("up"));
  EXPECT_EQ(threadsOfLibrary(program).size(), 0u);
  EXPECT_EQ(program.errors(), "") << "the host may still start the library";
  end(program);
  EXPECT_EQ(program.errors().rfind("<KLV ERROR> KelvoiOSSDK failed to initialize - invalid Kelvo Meta Info", 0), 0u);
  EXPECT_EQ(linesAfter("", program.errors()).size(), 1u) << program.errors();
  EXPECT_FALSE(std::filesystem::exists(homeOfLaunches()));
  EXPECT_EQ(service.numberOfConnections(), 0u);
}

TEST_F(Manners, AFaultInTheHostsCodeOnAThreadOfTheLibraryReachesTheHostsHandler) {
  for (const auto& [callback, thread] : {std::pair{"sink", "kelvo.log"}, std::pair{"post", "kelvo.pool"}}) {
    auto faulting = host();
    play(faulting, {std::string(callback) + " fault", "start", "Event"});
    EXPECT_EQ(faulting.wait(), 7) << faulting.errors();
    EXPECT_EQ(faulting.output().rfind(thread, 0), 0u) << faulting.output();
  }
}

TEST_F(Manners, ABrokenPipeAndABrokenConnectionEndNoHostThatLeftSIGPIPEAlone) {
  service.answerInTurn("/chunks", {Script::cut().times(1)});
  auto broken = host();
  play(broken, {"start", kStarted, "breakPipe", "Event", "background", "/chunks"});
  end(broken);
  EXPECT_EQ(broken.output(), "KelvoiOSSDK finalizer\n");
}

}  // namespace
}  // namespace kelvo::test
