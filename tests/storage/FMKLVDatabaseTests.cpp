#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "storage/FMKLVDatabaseQueue.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

struct Database : testing::Test {
  Database() { EXPECT_TRUE(db.open()); }
  FMKLVDatabase db{std::nullopt};
  LogCapture log;
};

TEST_F(Database, EveryKindOfValueIsBoundAsItsStorageClassAndReadBack) {
  const struct {
    const char* storageClass;
    Value bound, read;
  } cases[] = {{"null", nullptr, nullptr},
               {"integer", true, 1},
               {"integer", INT64_MIN, INT64_MIN},
               {"integer", UINT32_MAX, 4294967295},
               {"text", UINT64_MAX, "18446744073709551615"},
               {"real", 0.5F, 0.5},
               {"real", Date(std::chrono::milliseconds(1500)), 1.5},
               {"text", "it's \xC3\xA9", "it's \xC3\xA9"},
               {"blob", Data{}, Data{}},
               {"blob", Data{0, 255}, Data{0, 255}},
               {"text", Array{1, "a"}, "[1,\"a\"]"},
               {"text", Dictionary{{"k", 2}}, "{\"k\":2}"}};
  ASSERT_TRUE(db.executeUpdate("create table t (v)"));
  for (const auto& each : cases) {
    SCOPED_TRACE(description(each.read));
    ASSERT_TRUE(db.executeUpdate("delete from t"));
    ASSERT_TRUE(db.executeUpdate("insert into t values (:v)", Dictionary{{"v", each.bound}}));
    // The arguments of a query die before its rows are read.
    const auto rows = db.executeQuery("select V, typeof(v), ? as again from t", Array{each.bound});
    ASSERT_TRUE(rows && rows->next());
    EXPECT_EQ(rows->objectForColumnIndex(0), each.read);
    EXPECT_EQ(rows->objectForColumnIndex(0).isInteger(), each.read.isInteger());
    EXPECT_EQ(rows->objectForColumnIndex(1), each.storageClass);
    EXPECT_EQ((*rows->resultDictionary())["again"], each.read);
    EXPECT_EQ(rows->columnIndexForName("AGAIN"), 2);
    EXPECT_FALSE(rows->next());
    EXPECT_FALSE(db.hasOpenResultSets());
  }
}

TEST_F(Database, AStatementWhoseParametersAreNotAllBoundFailsWithItsText) {
  ASSERT_TRUE(db.executeUpdate("create table t (a, b)"));
  const std::string insert = "insert into t values (:a, :b)";
  EXPECT_FALSE(db.executeUpdate(insert, Array{1}));
  EXPECT_FALSE(db.executeUpdate(insert, Dictionary{{"a", 1}, {"c", 2}}));
  EXPECT_EQ(log.count("<KLV ERROR> Could not find index for c "), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> Error: the bind count (1) is not correct for the # of variables in the query (2) (" +
                      insert + ") (executeUpdate)"),
            2U);
  EXPECT_EQ(db.executeQuery("select ?", Array{}), nullptr);
  EXPECT_EQ(log.count("<KLV ERROR> Error: the bind count is not correct for the # of variables (executeQuery)"), 1U);
  EXPECT_TRUE(db.executeUpdate(insert, Dictionary{{"a", 1}, {"b", 2}, {"c", 3}}));
  EXPECT_EQ(db.intForQuery("select count(*) from t"), 1);
  EXPECT_EQ(sqlite3_next_stmt(db.sqliteHandle(), nullptr), nullptr);
}

TEST_F(Database, FailuresAreLoggedAndStayReadable) {
  EXPECT_FALSE(db.executeUpdate("no sql"));
  EXPECT_EQ(db.lastError().code, SQLITE_ERROR);
  EXPECT_EQ(log.count("<KLV ERROR> DB Error: 1 \"near \"no\": syntax error\""), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> DB Query: no sql"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> DB Path: (null)"), 1U);
  ASSERT_TRUE(db.beginTransaction());
  ASSERT_TRUE(db.executeUpdate("create table t (a unique)"));
  ASSERT_TRUE(db.rollback());
  EXPECT_FALSE(db.inTransaction());
  EXPECT_FALSE(db.executeUpdate("insert into t values (1)"));
  db.close();
  EXPECT_FALSE(db.executeUpdate("select 1"));
  EXPECT_EQ(log.count("<KLV ERROR> The FMDatabase " + db.description() + " is not open."), 1U);
}

TEST_F(Database, AStatementWaitsForAnotherConnectionsLockAsLongAsItMay) {
  const auto path = home() + "/busy.sqlite";
  FMKLVDatabase holder(path), waiter(path);
  waiter.setMaxBusyRetryTimeInterval(0.06);
  ASSERT_TRUE(holder.open() && waiter.open());
  ASSERT_TRUE(holder.executeUpdate("create table t (a)"));
  const auto rows = waiter.executeQuery("select * from t");
  ASSERT_TRUE(holder.beginTransaction());
  EXPECT_FALSE(waiter.executeUpdate("insert into t values (1)"));
  EXPECT_EQ(waiter.lastErrorCode(), SQLITE_BUSY);
  EXPECT_FALSE(rows->next());
  EXPECT_EQ(log.count("<KLV ERROR> Database busy"), 1U);

  waiter.setMaxBusyRetryTimeInterval(30);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));  // how long the lock is held
    EXPECT_TRUE(holder.commit());
  });
  EXPECT_TRUE(waiter.executeUpdate("insert into t values (1)"));
  release.join();
}

struct Queue : testing::Test {
  std::unique_ptr<FMKLVDatabaseQueue> queue = FMKLVDatabaseQueue::databaseQueueWithPath(home() + "/queue.sqlite");
};

TEST_F(Queue, ABlockInsideABlockEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("TMPDIR", home().c_str(), 1);  // the home that the dying process leaves behind goes with this one
  EXPECT_DEATH(queue->inDatabase([&](FMKLVDatabase&) { queue->inDatabase([](FMKLVDatabase&) {}); }),
               "currentSyncQueue != self && \"inDatabase: was called reentrantly on the same queue, which would lead "
               "to a deadlock\"");
}

TEST_F(Queue, GoesOnAfterABlockThatThrowsWarnsOfRowsThatOutliveTheirsAndReopensAfterClose) {
  const LogCapture log;
  EXPECT_THROW(queue->inDatabase([](FMKLVDatabase&) { throw std::runtime_error("block"); }), std::runtime_error);
  std::unique_ptr<FMKLVResultSet> rows;
  queue->inDatabase([&](FMKLVDatabase& db) { EXPECT_TRUE(db.executeUpdate("create table t (a)")); });
  queue->inDatabase([&](FMKLVDatabase& db) { rows = db.executeQuery("select 1"); });
  EXPECT_EQ(log.count("<KLV WARN> Warning: there is at least one open result set around"), 1U);
  queue->close();
  queue->inDatabase([](FMKLVDatabase& db) { EXPECT_EQ(db.intForQuery("select count(*) from sqlite_master"), 1); });
}

}  // namespace
}  // namespace kelvo::test
