#include "records/KLVEvent.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/Clock.h"
#include "platform/JSON.h"
#include "records/KLVEvents.h"
#include "support/LogCapture.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

struct Counts : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string& name) override {
    return name == "Purchase" ? 12 : 0;
  }
};

TEST(KLVEventType, EveryNumberHasItsName) {
  const LogCapture log;
  std::istringstream names(
      "System CENavigation Navigation UserInteraction App Client Agg Push InApp Inline Nudge InlineText "
      "InlineCoachmark Walkthrough Screenshot Survey undefined Session Chunk KLVCustomError ApplicationCrash "
      "undefined");
  std::uint64_t number = 0;
  for (std::string name; names >> name; ++number) {
    const auto type = static_cast<KLVEventType>(number);
    EXPECT_EQ(stringFromType(type), name);
    EXPECT_EQ(typeFromString(name), name == "undefined" ? KLVEventType::unknown : type);
  }
  EXPECT_EQ(number, 22U);
  EXPECT_EQ(log.count("<KLV WARN> Undefined KLVEventType"), 2U);
  EXPECT_EQ(identifierKey(KLVEventType::app, kKLVAppOpened), "4___klv_app_opened");
}

TEST(KLVEvent, EveryClassHasItsOwnUploadForm) {
  Counts counts;
  KLVAppEvent app(KLVEventType::app, "Purchase", Dictionary{{"category", "shoes"}, {"price", 3}, {"id", "x"}}, counts);
  KLVSystemEvent system(KLVEventType::system, KLVSystemEvent::SubType::background);
  KLVNavigationEvent screen("Home");
  KLVNavigationEvent nameless("n1", std::nullopt);
  KLVObservationEvent error(KLVEventType::customError);
  error.setCustomInfo("E7", "code");
  for (const char* key : {"navigation_id", "associated_event", "health_snapshot", "unlisted"}) error.setInfo(1, key);
  KLVClientEvent client;
  client.setInfo(1, "own");
  const std::pair<KLVEvent*, const char*> cases[] = {
      {&app, R"({"category":"shoes","name":"Purchase","time":7,"additional_info":)"
             R"({"category":"shoes","price":3,"id":"x","klv_lt_count":12,"klv_lt_count_slot":"11-20"}})"},
      {&system, R"({"name":"BACKGROUND","time":7})"},
      {&screen, R"({"duration":0,"name":"Home","navigation_id":"Home","transition_time":7})"},
      {&nameless, R"({"name":"undefined-screen","navigation_id":"n1","transition_time":7})"},
      {&error, R"({"incident_specific_details":{"code":"E7"},"incident_id":"KLVCustomError","time_of_occurrence":7,)"
               R"("incident_type":"KLVCustomError","navigation_id":1,"associated_event":1,"health_snapshot":1})"},
      {&client, R"({"own":1,"id":"Client","time":7,"type":"Client"})"}};
  for (const auto& [event, expected] : cases) {
    event->setCreatedTime(7);
    EXPECT_EQ(Value(event->jsonDictModified()), *parseJSON(expected)) << *jsonText(event->jsonDictModified());
  }
}

TEST(KLVEvent, IsRebuiltFromARowOfTheDatabase) {
  const LogCapture log;
  KLVTimer::sharedTimer().setSDKStartTime(Clock::now() - std::chrono::milliseconds(61500));
  Counts counts;
  const KLVAppEvent event(KLVEventType::app, "Other", Dictionary{{"color", nullptr}, {"time", "mine"}}, counts);
  EXPECT_EQ(*jsonText(event.eventAttributes()), R"({"time":"mine","klv_lt_count":0,"klv_lt_count_slot":"0"})");
  Dictionary stored = event.jsonDict();
  EXPECT_EQ(stored["time"], 61);
  EXPECT_EQ(stored["type"], "App");
  stored.set("time", 61.0);  // the type of the column
  const auto rebuilt = objectFromJsonDict<KLVEvent>(stored);
  EXPECT_EQ(rebuilt->createdTime(), 61);
  EXPECT_EQ(rebuilt->eventType(), KLVEventType::app);
  EXPECT_EQ(*jsonText(rebuilt->jsonDictModifiedforInstanceWithName("KLVAppEvent")),
            *jsonText(event.jsonDictModified()));
  stored.remove("type");
  EXPECT_EQ(objectFromJsonDict<KLVEvent>(stored)->eventType(), KLVEventType::unknown);
}

}  // namespace
}  // namespace kelvo::test
