#include "upload/KLVChunkManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <future>
#include <iterator>
#include <limits>
#include <utility>

#include "platform/Clock.h"
#include "platform/JSON.h"
#include "records/KLVEvents.h"
#include "support/LogCapture.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"

namespace kelvo::test {
namespace {

using Texts = std::vector<std::string>;
using std::chrono::seconds;

/// The content of a home in memory, and a service that answers when the test says so.
class Delegate final : public KLVChunkManagerDelegate {
 public:
  std::map<std::string, std::set<std::uint64_t>> sessions;  ///< indices of the events
  std::vector<KLVChunkRow> rows;
  std::map<std::string, AggregateTotals> aggregates;
  std::map<std::string, Dictionary> records;
  std::set<std::string> directories, sessionRecords;
  std::string running = "now", userName = "before";
  std::size_t eventText = 1;
  static constexpr std::uint64_t kBytesOfAChunk = 100;
  std::uint64_t bytes = 0;
  bool refusesToPost = false, refusesRows = false, failsReads = false, failsRows = false, failsTransactions = false;

  Texts done;  ///< the calls of the manager, in order
  std::vector<Dictionary> bodies;
  std::vector<HTTPCompletion> unanswered;

  std::string applicationIdentifier() override { return "shop"; }
  std::shared_ptr<KLVSession> session() override { return sessionNamed(running); }
  std::shared_ptr<KLVUser> user() override {
    auto user = std::make_shared<KLVUser>("u");
    user->setCustomInfo(userName, "name");
    return user;
  }
  std::shared_ptr<KLVAppInfo> appInfo() override { return nullptr; }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return nullptr; }
  std::shared_ptr<KLVSDKInfo> sdkInfo() override { return nullptr; }
  void registerIdentifer(const std::string&, const std::shared_ptr<KLVEventListener>&) override {}
  void dispatchEvent(const std::shared_ptr<KLVEvent>&) override {}
  void waitUntilDelivered() override {}
  std::optional<std::uint64_t> numberOfEventsWithIdentifier(const std::optional<std::string>& id) override {
    if (failsReads) return std::nullopt;
    std::uint64_t last = sessions[*id].empty() ? 0 : *sessions[*id].rbegin();
    for (const auto& row : rows) last = row.sid == *id ? std::max(last, row.end) : last;
    return last;
  }
  std::optional<std::uint64_t> readEvents(const std::string& id, std::uint64_t first, std::uint64_t last,
                                          std::uint64_t most,
                                          const std::function<void(const KLVStoredEvent&)>& take) override {
    if (failsReads) return std::nullopt;
    const std::string name(eventText, 'e');
    std::uint64_t count = 0;
    const auto& all = sessions[id];
    for (auto each = all.lower_bound(first); count < most && each != all.end() && *each <= last; ++each, ++count) {
      take({.index = *each, .id = name, .type = "App"});
    }
    return count;
  }
  Array retrieveAggregateEventsWithSessionIdentifier(const std::string& id) override {
    return aggregates.count(id) == 0 ? Array() : Array{aggregates[id].counted};
  }
  std::optional<AggregateTotals> aggregateTotals(const std::string& id) override {
    return aggregates.count(id) == 0 ? AggregateTotals() : aggregates[id];
  }
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::optional<std::string>& id) override {
    return sessionRecords.count(*id) == 0 ? nullptr : sessionNamed(*id);
  }
  Texts getSessions() override { return keysOf(sessions); }
  Texts getSessionsWithAggregates() override { return keysOf(aggregates); }
  Texts getSessionDirectories() override { return {directories.begin(), directories.end()}; }
  std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> retrieveChunkMetaInfo() override {
    if (failsRows) return std::nullopt;
    std::vector<std::shared_ptr<KLVChunkMetaInfo>> all;
    for (const auto& row : rows) {
      all.push_back(std::make_shared<KLVChunkMetaInfo>(row.sid, row.cid, row.start, row.end, Array{1}));
      all.back()->setInfo(row.sent, "status");
    }
    return all;
  }
  bool saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta,
                         const std::optional<Dictionary>& kept) override {
    if (refusesRows) return false;
    const Dictionary row = meta->additionalInfo();
    rows.push_back({row["sid"].asText().value_or(""), row["cid"].asUInt64(), row["start"].asUInt64(),
                    row["end"].asUInt64(), false});
    if (kept) records[meta->identifier()] = *kept;
    done.push_back("save " + meta->identifier());
    return true;
  }
  std::optional<Dictionary> retrieveChunkRecords(const std::string& id) override {
    return records.count(id) == 0 ? std::nullopt : std::optional(records[id]);
  }
  void updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) override {
    done.push_back("update " + meta->identifier());
  }
  void updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk, std::int64_t total,
                             std::function<void()> committed) override {
    if (failsTransactions) return;
    for (auto& row : rows) {
      if (KLVChunk::CMID(row.sid, row.cid) != chunk->identifier()) continue;
      row.sent = true;
      if (aggregates.count(row.sid) != 0) aggregates[row.sid].delivered = total;
    }
    committed();
  }
  void deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) override {
    deleteIn(
        [this, sid = chunk->identifier()] { std::erase_if(rows, [&](const auto& row) { return row.sid == sid; }); });
  }
  void deleteSession(const std::optional<std::string>& id) override {
    deleteIn([this, sid = *id] { sessions.erase(sid), done.push_back("purge " + sid); });
  }
  void deleteItemAtPath(const std::optional<std::string>& path) override { directories.erase(*path); }
  void deleteAggregateEventsWithSessionId(const std::optional<std::string>& id) override {
    deleteIn([this, sid = *id] { aggregates.erase(sid); });
  }
  void writeTogether(const std::function<void()>& deletions, std::function<void()> committed) override {
    transaction_.emplace();
    deletions();
    const auto all = *std::exchange(transaction_, std::nullopt);
    if (failsTransactions) return;
    for (const auto& each : all) each();
    committed();
  }
  std::optional<std::uint64_t> storedBytes(std::uint64_t) override { return bytes; }
  void deleteSettledData(std::uint64_t) override {}
  KLVEviction evictChunks(const std::vector<std::shared_ptr<KLVChunkMetaInfo>>& chunks, std::uint64_t toFree,
                          KLVLedgerEntry) override {
    KLVEviction evicted;
    for (const std::uint64_t before = bytes; evicted.chunks < chunks.size() && before - bytes < toFree;) {
      const std::string id = chunks[evicted.chunks++]->identifier();
      const auto row = std::find_if(rows.begin(), rows.end(),
                                    [&](const auto& each) { return KLVChunk::CMID(each.sid, each.cid) == id; });
      row->sent = true;
      for (auto event = row->start; event <= row->end; ++event) evicted.events += sessions[row->sid].erase(event);
      bytes -= kBytesOfAChunk;
      done.push_back("evict " + id);
    }
    return evicted;
  }
  std::optional<KLVEviction> reportedEvictions(const std::string&) override { return KLVEviction(); }
  std::optional<Date> timeOfEvent(const std::string&, std::uint64_t) override { return std::nullopt; }
  void tidy(bool) override {}
  void whenGrown(std::uint64_t, std::function<void()>) override {}
  void postChunk(const std::string&, SlicedText text, const Dictionary&, HTTPCompletion completion) override {
    const auto body = parseJSON(text.inOnePiece()).value().asDictionary();
    const auto& details = *(*body)["chunk_details"].get<Dictionary>();
    const auto events = details["app_events"].get<Array>()->size();
    done.push_back("post " + description((*(*body)["chunk_meta"].get<Dictionary>())["id"]) + " of " +
                   std::to_string(events));
    bodies.push_back(*body);
    if (!refusesToPost) unanswered.push_back(std::move(completion));
  }

 private:
  template <class Map>
  static Texts keysOf(const Map& map) {
    Texts keys;
    for (const auto& entry : map) keys.push_back(entry.first);
    return keys;
  }
  static std::shared_ptr<KLVSession> sessionNamed(const std::string& id) {
    auto session = std::make_shared<KLVSession>(id);
    session->setCustomInfo("of " + id, "who");
    return session;
  }
  void deleteIn(std::function<void()> deletion) {
    if (!transaction_) return done.push_back("a deletion outside a transaction");
    transaction_->push_back(std::move(deletion));
  }

  std::optional<std::vector<std::function<void()>>> transaction_;
};

