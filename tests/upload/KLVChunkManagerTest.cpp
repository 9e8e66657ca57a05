#include "upload/KLVChunkManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <iterator>
#include <map>
#include <utility>

namespace kelvo::test {
namespace {

using Texts = std::vector<std::string>;

/// A database that only counts events, and a service that answers when the test says so.
class Delegate final : public KLVChunkManagerDelegate {
 public:
  std::map<std::string, std::uint64_t> sessions;
  std::vector<std::shared_ptr<KLVChunkMetaInfo>> rows;
  bool refusesToPost = false;

  Texts done;  ///< the calls of the manager, in order
  std::vector<HTTPCompletion> unanswered;
  std::shared_ptr<std::promise<void>> reached;  ///< kept by the next cut of the current session

  std::string applicationIdentifier() override { return "shop"; }
  std::shared_ptr<KLVSession> session() override { return std::make_shared<KLVSession>("now"); }
  std::shared_ptr<KLVUser> user() override { return nullptr; }
  std::shared_ptr<KLVAppInfo> appInfo() override { return nullptr; }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return nullptr; }
  std::shared_ptr<KLVSDKInfo> sdkInfo() override { return nullptr; }
  void registerIdentifer(const std::string&, const std::shared_ptr<KLVEventListener>&) override {}
  void dispatchEvent(const std::shared_ptr<KLVEvent>&) override {}
  void waitUntilDelivered() override {}
  std::uint64_t numberOfEventsWithIdentifier(const std::optional<std::string>& id) override {
    const std::uint64_t count = sessions[*id];
    if (id == "now" && reached) std::exchange(reached, nullptr)->set_value();
    return count;
  }
  std::vector<Dictionary> getEventsBetween(std::uint64_t start, std::uint64_t end, const std::optional<std::string>& id,
                                           std::optional<KLVEventType>) override {
    const std::uint64_t behind = std::max(start, std::min(end, sessions[*id]) + 1);
    return std::vector<Dictionary>(behind - start, {{"id", "e"}, {"type", "App"}});
  }
  Array retrieveAggregateEventsWithSessionIdentifier(const std::string&) override { return {}; }
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::optional<std::string>&) override {
    return nullptr;
  }
  std::vector<std::string> getSessions() override {
    std::vector<std::string> all;
    for (const auto& session : sessions) all.push_back(session.first);
    return all;
  }
  std::vector<std::shared_ptr<KLVChunkMetaInfo>> retrieveChunkMetaInfo() override { return rows; }
  void saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) override {
    done.push_back("save " + meta->identifier());
  }
  void updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) override {
    done.push_back("update " + meta->identifier());
  }
  void updateChunkMetaStatus(const std::shared_ptr<KLVInfo>&) override {}
  void deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>&) override {}
  void deleteSession(const std::optional<std::string>& id) override {
    sessions.erase(*id);
    done.push_back("purge " + *id);
  }
  void deleteItemAtPath(const std::optional<std::string>&) override {}
  void deleteAggregateEventsWithSessionId(const std::optional<std::string>&) override {}
  void writeTogether(const std::function<void()>& deletions) override { deletions(); }
  void postDataToURL(const std::optional<std::string>&, const std::optional<Dictionary>& body,
                     const std::optional<Dictionary>&, HTTPCompletion completion) override {
    const auto& details = *(*body)["chunk_details"].get<Dictionary>();
    const auto events = details["app_events"].get<Array>()->size();
    done.push_back("post " + description((*(*body)["chunk_meta"].get<Dictionary>())["id"]) + " of " +
                   std::to_string(events));
    if (!refusesToPost) unanswered.push_back(std::move(completion));
  }
};

class ChunkManager : public testing::Test {
 protected:
  /// Cuts the current session a few times, so that the manager's queue is empty afterwards. Returns the calls since the
  /// last time.
  Texts happened() {
    for (int pass = 0; pass < 3; ++pass) {  // a slot that becomes free queues another task
      auto cut = (delegate.reached = std::make_shared<std::promise<void>>())->get_future();
      manager->sendCurrentChunk();
      cut.wait();
    }
    return std::exchange(delegate.done, {});
  }
  void answer(std::size_t count) {
    auto& all = delegate.unanswered;
    const auto end = all.begin() + static_cast<std::ptrdiff_t>(std::min(count, all.size()));
    const std::vector<HTTPCompletion> now(std::make_move_iterator(all.begin()), std::make_move_iterator(end));
    all.erase(all.begin(), end);  // before the first completion is destroyed, because the manager then posts more
    for (const auto& each : now) each({}, HTTPResponse{200, ""}, {});
  }
  void addRow(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end, bool sent) {
    delegate.rows.push_back(std::make_shared<KLVChunkMetaInfo>(sid, cid, start, end, Array{1}));
    delegate.rows.back()->setInfo(sent, "status");
  }
  /// Flushes an earlier session with `count` unaccepted chunks of ten events each.
  void flushChunks(std::uint64_t count) {
    delegate.sessions = {{"now", 0}, {"old", count * 10}};
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

  Delegate delegate;
  std::shared_ptr<KLVChunkManager> manager = KLVChunkManager::initWithConfiguration({}, delegate);
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
  delegate.sessions["now"] = 5;
  EXPECT_EQ(happened(), Texts{"save now_1"});
  delegate.sessions["now"] = 7;
  EXPECT_EQ(happened(), Texts{"save now_2"}) << "the first cut covers the first five events";
  answer(2);
  EXPECT_EQ(happened(), (Texts{"post now_1 of 5", "post now_2 of 2"}));
}

TEST_F(ChunkManager, PurgesSessionsAfterTheirLastCutIsReadAndBeforeOthersAreResent) {
  delegate.sessions = {{"now", 0}, {"old", 10}};
  addRow("old", 1, 1, 10, false);
  Texts cuts, purges;
  for (const std::string sid : {"a", "b", "c", "d", "e", "f", "g", "h", "i"}) {
    delegate.sessions[sid] = 3;
    addRow(sid, 1, 1, 2, true);
    cuts.push_back("save " + sid + "_2");
    cuts.push_back("post " + sid + "_2 of 1");
    purges.push_back("purge " + sid);
  }
  const std::string lastCut = cuts.back();
  cuts.pop_back();
  manager->flushPreviousChunks();
  EXPECT_EQ(happened(), cuts);
  answer(1);
  EXPECT_EQ(happened(), Texts{lastCut}) << "the session is not purged yet";
  answer(8);
  purges.insert(purges.end(), {"update old_1", "post old_1 of 10"});
  EXPECT_EQ(happened(), purges);
}

TEST_F(ChunkManager, ARequestThatCannotBeFormedHoldsNoSlot) {
  delegate.refusesToPost = true;
  flushChunks(20);
  EXPECT_EQ(happened().size(), 40u);
}

}  // namespace
}  // namespace kelvo::test
