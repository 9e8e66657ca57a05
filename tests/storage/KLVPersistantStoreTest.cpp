#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <stdexcept>

#include "platform/Clock.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "support/FaultVFS.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

std::string databasePath() {
  return documents("kelvo-db/v1.0.0/com.kelvo.sessions.sqlite");
}

/// Returns the paths of the databases that were set aside.
std::vector<std::string> asides() {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator(fs::path(databasePath()).parent_path())) {
    if (entry.path().extension() == ".corrupt") found.push_back(entry.path());
  }
  return found;
}

bool insertEvent(KLVPersistantStore& store, const std::string& id) {
  return store.insertDataWithTableName("events_S", {{"id", id}, {"time", 5}});
}

struct Store : testing::Test {
  Store() {
    EXPECT_TRUE(store->createEventsTableWithTableName("events_S"));
    EXPECT_TRUE(store->createAggregateEventsTable());
  }
  /// Restarts the store on a database with other content.
  void restartWith(const std::string& content) {
    store.reset();
    writeFileForTest(databasePath(), content);
    store = std::make_unique<KLVPersistantStore>();
  }
  /// Expects a new, private database in which the store works, and one database set aside.
  void expectAFreshDatabase() {
    ASSERT_TRUE(store->createEventsTableWithTableName("events_S"));
    EXPECT_TRUE(insertEvent(*store, "kept"));
    EXPECT_EQ(store->retrieveNumberOfRecordsInTable("events_S"), 1);
    ASSERT_EQ(asides().size(), 1U);
    for (const char* file : {"", "-wal"}) {
      EXPECT_EQ(fs::status(databasePath() + file).permissions(), fs::perms(0600)) << "other users have no access";
    }
    EXPECT_EQ(fs::status(KLVPersistantStore::dbDirectoryPath()).permissions(), fs::perms(0700));
  }
  LogCapture log;
  std::unique_ptr<KLVPersistantStore> store = std::make_unique<KLVPersistantStore>();
};

TEST_F(Store, StatementsHaveTheirExactTexts) {
  EXPECT_TRUE(store->createChunkMetaInfoTableWithTableName(kKLVChunkMetaInfo));
  EXPECT_FALSE(store->insertDataWithTableName("T", {{"a", 1}, {"b", "x"}}));
  EXPECT_TRUE(store->insertDataWithTableName("aggregate_events", {{"sid", "S1"}, {"name", "Open"}, {"e_count", 2}}));
  const Dictionary where = {{"sid", "S1"}, {"name", "Open"}};
  EXPECT_TRUE(store->updateDataWithTableName("aggregate_events", {{"e_count", 3}}, where));
  EXPECT_TRUE(store->updateAggregateEventsCountRecordWithCount(4, where));
  EXPECT_TRUE(store->updateDataWithTableName("chunkmeta", {{"status", 1}, {"cid", 2}}, "id", "C1"));
  for (const std::string text :
       {"insert statement: INSERT INTO 'T' ( a, b) VALUES ( :a, :b) ",
        "update statement: UPDATE aggregate_events SET e_count=3 where sid='S1' AND name='Open' ",
        "Aggregate events count record update query: UPDATE aggregate_events SET e_count=4 where "
        "attr_key IS NULL AND attr_value IS NULL AND   sid='S1' AND name='Open' ",
        "update statement: UPDATE 'chunkmeta' SET status=:status, cid=:cid where id = 'C1' "}) {
    EXPECT_EQ(log.count("<KLV DEBUG> " + text), 1U) << text;
  }
  EXPECT_EQ(log.count("<KLV ERROR> KLVError 1: no such table: T"), 1U);
  EXPECT_EQ(store->retrieveDataForIdentifier("e_count", "aggregate_events", where),
            (std::vector{Dictionary{{"e_count", 4}}}));
  // NULL columns are absent.
  EXPECT_EQ(store->retrieveAllDataWithTableName("aggregate_events"),
            (std::vector{Dictionary{{"sid", "S1"}, {"name", "Open"}, {"e_count", 4}}}));
}