class ChunkManager : public testing::Test {
 protected:
  explicit ChunkManager(const KLVDeliveryRules& rules = KLVDeliveryRules::classic) {
    KLVDeliveryRules::choose(rules);
    const Dictionary noTimer{{"max_fg_chunk_send_time", 1e6}};
    manager = KLVChunkManager::initWithConfiguration(noTimer, delegate);
  }
  ~ChunkManager() override {
    std::promise<void> retired;  // the running task still calls the delegate
    manager->retire([&] { retired.set_value(); });
    retired.get_future().wait();
    KLVDeliveryRules::choose(KLVDeliveryRules::classic);
  }

  /// Cuts the current session a few times, so that the manager's queue is empty afterwards. Returns the calls since the
  /// last time.
  Texts happened() {
    for (int pass = 0; pass < 3; ++pass) {  // a slot that becomes free queues another task
      std::promise<void> idle;
      manager->sendCurrentChunk();
      manager->whenIdle([&] { idle.set_value(); });
      idle.get_future().wait();
    }
    return std::exchange(delegate.done, {});
  }
  void answer(std::size_t count, const HTTPResponse& response = {200, ""}) {
    auto& all = delegate.unanswered;
    const auto end = all.begin() + static_cast<std::ptrdiff_t>(std::min(count, all.size()));
    const std::vector<HTTPCompletion> now(std::make_move_iterator(all.begin()), std::make_move_iterator(end));
    all.erase(all.begin(), end);  // before the first completion is destroyed, because the manager then posts more
    for (const auto& each : now) each({}, response, {});
  }
  Texts flushed() {
    manager->flushPreviousChunks();
    return happened();
  }
  void addEvents(const std::string& sid, std::uint64_t first, std::uint64_t last) {
    for (auto index = first; index <= last; ++index) delegate.sessions[sid].insert(index);
  }
  void addRow(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end, bool sent) {
    delegate.rows.push_back({sid, cid, start, end, sent});
  }
  /// Flushes an earlier session with `count` unaccepted chunks of ten events each.
  void flushChunks(std::uint64_t count) {
    addEvents("old", 1, count * 10);
    for (std::uint64_t cid = 1; cid <= count; ++cid) addRow("old", cid, cid * 10 - 9, cid * 10, false);
    manager->flushPreviousChunks();
  }
  static Texts resent(std::uint64_t first, std::uint64_t last) {
    Texts texts;
    for (auto cid = first; cid <= last; ++cid) {
      texts.push_back("update old_" + std::to_string(cid));
      texts.push_back("post old_" + std::to_string(cid) + " of 10");
    }
    return texts;
  }
  Value lastBody(const char* section, const char* key) const {
    return (*delegate.bodies.back()[section].get<Dictionary>())[key];
  }

