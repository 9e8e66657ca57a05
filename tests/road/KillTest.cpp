#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "road/Road.h"

namespace kelvo::test {
namespace {

TEST_F(Road, KilledAtAnyMomentTheStoreIsWholeAndEveryStoredEventArrivesUnderOneChunkId) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  int number = 0;
  int checked = 0;
  for (int round = 0; round < 30; ++round) {
    // Each round begins with a delivered session in a fresh home. Otherwise a launch that is killed before its first
    // event leaves an empty session, and then the flush does not cut the remaining events of other sessions.
    moveToFreshHome("round" + std::to_string(round));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(launch().quit(), 0);
    const auto launchDuration = std::chrono::steady_clock::now() - start;

    auto host = launch();
    host.untilReady();
    const int calls = std::uniform_int_distribution(1, 300)(random);
    for (int i = 0; i < calls; ++i) {
      host.log("E" + std::to_string(++number));
      if (i % 90 == 60) host.call("willResignActive");
    }
    std::this_thread::sleep_for(launchDuration * std::uniform_real_distribution(0.0, 2.0)(random));
    host.kill(SIGKILL);
    host.wait();

    ASSERT_EQ(stored("pragma integrity_check"), Texts{"ok"}) << "round " << round;
    const Texts storedBefore = storedEvents();
    auto next = launch();
    ASSERT_EQ(next.quit(), 0) << next.errors();
    std::map<std::string, std::set<std::string>> arrived;
    for (const auto& [name, chunk] : arrivals()) arrived[name].insert(chunk);
    for (const auto& event : storedBefore) {
      if (event[0] != 'E') continue;
      ++checked;
      const auto found = arrived.find(event);
      ASSERT_NE(found, arrived.end()) << event << " was stored but never arrived; round " << round;
      ASSERT_EQ(found->second.size(), 1u) << event << " arrived under several chunk ids; round " << round;
    }
  }
  EXPECT_GT(checked, 100) << "the kills came too early: almost nothing was stored";
}

TEST_F(Road, ANormalExitRightAfterAThousandCallsStoresThemAll) {
  Program host = run({KELVO_MANNERS_HOST});
  host.writeLine("start");
  ASSERT_TRUE(host.waitForError("initialized!"));
  host.writeLine("burst 125 0");  // on eight threads
  host.writeLine("join");
  host.closeInput();
  ASSERT_EQ(host.wait(), 0) << host.errors();
  EXPECT_EQ(host.output(), "KelvoiOSSDK finalizer\n");
  const auto events = storedEvents();
  EXPECT_EQ(std::count(events.begin(), events.end(), "burst"), 1000);
}

}  // namespace
}  // namespace kelvo::test
