#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <future>
#include <map>

#include "records/KLVEvents.h"
#include "storage/FMKLVDatabaseQueue.h"
#include "storage/KLVDataHandler.h"
#include "support/FaultVFS.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;
using Operation = FaultVFS::Operation;
using Persistence = FaultVFS::Persistence;

constexpr std::pair<Operation, const char*> kOperations[] = {
    {Operation::open, "open"}, {Operation::read, "read"},     {Operation::write, "write"},
    {Operation::sync, "sync"}, {Operation::remove, "remove"}, {Operation::mapSharedMemory, "mapping"}};

/// Calls `run` with the first, the second, the third ... operation of every kind failing, once and for ever, until one
/// of its runs is clean. `run` is told how failures persist, and returns how many there were.
void failEverythingInTurn(FaultVFS& disk, const std::function<int(Persistence)>& run) {
  for (const auto& [operation, name] : kOperations) {
    for (const auto persistence : {Persistence::once, Persistence::forEver}) {
      for (int number = 1;; ++number) {
        SCOPED_TRACE(std::string(name) + " " + std::to_string(number) +
                     (persistence == Persistence::once ? " fails once" : " and all later ones fail"));
        ASSERT_LT(number, 1000) << "no run was clean";
        disk.fail(operation, persistence, number);
        const int failures = run(persistence);
        if (testing::Test::HasFailure()) return;
        if (failures == 0) break;
      }
    }
  }
}

std::string integrityOf(const std::string& path) {
  FMKLVDatabase db(path);
  if (!db.open()) return "cannot be opened";
  const auto check = db.executeQuery("pragma integrity_check");
  return check && check->next() ? description(check->objectForColumnIndex(0)) : "cannot be checked";
}

// --- The connection

const std::string kRow(3000, 'x');  // of several pages, so that a transaction outgrows the cache

bool insertRow(FMKLVDatabase& db) {
  return db.executeUpdate("insert into t (v) values (?)", Array{kRow});
}

struct Work {
  const char* name;
  std::function<bool(FMKLVDatabaseQueue&)> perform;  ///< false when any of its calls reported a failure
  int rows;                                          ///< that it adds, all or none
};

/// Two rows stay, and two go with the savepoint inside.
bool insertAndUndoInside(FMKLVDatabase& db, bool& undo) {
  const bool done = insertRow(db) && db.inSavePoint([&](bool& undoInside) {
    undoInside = true;
    undo = !insertRow(db) || !insertRow(db);
  }) && !undo && insertRow(db);
  undo = !done;
  return done;
}

const Work kWorks[] = {
    {"insert",
     [](FMKLVDatabaseQueue& queue) {
       bool done = false;
       queue.inDatabase([&](FMKLVDatabase& db) { done = insertRow(db); });
       return done;
     },
     1},
    {"transaction",
     [](FMKLVDatabaseQueue& queue) {
       bool done = false;
       queue.inDatabase([&](FMKLVDatabase& db) {
         done = db.beginTransaction() && insertRow(db) && insertRow(db) &&
                db.executeUpdate("delete from t where id = 1") && insertRow(db) && insertRow(db) && db.commit();
         EXPECT_TRUE(done || !db.inTransaction() || db.rollback());
       });
       return done;
     },
     3},
    {"savepoint",
     [](FMKLVDatabaseQueue& queue) {
       bool done = false;
       queue.inDatabase([&](FMKLVDatabase& db) {
         bool inserted = false;
         done = db.inSavePoint([&](bool& undo) { inserted = insertAndUndoInside(db, undo); }) && inserted;
       });
       return done;
     },
     2},
    {"queueTransaction",
     [](FMKLVDatabaseQueue& queue) {
       bool inserted = false;
       const auto work = [&](FMKLVDatabase& db, bool& undo) { inserted = insertAndUndoInside(db, undo); };
       return queue.inDeferredTransaction(work) && inserted;
     },
     2},
    {"queueSavepoint",
     [](FMKLVDatabaseQueue& queue) {
       bool inserted = false;
       const auto work = [&](FMKLVDatabase& db, bool& undo) { inserted = insertAndUndoInside(db, undo); };
       return queue.inSavePoint(work) && inserted;
     },
     2},
};

class FaultyConnection : public testing::TestWithParam<std::tuple<Work, const char*>> {};

