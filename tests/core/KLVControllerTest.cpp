#include <malloc.h>

#include "core/CoreTest.h"
#include "platform/Clock.h"
#include "platform/HostInterface.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/UserDefaults.h"

namespace kelvo::test {
namespace {

class Controller : public CoreTest {
 protected:
  static void report(std::string_view notification) {
    controller().performInOrder([=] { NotificationCenter::defaultCenter().post(notification); });
    settle();
  }
};

TEST_F(Controller, ALongAbsenceStartsANewSessionOnce) {
  start();
  const auto first = controller().session();
  const auto away = [&](Clock::Duration duration) {
    report(kApplicationWillResignActive);
    Clock::advance(duration);
    report(kApplicationDidBecomeActive);
    return controller().session();
  };
  report(kApplicationDidBecomeActive);
  EXPECT_EQ(away(1800s), first);
  const auto second = away(1801s);
  EXPECT_NE(second, first);
  EXPECT_EQ(second->additionalInfo()["launch_type"], Value("restart"));
  EXPECT_EQ(second->additionalInfo()["is_first_session"], Value(false));
  EXPECT_EQ(away(10s), second) << "a stopped session ignores events";
  EXPECT_EQ(controller().getLifetimeSessionCount(), 2);
}

TEST_F(Controller, TheRetentionCounterAddsAllDaysSinceTheFirstEvaluationEveryTime) {
  const auto daysAfter = [](Clock::Duration time) {
    Clock::advance(time);
    controller().updateRetentionDayCount();
    return controller().getRetentionDay();
  };
  EXPECT_EQ(daysAfter(0s), 0);
  EXPECT_TRUE(UserDefaults::standard().contains("klv_ret_day"));
  EXPECT_EQ(daysAfter(23h + 59min), 0);
  EXPECT_EQ(daysAfter(2min), 1);
  EXPECT_EQ(daysAfter(24h), 3);
}

TEST_F(Controller, TheTimerCutsChunksAndSkipsEmptyOnes) {
  start();
  settle();
  Clock::advance(31s);
  ASSERT_TRUE(service.waitForChunks(1));
  settle();
  Clock::advance(31s);
  EXPECT_TRUE(log.waitFor("<KLV WARN> illegal arguments (end < start)"));
  settle();
  EXPECT_EQ(service.chunks().size(), 1u);
}

/// A screen whose title is available only after the library has begun to cut a chunk.
class SlowScreen final : public ViewController, public KLVEventListener {
 public:
  std::string className() const override { return "Slow"; }
  std::optional<std::string> title() const override {
    cut_.get_future().wait();
    return "At last";
  }
  void onEvent(const std::shared_ptr<KLVEvent>&) override { cut_.set_value(); }

