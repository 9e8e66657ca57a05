#include "storage/KLVLedgerWrites.h"

#include <gtest/gtest.h>

#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

using Entry = KLVLedgerEntry;

std::string databasePath() {
  return KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile);
}

class LedgerOfADatabase : public testing::Test {
 protected:
  void open() {
    store.reset();
    store = std::make_unique<KLVPersistantStore>();
    store->createChunkMetaInfoTableWithTableName(kKLVChunkMetaInfo);
    store->createOwnTables();
  }
  static KLVPersistantStore::Job event(const char* type, const char* column = "id") {
    return [=](KLVPersistantStore& in) {
      const Dictionary row{{column, "a"}, {std::string(kKLVType), type}};
      const bool isStored = insertEvent(in, "S", true, row);
      countRow(in, row, isStored);
      return isStored;
    };
  }
  static LedgerCounts now() { return KLVLedger::shared().ledger().sinceInstallation; }
  static std::optional<Dictionary> table() {
    FMKLVDatabase db(databasePath());
    return db.open() ? readLedger(db) : std::nullopt;
  }

  std::unique_ptr<KLVPersistantStore> store;
};

TEST_F(LedgerOfADatabase, CountsWhatIsCommittedAndSurvivesTheDatabase) {
  open();
  KLVLedger::shared().refuse(Entry::ignored);
  KLVLedger::shared().add(Entry::logged, 4);
  store->performGrouped({event("App"), event("Client"), event("App", "no_column"), event("App")});
  EXPECT_FALSE(store->performTogether({[](auto& in) { return countInLedger(in, Entry::accepted, 9) && false; }}));
  const Dictionary expected{{"logged", 5}, {"ignored", 1}, {"stored", 3}, {"notStored", 1}, {"notForUpload", 1}};
  EXPECT_EQ(table(), expected) << "a group that is rolled back counts once, and a job that fails not at all";
  EXPECT_EQ(KLVLedger::shared().table().form(), expected);
  EXPECT_EQ(now().waitingInMemory, 0U);
  EXPECT_EQ(now().waiting, 2U);

  ASSERT_TRUE(store->performTogether({[](auto& in) { return countInLedger(in, Entry::accepted, 1); }}));
  store.reset();
  writeFileForTest(databasePath(), std::string(8192, 'x'));  // nothing can be read: the kept copy counts
  open();
  EXPECT_EQ(now().lost, 1U);
  EXPECT_EQ(now().stored, 3U);
  EXPECT_EQ(now().waiting, 0U);
  EXPECT_EQ(now().logged, 5U);

  store->performGrouped({event("App"), event("App")});
  EXPECT_EQ(now().waiting, 2U);
  store.reset();
  writeFileForTest(databasePath() + ".corrupt-found", "");  // its ledger is whole, and newer than the copy
  open();
  EXPECT_EQ(now().lost, 3U);
  EXPECT_EQ(KLVLedgerSums::from(*table())[Entry::stored], 5);
}

TEST_F(LedgerOfADatabase, BeginsWithTheEventsOfAnEarlierVersion) {
  open();
  store->performGrouped({event("App"), event("App"), event("Client"), event("System")});
  ASSERT_TRUE(store->insertDataWithTableName(
      kKLVChunkMetaInfo, {{"id", "S_1"}, {"sid", "S"}, {"cid", 1}, {"start", 1}, {"end", 3}, {"status", 1}}));
  ASSERT_TRUE(store->removeTableWithName(kKLVLedger));
  open();
  EXPECT_EQ(table(), (Dictionary{{"logged", 4}, {"stored", 4}, {"notForUpload", 1}, {"accepted", 2}}));
}

}  // namespace
}  // namespace kelvo::test