  Delegate delegate;
  std::shared_ptr<KLVChunkManager> manager;
};

TEST_F(ChunkManager, HoldsFewBodiesAtOnceAndKeepsTheOrder) {
  bool posted = false;
  flushChunks(20);
  manager->whenPosted([&] { posted = true; });
  EXPECT_EQ(happened(), resent(1, 8)) << "the events of the others are not read yet";
  answer(3);
  EXPECT_EQ(happened(), resent(9, 11));
  answer(8);
  EXPECT_EQ(happened(), resent(12, 19));
  EXPECT_FALSE(posted);
  answer(1);
  EXPECT_EQ(happened(), resent(20, 20));
  answer(8);
  EXPECT_EQ(happened(), Texts());
  EXPECT_TRUE(posted);
}

TEST_F(ChunkManager, ACutInsertsItsRowAtOnceAndItsBodyWaits) {
  flushChunks(8);
  EXPECT_EQ(happened(), resent(1, 8));
  addEvents("now", 1, 5);
  EXPECT_EQ(happened(), Texts{"save now_1"});
  addEvents("now", 6, 7);
  EXPECT_EQ(happened(), Texts{"save now_2"}) << "the first cut covers the first five events";
  delegate.sessions["now"].erase(2);
  answer(2);
  EXPECT_EQ(happened(), Texts{"post now_2 of 2"}) << "a chunk is never posted without an event of its row";
}

