#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <future>
#include <random>
#include <thread>

#include "records/KLVEvents.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVPersistantStore.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;
using Rescue = KLVDataHandler::Rescue;

std::shared_ptr<KLVEvent> event(const std::string& name, KLVEventType type = KLVEventType::app) {
  auto made = std::make_shared<KLVObservationEvent>(type);
  made->setIdentifier(name);
  return made;
}

std::shared_ptr<KLVEvent> aggregate(const std::string& name, const std::string& key, const Value& value) {
  auto made = event(name, KLVEventType::aggregate);
  Dictionary info;
  info.set(key, value);
  made->setAdditionalInfo(info);
  return made;
}

std::shared_ptr<KLVChunkMetaInfo> chunk(const std::string& sid, std::uint64_t cid, std::uint64_t end) {
  return std::make_shared<KLVChunkMetaInfo>(sid, cid, 1, end, Array{5});
}

/// A second connection to the handler's database.
class Other {
 public:
  Other() : db_(documents("kelvo-db/v1.0.0/com.kelvo.sessions.sqlite")) { EXPECT_TRUE(db_.open()); }
  int number(const std::string& sql) { return db_.intForQuery(sql); }
  void run(const std::string& sql) { EXPECT_TRUE(db_.executeUpdate(sql)) << sql; }

 private:
  FMKLVDatabase db_;
};

class EveryEvent : public testing::Test {
 protected:
  /// Starts another handler on a new database.
  void restart() {
    handler.reset();
    fs::remove_all(documents("kelvo-db"));
    handler = std::make_unique<KLVDataHandler>("S");
    handler->startWithCompletionHandler({});
  }
  std::int64_t lifetime(const std::string& name) {
    handler->getSessions();  // waits for the counts
    return handler->retrieveLifetimeEventWithName(name).value_or(Dictionary())["count"].asInt64();
  }
  std::int64_t aggregated(const std::string& name, const std::string& key, const std::string& value) {
    const Dictionary row{{"sid", "S"}, {"name", name}, {"attr_key", key}, {"attr_value", value}};
    return handler->retrieveAggregateEventWithParameters(row).value_or(Dictionary())["e_count"].asInt64();
  }

  const LogCapture log;
  std::unique_ptr<KLVDataHandler> handler;
};

/// Blocks until this process has no database file open: a dropped handler closes its database on the data queue.
void waitUntilClosed() {
  const auto isOpen = [] {
    std::error_code ignored;  // of descriptors that are closed meanwhile
    for (const auto& descriptor : fs::directory_iterator("/proc/self/fd")) {
      if (fs::read_symlink(descriptor, ignored).string().find(".sqlite") != std::string::npos) return true;
    }
    return false;
  };
  while (isOpen()) std::this_thread::yield();
}

TEST_F(EveryEvent, ASessionBeginsWithItsFirstEventAndKeepsItsLastIndex) {
  restart();
  EXPECT_TRUE(handler->getSessions().empty());
  EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), 0U);
  EXPECT_EQ(handler->getEventsBetween(1, 9, "S", std::nullopt), std::vector<Dictionary>());
  EXPECT_EQ(log.count("<KLV ERROR>"), 0U) << "no event is not an error";
  fs::create_directory(library("1-old"));
  for (const char* sid : {"S", "1-old", "purged"}) {
    for (const char* name : {"a", "b"}) handler->saveEventInfo(event(name), sid);
  }
  EXPECT_EQ(handler->getSessions(), (std::vector<std::string>{"S", "1-old"}));
  EXPECT_EQ(log.count("KLVError 1: no such table: events_purged"), 2U) << "it would begin with its first chunk again";
  EXPECT_EQ(handler->getSessionDirectories(), std::vector<std::string>{"1-old"});

  Other().run("delete from events_S");
  EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), 2U) << "SQLite knows the last index";
  handler->saveEventInfo(event("c"), "S");
  EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), 3U);
  EXPECT_TRUE(handler->saveChunkMetaInfo(chunk("1-old", 1, 7)));
  EXPECT_TRUE(handler->saveChunkMetaInfo(chunk("1-older", 1, 9)));
  EXPECT_EQ(handler->numberOfEventsWithIdentifier("1-old"), 7U) << "the end of its chunk";
  Other().run("delete from sqlite_sequence");
  KLVDataHandler later("1-later", *handler);
  KLVDataHandler reader("S");
  reader.startWithCompletionHandler({});
  EXPECT_EQ(reader.numberOfEventsWithIdentifier("S"), 3U) << "the greatest index in the table";
  later.saveEventInfo(event("d"), "1-later");
  handler.reset();
  EXPECT_EQ(later.numberOfEventsWithIdentifier("1-later"), 1U) << "the later session uses the store of the first";

  Other().run("alter table events_S rename column identifier to hidden");
  Other().run("alter table aggregate_events rename column e_count to hidden");
  EXPECT_EQ(later.numberOfEventsWithIdentifier("S"), std::nullopt) << "a read that failed is never 'no events'";
  EXPECT_EQ(later.getEventsBetween(1, 9, "S", std::nullopt), std::nullopt);
  EXPECT_FALSE(later.aggregateTotals("S").has_value());
}