TEST_F(Store, RangesIncludeBothEndsAndFilterOnlyWithColumnAndValue) {
  for (const char* type : {"App", "System", "App", "App"}) {
    ASSERT_TRUE(store->insertDataWithTableName("events_S", {{"id", type}, {"type", type}}));
  }
  const auto rows = [this](std::uint64_t from, std::uint64_t to, std::optional<std::string> column = {},
                           std::optional<std::string> value = {}) {
    const auto found =
        store->retrieveDataWithTableName("events_S", from, to, column, value).value_or(KLVPersistantStore::Rows());
    EXPECT_TRUE(found.empty() || found.front()["identifier"] == Value(from));
    return found.size();
  };
  EXPECT_EQ(rows(2, 3), 2U);
  EXPECT_EQ(rows(1, UINT64_MAX), 4U);
  EXPECT_EQ(rows(1, 4, "type"), 4U);
  EXPECT_EQ(rows(1, 4, std::nullopt, "App"), 4U);
  EXPECT_EQ(rows(1, 3, "type", "App"), 2U);
  EXPECT_EQ(rows(1, 4, "type", "it's App"), 0U);
  EXPECT_EQ(store->retrieveDataWithTableName("events_S", 3, std::nullopt, std::nullopt).size(), 2U);
  EXPECT_EQ(store->retrieveSetOfValuesFromTable("events_S", "type").size(), 2U);
  EXPECT_EQ(store->retrieveNumberOfRecordsInTable("events_none"), 0);
}

TEST_F(Store, OneBadJobOfAGroupFailsAloneAndIsLoggedOnce) {
  std::vector<KLVPersistantStore::Job> jobs;
  for (int number = 1; number <= 9; ++number) {
    jobs.emplace_back([number](auto& s) { return insertEvent(s, std::to_string(number)); });
  }
  int seenByOthers = -1;
  jobs[3] = [&](auto&) {
    FMKLVDatabase other(databasePath());
    if (seenByOthers == -1 && other.open()) seenByOthers = other.intForQuery("select count(*) from events_S");
    return true;
  };
  jobs[4] = [](auto& s) { return s.insertDataWithTableName("events_S", {{"no_column", 1}}); };
  jobs[6] = [](auto&) -> bool { throw std::runtime_error("cannot be cleaned"); };
  store->performGrouped(jobs);
  std::string stored;
  const auto rows = store->retrieveAllDataWithTableName("events_S");
  for (const auto& row : rows.value()) stored += description(row["id"]);
  EXPECT_EQ(stored, "123689");
  EXPECT_EQ(seenByOthers, 0) << "a group is one transaction";
  EXPECT_EQ(log.count("KLVError 1: "), 1U);
  EXPECT_EQ(log.count("DB Error: 1 "), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> cannot be cleaned"), 1U);

  // Logging and transactions work afterwards, and a job that throws does not roll back the others.
  store->performGrouped({jobs[6], jobs[0], jobs[1]});
  EXPECT_EQ(log.count("<KLV ERROR> cannot be cleaned"), 2U);
  EXPECT_EQ(store->retrieveNumberOfRecordsInTable("events_S"), 8);
  EXPECT_FALSE(store->removeDataWithTableName("none", "a", 1));
  EXPECT_EQ(log.count("KLVError 1: "), 2U);
}

TEST_F(Store, ACorruptDatabaseIsSetAsideAtOpeningOrAtTheNextStart) {
  for (int row = 0; row < 100; ++row) ASSERT_TRUE(insertEvent(*store, std::string(1000, 'x')));
  store.reset();
  const std::string whole = contentOf(databasePath());
  const std::string corrupt = whole.substr(0, 4096) + std::string(whole.size() - 4096, '\xAB');
  restartWith(corrupt);
  EXPECT_TRUE(asides().empty());
  EXPECT_FALSE(insertEvent(*store, "lost"));
  EXPECT_EQ(log.count("The next start will set it aside"), 1U);
  EXPECT_TRUE(fs::exists(databasePath() + ".corrupt-found"));
  fs::permissions(databasePath(), fs::perms(0644));
  restartWith(corrupt);
  expectAFreshDatabase();
  EXPECT_FALSE(fs::exists(databasePath() + ".corrupt-found"));

  fs::remove(asides().at(0));
  const std::string headless = std::string(whole).replace(0, 50, 50, 'x');
  restartWith(headless);
  expectAFreshDatabase();
  EXPECT_EQ(contentOf(asides().at(0)), headless);
  EXPECT_EQ(log.count("<KLV ERROR> The database is corrupt (file is not a database). It is set aside as "), 1U);
}

TEST_F(Store, KeepsTheTwoLatestOfTheDatabasesSetAside) {
  std::vector<std::string> all;
  for (int i = 0; i < 4; ++i) {
    restartWith("no database " + std::to_string(i));
    for (const auto& aside : asides()) all.push_back(aside);
    Clock::advance(std::chrono::milliseconds(1));  // the name has the time
  }
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  ASSERT_EQ(all.size(), 4U);
  auto kept = asides();
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, (std::vector{all[2], all[3]}));
}