TEST_F(ChunkManager, ARequestThatCannotBeFormedHoldsNoSlot) {
  delegate.refusesToPost = true;
  flushChunks(20);
  EXPECT_EQ(happened().size(), 40u);
}

TEST_F(ChunkManager, OnlyStatus200AcceptsAndATailIsNeverPurgedUnaccepted) {
  addEvents("old", 1, 3);
  addRow("old", 1, 1, 2, true);
  delegate.aggregates["old"] = {7, 7};
  delegate.directories = {"old"};
  EXPECT_EQ(flushed(), (Texts{"save old_2", "post old_2 of 1"}))
      << "the session is not purged in the flush of its tail";
  answer(1, {204, ""});
  EXPECT_EQ(flushed(), (Texts{"update old_2", "post old_2 of 1"}));
  EXPECT_EQ(flushed(), Texts()) << "a chunk in flight is not queued again";
  answer(1);
  delegate.failsTransactions = true;
  EXPECT_EQ(flushed(), Texts());
  EXPECT_EQ(delegate.directories.size(), 1u) << "files are deleted after the rows only";
  delegate.failsTransactions = false;
  EXPECT_EQ(flushed(), Texts{"purge old"});
  EXPECT_TRUE(delegate.rows.empty() && delegate.aggregates.empty() && delegate.directories.empty());
}

TEST_F(ChunkManager, ATailThatTheCountsLeaveOutIsNotPurged) {
  addEvents("a", 1, 3);
  addRow("a", 1, 1, 2, true);
  addEvents("b", 1, 1);
  EXPECT_EQ(flushed(), (Texts{"save b_1", "post b_1 of 1"}));
  answer(1);
  EXPECT_EQ(flushed(), (Texts{"save a_2", "post a_2 of 1", "purge b"}));
}

TEST_F(ChunkManager, EmptySessionsAreDroppedBeforeTheCount) {
  delegate.sessions["empty"];
  delegate.aggregates["only counts"] = {1, 0};
  delegate.directories = {"empty", "restarted", "now", "later"};
  delegate.running = "later";
  addEvents("a", 1, 2);
  addRow("a", 1, 1, 1, true);
  delegate.failsReads = true;
  EXPECT_EQ(flushed(), Texts()) << "a failed read is not an empty session";
  delegate.failsReads = false;
  EXPECT_EQ(flushed(), (Texts{"purge empty", "purge only counts", "purge restarted", "save a_2", "post a_2 of 1"}));
  EXPECT_EQ(delegate.directories, (std::set<std::string>{"later", "now"}));
}

TEST_F(ChunkManager, AFlushLeavesTheRunningSessionAlone) {
  addEvents("now", 1, 2);
  addEvents("old", 1, 1);
  EXPECT_EQ(happened(), (Texts{"save now_1", "post now_1 of 2"}));
  answer(1, {500, ""});
  EXPECT_EQ(flushed(), (Texts{"save old_1", "post old_1 of 1"})) << "not resent";
  delegate.rows.front().sent = true;
  EXPECT_EQ(flushed(), Texts()) << "not purged";
}

