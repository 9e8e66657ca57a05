#include "records/KLVEvent.h"

#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "platform/JSON.h"
#include "records/KLVEvents.h"
#include "support/LogCapture.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

std::string json(const Value& value) {
  return jsonText(value).value_or("(not JSON)");
}

struct Counts : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string& name) override {
    return name == "Purchase" ? 12 : 0;
  }
};

TEST(KLVEventType, NamesAndNumbersBelongTogether) {
  const LogCapture log;
  const char* const names[] = {"System",
                               "CENavigation",
                               "Navigation",
                               "UserInteraction",
                               "App",
                               "Client",
                               "Agg",
                               "Push",
                               "InApp",
                               "Inline",
                               "Nudge",
                               "InlineText",
                               "InlineCoachmark",
                               "Walkthrough",
                               "Screenshot",
                               "Survey",
                               "undefined",
                               "Session",
                               "Chunk",
                               "KLVCustomError",
                               "ApplicationCrash",
                               "undefined"};
  std::uint64_t number = 0;
  for (const std::string name : names) {
    const auto type = static_cast<KLVEventType>(number++);
    EXPECT_EQ(stringFromType(type), name);
    EXPECT_EQ(typeFromString(name), name == "undefined" ? KLVEventType::unknown : type);
  }
  EXPECT_EQ(typeFromString("system"), KLVEventType::unknown) << "case matters";
  EXPECT_EQ(log.count("<KLV WARN> Undefined KLVEventType"), 3U);
  EXPECT_EQ(stringFromType(KLVEventType::unknown), "undefined");
  EXPECT_EQ(identifierKey(KLVEventType::app, kKLVAppOpened), "4___klv_app_opened");
}

TEST(KLVEvent, EveryClassUploadsItsOwnShape) {
  Counts counts;
  KLVAppEvent app(KLVEventType::app, "Purchase", Dictionary{{"category", "shoes"}, {"price", 3}, {"id", "x"}}, counts);
  KLVSystemEvent system(KLVEventType::system, KLVSystemEvent::SubType::background);
  KLVNavigationEvent screen("Home");
  KLVNavigationEvent nameless("n1", std::nullopt);
  KLVCENavEvent appearing(std::nullopt);
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
      {&appearing, R"({"id":"undefined","time":7,"type":"CENavigation"})"},
      {&error, R"({"incident_specific_details":{"code":"E7"},"incident_id":"KLVCustomError","time_of_occurrence":7,)"
               R"("incident_type":"KLVCustomError","navigation_id":1,"associated_event":1,"health_snapshot":1})"},
      {&client, R"({"own":1,"id":"Client","time":7,"type":"Client"})"}};
  for (const auto& [event, expected] : cases) {
    event->setCreatedTime(7);
    EXPECT_EQ(Value(event->jsonDictModified()), *parseJSON(expected)) << json(event->jsonDictModified());
  }
}

TEST(KLVEvent, IsRebuiltFromWhatTheDatabaseReturns) {
  const LogCapture log;
  KLVTimer::sharedTimer().setSDKStartTime(Clock::now() - std::chrono::milliseconds(61500));
  Counts counts;
  const KLVAppEvent event(KLVEventType::app, "Purchase", Dictionary{{"price", 3}}, counts);
  EXPECT_EQ(event.createdTime(), 61);
  Dictionary stored = event.jsonDict();
  EXPECT_EQ(stored["time"], 61);
  EXPECT_EQ(stored["type"], "App");
  stored.set("time", 61.0);  // the column is a floating one
  const auto rebuilt = objectFromJsonDict<KLVEvent>(stored);
  EXPECT_EQ(rebuilt->createdTime(), 61);
  EXPECT_EQ(rebuilt->eventType(), KLVEventType::app);
  EXPECT_EQ(json(rebuilt->jsonDictModifiedforInstanceWithName("KLVAppEvent")), json(event.jsonDictModified()));
  stored.remove("type");
  EXPECT_EQ(objectFromJsonDict<KLVEvent>(stored)->eventType(), KLVEventType::unknown);
}

TEST(KLVAppEvent, CarriesCountersAndNoNullsInItsCustomInfo) {
  Counts counts;
  const KLVAppEvent bare(KLVEventType::app, "Purchase", std::nullopt, counts);
  EXPECT_TRUE(bare.additionalInfo().empty());
  const KLVAppEvent event(KLVEventType::app, "Other", Dictionary{{"color", nullptr}, {"time", "mine"}}, counts);
  EXPECT_EQ(json(event.eventAttributes()), R"({"time":"mine","klv_lt_count":0,"klv_lt_count_slot":"0"})");
  EXPECT_TRUE(event.additionalInfo().contains("color"));
  EXPECT_TRUE(event.additionalInfo()["time"].isInteger());
  EXPECT_EQ(event.additionalInfo()["klv_lt_count_slot"], "0");
}

TEST(KLVEvent, SignalsAreNotStored) {
  const std::pair<std::shared_ptr<KLVEvent>, bool> cases[] = {
      {std::make_shared<KLVSessionEvent>(), false},  {std::make_shared<KLVChunkEvent>(), false},
      {std::make_shared<KLVSurveyEvent>(), false},   {std::make_shared<KLVInlineEvent>(), false},
      {std::make_shared<KLVInAppEvent>(), false},    {std::make_shared<KLVNudgeEvent>(), false},
      {std::make_shared<KLVCENavEvent>("x"), false}, {std::make_shared<KLVClientEvent>(), true},
      {std::make_shared<KLVAggregateEvent>(), true}, {std::make_shared<KLVNavigationEvent>("x"), true}};
  for (const auto& [event, storable] : cases) EXPECT_EQ(event->isStorable(), storable) << event->identifier();
  EXPECT_EQ(cases[3].first->identifier(), "Inline");
  EXPECT_EQ(KLVSystemEvent::systemTypeFromString("FOREGROUND"), KLVSystemEvent::SubType::foreground);
  EXPECT_EQ(KLVSystemEvent::systemTypeFromString("undefined"), KLVSystemEvent::SubType::background);
}

}  // namespace
}  // namespace kelvo::test