TEST_F(EveryEvent, AChunksRowKeepsItsTimesAndTheRecordsOfItsCut) {
  restart();
  const Dictionary records{{"user_attributes", Dictionary{{"it's", 5}}}};
  EXPECT_TRUE(handler->saveChunkMetaInfo(chunk("S", 1, 3), records));
  EXPECT_TRUE(handler->saveChunkMetaInfo(chunk("S", 2, 4)));
  EXPECT_FALSE(handler->saveChunkMetaInfo(chunk("S", 2, 9), records)) << "one id has one content";
  EXPECT_EQ(handler->retrieveChunkRecords("S_1"), records);
  EXPECT_EQ(handler->retrieveChunkRecords("S_2"), std::nullopt);
  const auto rows = handler->retrieveChunkMetaInfo().value();
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[1]->additionalInfo(),
            (Dictionary{{"sid", "S"}, {"cid", 2}, {"reporting_times", Array{5}}, {"start", 1}, {"end", 4}}));
}

TEST_F(EveryEvent, APurgeForgetsEverythingOrNothingAndThenDeletesTheFiles) {
  restart();
  const char* const left =
      "select (select count(*) from sqlite_master where name = 'events_S') + (select count(*) from chunkmeta) + "
      "(select count(*) from aggregate_events) + (select count(*) from kelvo_chunk_records) + "
      "(select count(*) from kelvo_aggregates_sent)";
  handler->saveEventInfo(event("a"), "S");
  ASSERT_TRUE(handler->saveChunkMetaInfo(chunk("S", 1, 1), Dictionary{{"a", 1}}));
  handler->countAggregateEvent(aggregate("Open", "how", 5.0), "S");
  EXPECT_EQ(handler->getSessionsWithAggregates(), std::vector<std::string>{"S"});
  EXPECT_EQ(handler->aggregateTotals("S")->counted, 2);
  handler->updateChunkMetaStatus(std::make_shared<KLVChunk>("S_1"), 2);
  handler->updateChunkMetaStatus(std::make_shared<KLVChunk>("S_1"), 1);  // an answer that is late
  EXPECT_EQ(handler->aggregateTotals("S")->delivered, 2);
  ASSERT_EQ(Other().number(left), 6);
  for (const bool fails : {true, false}) {
    int leftForFiles = -1;
    handler->writeTogether(
        [&] {
          handler->deleteSession("S");
          handler->deleteChunkMetaInfo(std::make_shared<KLVChunk>("S"));
          handler->deleteAggregateEventsWithSessionId("S");
          if (fails) handler->saveEventInfo(event("a"), "no such session");
        },
        [&] { leftForFiles = Other().number(left); });
    EXPECT_EQ(handler->getSessions().size(), fails ? 1U : 0U);
    EXPECT_EQ(Other().number(left), fails ? 6 : 0);
    EXPECT_EQ(leftForFiles, fails ? -1 : 0) << "called once, after the commit";
  }
}

