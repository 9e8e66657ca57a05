// The kit's own tests. They use it as the tests of a host do.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <thread>

#include "kelvo/KelvoSDK.h"
#include "kelvo/PluginServices.h"
#include "kelvo/Testing.h"

using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

using kelvo::Application;
using kelvo::KelvoSDK;
using kelvo::testing::Fault;
using kelvo::testing::Recorder;
using Texts = std::vector<std::string>;

/// Returns the number of entries of a directory, which may change meanwhile.
int entriesOf(const char* directory) {
  int count = 0;
  std::error_code failure;
  for (fs::directory_iterator entry(directory, failure), end; !failure && entry != end; entry.increment(failure))
    ++count;
  return count;
}

/// Returns whether the process comes to have so many threads: the kernel removes a thread a moment after its join.
bool hasThreads(int number) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (entriesOf("/proc/self/task") != number) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

std::size_t uploadsOf(Recorder& recorder) {
  const auto requests = recorder.service().requests();
  const auto isUpload = [](const std::string& line) { return line.find("/chunks") != line.npos; };
  return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(), isUpload));
}

void runCheckout() {
  Application::show("Basket");
  KelvoSDK::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
  Application::show("Thank you");
}

TEST(RecorderTest, ShowsWhatAHostDoesAndWhatArrives) {
  kelvo::testing::Recorder kelvo;
  runCheckout();
  EXPECT_TRUE(kelvo.logged("Purchase", {{"price", 12.5}}));
  EXPECT_EQ(kelvo.screens(), (std::vector<std::string>{"Basket", "Thank you"}));
  kelvo.service().refuseChunks(503, 2);
  kelvo.advance(31min);
  kelvo.relaunch();
  EXPECT_EQ(kelvo.delivered("Purchase"), 1);
  EXPECT_EQ(kelvo.delivered("Basket"), 1);
  EXPECT_EQ(kelvo.delivered("Thank you"), 1) << "the exit ends the last screen";
  EXPECT_GE(uploadsOf(kelvo), 3U);
}

TEST(RecorderTest, AFailedExpectationListsTheCalls) {
  Recorder recorder;
  KelvoSDK::logAppEventWithName("Purchase", {{"price", 12.5}});
  KelvoSDK::reportCustomError("No paper");
  KelvoSDK::setConsent(kelvo::Consent::denied);
  KelvoSDK::logAppEventWithName("Secret");
  EXPECT_EQ(recorder.events(), (Texts{"Purchase", "No paper"}));
  EXPECT_TRUE(recorder.logged("No paper"));
  EXPECT_FALSE(recorder.logged("Purchase", {{"price", 12.5}, {"item", "book"}}));
  const testing::AssertionResult result = recorder.logged("Secret");
  EXPECT_FALSE(result);
  EXPECT_EQ(std::string(result.message()),
            "Expected event: Secret\nThe host has made 3 calls:\n  application event Purchase {\"price\":12.5}\n"
            "  custom error No paper\n  application event Secret (refused: the user has denied consent)");
}

TEST(RecorderTest, EachBeginsCleanAndLeavesNothingBehind) {
  [[maybe_unused]] const auto begin = std::clock();
#ifdef __SANITIZE_THREAD__
  constexpr int kThreads = 2;  // the sanitizer has one of its own
#else
  constexpr int kThreads = 1;
#endif
  {
    const Recorder first;  // what the process makes once is there now
    Application::setScreenSize(4711, 1);
  }
  const int files = entriesOf("/proc/self/fd");
  std::set<std::string> devices;
  for (int i = 0; i < 300; ++i) {
    std::string home;
    {
      Recorder recorder;
      home = recorder.home();
      ASSERT_TRUE(recorder.calls().empty());
      KelvoSDK::logAppEventWithName("Event");
      if (i % 30 == 0) recorder.relaunch();
      recorder.advance(30s);
      ASSERT_EQ(recorder.delivered("Event"), 1);
      ASSERT_EQ(description(recorder.service().chunks().front()).find("\"width\":4711"), std::string::npos);
      devices.insert(KelvoSDK::getDeviceID().value());
    }
    ASSERT_FALSE(fs::exists(home));
    ASSERT_TRUE(hasThreads(kThreads));
    ASSERT_EQ(entriesOf("/proc/self/fd"), files);
  }
  EXPECT_EQ(devices.size(), 300U);
#ifndef __SANITIZE_THREAD__  // which is ten times as slow
  EXPECT_LT((std::clock() - begin) / CLOCKS_PER_SEC, 30);
#endif
}

