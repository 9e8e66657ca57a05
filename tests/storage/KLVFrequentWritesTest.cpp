#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <utility>

#include "records/KLVEvents.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"
#include "storage/StatementShapes.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

struct FrequentWrites : testing::Test {
  FrequentWrites() { RanStatements::begin(); }
  ~FrequentWrites() override {
    RanStatements::end();
    KLVDeliveryRules::choose(KLVDeliveryRules::classic);
  }

  /// Opens the store again under other rules.
  void open(const KLVDeliveryRules& rules) {
    KLVDeliveryRules::choose(rules);
    store = std::make_unique<KLVPersistantStore>();
    store->createChunkMetaInfoTableWithTableName(kKLVChunkMetaInfo);
    store->createLifetimeEventsTable();
    store->createOwnTables();
    cache = std::make_unique<KLVCountCache>();
    RanStatements::take();
  }
  /// Returns a write of an event and its count.
  KLVPersistantStore::Job event(const std::string& name, const std::string& column = "id") {
    return [=, this](KLVPersistantStore& in) {
      return insertEvent(in, "S", true, {{column, name}, {"time", 5}}) && countLifetimeEvent(in, *cache, name);
    };
  }
  /// Returns how often a prepared statement whose text contains `part` was used, 0 if none is kept.
  std::int64_t uses(const std::string& part) {
    std::int64_t result = 0;
    store->onDatabase([&](FMKLVDatabase& db) {
      for (const auto& [sql, kept] : db.cachedStatements()) {
        if (sql.find(part) != sql.npos) result += kept.front()->useCount();
      }
    });
    return result;
  }
  std::size_t kept() {
    std::size_t result = 0;
    store->onDatabase([&](FMKLVDatabase& db) { result = db.cachedStatements().size(); });
    return result;
  }
  /// Returns the count in the database. Expects the cache to know the same.
  std::int64_t count(const std::string& name) {
    const auto rows = store->retrieveDataWithTableName(kKLVLifetimeEvents, kKLVLifetimeEventName, name);
    const std::int64_t stored = rows && !rows->empty() ? rows->front()[kKLVLifetimeCount].asInt64() : 0;
    EXPECT_EQ(lifetimeCount(*store, *cache, name).value_or(0), stored) << name;
    return stored;
  }

  std::unique_ptr<KLVPersistantStore> store;
  std::unique_ptr<KLVCountCache> cache;
};

TEST_F(FrequentWrites, AreOnePreparedStatementAndALifetimeCountIsWrittenOnceInATransaction) {
  std::int64_t times = 0;
  for (const auto* rules : {&KLVDeliveryRules::complete, &KLVDeliveryRules::classic}) {
    open(*rules);
    store->performGrouped({event("a"), event("it's"), event("a"), event("a")});
    store->performGrouped({event("a")});
    EXPECT_EQ(uses("INSERT INTO 'events_S' ( id, time) VALUES ( :id, :time)"), 5);
    const auto ran = RanStatements::take();
    const auto runs = [&](const std::string& begin) {
      return std::ranges::count_if(ran, [&](const auto& sql) { return sql.starts_with(begin); });
    };
    const bool sums = rules->addsUpLifetimeCounts;
    EXPECT_EQ(runs("UPDATE lifetime_events SET count=count+?"), sums ? 3 : 0);
    EXPECT_EQ(runs("UPDATE 'lifetime_events' SET count=:count where name = 'a'") > 0, !sums);
    EXPECT_EQ(count("a"), times += 4);
    EXPECT_EQ(count("it's"), sums ? 1 : 0) << "a name is bound, or refused";
  }
}

