#include "storage/KLVJournalWrites.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "journal/KLVJournal.h"
#include "records/KLVEvents.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

using Entry = KLVLedgerEntry;
using Numbers = std::vector<std::uint64_t>;

/// Remembers which calls are finished.
struct Finished final : KLVCallJournal {
  [[nodiscard]] std::uint64_t write(const KLVCodedCall& call) noexcept override { return call.flags; }
  void finish(std::uint64_t number) noexcept override { numbers.push_back(number); }
  Numbers numbers;
};

class FinishedCalls : public testing::Test {
 protected:
  FinishedCalls() {
    KLVDeliveryRules::choose(KLVDeliveryRules::complete);
    KLVJournalWrites::begin({.epoch = 0xe, .numbers = {}});
    KLVWaitingCall::openJournal(journal);
    handler->startWithCompletionHandler({});
  }
  ~FinishedCalls() override { KLVWaitingCall::closeJournal(); }

  static KLVWaitingCall call(std::uint8_t number) { return KLVWaitingCall::uncounted({.kind = 1, .flags = number}); }
  static std::shared_ptr<KLVEvent> event(KLVWaitingCall made, KLVEventType type = KLVEventType::app) {
    auto event = std::make_shared<KLVObservationEvent>(type);
    event->setIdentifier("a");
    event->setCall(std::move(made));
    return event;
  }
  static std::string path() { return KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile); }
  static KLVFinishedCalls inDatabase() { return KLVFinishedCalls::inDatabase(path()).value(); }
  void settle() { handler->getSessions(); }
  static void execute(const std::string& sql) {
    FMKLVDatabase db(path());
    ASSERT_TRUE(db.open() && db.executeUpdate(sql)) << sql;
  }

  Finished journal;
  std::unique_ptr<KLVDataHandler> handler = std::make_unique<KLVDataHandler>("S");
};

TEST_F(FinishedCalls, AreNotedInTheTransactionOfTheirEffectsAndThenFinished) {
  EXPECT_EQ(inDatabase().epoch, 0U) << "nothing is noted yet";
  const auto stored = event(call(1));
  handler->saveAndCountEvent(stored, "S");
  handler->upsertLifetimeEvent(event(call(2), KLVEventType::client));
  handler->countAggregateEvent(event(call(3), KLVEventType::aggregate), "S");
  handler->settle(call(4), Entry::ignored);
  settle();
  EXPECT_EQ(inDatabase().epoch, 0xeU);
  EXPECT_EQ(inDatabase().numbers.text(), "1+4");
  EXPECT_EQ(journal.numbers, (Numbers{1, 2, 3, 4})) << "although a listener keeps the event of the first";

  const auto before = KLVLedger::shared().ledger();
  handler->saveAndCountEvent(event(KLVWaitingCall::ofEntry(9)), "S");
  settle();
  EXPECT_EQ(inDatabase().numbers.text(), "1+4 4");
  const auto after = KLVLedger::shared().ledger();
  EXPECT_EQ(after.thisProcess.stored, before.thisProcess.stored) << "an earlier process has logged it";
  EXPECT_EQ(after.sinceInstallation.stored, before.sinceInstallation.stored + 1);
  EXPECT_EQ(after.sinceInstallation.logged, before.sinceInstallation.logged + 1);
}

TEST_F(FinishedCalls, StayInTheJournalIfTheTransactionCannotBeCommitted) {
  execute("create trigger t before insert on lifetime_events begin select raise(abort, 'bad'); end");
  handler->upsertLifetimeEvent(event(call(1), KLVEventType::client));
  settle();
  EXPECT_EQ(journal.numbers, Numbers{1}) << "only its own statement fails, for good";
  execute("create trigger j before insert on kelvo_journal begin select raise(abort, 'full'); end");
  handler->saveEventInfo(event(call(2)), "S");
  settle();
  EXPECT_EQ(journal.numbers, Numbers{1}) << "the next launch stores it";
  EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), 0U);
  EXPECT_EQ(KLVLedger::shared().count(Entry::notStored), 0U) << "it has no outcome yet";
}

TEST_F(FinishedCalls, AreNotNotedIfSQLiteItselfHasRolledTheTransactionBack) {
  handler->saveEventInfo(event(call(1)), "S");
  settle();
  for (const char* table : {"events_S", "lifetime_events", "kelvo_ledger"}) {
    SCOPED_TRACE(table);
    execute(std::string("create trigger r before insert on ") + table + " begin select raise(rollback, 'full'); end");
    handler->saveAndCountEvent(event(call(2)), "S");
    settle();
    execute("drop trigger r");
    EXPECT_EQ(journal.numbers, Numbers{1}) << "the next launch stores it";
    EXPECT_FALSE(inDatabase().numbers.contains(2)) << "the next launch would leave it out";
    EXPECT_EQ(handler->numberOfEventsWithIdentifier("S"), 1U);
  }
  EXPECT_EQ(KLVLedger::shared().ledger().sinceInstallation.stored, 1U);
}

TEST_F(FinishedCalls, WaitForTheFileWithTheirAttributes) {
  const auto user = std::make_shared<KLVUser>("u");
  std::filesystem::create_directories(library("com.kelvo.db.user/blocks it"));
  handler->saveUserInfo(user, {call(1)});
  settle();
  EXPECT_EQ(journal.numbers, Numbers());
  std::filesystem::remove_all(library("com.kelvo.db.user"));
  handler->saveUserInfo(user, {call(2)});
  settle();
  EXPECT_EQ(journal.numbers, Numbers{2}) << "the test's journal; the real one finishes the first, too";
}

TEST(FinishedCallsOfADatabase, AreNoneIfItIsDamagedMissingOrOld) {
  KLVPersistantStore::createDBDirectory();
  const std::string path = KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile);
  const auto epoch = [&] { return KLVFinishedCalls::inDatabase(path).value().epoch; };
  EXPECT_EQ(epoch(), 0U);
  writeFileForTest(path, std::string(8192, 'x'));
  EXPECT_EQ(epoch(), 0U);
  writeFileForTest(path, "");  // a database without tables
  EXPECT_EQ(epoch(), 0U);
}

TEST(WaitingCall, IsRecordedOnceTheJournalIsOpenIfItStillWaits) {
  Finished journal;
  KLVWaitingCall::suspendJournal();
  const auto recorded = [](std::uint8_t number) { return KLVWaitingCall::admit({.kind = 1, .flags = number}); };
  auto first = recorded(1), over = recorded(2), last = recorded(3);
  EXPECT_EQ(first.sequence(), 0U);
  over = {};
  KLVWaitingCall::openJournal(journal);
  EXPECT_EQ(first.sequence(), 1U);
  EXPECT_EQ(last.sequence(), 3U);
  const auto copy = first;
  first = {};
  EXPECT_EQ(journal.numbers, Numbers()) << "a copy lives";
  last.leaveToNextLaunch();
  last = {};
  EXPECT_EQ(journal.numbers, Numbers());
  copy.finish();
  EXPECT_EQ(recorded(4).sequence(), 4U);
  EXPECT_EQ(journal.numbers, (Numbers{1, 4}));
  KLVWaitingCall::closeJournal();
  EXPECT_EQ(recorded(5).sequence(), 0U);
}

}  // namespace
}  // namespace kelvo::test
