#include <gtest/gtest.h>

#include <filesystem>
#include <future>

#include "records/KLVEvents.h"
#include "records/KLVFileNames.h"
#include "storage/KLVDataHandler.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

std::shared_ptr<KLVEvent> event(const std::string& name, KLVEventType type = KLVEventType::app) {
  auto made = std::make_shared<KLVObservationEvent>(name);
  made->setEventType(type);
  made->setCreatedTime(7);
  return made;
}

void waitUntilStored(KLVDataHandler& handler) {
  std::promise<void> stored;
  handler.whenStored([&] { stored.set_value(); });
  stored.get_future().wait();
}

struct Handler : testing::Test {
  LogCapture log;
  KLVDataHandler handler{"S"};
};

struct StartedHandler : Handler {
  StartedHandler() { handler.startWithCompletionHandler({}); }

  /// Keeps the handler's queue busy until the promise is kept, so that what is submitted meanwhile waits together.
  std::promise<void> block() {
    std::promise<void> release;
    handler.whenStored([released = release.get_future().share()] { released.wait(); });
    return release;
  }
};

TEST_F(StartedHandler, EventsComeBackInOrderWithTheirIntegersIntact) {
  constexpr std::int64_t kLarge = 9007199254740993;  // what a double cannot hold
  const auto first = event("Buy");
  first->setCustomInfo(kLarge, "amount");
  handler.saveEventInfo(first, "S");
  handler.saveEventInfo(event("FOREGROUND", KLVEventType::system), "S");
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), 2U);
  const auto rows = handler.getEventsBetween(1, 2, "S", std::nullopt);
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_TRUE(rows[0]["identifier"].isInteger());
  const auto restored = objectFromJsonDict<KLVObservationEvent>(rows[0]);
  EXPECT_EQ(restored->identifier(), "Buy");
  EXPECT_EQ(restored->eventType(), KLVEventType::app);
  EXPECT_EQ(restored->createdTime(), 7);
  EXPECT_EQ(*restored->customInfo()["amount"].get<std::int64_t>(), kLarge);
  const auto system = handler.getEventsBetween(1, 2, "S", "System");
  ASSERT_EQ(system.size(), 1U);
  EXPECT_EQ(system[0]["id"], "FOREGROUND");
}

TEST_F(StartedHandler, AnEventThatCannotBeStoredCostsNoOther) {
  auto release = block();
  const auto refused = event("refused");
  refused->setCustomInfo(Array{}, "empty");
  for (int number = 0; number < 1500; ++number) {
    handler.saveEventInfo(number == 700 ? refused : event(std::to_string(number)), "S");
    if (number % 500 == 0) handler.saveEventInfo(event("lost"), "no such session");
  }
  release.set_value();
  const auto rows = handler.getEventsBetween(1, 2000, "S", std::nullopt);
  ASSERT_EQ(rows.size(), 1499U);
  for (std::size_t row = 0; row < rows.size(); ++row) {
    ASSERT_EQ(rows[row]["id"], std::to_string(row < 700 ? row : row + 1));
  }
  EXPECT_EQ(log.count("KLVError"), 3U);
  EXPECT_EQ(log.count("<KLV ERROR>") - log.count("KLVError") - log.count("DB "), 1U);
}

TEST_F(StartedHandler, JobsOfEveryKindKeepTheOrderOfTheirSubmission) {
  auto release = block();
  handler.saveEventInfo(event("a"), "S");
  handler.deleteSession("S");
  handler.saveEventInfo(event("too late"), "S");
  bool storedBefore = false;
  handler.upsertLifetimeEvent(event("a"));
  handler.whenStored([&] { storedBefore = handler.retrieveLifetimeEventWithName("a").has_value(); });
  handler.upsertLifetimeEvent(event("a"));
  release.set_value();
  waitUntilStored(handler);
  EXPECT_EQ(log.count("KLVError 1: no such table: events_S"), 1U);
  EXPECT_TRUE(storedBefore);
  EXPECT_TRUE((*handler.retrieveLifetimeEventWithName("a"))["count"].isInteger());
  EXPECT_EQ((*handler.retrieveLifetimeEventWithName("a"))["count"], 2);
}

