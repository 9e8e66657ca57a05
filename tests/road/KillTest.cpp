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
    // A home of its own, with one session that was delivered already. (An earlier session in which nothing at all was
    // stored would stay for ever, and have the flush leave the tails of others alone: that is not asked about here.)
    moveToFreshHome("round" + std::to_string(round));
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(launch().quit(), 0);
    const auto ofOneLaunch = std::chrono::steady_clock::now() - begun;

    auto host = launch();
    host.untilReady();
    const int calls = std::uniform_int_distribution(1, 300)(random);
    for (int i = 0; i < calls; ++i) {
      host.log("E" + std::to_string(++number));
      if (i % 90 == 60) host.call("willResignActive");
    }
    std::this_thread::sleep_for(ofOneLaunch * std::uniform_real_distribution(0.0, 2.0)(random));
    host.kill(SIGKILL);
    host.wait();

    ASSERT_EQ(stored("pragma integrity_check"), Texts{"ok"}) << "round " << round;
    const Texts accepted = storedEvents();
    auto undisturbed = launch();
    ASSERT_EQ(undisturbed.quit(), 0) << undisturbed.errors();
    std::map<std::string, std::set<std::string>> arrived;
    for (const auto& [name, chunk] : arrivals()) arrived[name].insert(chunk);
    for (const auto& event : accepted) {
      if (event[0] != 'E') continue;
      ++checked;
      const auto found = arrived.find(event);
      ASSERT_NE(found, arrived.end()) << event << " was stored but never arrived; round " << round;
      ASSERT_EQ(found->second.size(), 1u) << event << " arrived under several chunk ids; round " << round;
    }
  }
  EXPECT_GT(checked, 100) << "the kills came too early to say anything";
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
