#include "sqlite/FMKLVDatabasePool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

std::string path() {
  return home() + "/file.sqlite";
}

struct Pool : testing::Test {
  FMKLVDatabasePool pool{path()};
  LogCapture log;
};

TEST_F(Pool, EightThreadsShareThreeConnections) {
  constexpr std::uint64_t kMaximum = 3;
  pool.setMaximumNumberOfDatabasesToCreate(kMaximum);
  pool.inDatabase([](FMKLVDatabase& db) { EXPECT_TRUE(db.executeUpdate("create table t (a)")); });
  std::atomic<std::uint64_t> out{0};
  const auto use = [&](FMKLVDatabase& db) {
    EXPECT_LE(++out, kMaximum);
    EXPECT_TRUE(db.checkedOut());
    static_cast<void>(db.intForQuery("select count(*) from t"));
    --out;
  };
  const auto insert = [](FMKLVDatabase& db, bool&) { EXPECT_TRUE(db.executeUpdate("insert into t values (1)")); };
  const auto user = [&] {
    for (int done = 0; done < 50;) done += pool.inDatabase(use) ? 1 : 0;
    while (!pool.inTransaction(insert)) continue;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back(user);
  for (auto& thread : threads) thread.join();
  EXPECT_LE(pool.countOfOpenDatabases(), kMaximum);
  EXPECT_EQ(pool.countOfCheckedOutDatabases(), 0U);
  EXPECT_EQ(log.count("is currently in use"), 0U);
  pool.inDatabase([](FMKLVDatabase& db) { EXPECT_EQ(db.intForQuery("select count(*) from t"), 8); });
}

TEST_F(Pool, ReusesTheLastConnectionKeepsToItsMaximumAndReportsADoubleReturn) {
  pool.setMaximumNumberOfDatabasesToCreate(2);
  const auto first = pool.db(), second = pool.db();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(pool.db(), nullptr);
  EXPECT_EQ(log.count("<KLV DEBUG> Maximum number of databases (2) has already been reached! "), 1U);
  FMKLVError error;
  EXPECT_FALSE(pool.inTransaction([](FMKLVDatabase&, bool&) { FAIL(); }, &error));
  EXPECT_TRUE(error.code != 0);
  pool.pushDatabaseBackInPool(first);
  pool.pushDatabaseBackInPool(first);
  EXPECT_EQ(log.count("<KLV ERROR> Database already in pool"), 1U);
  EXPECT_EQ(pool.countOfCheckedInDatabases(), 1U);
  EXPECT_EQ(pool.countOfOpenDatabases(), 2U);
  EXPECT_FALSE(first->checkedOut());
  first->close();
  EXPECT_EQ(pool.db(), first);
  EXPECT_TRUE(first->isOpen());
  pool.releaseAllDatabases();
  pool.pushDatabaseBackInPool(second);
  EXPECT_EQ(pool.countOfOpenDatabases(), 0U);
  EXPECT_NE(pool.db(), second);
}

TEST_F(Pool, ReturnsNothingIfTheDelegateRefusesOrSQLiteCannotOpen) {
  struct Delegate final : FMKLVDatabasePoolDelegate {
    bool databasePoolShouldAddDatabaseToPool(FMKLVDatabasePool& asking, FMKLVDatabase& db) override {
      EXPECT_TRUE(db.isOpen());
      return asking.countOfOpenDatabases() == 0;
    }
    void databasePoolDidAddDatabase(FMKLVDatabasePool&, FMKLVDatabase& db) noexcept override { added.push_back(&db); }
    std::vector<FMKLVDatabase*> added;
  } delegate;
  pool.setDelegate(&delegate);
  const auto first = pool.db();
  ASSERT_TRUE(first);
  EXPECT_EQ(delegate.added, std::vector<FMKLVDatabase*>{first.get()});
  EXPECT_EQ(pool.db(), nullptr);
  EXPECT_FALSE(pool.inDatabase([](FMKLVDatabase&) { FAIL(); }));
  EXPECT_EQ(pool.countOfOpenDatabases(), 1U);
  FMKLVDatabasePool nowhere(home() + "/no/such/file");
  EXPECT_EQ(nowhere.db(), nullptr);
  EXPECT_EQ(log.count("<KLV DEBUG> Could not open up the database at path " + home() + "/no/such/file "), 1U);
}

}  // namespace
}  // namespace kelvo::test
