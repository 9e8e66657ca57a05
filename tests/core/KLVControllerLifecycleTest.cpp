#include <map>
#include <set>

#include "core/CoreTest.h"
#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/UserDefaults.h"
#include "support/Eventually.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

Dictionary inside(const Dictionary& body, const char* key) {
  return body[key].asDictionary().value_or(Dictionary());
}

using Texts = std::multiset<std::string>;

class Lifecycle : public CoreTest {
 protected:
  /// What the service has of one session.
  struct Arrived {
    Texts events;                             ///< "<name>", and "<name> <seconds>" of a screen
    std::map<std::int64_t, Dictionary> info;  ///< by the number of the chunk; requests may overtake each other
  };
  std::map<std::string, Arrived> arrived() {
    std::map<std::string, Arrived> all;
    for (const Value& chunk : service.chunks()) {
      const Dictionary body = chunk.asDictionary().value();
      const Dictionary info = inside(body, "session_info");
      Arrived& session = all[description(info["id"])];
      session.info[inside(body, "chunk_meta")["number"].asInt64()] = info;
      const Dictionary details = inside(body, "chunk_details");
      for (const char* kind : {"system_events", "app_events", "navigation_events"}) {
        for (const Value& event : details[kind].asArray().value_or(Array())) session.events.insert(nameOf(event, kind));
      }
    }
    return all;
  }
  /// Blocks until the service has an event `name` of `session`.
  void waitForEvent(const std::string& session, const std::string& name) {
    EXPECT_TRUE(eventually([&] { return arrived()[session].events.contains(name); }));
  }
  static std::string nameOf(const Value& event, const std::string& kind) {
    const Dictionary form = event.asDictionary().value();
    const bool isScreen = kind == "navigation_events";
    return description(form["name"]) + (isScreen ? " " + description(form["duration"]) : "");
  }
};

TEST_F(Lifecycle, TheEndOfALongAbsenceDividesTheCallsBetweenTheSessions) {
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  start();
  const std::string first = controller().getSessionId().value();
  settle();
  Application::didShow("Old");
  Application::willResignActive();
  Clock::advance(2000s);
  KelvoSDK::logAppEventWithName("In the background");
  KelvoSDK::setSessionCustomInfo(Dictionary{{"of", "the old one"}});
  Application::didBecomeActive();
  KelvoSDK::logAppEventWithName("Back");
  KelvoSDK::setSessionCustomInfo(Dictionary{{"of", "the new one"}});
  Application::willResignActive();
  settle();
  const auto second = controller().session();
  EXPECT_NE(second->identifier(), first);
  EXPECT_EQ(second->sessionAttributes()["of"], Value("the new one"));
  waitForEvent(first, "In the background");
  waitForEvent(second->identifier(), "BACKGROUND");
  auto all = arrived();
  EXPECT_EQ(inside(all[first].info.rbegin()->second, "additional_info")["of"], Value("the old one"));
  EXPECT_EQ(all[first].events, (Texts{"klv_app_opened", "Old 0", "BACKGROUND", "In the background"}));
  EXPECT_EQ(all[second->identifier()].events, (Texts{"FOREGROUND", "Back", "Old 0", "BACKGROUND"}));
}

TEST_F(Lifecycle, ReportsBeforeTheStartArePlayedInOrderWithTheirTimes) {
  Application::didBecomeActive();
  Application::didShow("Home");
  Clock::advance(3s);
  KelvoSDK::logScreenWithName("Tab");
  Clock::advance(4s);
  Application::willShow("Cart");
  Application::didShow("Cart");
  Clock::advance(2s);
  Application::willResignActive();
  Clock::advance(50s);
  Application::didBecomeActive();
  Clock::advance(20s);
  start();
  settle();
  Clock::advance(1s);
  Application::willResignActive();
  settle();
  ASSERT_TRUE(service.waitForChunks(1));
  EXPECT_EQ(arrived().begin()->second.events, (Texts{"FOREGROUND", "Home 3", "Tab 4", "Cart 2", "BACKGROUND",
                                                     "FOREGROUND", "klv_app_opened", "Cart 21", "BACKGROUND"}));
  EXPECT_NEAR(controller().session()->additionalInfo()["duration"].asDouble(), 30, 3);
}

TEST_F(Lifecycle, AnIdThatBreaksNamesStopsNoStoring) {
  UserDefaults::standard().set("klv_device_id", "it's/a_b");
  start();
  KelvoSDK::logAppEventWithName("Sale");
  Application::willResignActive();
  settle();
  EXPECT_EQ(log.count("<KLV ERROR> The device id "), 1u);
  ASSERT_TRUE(service.waitForChunks(1));
  EXPECT_EQ(arrived().begin()->second.events, (Texts{"BACKGROUND", "klv_app_opened", "Sale"}));
  EXPECT_EQ(controller().getDeviceID(), "it's/a_b");
  EXPECT_EQ(controller().getSessions(), std::vector<std::string>{controller().getSessionId().value()});
}

}  // namespace
}  // namespace kelvo::test