 private:
  mutable std::promise<void> cut_;
};

/// Shows `screen`, and then leaves the foreground.
void showAndLeave(const std::shared_ptr<SlowScreen>& screen) {
  KLVController::sharedController().performInOrder([screen] {
    NotificationCenter::defaultCenter().post(kDidShowViewController, Screen(screen));
    NotificationCenter::defaultCenter().post(kApplicationWillResignActive);
  });
}

TEST_F(Controller, TheScreenThatBackgroundEndsIsInTheChunkThatItCuts) {
  start();
  settle();
  const auto screen = std::make_shared<SlowScreen>();
  controller().registerForEventWithType(KLVEventType::chunk, screen);
  showAndLeave(screen);
  ASSERT_TRUE(service.waitForChunks(1));
  const Dictionary details = service.chunks()[0].asDictionary().value()["chunk_details"].asDictionary().value();
  const Array screens = details["navigation_events"].asArray().value();
  ASSERT_EQ(screens.size(), 1u);
  EXPECT_EQ(screens[0].asDictionary().value()["name"], Value("At last"));
}

TEST_F(Controller, AMainLoopThatHangsHoldsUpNeitherChunksNorEvents) {
  start();
  settle();
  std::promise<void> end;
  MainQueue::async([&] { end.get_future().wait(); });
  const auto screen = std::make_shared<SlowScreen>();
  showAndLeave(screen);
  EXPECT_TRUE(service.waitForChunks(1));
  controller().logAppEventWithName("Meanwhile", {}, false, false);
  while (controller().getLifetimeCountForEventWithName("Meanwhile") == 0) std::this_thread::sleep_for(1ms);
  screen->onEvent(nullptr);
  end.set_value();
  settle();
  const auto events =
      controller().getEventsBetween(1, 9, controller().getSessionId(), KLVEventType::navigation).value();
  EXPECT_EQ(events.size(), 1u) << "the screen is recorded late, but not lost";
}

TEST_F(Controller, RefusesMissingArgumentsAndForwardsCompleteCalls) {
  const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
  controller().saveEvent(event, "some session");
  EXPECT_EQ(log.count("<KLV ERROR> SDK Disabled - ignoring event"), 1u)
      << "an event for a given session is not buffered";
  start();
  controller().saveEvent(event, std::nullopt);
  EXPECT_EQ(log.count("<KLV WARN> Event/sessionId is nil"), 1u);
  controller().postDataToURL("/v2/api/user", std::nullopt, std::nullopt, {});
  EXPECT_EQ(log.count("<KLV WARN> URL/requestMethod is nil"), 1u);
  settle();
  EXPECT_EQ(controller().getEventsBetween(1, 5, controller().getSessionId(), KLVEventType::app)->size(), 1u);
  EXPECT_EQ(controller().getLifetimeCountForEvents({}), std::nullopt);
  EXPECT_EQ(controller().getLifetimeCountForEvents({"klv_app_opened", "never"}),
            (Dictionary{{"klv_app_opened", 1}, {"never", 0}}));
}

TEST_F(Controller, ACallThatWaitsTakesLittleMoreMemoryThanItsData) {
  const auto logOne = [](int number) {
    const Dictionary info{{"item", "book"},    {"shop", "Main Street"}, {"currency", "EUR"},  {"campaign", "spring"},
                          {"payment", "card"}, {"quantity", 3},         {"position", number}, {"price", 12.5}};
    controller().logAppEventWithName("Open Item", info, false, false);
  };
  constexpr int kCalls = 1000;
  logOne(0);
  const auto before = mallinfo2().uordblks;
  for (int i = 1; i <= kCalls; ++i) logOne(i);
  EXPECT_LT((mallinfo2().uordblks - before) / kCalls, 300U);
}

TEST_F(Controller, MarksARunningOrAStoredSessionAsCrashed) {
  start();
  const auto running = controller().session();
  const std::string earlier = "1000-device";
  writeFileForTest(library(earlier + "/session_info"),
                   R"({"id": "1000-device", "__additional_info__": "{\"launch_time\": 5000, \"duration\": 1}"})");
  controller().markFatalAndUpdateDuration(Date(9s), earlier);
  controller().markFatalAndUpdateDuration(std::nullopt, running->identifier());
  EXPECT_EQ(running->additionalInfo()["is_fatal"], Value(true));
  const Dictionary stored = chunkDelegate().retrieveSessionInfoWithIdentifier(earlier)->additionalInfo();
  EXPECT_EQ(stored["is_fatal"], Value(true));
  EXPECT_EQ(stored["duration"], Value(5.0));
  EXPECT_EQ(log.count("<KLV WARN> duration/identifier is nil"), 1u);
}

TEST_F(Controller, TerminatingStopsTheMonitorsAndASecondStartIsRefused) {
  start();
  settle();
  controller().terminateSDK();
  controller().terminateSDK();
  EXPECT_EQ(log.count("<KLV INFO> Terminating Kelvo SDK"), 2u);
  controller().initializeWithKelvoID("again");
  EXPECT_EQ(log.count("<KLV INFO> Kelvo SDK already initialized. Ignoring this call"), 1u);
  const auto stored = controller().numberOfEventsWithIdentifier(controller().getSessionId());
  report(kApplicationDidBecomeActive);
  EXPECT_EQ(controller().numberOfEventsWithIdentifier(controller().getSessionId()), stored)
      << "the stopped monitor ignores activity";
}

}  // namespace
}  // namespace kelvo::test
