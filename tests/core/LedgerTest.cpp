#include <map>
#include <set>

#include "core/CoreTest.h"
#include "core/KLVEventSource.h"
#include "kelvo-service/ServiceState.h"
#include "kelvo/KelvoSDK.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"

namespace kelvo::test {
namespace {

using collector::Script;
using Counts = std::map<std::string, std::int64_t>;

class LedgerOfThisProcess : public CoreTest {
 protected:
  static void settled() {
    while (KLVPostman::sharedSession().unfinished() > 0) std::this_thread::sleep_for(1ms);
    settle();
    std::promise<void> stored;
    controller().whenStored([&] { stored.set_value(); });
    stored.get_future().wait();
  }
  /// Returns the counts of the home's whole life, which is this process, without those that are 0.
  static Counts counts() {
    Counts all;
    for (const auto& [name, events] : KLVLedger::shared().form()) all[name] = events.asInt64();
    return all;
  }
  /// Returns what `call` adds once nothing is under way.
  static Counts addedBy(const std::function<void()>& call) {
    const Counts before = counts();
    call();
    settled();
    Counts added;
    for (const auto& [name, events] : counts()) {
      const auto earlier = before.find(name);
      added[name] = events - (earlier == before.end() ? 0 : earlier->second);
    }
    for (const auto& [name, events] : before) added.try_emplace(name, -events);
    std::erase_if(added, [](const auto& entry) { return entry.second == 0; });
    return added;
  }
  static void execute(const std::string& sql) {
    FMKLVDatabase db(KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile));
    ASSERT_TRUE(db.open() && db.executeUpdate(sql)) << db.lastErrorMessage();
  }
};

TEST_F(LedgerOfThisProcess, GivesEachEventOneOutcome) {
  service.state().setClientEvents(Array{"tip"}, Array{"rating"}, Array{"noise"});
  start();
  settled();
  const std::string table = "events_" + *controller().getSessionId();
  const auto logged = [](const char* name) { KelvoSDK::logAppEventWithName(name); };
  const auto dispatch = [](KLVEventType type) {
    EXPECT_TRUE(KLVPluginEventSource(controller()).logEvent(type, "a", {}));
  };
  const struct {
    std::function<void()> call;
    const char* outcome;
    Counts others;
  } cases[] = {
      {[&] { logged("Pay"); }, "stored", {{"waiting", 1}}},
      {[&] { logged(nullptr); }, "refusedNameless", {}},
      {[] { KelvoSDK::logScreenWithName(""); }, "refusedNameless", {}},
      {[] { KelvoSDK::reportCustomError(OptionalText(nullptr)); }, "refusedNameless", {}},
      {[] {
         KelvoSDK::logAppEventWithName("a", Dictionary{{"empty", Array()}});
       },
       "refusedUncleanable",
       {}},
      {[] {
         KelvoSDK::logClientEventWithName("a", Dictionary{{"empty", Array()}});
       },
       "refusedUncleanable",
       {}},
      {[&] { logged("noise"); }, "ignored", {}},
      {[&] { logged("tip"); }, "forPlugins", {}},
      {[] { KelvoSDK::logClientEventWithName("a"); }, "forPlugins", {}},
      {[&] { logged("rating"); }, "counted", {}},
      {[] { KelvoSDK::logAggregateEvent("a"); }, "counted", {}},
      {[] { KelvoSDK::reportCustomError("a"); }, "stored", {{"waiting", 1}}},
      {[&] { dispatch(KLVEventType::applicationCrash); }, "stored", {{"waiting", 1}}},
      {[&] { dispatch(KLVEventType::push); }, "stored", {{"notForUpload", 1}}},
      {[&] { dispatch(KLVEventType::nudge); }, "forPlugins", {}},
      {[&] {
         execute("create trigger t before insert on '" + table + "' begin select raise(abort, 'no room'); end");
         logged("Pay");
         settled();
         execute("drop trigger t");
       },
       "notStored",
       {}},
  };
  for (const auto& each : cases) {
    Counts expected{{"logged", 1}, {each.outcome, 1}};
    expected.insert(each.others.begin(), each.others.end());
    EXPECT_EQ(addedBy(each.call), expected) << "case " << &each - cases;
  }

  const auto waiting = counts()["waiting"];
  ASSERT_GE(waiting, 4);  // with those of the start
  const auto flush = [] { EXPECT_EQ(KelvoSDK::flushAndWait(10s).outcome, FlushOutcome::delivered); };
  const Counts delivered{
      {"logged", 1}, {"forPlugins", 1}, {"sent", waiting}, {"accepted", waiting}, {"waiting", -waiting}};
  EXPECT_EQ(addedBy(flush), delivered) << "the signal of the cut passes the bus";
  const auto own = KelvoSDK::ledger().thisProcess;
  EXPECT_EQ(own.waitingInMemory, 0U);
  EXPECT_EQ(own.logged, own.refused.total() + own.ignored + own.counted + own.forPlugins + own.stored + own.notStored);
  FMKLVDatabase db(KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile));
  ASSERT_TRUE(db.open());
  EXPECT_EQ(readLedger(db).value_or(Dictionary()), KLVLedger::shared().table().form());
  EXPECT_EQ(KLVLedgerSums::from(*readLedger(db))[KLVLedgerEntry::ignored], 1)
      << "the database has what it never stored";