TEST_F(ChunkManager, WithoutARowNothingIsPostedAndTheNextTriggerCutsTheSameEvents) {
  addEvents("now", 1, 2);
  delegate.refusesRows = true;
  EXPECT_EQ(happened(), Texts());
  delegate.refusesRows = false;
  EXPECT_EQ(happened(), (Texts{"save now_1", "post now_1 of 2"}));
}

TEST_F(ChunkManager, DeletedEventsHideNoOthers) {
  delegate.sessions["now"] = {4, 5, 5008};
  EXPECT_EQ(happened(), (Texts{"save now_1", "post now_1 of 2", "save now_2", "post now_2 of 1"}));
}

TEST_F(ChunkManager, AChunkHasASessionAndTheAttributesOfTheCurrentOne) {
  addEvents("1700000000123-d", 1, 1);
  flushed();
  EXPECT_EQ(lastBody("session_info", "id"), Value("1700000000123-d"));
  EXPECT_EQ(lastBody("session_info", "launch_time"), Value(1700000000123));
  EXPECT_EQ(lastBody("session_info", "launch_type"), Value("normal"));
  EXPECT_EQ(lastBody("chunk_details", "session_attributes"), Value(Dictionary{{"who", "of now"}}));
}

// --- The complete rules

class CompleteChunkManager : public ChunkManager {
 protected:
  CompleteChunkManager() : ChunkManager(KLVDeliveryRules::complete) {}
  /// Returns the next `count` calls. They follow a timer, which fires on another thread.
  Texts happenedAfterTimer(std::size_t count) {
    Texts all;
    for (int attempt = 0; attempt < 5000 && all.size() < count; ++attempt) {
      for (const auto& each : happened()) all.push_back(each);
    }
    return all;
  }
  void foreground() {
    manager->onEvent(std::make_shared<KLVSystemEvent>(KLVEventType::system, KLVSystemEvent::SubType::foreground));
  }
};

TEST_F(CompleteChunkManager, DeliversEveryEarlierSessionAndPurgesItAtOnce) {
  addEvents("a", 1, 3);
  addRow("a", 1, 1, 1, true);
  addRow("a", 2, 2, 2, false);
  addEvents("b", 1, 1);
  delegate.aggregates["c"] = {4, 0};
  delegate.directories = {"a"};
  EXPECT_EQ(flushed(), (Texts{"update a_2", "post a_2 of 1", "save a_3", "post a_3 of 1", "save b_1", "post b_1 of 1",
                              "save c_1", "post c_1 of 0"}));
  EXPECT_EQ(lastBody("chunk_details", "agg_events"), Value(Array{4}));
  delegate.aggregates["b"] = {1, 0};
  answer(4);
  EXPECT_EQ(happened(), (Texts{"purge a", "save b_2", "post b_2 of 0", "purge c"})) << "counts are a tail, too";
  EXPECT_TRUE(delegate.directories.empty());
}

TEST_F(CompleteChunkManager, CutsCountsOfTheRunningSessionOnceTheyChanged) {
  delegate.aggregates["now"] = {1, 0};
  EXPECT_EQ(happened(), (Texts{"save now_1", "post now_1 of 0"}));
  delegate.aggregates["now"].counted = 2;
  EXPECT_EQ(happened(), Texts()) << "the chunk in flight may still be resent with them";
  answer(1);
  EXPECT_EQ(happened(), (Texts{"save now_2", "post now_2 of 0"}));
  answer(1);
  EXPECT_EQ(happened(), Texts());
}

