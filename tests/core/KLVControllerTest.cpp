#include "core/KLVController.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <thread>

#include "kelvo-collector/Server.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/UserDefaults.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVUtilities.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

/// The controller of this process, against a collector in it.
class Controller : public testing::Test {
 protected:
  Controller() {
    service.start();
    setenv("KELVO_SERVER_BASE_URL", service.baseURL().c_str(), 1);
  }

  void start() {
    controller().initializeWithKelvoID("shop");
    while (!controller().hasStarted()) std::this_thread::sleep_for(1ms);
  }
  void settle() {
    std::promise<void> done;
    controller().whenPosted([&] { done.set_value(); });
    done.get_future().wait();
  }
  void report(std::string_view notification) {
    controller().performInOrder([=] { NotificationCenter::defaultCenter().post(notification); });
    settle();
  }
  static KLVController& controller() { return KLVController::sharedController(); }

  collector::Server service;
  const LogCapture log;
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
  EXPECT_EQ(away(10s), second) << "the session that was stopped listens no more";
  EXPECT_EQ(controller().getLifetimeSessionCount(), 2);

  controller().logAppEventWithName("After the restart", {}, false, false);
  settle();
  EXPECT_EQ(controller().numberOfEventsWithIdentifier(second->identifier()), 0u) << "its data handler is never started";
}

TEST_F(Controller, TheRetentionCounterAddsTheWholeDaysAtEveryEvaluation) {
  auto& defaults = UserDefaults::standard();
  controller().updateRetentionDayCount();
  EXPECT_TRUE(defaults.contains("klv_ret_day"));
  EXPECT_FALSE(defaults.contains("klv_ret_day_count"));
  Clock::advance(23h + 59min);
  controller().updateRetentionDayCount();
  EXPECT_EQ(controller().getRetentionDay(), 0);
  Clock::advance(24h + 2min);
  controller().updateRetentionDayCount();
  EXPECT_EQ(controller().getRetentionDay(), 2);
  controller().updateRetentionDayCount();
  EXPECT_EQ(controller().getRetentionDay(), 4);
}

TEST_F(Controller, TheTimerCutsAndDoesNotSendAnEmptyChunk) {
  start();
  settle();
  Clock::advance(31s);
  ASSERT_TRUE(service.waitForChunks(1));
  settle();
  Clock::advance(31s);
  EXPECT_TRUE(log.waitFor("<KLV WARN> illegal arguments (end < start)"));
  settle();
  EXPECT_EQ(service.chunks().size(), 1u);
  ASSERT_TRUE(log.waitFor("Successfully sent chunk - " + *controller().getSessionId() + "_1, responsecode - 200"));
  EXPECT_TRUE(controller().retrieveChunkMetaInfo().at(0)->additionalInfo()["status"].asBool());
}

TEST_F(Controller, ForwardsAndRefusesAsEachCallSays) {
  EXPECT_EQ(controller().getDeviceID(), std::nullopt);
  EXPECT_EQ(controller().numberOfEventsWithIdentifier("nothing yet"), 0u);
  const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
  controller().saveEvent(event, "some session");
  EXPECT_EQ(log.count("<KLV ERROR> SDK Disabled - ignoring event"), 1u) << "this form is not buffered";

  start();
  controller().saveEvent(event, std::nullopt);
  EXPECT_TRUE(controller().getEventsBetween(1, 5, std::nullopt, KLVEventType::app).empty());
  controller().postDataToURL("/v2/api/user", std::nullopt, std::nullopt, {});
  controller().deleteItemAtPath(std::nullopt);
  for (const char* line : {"<KLV WARN> Event/sessionId is nil", "<KLV WARN> identifier/eventType is nil",
                           "<KLV WARN> URL/requestMethod is nil", "<KLV WARN> cannot delete, path is nil"}) {
    EXPECT_EQ(log.count(line), 1u) << line;
  }
  settle();
  EXPECT_EQ(controller().getEventsBetween(1, 5, controller().getSessionId(), KLVEventType::app).size(), 1u);
  EXPECT_EQ(controller().getLifetimeCountForEvents({}), std::nullopt);
  EXPECT_EQ(controller().getLifetimeCountForEvents({"klv_app_opened", "never"}),
            (Dictionary{{"klv_app_opened", 1}, {"never", 0}}));
  controller().saveFrequencyInfo(Dictionary{{"shown", 3}}, "campaign");
  controller().saveFrequencyInfo(Dictionary(), "ignored");
  EXPECT_EQ(controller().retrieveFrequencyConfigWithIdentifier("campaign"), Value(Dictionary{{"shown", 3}}));
  EXPECT_EQ(controller().retrieveFrequencyConfigWithIdentifier("ignored"), std::nullopt);
}

TEST_F(Controller, ACrashedSessionIsMarkedWhetherItRunsOrIsStored) {
  start();
  const auto running = controller().session();
  const std::string earlier = "1000-device";
  writeFileForTest(library(earlier + "/session_info"),
                   R"({"id": "1000-device", "__additional_info__": "{\"launch_time\": 5000, \"duration\": 1}"})");
  controller().markFatalAndUpdateDuration(Date(9s), earlier);
  controller().markFatalAndUpdateDuration(std::nullopt, running->identifier());
  EXPECT_EQ(running->additionalInfo()["is_fatal"], Value(true));
  const Dictionary stored = controller().retrieveSessionInfoWithIdentifier(earlier)->additionalInfo();
  EXPECT_EQ(stored["is_fatal"], Value(true));
  EXPECT_EQ(stored["duration"], Value(5.0));
  EXPECT_EQ(log.count("<KLV WARN> duration/identifier is nil"), 1u);
}

TEST_F(Controller, ATerminatedControllerRefusesWorkAndStaysSo) {
  start();
  controller().terminateSDK();
  controller().terminateSDK();
  EXPECT_EQ(log.count("<KLV INFO> Terminating Kelvo SDK"), 2u);
  controller().initializeWithKelvoID("again");
  EXPECT_EQ(log.count("<KLV INFO> Kelvo SDK already initialized. Ignoring this call"), 1u);
  const auto stored = controller().numberOfEventsWithIdentifier(controller().getSessionId());
  report(kApplicationDidBecomeActive);
  EXPECT_EQ(controller().numberOfEventsWithIdentifier(controller().getSessionId()), stored) << "the monitor is stopped";
}

}  // namespace
}  // namespace kelvo::test