  KLVLedger::shared().reset();
  EXPECT_EQ(counts(), Counts());
  EXPECT_EQ(KelvoSDK::ledger().thisProcess.logged, own.logged);
}

TEST_F(LedgerOfThisProcess, TravelsWithChunksAsItWasAtTheirCutIfTheHostWantsIt) {
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  const auto ledgers = [&] {
    std::vector<Value> all;
    for (const Value& chunk : service.chunks()) {
      const auto details = (*chunk.get<Dictionary>())["chunk_details"].asDictionary();
      all.push_back((*(*details)["chunk_attributes"].get<Dictionary>())["ledger"]);
    }
    return all;
  };
  start();
  settled();
  ASSERT_EQ(KelvoSDK::flushAndWait(10s).outcome, FlushOutcome::delivered);
  ASSERT_EQ(ledgers(), std::vector<Value>{Value()});

  KLVHostLimits::choose({.sendsLedger = true});
  service.answer("/chunks", Script(503).times(1));
  KelvoSDK::logAppEventWithName("Pay");
  settled();
  const auto stored = counts()["stored"];
  EXPECT_EQ(KelvoSDK::flushAndWait(100ms).outcome, FlushOutcome::refused);
  KelvoSDK::logAppEventWithName("Pay");
  ASSERT_EQ(KelvoSDK::flushAndWait(10s).outcome, FlushOutcome::delivered);
  std::set<std::int64_t> sums;
  for (const Value& ledger : ledgers()) {
    if (const auto* form = ledger.get<Dictionary>()) sums.insert((*form)["stored"].asInt64());
  }
  EXPECT_EQ(sums, (std::set<std::int64_t>{stored, stored + 1})) << "the resent chunk says what it said at first";
}

TEST_F(LedgerOfThisProcess, CountsTheCallsThatADisabledServiceRefuses) {
  service.answer("/enabled-status", Script(200, R"({"enabled":0})"));
  KelvoSDK::logAppEventWithName("buffered");
  KelvoSDK::logClientEventWithName("buffered");
  settled();
  EXPECT_EQ(counts(), (Counts{{"logged", 2}, {"waitingInMemory", 2}}));
  start();
  KelvoSDK::logAppEventWithName("refused");
  KelvoSDK::logClientEventWithName("refused");
  KelvoSDK::logAggregateEvent("refused");
  settled();
  EXPECT_EQ(counts(), (Counts{{"logged", 5}, {"refusedDisabled", 5}}));
}

TEST_F(LedgerOfThisProcess, BeginsAnewAfterAnErasure) {
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  start();
  const auto before = KelvoSDK::ledger().thisProcess;
  for (int i = 0; i < 100; ++i) KelvoSDK::logAppEventWithName("Erased");
  KelvoSDK::erase();
  for (int i = 0; i < 3; ++i) KelvoSDK::logAppEventWithName("Kept");
  ASSERT_EQ(KelvoSDK::flushAndWait(10s).outcome, FlushOutcome::delivered);
  settled();
  const auto after = KelvoSDK::ledger().thisProcess;
  EXPECT_EQ(after.waitingInMemory, 0U);
  EXPECT_GE(after.logged, before.logged + 103);
  EXPECT_EQ(after.logged,
            after.refused.total() + after.ignored + after.counted + after.forPlugins + after.stored + after.notStored);
  const auto& sums = KelvoSDK::ledger().sinceInstallation;
  EXPECT_LT(sums.logged, 100U) << "the erased events are forgotten";
  EXPECT_EQ(sums.stored, sums.notForUpload + sums.accepted + sums.waiting);
  EXPECT_GE(sums.accepted, 3U);
}

}  // namespace
}  // namespace kelvo::test