TEST_P(FaultyConnection, ReportsEveryFailureAndLeavesAllOrNothingBehind) {
  const auto& [work, journal] = GetParam();
  const std::string path = home() + "/" + work.name + "-" + journal + ".sqlite";
  constexpr int kRowsBefore = 2;
  FaultVFS disk;
  {
    FMKLVDatabase db(path);
    ASSERT_TRUE(db.open() && db.executeUpdate("pragma page_size=1024"));
    ASSERT_TRUE(db.executeQuery("pragma journal_mode=" + std::string(journal))->next());
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
      bool isPrepared = false;
      if (queue) queue->inDatabase([&](FMKLVDatabase& db) { isPrepared = db.executeUpdate("pragma cache_size=3"); });
      succeeded = isPrepared && work.perform(*queue);
      if (!queue) queue = FMKLVDatabaseQueue::databaseQueueWithPath(path);
      if (queue) {
        queue->inDatabase([&](FMKLVDatabase& db) {
          EXPECT_TRUE(!db.inTransaction() && sqlite3_get_autocommit(db.db()) != 0) << "something is still open";
          if (persistence == Persistence::forEver) return;
          addedAfterwards = !succeeded && insertRow(db);  // the connection is as good as ever
          EXPECT_TRUE(succeeded || addedAfterwards) << db.lastErrorMessage();
        });
      }
      failures = disk.heal();
    }
    EXPECT_TRUE(succeeded || failures > 0);
    EXPECT_TRUE(succeeded || log.count("<KLV ERROR>") > 0) << "a failure without a line";
    EXPECT_EQ(integrityOf(path), "ok");
    FMKLVDatabase db(path);
    EXPECT_TRUE(db.open());
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

// --- The store

std::shared_ptr<KLVEvent> event(const std::string& name) {
  return std::make_shared<KLVObservationEvent>(name);
}

void waitUntilStored(KLVDataHandler& handler) {
  std::promise<void> stored;
  handler.whenStored([&] { stored.set_value(); });
  stored.get_future().wait();
}

/// What a launch does with its session: records three events, cuts them, and hears that they were accepted.
void deliverASession(KLVDataHandler& handler, const std::string& session) {
  for (const char* name : {"1", "2", "3"}) {
    handler.upsertLifetimeEvent(event("all"));
    handler.saveEventInfo(event(name), session);
    waitUntilStored(handler);  // each in a transaction of its own
  }
  handler.saveChunkMetaInfo(std::make_shared<KLVChunkMetaInfo>(session, 1, 1, 3, Array{5}));
  static_cast<void>(handler.getEventsBetween(1, 3, session, std::nullopt));
  handler.updateChunkMetaStatus(std::make_shared<KLVChunk>(1, session));
  waitUntilStored(handler);
}

/// The names of the stored events, in order.
std::string eventsOf(KLVDataHandler& handler, const std::string& session) {
  std::string names;
  for (const auto& row : handler.getEventsBetween(1, UINT64_MAX, session, std::nullopt)) {
    names += description(row["id"]);
  }
  return names;
}

TEST(FaultyStore, KeepsWhatCouldBeKeptThroughRecordCutUploadAndPurgeAndTheNextLaunchGoesOn) {
  const fs::path folder = documents("kelvo-db/v1.0.0");
  const std::string database = folder / "com.kelvo.sessions.sqlite";
  FaultVFS disk;
  {
    KLVDataHandler earlier("A");
    earlier.startWithCompletionHandler({});
    deliverASession(earlier, "A");
  }
  const std::string before = contentOf(database);

  failEverythingInTurn(disk, [&](Persistence persistence) {
    fs::remove_all(folder);
    writeFileForTest(database, before);
    const LogCapture log;
    {
      KLVDataHandler handler("B");
      handler.startWithCompletionHandler({});
      deliverASession(handler, "B");
      handler.writeTogether([&] {
        handler.deleteSession("A");
        handler.deleteChunkMetaInfo(std::make_shared<KLVChunk>("A"));
      });
      waitUntilStored(handler);
    }
    const int failures = disk.heal();
    const bool silent = log.count("<KLV ERROR>") == 0;
    EXPECT_EQ(integrityOf(database), "ok");
    EXPECT_FALSE(fs::exists(database + ".corrupt-found")) << "an unreadable disk is no corrupt database";

    KLVDataHandler next("C");
    next.startWithCompletionHandler({});
    next.saveEventInfo(event("goes on"), "C");
    EXPECT_EQ(eventsOf(next, "C"), "goes on");
    std::map<std::string, bool> accepted;  // by session
    for (const auto& meta : next.retrieveChunkMetaInfo()) {
      accepted[description(meta->additionalInfo()["sid"])] = meta->additionalInfo()["status"].asBool();
    }
    const std::string ofA = eventsOf(next, "A");
    const std::string ofB = eventsOf(next, "B");
    EXPECT_TRUE(ofA == (accepted.count("A") > 0 ? "123" : "")) << "purged by half: " << ofA;
    if (silent) {
      EXPECT_EQ(ofB + ofA, "123") << "lost without a line";
      EXPECT_TRUE(accepted["B"]) << "lost without a line";
    }
    // What one failure costs is the statement that met it.
    EXPECT_TRUE(persistence == Persistence::forEver || ofB.size() >= 2) << ofB;
    return failures;
  });
}

}  // namespace
}  // namespace kelvo::test
