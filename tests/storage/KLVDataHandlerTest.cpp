#include <gtest/gtest.h>

#include <filesystem>
#include <future>

#include "records/KLVEvents.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

std::shared_ptr<KLVEvent> event(const std::string& name) {
  return std::make_shared<KLVObservationEvent>(name);
}

void waitUntilStored(KLVDataHandler& handler) {
  std::promise<void> stored;
  handler.whenStored([&] { stored.set_value(); });
  stored.get_future().wait();
}

struct Handler : testing::Test {
  LogCapture log;
  KLVDataHandler handler{"S"};

  [[nodiscard]] Value countOf(const std::string& name) {
    return handler.retrieveLifetimeEventWithName(name).value_or(Dictionary())["count"];
  }
};

struct StartedHandler : Handler {
  StartedHandler() { handler.startWithCompletionHandler({}); }

  /// Blocks the data queue until the promise is kept, so that all jobs submitted meanwhile wait together.
  std::promise<void> block() {
    std::promise<void> release;
    handler.whenStored([released = release.get_future().share()] { released.wait(); });
    return release;
  }
};

TEST_F(StartedHandler, JobsOfAllKindsRunInTheOrderOfSubmission) {
  auto release = block();
  handler.saveEventInfo(event("a"), "S");
  handler.deleteSession("S");
  handler.saveEventInfo(event("too late"), "S");
  Value storedBefore;
  handler.upsertLifetimeEvent(event("a"));
  handler.whenStored([&] { storedBefore = countOf("a"); });
  handler.upsertLifetimeEvent(event("a"));
  release.set_value();
  waitUntilStored(handler);
  EXPECT_EQ(handler.getEventsBetween(1, 9, "S", std::nullopt)->size(), 1U) << "the one after the deletion";
  EXPECT_EQ(storedBefore, 1);
  EXPECT_EQ(countOf("a"), 2);
}

TEST_F(StartedHandler, WriteTogetherDeletesAllOrNothing) {
  handler.saveEventInfo(event("a"), "S");
  ASSERT_TRUE(handler.saveChunkMetaInfo(std::make_shared<KLVChunkMetaInfo>("S", 1, 1, 1, Array{5})));
  const auto kept = [&] { return handler.getSessions().size() + handler.retrieveChunkMetaInfo()->size(); };
  for (const bool fails : {true, false}) {
    handler.writeTogether([&] {
      handler.deleteSession("S");
      handler.deleteChunkMetaInfo(std::make_shared<KLVChunk>("S"));
      EXPECT_EQ(kept(), 2U) << "nothing may be deleted yet: a kill here must leave all";
      if (fails) handler.saveEventInfo(event("a"), "no such session");
    });
    EXPECT_EQ(kept(), fails ? 2U : 0U);
  }
}

TEST_F(StartedHandler, CachedCountsStayCorrect) {
  for (const std::uint64_t stored : {1, 2}) {
    handler.saveEventInfo(event("a"), "S");
    EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), stored);
  }
  auto release = block();
  handler.saveEventInfo(event("b"), "S");
  handler.upsertLifetimeEvent(event("a"));
  handler.saveEventInfo(event("c"), "no such session");  // rolls the group back; its writes rerun one by one
  release.set_value();
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), 3U);
  EXPECT_EQ(countOf("a"), 1);

  for (int round = 0; round < 2; ++round) {
    for (int name = 0; name < 600; ++name) handler.upsertLifetimeEvent(event(std::to_string(name)));
  }
  waitUntilStored(handler);
  for (const char* name : {"0", "599"}) EXPECT_EQ(countOf(name), 2) << name;

  handler.upsertLifetimeEvent(event("it's"));
  handler.upsertLifetimeEvent(event("it's"));
  waitUntilStored(handler);
  EXPECT_EQ(handler.retrieveLifetimeEventWithName("it's"), std::nullopt);
  EXPECT_EQ(log.count("Couldn't insert lifetime event"), 1U);
  EXPECT_EQ(log.count("Couldn't update lifetime event count"), 0U);

  handler.deleteSession("S");
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), 0U);
}