TEST_F(EveryEvent, ValuesOfAggregatesAreCountedUnderTheTextThatIsCompared) {
  restart();
  const Value values[] = {5.0, 1.0 / 3, 1e20, UINT64_MAX, -1, true, "five", ""};
  for (const Value& value : values) {
    for (int time = 0; time < 3; ++time) handler->countAggregateEvent(aggregate("Pay", description(value), value), "S");
    EXPECT_EQ(aggregated("Pay", description(value), description(value)), 3) << description(value);
    handler->fetchAndIncrementCountForParameters(
        {{"sid", "S"}, {"name", "Pay"}, {"attr_key", description(value)}, {"attr_value", value}});
    EXPECT_EQ(aggregated("Pay", description(value), description(value)), 4) << description(value);
  }
  EXPECT_EQ(handler->aggregateTotals("S")->counted, 3 * 8 + 4 * 8);
}

TEST_F(EveryEvent, RescuedEventsAreStoredAndCountedOnce) {
  restart();
  const std::vector<std::shared_ptr<KLVEvent>> events = {
      event("it's", KLVEventType::app), event("it's", KLVEventType::app), event("b", KLVEventType::client),
      aggregate("c", "how", "it's"),    aggregate("c", "how", "it's"),    event("d", KLVEventType::navigation)};
  const auto isNew = [&](std::uint64_t rows) {
    EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), rows);
    EXPECT_EQ(lifetime("b") + lifetime("c") + lifetime("d"), rows == 0 ? 0 : 1);
    EXPECT_EQ(aggregated("c", "", ""), 0);
    EXPECT_EQ(Other().number("select max(e_count) from aggregate_events where attr_key is null"), rows == 0 ? 0 : 2);
  };
  Other().run("alter table lifetime_events rename to hidden");
  EXPECT_EQ(handler->storeRescuedEvents("file", events, "S"), Rescue::failed);
  Other().run("alter table hidden rename to lifetime_events");
  isNew(0);
  EXPECT_EQ(handler->storeRescuedEvents("file", events, "S"), Rescue::stored);
  isNew(6);
  EXPECT_EQ(handler->storeRescuedEvents("file", events, "S"), Rescue::alreadyStored);
  isNew(6);
  handler->forgetRescuedFile("file");
  EXPECT_EQ(handler->storeRescuedEvents("file", {}, "S"), Rescue::stored) << "a new file may have an old name";
}

TEST_F(EveryEvent, EveryKindOfWriteBeginsTheDatabaseOnceThereIsRoom) {
  const std::pair<const char*, std::function<void()>> writes[] = {
      {"lifetime_events", [&] { handler->upsertLifetimeEvent(event("a")); }},
      {"aggregate_events", [&] { handler->countAggregateEvent(event("a", KLVEventType::aggregate), "S"); }},
      {"aggregate_events",
       [&] {
         handler->updateAggregateEventsCountRecordHavingParameters({{"sid", "S"}});
       }},
      {"aggregate_events",
       [&] {
         handler->fetchAndIncrementCountForParameters({{"sid", "S"}});
       }},
      {"chunkmeta", [&] { EXPECT_TRUE(handler->saveChunkMetaInfo(chunk("S", 1, 1))); }},
      {"kelvo_chunk_records",
       [&] {
         EXPECT_TRUE(handler->saveChunkMetaInfo(chunk("S", 1, 1), Dictionary{{"a", 1}}));
       }},
      {"events_S", [&] { EXPECT_EQ(handler->storeRescuedEvents("f", {event("a")}, "S"), Rescue::stored); }},
      {"events_S", [&] { handler->writeTogether([&] { handler->saveEventInfo(event("a"), "S"); }); }}};
  for (const auto& [table, write] : writes) {
    handler.reset();
    waitUntilClosed();
    fs::remove_all(documents("kelvo-db"));
    writeFileForTest(documents("kelvo-db"), "a file where the directory should be");
    handler = std::make_unique<KLVDataHandler>("S");
    handler->startWithCompletionHandler({});
    // A read that failed is never "no events".
    EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), std::nullopt);
    EXPECT_EQ(handler->getEventsBetween(1, 9, "S", std::nullopt), std::nullopt);
    EXPECT_FALSE(handler->aggregateTotals("S").has_value());
    EXPECT_FALSE(handler->saveChunkMetaInfo(chunk("S", 1, 1)));
    EXPECT_EQ(handler->storeRescuedEvents("f", {event("a")}, "S"), Rescue::failed);
    fs::remove(documents("kelvo-db"));
    write();
    handler->getSessions();  // waits for the write
    EXPECT_EQ(Other().number(std::string("select count(*) from ") + table), 1) << table;
  }
}