TEST_F(FrequentWrites, AddedUpCountsSurviveRollbacksAndManyNames) {
  open(KLVDeliveryRules::complete);
  const auto bad = event("bad", "no_column");
  store->performGrouped({event("a"), event("b"), bad, event("a")});
  EXPECT_EQ(count("a"), 2);
  EXPECT_EQ(count("bad"), 0);
  EXPECT_FALSE(store->performTogether({event("a"), bad}));
  EXPECT_EQ(count("a"), 2);
  std::vector<KLVPersistantStore::Job> many;
  for (int time = 0; time < 2; ++time) {
    for (int name = 0; name < 700; ++name) many.push_back(event(std::to_string(name)));
  }
  for (int time = 0; time < 2; ++time) store->performGrouped(many);
  for (const char* name : {"0", "511", "512", "699"}) EXPECT_EQ(count(name), 4) << name;
  store->performGrouped({event("new")});
  EXPECT_EQ(cache->find("new", store->rollbacks()), 1) << "a full cache begins again";

  // A count that cannot be written fails its group, and then alone: the event is stored.
  FMKLVDatabase other(KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile));
  ASSERT_TRUE(other.open() && other.executeUpdate("drop table lifetime_events"));
  const auto rows = [&] { return store->retrieveNumberOfRecordsInTable("events_S"); };
  const int before = rows();
  EXPECT_FALSE(store->performTogether({event("a")}));
  EXPECT_EQ(rows(), before);
  store->performGrouped({event("a")});
  EXPECT_EQ(rows(), before + 1);
}

TEST_F(FrequentWrites, KeptStatementsAreFewAndEndWithTheirTable) {
  open(KLVDeliveryRules::classic);
  for (int session = 0; session < 100; ++session) {
    const std::string sid = std::to_string(session);
    store->performGrouped({[&](auto& in) { return insertEvent(in, sid, true, {{"id", "a"}}); }});
  }
  EXPECT_LE(kept(), 40U);
  EXPECT_GT(uses("events_99"), 0);
  EXPECT_TRUE(store->removeTableWithName("events_99"));
  EXPECT_EQ(uses("events_99"), 0);
  store->performGrouped({[](auto& in) { return insertEvent(in, "99", true, {{"id", "b"}}); }});
  EXPECT_EQ(store->retrieveNumberOfRecordsInTable("events_99"), 1);
}

TEST_F(FrequentWrites, APurgeFindsItsChunksByAnIndexAlsoInAnOldDatabase) {
  for (int start = 0; start < 2; ++start) {
    open(KLVDeliveryRules::complete);
    store->onDatabase([&](FMKLVDatabase& db) {
      {
        const auto plan = db.executeQuery("explain query plan delete from chunkmeta where sid = 'S'");
        ASSERT_TRUE(plan && plan->next());
        EXPECT_NE(plan->stringForColumn("detail").value_or("").find("kelvo_chunkmeta_sid"), std::string::npos);
      }
      EXPECT_TRUE(db.executeUpdate("drop index kelvo_chunkmeta_sid"));
    });
  }
}

TEST(SpaceOfEvents, TheFileStaysSmallWhileEventsAreAcceptedAndGivesItsSpaceBack) {
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  KLVDataHandler handler("S");
  handler.startWithCompletionHandler({});
  const auto fileSize = [&](bool isIdle) {
    handler.tidy(isIdle);
    std::promise<void> done;
    handler.whenStored([&] { done.set_value(); });
    done.get_future().wait();
    return std::filesystem::file_size(KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile));
  };
  constexpr std::uint64_t kCuts = 20, kEvents = 500, kText = 400, kStored = kCuts * kEvents * kText;
  std::vector<std::shared_ptr<KLVChunkMetaInfo>> unaccepted;
  for (std::uint64_t cut = 1; cut <= 2 * kCuts; ++cut) {
    for (std::uint64_t number = 0; number < kEvents; ++number) {
      const auto event = std::make_shared<KLVObservationEvent>(KLVEventType::app);
      event->setCustomInfo(std::string(kText, 'x'), "text");
      handler.saveAndCountEvent(event, "S");
    }
    unaccepted.push_back(
        std::make_shared<KLVChunkMetaInfo>("S", cut, (cut - 1) * kEvents + 1, cut * kEvents, Array{5}));
    ASSERT_TRUE(handler.saveChunkMetaInfo(unaccepted.back()));
    if (cut < kCuts) continue;  // the service is away for half of the time
    for (const auto& chunk : std::exchange(unaccepted, {})) handler.updateChunkMetaStatus(chunk, 0);
    if (cut == kCuts) {
      EXPECT_GT(fileSize(false), kStored / 2);
      int steps = 0;
      while (fileSize(true) > kStored / 10 && ++steps < 100) continue;
    }
    EXPECT_LT(fileSize(false), kStored / 4) << cut;
  }
  EXPECT_EQ(handler.numberOfEventsWithIdentifier("S"), 2 * kCuts * kEvents);
  KLVDeliveryRules::choose(KLVDeliveryRules::classic);
}

}  // namespace
}  // namespace kelvo::test