TEST_F(StartedHandler, WhatWasAcceptedIsStoredThoughTheHandlerHasGone) {
  std::promise<void> hold;
  std::promise<void> stored;
  {
    KLVDataHandler other("T");
    other.startWithCompletionHandler({});
    other.whenStored([held = hold.get_future().share()] { held.wait(); });
    other.saveEventInfo(event("a"), "T");
    other.whenStored([&] { stored.set_value(); });
  }
  hold.set_value();
  stored.get_future().wait();
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("T"), 1U);
  EXPECT_EQ(handler.getSessions(), (std::vector<std::string>{"S", "T"}));
}

TEST_F(StartedHandler, AggregateCountsAreKeptWithAndWithoutAnAttribute) {
  const Dictionary plain = {{"sid", "S"}, {"name", "Open"}};
  const Dictionary attributed = {{"sid", "S"}, {"name", "Open"}, {"attr_key", "plan"}, {"attr_value", "gold"}};
  handler.updateAggregateEventsCountRecordHavingParameters(plain);
  handler.fetchAndIncrementCountForParameters(attributed);
  handler.fetchAndIncrementCountForParameters(attributed);
  handler.updateAggregateEventsCountRecordHavingParameters(plain);
  handler.updateAggregateEventsCountRecordHavingParameters(plain);

  Dictionary plainRow = plain;
  plainRow.set("e_count", 3);
  Dictionary attributedRow = attributed;
  attributedRow.set("e_count", 2);
  EXPECT_EQ(handler.retrieveAggregateEventsWithSessionIdentifier("S"), (std::vector{plainRow, attributedRow}));
  EXPECT_EQ(handler.retrieveAggregateEventWithParameters(attributed), (Dictionary{{"e_count", 2}}));
  EXPECT_EQ(handler.retrieveAggregateEventWithParameters({}), std::nullopt);
  handler.deleteAggregateEventsWithSessionId("S");
  EXPECT_TRUE(handler.retrieveAggregateEventsWithSessionIdentifier("S").empty());
}

TEST_F(StartedHandler, ChunkMetaRowsRoundTrip) {
  handler.saveChunkMetaInfo(std::make_shared<KLVChunkMetaInfo>("S", 1U, 1U, 9U, Array{1700000000001}));
  handler.saveChunkMetaInfo(std::make_shared<KLVChunkMetaInfo>("S", 2U, 10U, 12U, Array{1700000000002}));
  auto metas = handler.retrieveChunkMetaInfo();
  ASSERT_EQ(metas.size(), 2U);
  EXPECT_EQ(metas[1]->identifier(), "S_2");
  const Dictionary expected = {
      {"sid", "S"}, {"cid", 2}, {"start", 10}, {"end", 12}, {"reporting_times", Array{1700000000002}}};
  EXPECT_EQ(metas[1]->additionalInfo(), expected);  // and no status before the service accepted it

  metas[1]->setInfo(Array{1700000000002, 1700000000003}, "reporting_times");
  handler.updateChunkMetaInfoTimestamp(metas[1]);
  handler.updateChunkMetaStatus(metas[0]);
  metas[0]->setInfo(nullptr, "reporting_times");
  handler.updateChunkMetaInfoTimestamp(metas[0]);
  metas = handler.retrieveChunkMetaInfo();
  EXPECT_EQ(metas[0]->additionalInfo()["status"], 1);
  EXPECT_EQ(metas[0]->additionalInfo()["reporting_times"], Array{1700000000001});
  EXPECT_EQ(metas[1]->additionalInfo()["reporting_times"], (Array{1700000000002, 1700000000003}));
  EXPECT_EQ(log.count("<KLV WARN> reporting_times not found, failed to update."), 1U);

  handler.deleteChunkMetaInfo(std::make_shared<KLVInfo>("S"));
  EXPECT_TRUE(handler.retrieveChunkMetaInfo().empty());
}

TEST_F(Handler, WithoutAStartKeepsFilesButNoRows) {
  handler.saveEventInfo(event("a"), "S");
  handler.fetchAndIncrementCountForParameters({{"sid", "S"}});
  handler.deleteSession("S");
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), 0U);
  EXPECT_TRUE(handler.getSessions().empty());
  EXPECT_TRUE(handler.retrieveChunkMetaInfo().empty());
  EXPECT_EQ(handler.retrieveLifetimeEventWithName("a"), std::nullopt);
  handler.persistClientEvents({{"a", 1}});
  EXPECT_EQ(handler.getClientEvents(), Dictionary({{"a", 1}}));
  EXPECT_EQ(log.count("<KLV ERROR>"), 0U);
  EXPECT_FALSE(std::filesystem::exists(documents("kelvo-db")));
}