/// Texts that try to leave their quotes, and random ones of the same material.
std::vector<std::string> nastyTexts() {
  std::vector<std::string> texts = {"it's", "'", "''", "x' or '1'='1", "x'; delete from lifetime_events; --", "\\'"};
  const char* const parts[] = {"'", "\"", "--", ";",        " or ", "1=1", "x", "%",
                               "(", ")",  "||", "\xC3\xBC", "/*",   "?",   ":a"};
  std::mt19937 random(1);
  while (texts.size() < 60) {
    std::string text = std::to_string(texts.size());
    for (auto count = random() % 8; count > 0; --count) text += parts[random() % std::size(parts)];
    texts.push_back(text);
  }
  return texts;
}

TEST_F(EveryEvent, AValueWithAQuoteIsCountedOrRefusedAndNeverRunsAsSQL) {
  for (const auto* rules : {&KLVDeliveryRules::classic, &KLVDeliveryRules::complete}) {
    KLVDeliveryRules::choose(*rules);
    restart();
    for (int time = 0; time < 3; ++time) {
      handler->upsertLifetimeEvent(event("plain"));
      handler->countAggregateEvent(aggregate("plain", "k", "v"), "S");
    }
    ASSERT_TRUE(handler->saveChunkMetaInfo(chunk("plain", 1, 3)));
    for (const std::string& text : nastyTexts()) {
      const bool right = rules->doublesQuotes || text.find('\'') == std::string::npos;
      SCOPED_TRACE(text);
      for (int time = 0; time < 2; ++time) {
        handler->upsertLifetimeEvent(event(text));
        handler->countAggregateEvent(aggregate(text, text, text), "S");
      }
      EXPECT_EQ(lifetime(text), right ? 2 : 0);
      EXPECT_EQ(aggregated(text, text, text), right ? 2 : 0);
      const auto refusals = log.count("KLVError 1: a name or a value contains a character that would end it");
      handler->deleteAggregateEventsWithSessionId(text);
      handler->deleteChunkMetaInfo(std::make_shared<KLVChunk>(text));
      handler->saveEventInfo(event("a"), text);  // no such session
      EXPECT_EQ(handler->numberOfEventsWithIdentifier(text).has_value(), right);
      EXPECT_EQ(log.count("KLVError 1: a name or a value contains a character that would end it") - refusals,
                right ? 0U : 3U);
      EXPECT_EQ(handler->storeRescuedEvents(text, {event(text), aggregate(text, text, text)}, text),
                right ? Rescue::stored : Rescue::failed);
      EXPECT_EQ(handler->numberOfEventsWithIdentifier(text).value_or(0), right ? 2U : 0U);
      handler->deleteSession(text);
      EXPECT_TRUE(handler->getSessions().empty());
    }
    EXPECT_EQ(lifetime("plain"), 3);
    EXPECT_EQ(aggregated("plain", "k", "v"), 3);
    EXPECT_EQ(handler->retrieveChunkMetaInfo()->size(), 1U);
  }
  KLVDeliveryRules::choose(KLVDeliveryRules::classic);
}

TEST_F(EveryEvent, WhoeverDropsTheHandlerDoesNotCloseItsDatabase) {
  restart();
  handler->saveEventInfo(event("a"), "S");
  handler->getSessions();
  const std::string writeAheadLog = documents("kelvo-db/v1.0.0/com.kelvo.sessions.sqlite-wal");
  std::promise<void> release;
  const auto released = release.get_future().share();
  std::atomic<int> held{0};
  for (int task = 0; task < 8; ++task) {
    DispatchQueue::global().async([&held, released] {
      ++held;
      released.wait();
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // all pool threads wait now
  ASSERT_GT(held, 0);
  handler.reset();
  EXPECT_TRUE(fs::exists(writeAheadLog)) << "closing the database writes to the disk, and the caller may hold a mutex";
  release.set_value();
  while (fs::exists(writeAheadLog)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace
}  // namespace kelvo::test
