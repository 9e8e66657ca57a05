#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <functional>

#include "sqlite/FMKLVDatabaseQueue.h"
#include "support/FaultVFS.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;
using Operation = FaultVFS::Operation;
using Persistence = FaultVFS::Persistence;

constexpr Operation kOperations[] = {Operation::open, Operation::read,   Operation::write,
                                     Operation::sync, Operation::remove, Operation::mapSharedMemory};

/// For every kind of operation, makes the first, second, third ... operation fail and calls `run` each time, until a
/// run has no failure. Does this with failures that occur once and with permanent ones. `run` returns the number of
/// failures.
void failEverythingInTurn(FaultVFS& disk, const std::function<int(Persistence)>& run) {
  for (const auto operation : kOperations) {
    for (const auto persistence : {Persistence::once, Persistence::forEver}) {
      int failures = 1;
      for (int number = 1; failures > 0; ++number) {
        SCOPED_TRACE("operation " + std::to_string(static_cast<int>(operation)) + ", number " + std::to_string(number) +
                     (persistence == Persistence::once ? " fails once" : " and all later ones fail"));
        ASSERT_LT(number, 1000) << "no run was clean";
        disk.fail(operation, persistence, number);
        failures = run(persistence);
        if (testing::Test::HasFailure()) return;
      }
    }
  }
}

const std::string kRow(3000, 'x');  // several pages, so that a transaction does not fit in the cache

bool insertRow(FMKLVDatabase& db) {
  return db.executeUpdate("insert into t (v) values (?)", Array{kRow});
}

bool onConnection(FMKLVDatabaseQueue& queue, const std::function<bool(FMKLVDatabase&)>& work) {
  bool done = false;
  queue.inDatabase([&](FMKLVDatabase& db) { done = work(db); });
  return done;
}

struct Work {
  const char* name;
  std::function<bool(FMKLVDatabaseQueue&)> perform;  ///< returns false if any of its calls reported a failure
  int rows;                                          ///< the number of rows that it adds
};

/// Adds two rows. Two more are rolled back with an inner savepoint.
bool insertAndUndoInside(FMKLVDatabase& db, bool& undo) {
  const bool done = insertRow(db) && db.inSavePoint([&](bool& undoInside) {
    undoInside = true;
    undo = !insertRow(db) || !insertRow(db);
  }) && !undo && insertRow(db);
  undo = !done;
  return done;
}

bool insertIn(bool (FMKLVDatabaseQueue::*unit)(const FMKLVBlockRunner::TransactionBlock&, FMKLVError*),
              FMKLVDatabaseQueue& queue) {
  bool inserted = false;
  const auto work = [&](FMKLVDatabase& db, bool& undo) { inserted = insertAndUndoInside(db, undo); };
  return (queue.*unit)(work, nullptr) && inserted;
}

const Work kWorks[] = {
    {"insert", [](FMKLVDatabaseQueue& queue) { return onConnection(queue, insertRow); }, 1},
    {"transaction",
     [](FMKLVDatabaseQueue& queue) {
       return onConnection(queue, [](FMKLVDatabase& db) {
         const bool done = db.beginTransaction() && insertRow(db) && insertRow(db) &&
                           db.executeUpdate("delete from t where id = 1") && insertRow(db) && insertRow(db) &&
                           db.commit();
         EXPECT_TRUE(done || !db.inTransaction() || db.rollback());
         return done;
       });
     },
     3},
    {"queueTransaction",
     [](FMKLVDatabaseQueue& queue) { return insertIn(&FMKLVDatabaseQueue::inDeferredTransaction, queue); }, 2},
    {"queueSavepoint", [](FMKLVDatabaseQueue& queue) { return insertIn(&FMKLVDatabaseQueue::inSavePoint, queue); }, 2},
};

class FaultyConnection : public testing::TestWithParam<std::tuple<Work, const char*>> {};

TEST_P(FaultyConnection, ReportsEveryFailureAndStoresAllRowsOrNone) {
  const auto& work = std::get<0>(GetParam());
  const std::string journal = std::get<1>(GetParam());
  const std::string path = home() + "/" + work.name + "-" + journal + ".sqlite";
  constexpr int kRowsBefore = 2;
  FaultVFS disk;
  {
    FMKLVDatabase db(path);
    ASSERT_TRUE(db.open() && db.executeUpdate("pragma page_size=1024"));
    ASSERT_TRUE(db.executeQuery("pragma journal_mode=" + journal)->next());
    ASSERT_TRUE(db.executeUpdate("create table t (id integer primary key, v text)") && insertRow(db) && insertRow(db));
  }
  const std::string before = contentOf(path);

  failEverythingInTurn(disk, [&](Persistence persistence) {
    for (const char* side : {"-wal", "-shm", "-journal"}) fs::remove(path + side);
    writeFileForTest(path, before);
    const LogCapture log;
    bool succeeded = false;
    bool addedAfterwards = false;
    int failures = 0;
    {
      auto queue = FMKLVDatabaseQueue::databaseQueueWithPath(path);
      const auto prepare = [](FMKLVDatabase& db) { return db.executeUpdate("pragma cache_size=3"); };
      succeeded = queue && onConnection(*queue, prepare) && work.perform(*queue);
      if (!queue) queue = FMKLVDatabaseQueue::databaseQueueWithPath(path);
      if (queue) {
        queue->inDatabase([&](FMKLVDatabase& db) {
          EXPECT_TRUE(!db.inTransaction() && sqlite3_get_autocommit(db.db()) != 0) << "a transaction is still open";
          if (persistence == Persistence::forEver) return;
          addedAfterwards = !succeeded && insertRow(db);  // the connection still works
          EXPECT_TRUE(succeeded || addedAfterwards) << db.lastErrorMessage();
        });
      }
      failures = disk.heal();
    }
    EXPECT_TRUE(succeeded || failures > 0);
    EXPECT_TRUE(succeeded || log.count("<KLV ERROR>") > 0) << "the failure was not logged";
    FMKLVDatabase db(path);
    EXPECT_TRUE(db.open());
    EXPECT_EQ(db.stringForQuery("pragma integrity_check"), "ok");
    const int added = db.intForQuery("select count(*) from t") - kRowsBefore - (addedAfterwards ? 1 : 0);
    EXPECT_TRUE(added == work.rows || (added == 0 && !succeeded)) << added << " rows were added";
    return failures;
  });
}

INSTANTIATE_TEST_SUITE_P(Works, FaultyConnection,
                         testing::Combine(testing::ValuesIn(kWorks), testing::Values("wal", "delete")),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).name) + "_" + std::get<1>(test.param);
                         });

}  // namespace
}  // namespace kelvo::test