TEST(OldStore, IsRewrittenWhenIdleUnderTheRulesThatDeleteAcceptedEvents) {
  {
    FMKLVDatabase old(databasePath());
    fs::create_directories(fs::path(databasePath()).parent_path());
    ASSERT_TRUE(old.open() && old.executeUpdate("create table lifetime_events (name text, count int)"));
  }
  KLVDataHandler handler("S");
  handler.startWithCompletionHandler({});
  const auto modeAfterTidying = [&](bool isIdle) {
    handler.tidy(isIdle);
    std::promise<void> done;
    handler.whenStored([&] { done.set_value(); });
    done.get_future().wait();
    FMKLVDatabase reader(databasePath());
    return reader.open() ? reader.intForQuery("pragma auto_vacuum") : -1;
  };
  EXPECT_EQ(modeAfterTidying(true), 0) << "classic";
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  EXPECT_EQ(modeAfterTidying(false), 0) << "not idle";
  EXPECT_EQ(modeAfterTidying(true), 2);
  KLVDeliveryRules::choose(KLVDeliveryRules::classic);
}

TEST_F(Store, SetsTheWriteAheadLogAsideWithItsDatabase) {
  ASSERT_TRUE(insertEvent(*store, "old"));
  const std::string database = contentOf(databasePath());
  const std::string writeAhead = contentOf(databasePath() + "-wal");
  ASSERT_FALSE(writeAhead.empty());
  store.reset();
  for (const char* file : {"-wal", "-shm", ".corrupt-found"}) writeFileForTest(databasePath() + file, writeAhead);
  restartWith(database);
  expectAFreshDatabase();  // SQLite would play the log of the old database into the new one
  EXPECT_EQ(contentOf(asides().at(0) + "-wal"), writeAhead);
  EXPECT_EQ(contentOf(asides().at(0) + "-shm"), writeAhead);
}

TEST(StoreOnADisk, ACommitDoesNotFlushTheDiskAndACheckpointDoes) {
  FaultVFS disk;
  auto store = std::make_unique<KLVPersistantStore>();
  ASSERT_TRUE(store->createEventsTableWithTableName("events_S"));
  disk.fail(FaultVFS::Operation::sync, FaultVFS::Persistence::once, 1);
  for (int row = 0; row < 9; ++row) EXPECT_TRUE(insertEvent(*store, "a"));
  EXPECT_EQ(disk.heal(), 0);
  disk.fail(FaultVFS::Operation::sync, FaultVFS::Persistence::once, 1);
  store.reset();
  EXPECT_EQ(disk.heal(), 1) << "a power loss would break the database";
}

TEST(StoreWithoutDatabase, FailsWritesAndReadsNothingUntilItCanBeOpened) {
  const LogCapture log;
  writeFileForTest(documents("kelvo-db"), "a file where the directory should be");
  KLVPersistantStore store;
  const std::vector<KLVPersistantStore::Job> twoInserts{
      2, [](auto& s) { return s.createEventsTableWithTableName("events_S") && insertEvent(s, "a"); }};
  store.performGrouped(twoInserts);
  EXPECT_EQ(store.retrieveNumberOfRecordsInTable("events_S"), 0);
  EXPECT_EQ(log.count("<KLV ERROR> error opening!: 14"), 2U) << "a group of writes tries again";
  fs::remove(documents("kelvo-db"));
  store.performGrouped(twoInserts);
  EXPECT_EQ(store.retrieveNumberOfRecordsInTable("events_S"), 2) << "with the table that the start asked for";
}

}  // namespace
}  // namespace kelvo::test