TEST(RecorderTest, OnlyOneLivesAndWithoutOneNothingIsCollected) {
  KelvoSDK::start(kelvo::Options("shop"));
  KelvoSDK::logAppEventWithName("Without a recorder");
  EXPECT_EQ(KelvoSDK::flushAndWait(1s).outcome, kelvo::FlushOutcome::notCollecting);
  Recorder recorder;
  EXPECT_THROW(const Recorder second, std::logic_error);
  EXPECT_TRUE(recorder.events().empty());
  EXPECT_EQ(KelvoSDK::ledger().thisProcess.refused.disabled, 0U);
  recorder.advance(30s);
  EXPECT_EQ(recorder.delivered("Without a recorder"), 0);
}

TEST(RecorderTest, IsNotSteeredByTheEnvironmentOrTheHostsOptions) {
  const std::string other = (fs::temp_directory_path() / "kelvo-testing-other-home").string();
  ::setenv("KELVO_HOME", other.c_str(), 1);
  ::setenv("KELVO_SERVER_BASE_URL", "http://127.0.0.1:1", 1);
  ::setenv("DO_NOT_TRACK", "1", 1);
  Recorder recorder{Recorder::NotStarted()};
  KelvoSDK::logAppEventWithName("Before the start");
  kelvo::Options options("shop");
  options.home = other;
  options.serverBaseURL = "https://service.example";
  KelvoSDK::start(options);
  recorder.advance(30s);
  EXPECT_EQ(recorder.delivered("Before the start"), 1);
  EXPECT_EQ(recorder.service().requests().front().rfind("GET /v2/api/shop/sdk/enabled-status?", 0), 0U);
  EXPECT_FALSE(fs::exists(other));
  recorder.relaunch();
  KelvoSDK::logAppEventWithName("Never started");
  recorder.advance(1h);
  EXPECT_EQ(recorder.delivered("Never started"), 0);
  for (const char* name : {"KELVO_HOME", "KELVO_SERVER_BASE_URL", "DO_NOT_TRACK"}) ::unsetenv(name);
}

TEST(RecorderTest, TheServiceFailsAsATestWants) {
  const struct {
    const char* name;
    Fault fault;
    std::size_t uploads;  // until the event has arrived, after a minute
    int deliveredMeanwhile;
  } cases[] = {{"status", Fault::status(500), 2, 0}, {"garbage", Fault::garbage(), 1, 0},
               {"cut", Fault::cut(), 2, 0},          {"lost answer", Fault::lostAnswer(), 2, 1},
               {"late", Fault::late(20s), 1, 1},     {"too late", Fault::late(40s), 2, 1},
               {"silence", Fault::silence(), 2, 0}};
  for (const auto& given : cases) {
    SCOPED_TRACE(given.name);
    Recorder recorder;
    recorder.service().fail("POST /v2/api/test/chunks", given.fault, 1);
    KelvoSDK::logAppEventWithName("Event");
    recorder.advance(31s);
    EXPECT_EQ(uploadsOf(recorder), 1U);
    EXPECT_EQ(recorder.delivered("Event"), given.deliveredMeanwhile);
    const bool isPending = KelvoSDK::ledger().thisProcess.accepted == 0;
    EXPECT_EQ(isPending, std::string(given.name) != "garbage") << "200 means accepted, whatever the body";
    recorder.advance(90s);
    EXPECT_EQ(uploadsOf(recorder), given.uploads);
    EXPECT_EQ(recorder.delivered("Event"), std::string(given.name) == "garbage" ? 0 : 1);
  }
}