TEST_F(StartedHandler, AProducerCatchesUpOnlyWhenMuchWaitsAndReportedWritesSurviveAKill) {
  FMKLVDatabase other(documents("kelvo-db/v1.0.0/com.kelvo.sessions.sqlite"));
  ASSERT_TRUE(other.open());
  const auto survivors = [&] { return other.intForQuery("select count(*) from events_S"); };
  auto release = block();
  for (int i = 0; i < 100; ++i) handler.saveEventInfo(event("a"), "S");
  handler.catchUp();  // must not block, or nobody releases the queue
  int whenReported = 0;
  handler.whenStored([&] { whenReported = survivors(); });
  release.set_value();
  for (int i = 0; i < 20000; ++i) handler.saveEventInfo(event("a"), "S");
  handler.catchUp();
  EXPECT_GE(survivors(), 18000);
  EXPECT_GE(whenReported, 100);
}

TEST_F(StartedHandler, AcceptedWritesAreStoredAfterTheHandlerIsDestroyed) {
  std::promise<void> hold, stored;
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
}

TEST_F(Handler, BeforeTheStartFilesWorkAndWritesOfRowsAreDropped) {
  handler.saveEventInfo(event("a"), "S");
  handler.deleteSession("S");
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), 0U);
  EXPECT_TRUE(handler.retrieveChunkMetaInfo()->empty());
  EXPECT_EQ(handler.retrieveLifetimeEventWithName("a"), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(documents("kelvo-db")));
  handler.saveUserInfo(std::make_shared<KLVUser>("me"));
  EXPECT_EQ(handler.retrieveUser()->identifier(), "me");
  EXPECT_EQ(log.count("<KLV ERROR>"), 0U);

  writeFileForTest(library("broken"), "{");
  writeFileForTest(library("fragment"), "1");
  writeFileForTest(library("com.kelvo.SDK.clientevents/x"), "a directory where the file should be");
  writeFileForTest(library("1-blocked"), "a file where the session's directory should be");
  for (const char* kept : {"../outside", "1-S", "Preferences/p.plist"}) writeFileForTest(library(kept), "kept");
  for (const char* path : {"absent", "broken", "fragment"}) {
    EXPECT_EQ(handler.objectFromFileWithPath(path), std::nullopt) << path;
  }
  handler.saveSDKInfo(std::make_shared<KLVSDKInfo>(""), "1-no/intermediates");
  handler.saveSessionInfo(std::make_shared<KLVSession>("S"), "1-blocked");
  handler.persistClientEvents({});
  // Only what has the form of a session id is a path.
  const std::string foreign[] = {"",
                                 ".",
                                 "/",
                                 "..",
                                 "../..",
                                 "../outside",
                                 "1-/../../outside",
                                 "1-S/../../outside",
                                 library("../outside"),
                                 "Preferences",
                                 "-S",
                                 "1-",
                                 "1_S",
                                 "S-1",
                                 "1-S/",
                                 std::string("1-S\0", 4),
                                 "1-" + std::string(65, 'S')};
  for (const std::string& path : foreign) {
    EXPECT_FALSE(KLVSession::isIdentifier(path)) << path;
    handler.deleteItemAtPath(path);
    EXPECT_EQ(handler.retrieveSessionInfoWithIdentifier(path), nullptr);
  }
  handler.deleteItemAtPath("1-absent");
  waitUntilStored(handler);
  const std::pair<const char*, std::size_t> expected[] = {
      {"<KLV WARN> Opening file:absent . Error: ", 1},
      {"<KLV ERROR> parsing json file ", 2},
      {"<KLV ERROR> Failed to save SDKInfo ", 1},
      {"<KLV ERROR> Failed to save SessionInfo ", 1},
      {"<KLV ERROR> Unable to save client events config ", 1},
      {"<KLV ERROR> Unable to remove file due to: ", std::size(foreign) + 1}};
  for (const auto& [line, times] : expected) EXPECT_EQ(log.count(line), times) << line;
  for (const char* kept : {"../outside", "1-S", "Preferences/p.plist"}) {
    EXPECT_EQ(contentOf(library(kept)), "kept") << kept;
  }
  EXPECT_EQ(contentOf(library("broken")), "{");
}

}  // namespace
}  // namespace kelvo::test