TEST_F(CompleteChunkManager, ResendsInRoundsUntilTheServiceAcceptsEverything) {
  flushChunks(20);
  EXPECT_EQ(happened(), resent(1, 8));
  answer(8, {500, ""});
  EXPECT_EQ(happened(), resent(9, 15)) << "after eight failures in a row, the rest waits";
  answer(7, {500, ""});
  EXPECT_EQ(happened(), Texts());
  Clock::advance(seconds(30));
  auto round = resent(16, 20);
  for (const auto& each : resent(1, 3)) round.push_back(each);
  EXPECT_EQ(happenedAfterTimer(round.size()), round) << "the chunks that were not tried go first";
  for (int rest = 20; rest > 0; rest -= 8) {
    answer(8);
    round = happened();
  }
  EXPECT_EQ(round, Texts{"purge old"});
}

TEST_F(CompleteChunkManager, AnAcceptanceAndForegroundResendAtOnceUnlessTheServiceAsksForTime) {
  const Texts again{"update now_1", "post now_1 of 1"};
  addEvents("now", 1, 1);
  happened();
  answer(1, {500, ""});
  happened();
  foreground();
  EXPECT_EQ(happened(), again);
  foreground();
  EXPECT_EQ(happened(), Texts()) << "a chunk in flight is not queued again";
  answer(1, {500, ""});
  happened();
  Clock::advance(seconds(5));
  addEvents("now", 2, 2);
  EXPECT_EQ(happened(), (Texts{"save now_2", "post now_2 of 1"}));
  answer(1);
  EXPECT_EQ(happened(), again);
  answer(1, {503, "", seconds(60)});
  addEvents("now", 3, 3);
  happened();
  addEvents("now", 4, 4);
  EXPECT_EQ(happened(), Texts{"save now_4"});
  Clock::advance(seconds(59));
  foreground();
  EXPECT_EQ(happened(), Texts());
  Clock::advance(seconds(1));
  EXPECT_EQ(happenedAfterTimer(6).size(), 6u);
}

TEST_F(CompleteChunkManager, RestartsWithANewSession) {
  addEvents("now", 1, 2);
  EXPECT_EQ(happened(), (Texts{"save now_1", "post now_1 of 2"}));
  addEvents("now", 3, 3);
  addEvents("later", 1, 1);
  delegate.running = "later";
  manager->followSession();
  EXPECT_EQ(happened(), (Texts{"save now_2", "post now_2 of 1", "save later_1", "post later_1 of 1"}));
  answer(3);
  EXPECT_EQ(happened(), Texts{"purge now"}) << "the running session stays";
}

TEST_F(CompleteChunkManager, ASessionThatEndsBeforeItsStartIsHandledIsCutOnce) {
  addEvents("now", 1, 1);
  addEvents("short", 1, 2);
  addEvents("later", 1, 1);
  // The queue is late: both starts wait behind a flush.
  std::promise<void> late;
  manager->whenIdle([isLate = late.get_future().share()] { isLate.wait(); });
  manager->flushPreviousChunks();
  delegate.running = "short";
  manager->followSession();
  delegate.running = "later";
  manager->followSession();
  late.set_value();
  EXPECT_EQ(happened(), (Texts{"save short_1", "post short_1 of 2", "save now_1", "post now_1 of 1", "save later_1",
                               "post later_1 of 1"}));
  answer(2);
  EXPECT_EQ(happened(), (Texts{"purge short", "purge now"}));
}

TEST_F(CompleteChunkManager, NumbersAreNotUsedAgainIfTheRowsCannotBeRead) {
  addEvents("old", 3, 5);  // those of the first chunk, and its row, left with its acceptance
  addRow("old", 2, 3, 4, false);
  delegate.failsRows = true;
  EXPECT_EQ(flushed(), Texts());
  delegate.failsRows = false;
  EXPECT_EQ(happened(), (Texts{"update old_2", "post old_2 of 2", "save old_3", "post old_3 of 1"}))
      << "the next trigger flushes";
}

