#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <map>
#include <stdexcept>

#include "sqlite/FMKLVDatabasePool.h"
#include "sqlite/FMKLVDatabaseQueue.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

using Block = FMKLVBlockRunner::TransactionBlock;

std::string path() {
  return home() + "/file.sqlite";
}

/// All calls that run a block as one unit of work, on the same file.
struct Units : testing::Test {
  Units() {
    EXPECT_TRUE(other.open() && other.executeStatements("create table t (a); create table parent (p primary key); "
                                                        "create table child (parent references parent deferrable "
                                                        "initially deferred)"));
    const auto foreignKeys = [](FMKLVDatabase& db) { EXPECT_TRUE(db.executeUpdate("pragma foreign_keys=on")); };
    EXPECT_TRUE(queue->inDatabase(foreignKeys) && pool.inDatabase(foreignKeys) && connection.open());
    foreignKeys(connection);
    addUnitsOf("queue, ", *queue);
    addUnitsOf("pool, ", pool);
    units["connection, savepoint"] = [this](auto& block, auto* error) {
      return connection.inSavePoint([&](bool& undo) { block(connection, undo); }, error);
    };
  }
  template <class Owner>
  void addUnitsOf(const std::string& name, Owner& owner) {
    units[name + "exclusive"] = [&](auto& block, auto* error) { return owner.inTransaction(block, error); };
    units[name + "deferred"] = [&](auto& block, auto* error) { return owner.inDeferredTransaction(block, error); };
    units[name + "savepoint"] = [&](auto& block, auto* error) { return owner.inSavePoint(block, error); };
  }
  FMKLVDatabase other{path()}, connection{path()};
  std::unique_ptr<FMKLVDatabaseQueue> queue = FMKLVDatabaseQueue::databaseQueueWithPath(path());
  FMKLVDatabasePool pool{path()};
  LogCapture log;
  std::map<std::string, std::function<bool(const Block&, FMKLVError*)>> units;
};

TEST_F(Units, CommitOrRollBackOnRequestOnAnExceptionAndWhenTheCommitFails) {
  const auto insert = [](FMKLVDatabase& db) {
    EXPECT_TRUE(db.executeUpdate("insert into t values (1)"));
    return true;
  };
  int committed = 0;
  for (const auto& [name, run] : units) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(run([&](FMKLVDatabase& db, bool&) { insert(db); }, nullptr));
    ++committed;
    EXPECT_TRUE(run([&](FMKLVDatabase& db, bool& undo) { undo = insert(db); }, nullptr));
    const auto throwing = [&](FMKLVDatabase& db, bool&) {
      insert(db);
      throw std::runtime_error("block");
    };
    EXPECT_THROW(static_cast<void>(run(throwing, nullptr)), std::runtime_error);
    FMKLVError error;
    FMKLVDatabase* used = nullptr;
    const auto orphan = [&](FMKLVDatabase& db, bool&) {
      used = &db;
      insert(db);
      EXPECT_TRUE(db.executeUpdate("insert into child values (99)"));
    };
    EXPECT_FALSE(run(orphan, &error));
    EXPECT_EQ(error.code, SQLITE_CONSTRAINT);
    EXPECT_EQ(used->lastErrorCode(), SQLITE_CONSTRAINT);
    EXPECT_FALSE(used->inTransaction());
    error = {};
    const auto ended = [&](FMKLVDatabase& db, bool&) { EXPECT_TRUE(db.executeUpdate("rollback")); };
    EXPECT_FALSE(run(ended, &error));
    EXPECT_EQ(error.code, SQLITE_ERROR);
    EXPECT_EQ(other.intForQuery("select count(*) from t"), committed);
    EXPECT_EQ(other.intForQuery("select count(*) from child"), 0);
  }
}

TEST_F(Units, FailWhenAnotherConnectionHoldsTheLockTooLong) {
  FMKLVDatabase::ResultSet rows;
  queue->inDatabase([&](FMKLVDatabase& db) {
    db.setMaxBusyRetryTimeInterval(0.06);
    rows = db.executeQuery("select * from t");
  });
  ASSERT_TRUE(other.beginTransaction());
  FMKLVError error;
  EXPECT_FALSE(queue->inTransaction([](FMKLVDatabase&, bool&) { FAIL(); }, &error));
  EXPECT_EQ(error.code, SQLITE_BUSY);
  EXPECT_FALSE(rows->next());
  EXPECT_EQ(log.count("<KLV ERROR> Database busy"), 1U);
  ASSERT_TRUE(other.rollback());
  EXPECT_TRUE(queue->inTransaction([](FMKLVDatabase& db, bool&) { EXPECT_TRUE(db.inTransaction()); }));
}