TEST_F(Handler, RecordsAndConfigurationsRoundTripThroughTheirFiles) {
  EXPECT_EQ(handler.retrieveUser(), nullptr);
  const auto session = std::make_shared<KLVSession>("S");
  session->setCustomInfo("gold", "plan");
  const auto user = std::make_shared<KLVUser>("me");
  user->setCustomInfo(41, "age");
  handler.saveSessionInfo(session, "S");
  handler.saveAppInfo(std::make_shared<KLVAppInfo>(""), "S");
  handler.saveAppInfo(nullptr, "none");
  handler.saveUserInfo(user);
  user->setCustomInfo(42, "age");
  handler.saveUserInfo(user);
  handler.persistFrequencyConfig({{"times", 3}});
  handler.persistPIDMIDDict({{"p", "m"}}, std::string(kKLVSDKPIDMIDForRTA));

  const auto restored = handler.retrieveSessionInfoWithIdentifier("S");
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->identifier(), "S");
  EXPECT_EQ(restored->customInfo(), Dictionary({{"plan", "gold"}}));
  EXPECT_EQ(handler.retrieveUser()->customInfo(), Dictionary({{"age", 42}}));
  EXPECT_EQ(handler.retrieveFrequencyConfig(), Dictionary({{"times", 3}}));
  EXPECT_EQ(handler.getPIDMIDDictAtPath("com.kelvo.SDK.rta.pidmid"), Dictionary({{"p", "m"}}));
  EXPECT_TRUE(std::filesystem::exists(library("S/app_info")));
  EXPECT_FALSE(std::filesystem::exists(library("none")));
  EXPECT_EQ(log.count("<KLV DEBUG> Saving session: {\"id\":\"S\""), 1U);
  EXPECT_EQ(log.count("} with identifier: S "), 1U);
  handler.deleteItemAtPath("S");
  EXPECT_EQ(handler.retrieveSessionInfoWithIdentifier("S"), nullptr);
  EXPECT_EQ(log.count("<KLV ERROR>"), 0U);
}

TEST_F(Handler, FileFailuresAreLoggedInTheirOwnWords) {
  writeFileForTest(library("broken"), "{");
  writeFileForTest(library("fragment"), "1");
  writeFileForTest(library("com.kelvo.SDK.clientevents/x"), "a directory where the file should be");
  writeFileForTest(library("com.kelvo.frequency.config.json/x"), "");
  writeFileForTest(home() + "/outside", "kept");
  EXPECT_EQ(handler.objectFromFileWithPath(std::nullopt), std::nullopt);
  EXPECT_EQ(handler.objectFromFileWithPath("absent"), std::nullopt);
  EXPECT_EQ(handler.objectFromFileWithPath("broken"), std::nullopt);
  EXPECT_EQ(handler.objectFromFileWithPath("fragment"), std::nullopt);
  handler.saveSDKInfo(std::make_shared<KLVSDKInfo>(""), "no/intermediates");
  handler.saveSessionInfo(std::make_shared<KLVSession>("S"), "broken");
  handler.persistClientEvents({});
  handler.persistFrequencyConfig({});
  for (const char* path : {"", ".", "/", "../outside", "S/../../outside", "absent"}) handler.deleteItemAtPath(path);
  waitUntilStored(handler);
  const struct {
    const char* line;
    std::size_t count;
  } expected[] = {
      {"<KLV WARN> Invalid path ", 1},
      {"<KLV WARN> Opening file:absent . Error: ", 1},
      {"<KLV ERROR> parsing json file ", 2},
      {"<KLV ERROR> Failed to create directory with path: ", 1},
      {"<KLV ERROR> Failed to save SDKInfo ", 1},
      {"<KLV ERROR> Failed to save SessionInfo ", 1},
      {"<KLV ERROR> Unable to save client events config ", 1},
      {"<KLV ERROR> Unable to save freq config ", 1},
      {"<KLV ERROR> Unable to remove file due to: ", 6},
  };
  for (const auto& each : expected) EXPECT_EQ(log.count(each.line), each.count) << each.line;
  EXPECT_EQ(contentOf(home() + "/outside"), "kept");
  EXPECT_EQ(contentOf(library("broken")), "{");
}

}  // namespace
}  // namespace kelvo::test