TEST_F(CompleteChunkManager, CutsLongRangesOnceAndKeepsTheRecordsOfTheCut) {
  delegate.eventText = 400 * 1024;
  delegate.sessionRecords = {"now"};
  addEvents("now", 1, 5);
  EXPECT_EQ(happened(),
            (Texts{"save now_1", "post now_1 of 2", "save now_2", "post now_2 of 2", "save now_3", "post now_3 of 1"}));
  delegate.userName = "after";
  answer(3, {503, "", seconds(1)});
  happened();
  Clock::advance(seconds(1));
  EXPECT_EQ(happenedAfterTimer(6).size(), 6u);
  EXPECT_EQ(lastBody("chunk_details", "user_attributes"), Value(Dictionary{{"name", "before"}}));
}

TEST(ChunkInterval, IsAtLeastASecondAndTheDefaultForAnUnusableNumber) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  const struct {
    Value configured;
    double interval;
    bool isUnusable;
  } cases[] = {{nullptr, 30, false},  {0, 30, false},         {0.0, 30, false},        {"soon", 30, false},
               {5, 5, false},         {"7.5", 7.5, false},    {1e6, 1e6, false},       {1e-9, 1, false},
               {0.999, 1, false},     {-1e-9, 30, true},      {-30, 30, true},         {"-1", 30, true},
               {kInfinite, 30, true}, {-kInfinite, 30, true}, {std::nan(""), 30, true}};
  for (const auto& [configured, interval, isUnusable] : cases) {
    const LogCapture log;
    EXPECT_EQ(KLVChunkManager::intervalIn(Dictionary{{"max_fg_chunk_send_time", configured}}), interval)
        << description(configured);
    EXPECT_EQ(log.count("<KLV WARN> max_fg_chunk_send_time is "), isUnusable ? 1U : 0U) << description(configured);
  }
  EXPECT_EQ(KLVChunkManager::intervalIn(std::nullopt), 30);
}

struct LimitedChunkManager : ChunkManager {
  LimitedChunkManager() : ChunkManager(chosen()) {}
  ~LimitedChunkManager() override { KLVHostLimits::choose({}); }
  static const KLVDeliveryRules& chosen() {
    KLVHostLimits::choose({.mostStoredBytes = 1000});
    return KLVDeliveryRules::complete;
  }
  /// Makes the data `beyond` chunks too large.
  void exceedBy(std::uint64_t beyond) { delegate.bytes = 1000 + beyond * Delegate::kBytesOfAChunk; }
};

TEST_F(LimitedChunkManager, EvictsWaitingChunksOfEarlierSessionsFirstAndNoneInFlight) {
  flushChunks(10);
  EXPECT_EQ(happened(), resent(1, 8)) << "eight are in flight, two are queued";
  addEvents("now", 1, 3);
  EXPECT_EQ(happened(), Texts{"save now_1"});
  addEvents("now", 4, 4);
  EXPECT_EQ(happened(), Texts{"save now_2"});
  exceedBy(9);
  EXPECT_EQ(happened(), (Texts{"evict old_9", "evict old_10", "evict now_1"})) << "the newest chunk stays";
  answer(8, {503, ""});
  EXPECT_EQ(happened(), (Texts{"post now_2 of 1", "evict old_1", "evict old_2", "evict old_3", "evict old_4",
                               "evict old_5", "evict old_6"}))
      << "the failed ones can go now; no evicted chunk is posted";
  std::promise<void> posted;
  manager->deliverNow(false, [&](bool) { posted.set_value(); });
  posted.get_future().wait();
  EXPECT_EQ(delegate.done, resent(7, 8));
}

TEST_F(LimitedChunkManager, AnAcceptanceThatCannotBeStoredSettlesItsChunkOnce) {
  flushChunks(2);
  EXPECT_EQ(happened(), resent(1, 2));
  delegate.failsTransactions = true;
  answer(1);
  happened();
  delegate.failsTransactions = false;
  exceedBy(1);
  EXPECT_EQ(happened(), Texts{"evict old_1"});
  EXPECT_EQ(happened(), Texts()) << "the other chunk is still in flight";
  answer(1);
  EXPECT_EQ(happened(), Texts{"purge old"});
}

}  // namespace
}  // namespace kelvo::test