TEST_F(Units, ASavepointMayHaveAnyName) {
  const auto insert = [this](int a) { EXPECT_TRUE(connection.executeUpdate("insert into t values (?)", a)); };
  for (const char* name : {"it's", "''", "a \"b\"; drop table t; --"}) {
    ASSERT_TRUE(connection.executeUpdate("delete from t"));
    EXPECT_TRUE(connection.startSavePointWithName("outer'"));
    insert(1);
    EXPECT_TRUE(connection.startSavePointWithName(name));
    insert(2);
    EXPECT_TRUE(connection.rollbackToSavePointWithName(name));
    insert(3);
    EXPECT_TRUE(connection.releaseSavePointWithName(name));
    FMKLVError error;
    EXPECT_FALSE(connection.releaseSavePointWithName(name, &error));
    EXPECT_EQ(error.code, SQLITE_ERROR);
    EXPECT_TRUE(connection.releaseSavePointWithName("outer'"));
    EXPECT_EQ(other.stringForQuery("select group_concat(a) from t"), "1,3");
  }
}

TEST_F(Units, AThrowingBlockRollsBackOnlyItsOwnTransaction) {
  const auto insertAndThrow = [](FMKLVDatabase& db) {
    EXPECT_TRUE(db.executeUpdate("insert into t values (1)"));
    throw std::runtime_error("block");
  };
  const auto begin = [](FMKLVDatabase& db) { EXPECT_TRUE(db.beginTransaction()); };
  EXPECT_THROW(queue->inDatabase([&](FMKLVDatabase& db) { begin(db), insertAndThrow(db); }), std::runtime_error);
  EXPECT_THROW(pool.inDatabase([&](FMKLVDatabase& db) { begin(db), insertAndThrow(db); }), std::runtime_error);
  EXPECT_EQ(pool.countOfCheckedOutDatabases(), 0U);
  EXPECT_EQ(other.intForQuery("select count(*) from t"), 0);
  queue->inDatabase(begin);
  EXPECT_THROW(queue->inDatabase(insertAndThrow), std::runtime_error);
  EXPECT_FALSE(queue->inTransaction([](FMKLVDatabase&, bool&) { FAIL(); }));
  queue->inDatabase([](FMKLVDatabase& db) { EXPECT_TRUE(db.commit()); });
  EXPECT_EQ(other.intForQuery("select count(*) from t"), 1);
}

TEST_F(Units, TheQueueWarnsAboutOpenResultSetsAndReopensAfterClose) {
  FMKLVDatabase::ResultSet rows;
  queue->inDatabase([&](FMKLVDatabase& db) { rows = db.executeQuery("select 1"); });
  EXPECT_EQ(log.count("<KLV WARN> Warning: there is at least one open result set around after performing "
                      "[FMDatabaseQueue inDatabase:] "),
            1U);
  queue->close();
  EXPECT_FALSE(rows->next());
  queue->inDatabase([](FMKLVDatabase& db) { EXPECT_TRUE(db.tableExists("t")); });
  EXPECT_EQ(FMKLVDatabaseQueue::databaseQueueWithPath(home() + "/no/such/file"), nullptr);
  EXPECT_EQ(log.count("<KLV DEBUG> Could not create database queue for path " + home() + "/no/such/file "), 1U);
}

TEST_F(Units, ANestedBlockOfTheSameQueueAbortsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("TMPDIR", home().c_str(), 1);  // this test then also removes the home of the aborted process
  const auto nested = [&](FMKLVDatabase&) { static_cast<void>(queue->inSavePoint([](FMKLVDatabase&, bool&) {})); };
  EXPECT_DEATH(queue->inDatabase(nested),
               "currentSyncQueue != self && \"inDatabase: was called reentrantly on the same queue, which would lead "
               "to a deadlock\"");
}

}  // namespace
}  // namespace kelvo::test