TEST(RecorderTest, TheServicesDocumentsTakeEffectAtTheNextLaunch) {
  Recorder recorder;
  recorder.service().setLists({"Client"}, {"Rate"}, {"Debug"});
  recorder.service().configure("max_fg_chunk_send_time", 300);
  recorder.relaunch();
  recorder.relaunch();  // the lists do not classify what is logged before they arrive
  for (const char* name : {"Plain", "Client", "Rate", "Rate", "Debug"}) KelvoSDK::logAppEventWithName(name);
  recorder.advance(299s);
  EXPECT_EQ(recorder.delivered("Plain"), 0);
  recorder.advance(1s);
  EXPECT_EQ(recorder.delivered("Plain"), 1);
  EXPECT_EQ(recorder.delivered("Rate"), 2);
  EXPECT_EQ(recorder.delivered("Client") + recorder.delivered("Debug"), 0);
  recorder.service().setEnabled(false);
  recorder.relaunch();
  KelvoSDK::logAppEventWithName("Disabled");
  EXPECT_FALSE(recorder.logged("Disabled"));
}

TEST(RecorderTest, OnlyTheTestMovesTheClock) {
  Recorder recorder;
  const auto begin = recorder.now();
  Texts order;
  for (const int seconds : {20, 1, 10}) {
    kelvo::PluginServices::executeAfterDelay(seconds, [&order, &recorder, begin, seconds] {
      const auto passed = std::chrono::duration_cast<std::chrono::seconds>(recorder.now() - begin).count();
      order.push_back(std::to_string(seconds) + " at " + std::to_string(passed));
    });
  }
  std::this_thread::sleep_for(1100ms);  // real time has no effect
  recorder.settle();
  EXPECT_TRUE(order.empty());
  recorder.advance(15s);
  EXPECT_EQ(order, (Texts{"1 at 1", "10 at 10"}));
  recorder.service().fail("/chunks", Fault::silence());
  KelvoSDK::logAppEventWithName("Event");
  const auto real = std::chrono::steady_clock::now();
  EXPECT_EQ(KelvoSDK::flushAndWait(10s).outcome, kelvo::FlushOutcome::deadline);
  EXPECT_LT(std::chrono::steady_clock::now() - real, 5s);
  EXPECT_GE(recorder.now() - begin, 25s) << "a host that waits passes the time";
  EXPECT_EQ(order.size(), 3U);
}

TEST(RecorderTest, AKilledLaunchLosesNoCallThatHasReturned) {
  Recorder recorder;
  recorder.killed([&] {
    KelvoSDK::logAppEventWithName("Delivered");
    recorder.advance(30s);
    KelvoSDK::logAppEventWithName("Just returned");
  });
  EXPECT_TRUE(recorder.events().empty());
  recorder.relaunch();
  EXPECT_EQ(recorder.delivered("Delivered"), 1);
  EXPECT_EQ(recorder.delivered("Just returned"), 1);
  EXPECT_THROW(recorder.killed([] { ::_exit(0); }), std::runtime_error);
  EXPECT_THROW(recorder.killed([] { throw std::runtime_error("an expected message\n"); }), std::runtime_error);
}

TEST(RecorderTest, AnErasureEmptiesTheService) {
  Recorder recorder;
  KelvoSDK::logAppEventWithName("Old");
  recorder.advance(30s);
  EXPECT_EQ(recorder.delivered("Old"), 1);
  KelvoSDK::erase();
  KelvoSDK::logAppEventWithName("New");
  recorder.advance(30s);
  EXPECT_EQ(recorder.delivered("Old"), 0);
  EXPECT_EQ(recorder.delivered("New"), 1);
}

TEST(RecorderTest, ACallbackMustNotWaitAndATestWaitsForIt) {
  const Recorder recorder;
  bool hasThrown = false;
  KelvoSDK::onReady([&](const KelvoSDK::Status&) {
    std::this_thread::sleep_for(10ms);
    try {
      recorder.settle();
    } catch (const std::logic_error&) {
      hasThrown = true;
    }
    KelvoSDK::logAppEventWithName("Called");
  });
  EXPECT_TRUE(recorder.logged("Called"));
  EXPECT_TRUE(hasThrown);
}

}  // namespace
