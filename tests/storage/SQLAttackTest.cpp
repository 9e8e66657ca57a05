#include <gtest/gtest.h>

#include <map>

#include "storage/StatementShapes.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

using namespace std::string_literals;

const std::string kAttacks[] = {
    "x' or '1'='1",
    "x'; drop table aggregate_events; --",
    "' union with recursive c(n) as (select 1 union all select n+1 from c) select n from c --",
    "it''s",
    "'",
    "x\\' or 1=1",
    "nul'\0' or 1=1"s,
    "nul\0"s,
    "x\" or \"\"=\"",
    "a; drop table aggregate_events",
    "-- comment",
    "/* open",
    "a) VALUES (1); --",
    "e_count=0 or 1",
    "`x` [y] ?1 :a @b $c %s {}",
    "\xFF\xC3 not UTF-8 \xE2\x80\x99",
    "",
};

/// Returns the shapes of the statements that ran since the last call.
std::vector<std::string> shapes() {
  std::vector<std::string> all;
  for (const std::string& statement : RanStatements::take()) all.push_back(shapeOf(statement));
  return all;
}

TEST(SQLAttacks, TheShapesOfStatementsShowEveryTerm) {
  EXPECT_EQ(shapeOf("select * from 'a''b' where c='d' -- e"), "select * from TEXT where c = TEXT -- e ");
  EXPECT_EQ(shapeOf("a='x' or '1'='1'; b /* 'c' */ \"d\" 12 :e"),
            "a = TEXT or TEXT = TEXT ; b /* 'c' */ \"d\" NUMBER : e ");
}

TEST(SQLAttacks, AForeignTextAddsNoTermToAStatementAndChangesNone) {
  const std::string refusal = "DB Error: 1 \"a name or a value contains a character that would end it\"";
  const LogCapture log;
  RanStatements::begin();
  for (const auto* rules : {&KLVDeliveryRules::complete, &KLVDeliveryRules::classic}) {
    KLVDeliveryRules::choose(*rules);
    KLVPersistantStore store;
    ASSERT_TRUE(store.createAggregateEventsTable() && store.createChunkMetaInfoTableWithTableName("chunkmeta") &&
                store.createEventsTableWithTableName("events_base") && store.lastIdentifierInTable("events_base"));
    ASSERT_TRUE(store.insertDataWithTableName("aggregate_events", {{"sid", "kept"}, {"name", "n"}, {"e_count", 7}}));
    std::map<std::string, std::vector<std::string>> plain;
    for (const StoreOperation& operation : storeOperations()) {
      shapes();
      EXPECT_TRUE(operation.run(store, operation.place == StoreOperation::Place::name ? "attr_key" : "plain") ||
                  std::string(operation.name).ends_with(" in") || std::string(operation.name).starts_with("range"))
          << operation.name;
      plain[operation.name] = shapes();
    }
    for (const std::string& attack : kAttacks) {
      for (const StoreOperation& operation : storeOperations()) {
        SCOPED_TRACE(operation.name + (" " + attack));
        const auto refusals = log.count(refusal);
        const bool succeeds = operation.run(store, attack);
        const auto ran = shapes();
        const bool refused = operation.refuses(attack);
        const bool ends = attack.find('\0') != attack.npos ||
                          (rules == &KLVDeliveryRules::classic && attack.find('\'') != attack.npos);
        EXPECT_TRUE(refused == ends || operation.place != StoreOperation::Place::quoted);
        EXPECT_EQ(log.count(refusal) - refusals, refused ? 1U : 0U);
        EXPECT_NE(succeeds, refused);
        EXPECT_EQ(ran, refused ? std::vector<std::string>() : plain[operation.name]);
      }
    }
    EXPECT_EQ(store.retrieveDataForIdentifier("e_count", "aggregate_events", {{"sid", "kept"}}),
              (std::vector{Dictionary{{"e_count", 7}}}));
    EXPECT_TRUE(store.removeDataWithTableName("aggregate_events", "sid", "kept"));
  }
  KLVDeliveryRules::choose(KLVDeliveryRules::classic);
}

}  // namespace
}  // namespace kelvo::test
