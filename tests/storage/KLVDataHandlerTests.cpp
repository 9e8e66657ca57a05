#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <random>

#include "records/KLVEvents.h"
#include "records/KLVFileNames.h"
#include "storage/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "support/LogCapture.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

std::shared_ptr<KLVEvent> event(const std::string& name) {
  auto made = std::make_shared<KLVObservationEvent>(name);
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
  EXPECT_EQ((*handler.retrieveLifetimeEventWithName("a"))["count"], 2);
}

TEST_F(StartedHandler, DeletionsThatBelongTogetherWaitForOneAnother) {
  handler.saveEventInfo(event("a"), "S");
  handler.saveChunkMetaInfo(std::make_shared<KLVChunkMetaInfo>("S", 1, 1, 1, Array{5}));
  handler.writeTogether([&] {
    handler.deleteSession("S");
    handler.deleteChunkMetaInfo(std::make_shared<KLVChunk>("S"));
    EXPECT_EQ(handler.getSessions().size(), 1U) << "a kill here must leave everything";
    EXPECT_EQ(handler.retrieveChunkMetaInfo().size(), 1U);
  });
  EXPECT_TRUE(handler.getSessions().empty());
  EXPECT_TRUE(handler.retrieveChunkMetaInfo().empty());
}

TEST_F(StartedHandler, WhatWasAcceptedIsStoredThoughTheHandlerHasGone) {
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

TEST_F(Handler, FilesComeBackAndFailuresAreLoggedInTheirOwnWords) {
  const auto user = std::make_shared<KLVUser>("me");
  user->setCustomInfo(42, "age");
  handler.saveUserInfo(user);
  EXPECT_EQ(handler.retrieveUser()->jsonDict(), user->jsonDict());
  EXPECT_EQ(log.count("<KLV ERROR>"), 0U);

  writeFileForTest(library("broken"), "{");
  writeFileForTest(library("fragment"), "1");
  writeFileForTest(library("com.kelvo.SDK.clientevents/x"), "a directory where the file should be");
  writeFileForTest(home() + "/outside", "kept");
  for (const char* path : {"absent", "broken", "fragment"}) {
    EXPECT_EQ(handler.objectFromFileWithPath(path), std::nullopt) << path;
  }
  handler.saveSDKInfo(std::make_shared<KLVSDKInfo>(""), "no/intermediates");
  handler.saveSessionInfo(std::make_shared<KLVSession>("S"), "broken");
  handler.persistClientEvents({});
  for (const char* path : {"", ".", "/", "../outside", "S/../../outside", "absent"}) handler.deleteItemAtPath(path);
  waitUntilStored(handler);
  const std::pair<const char*, std::size_t> expected[] = {{"<KLV WARN> Opening file:absent . Error: ", 1},
                                                          {"<KLV ERROR> parsing json file ", 2},
                                                          {"<KLV ERROR> Failed to create directory with path: ", 1},
                                                          {"<KLV ERROR> Failed to save SDKInfo ", 1},
                                                          {"<KLV ERROR> Failed to save SessionInfo ", 1},
                                                          {"<KLV ERROR> Unable to save client events config ", 1},
                                                          {"<KLV ERROR> Unable to remove file due to: ", 6}};
  for (const auto& [line, times] : expected) EXPECT_EQ(log.count(line), times) << line;
  EXPECT_EQ(contentOf(home() + "/outside"), "kept");
  EXPECT_EQ(contentOf(library("broken")), "{");
}

// --- Kills

constexpr std::uint32_t kBatch = 20;

/// Runs in a process of its own until it is killed: stores events named 1, 2, 3 ... and reports the number of each
/// batch once the handler says that it is stored.
TEST(Kill, DISABLED_Writer) {
  const char* itsHome = std::getenv("KELVO_TEST_WRITER_HOME");
  if (itsHome == nullptr) GTEST_SKIP() << "only a part of another test";
  setenv("KELVO_HOME", itsHome, 1);
  const std::string session = std::getenv("KELVO_TEST_WRITER_SESSION");
  KLVDataHandler handler(session);
  handler.startWithCompletionHandler({});
  for (std::uint32_t number = 1;; ++number) {
    handler.saveEventInfo(event(std::to_string(number)), session);
    handler.upsertLifetimeEvent(event("all"));
    if (number % kBatch != 0) continue;
    waitUntilStored(handler);
    dprintf(STDERR_FILENO, "stored %u.\n", number);
  }
}

TEST(Kill, WhatWasReportedAsStoredSurvivesAKillAtAnyMoment) {
  std::mt19937 random{std::random_device()()};
  std::int64_t counted = 0;
  for (int round = 1; round <= 10; ++round) {
    const auto session = "S" + std::to_string(round);
    SCOPED_TRACE(session);
    // What the writer's own start leaves behind lies in this test's home, too, and goes with it.
    Program writer({"/proc/self/exe", "--gtest_filter=Kill.DISABLED_Writer", "--gtest_also_run_disabled_tests"},
                   {{"TMPDIR", home()}, {"KELVO_TEST_WRITER_HOME", home()}, {"KELVO_TEST_WRITER_SESSION", session}});
    ASSERT_TRUE(writer.waitForError("stored " + std::to_string((random() % 40 + 1) * kBatch) + "."));
    for (volatile auto spin = random() % 500000; spin > 0;) spin = spin - 1;  // to somewhere inside a batch
    writer.kill(SIGKILL);
    ASSERT_EQ(writer.wait(), -SIGKILL);
    const std::string reports = writer.errors();
    const auto reported = std::stoul(reports.substr(reports.rfind("stored ") + 7));

    KLVDataHandler handler("after");
    handler.startWithCompletionHandler({});
    FMKLVDatabase db(documents("kelvo-db/v1.0.0/com.kelvo.sessions.sqlite"));
    ASSERT_TRUE(db.open());
    const auto check = db.executeQuery("pragma integrity_check");
    ASSERT_TRUE(check && check->next());
    EXPECT_EQ(check->objectForColumnIndex(0), "ok");

    const auto rows = handler.getEventsBetween(1, UINT64_MAX, session, std::nullopt);
    ASSERT_GE(rows.size(), reported);
    ASSERT_LE(rows.size(), reported + kBatch);
    for (std::size_t row = 0; row < rows.size(); ++row) ASSERT_EQ(rows[row]["id"], std::to_string(row + 1));
    const auto count = (*handler.retrieveLifetimeEventWithName("all"))["count"].asInt64();
    EXPECT_GE(count, counted + static_cast<std::int64_t>(reported));
    EXPECT_LE(count, counted + static_cast<std::int64_t>(rows.size()));
    counted = count;
  }
}

}  // namespace
}  // namespace kelvo::test
