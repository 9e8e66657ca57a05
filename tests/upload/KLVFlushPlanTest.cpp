#include "upload/KLVFlushPlan.h"

#include <gtest/gtest.h>

namespace kelvo::test {
namespace {

using Ids = std::set<std::string>;

KLVChunkRow row(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end, bool sent = true) {
  return {sid, cid, start, end, sent};
}

struct Case {
  const char* name;
  std::vector<KLVChunkRow> rows;
  std::vector<std::string> withTable;
  std::optional<Ids> cut;
};

const Case kCases[] = {
    {"no earlier session is stored: nothing to flush", {row("now", 1, 1, 5)}, {"now"}, std::nullopt},
    {"more sessions than sessions with rows: those without a row", {row("A", 1, 1, 5)}, {"A", "B", "now"}, Ids{"B"}},
    {"as many sessions: all", {row("A", 2, 6, 9), row("B", 1, 1, 3)}, {"now", "A", "B"}, Ids{"A", "B"}},
    {"rows of the running session do not count", {row("A", 1, 1, 5), row("now", 1, 1, 5)}, {"A", "now"}, Ids{"A"}},
    {"fewer sessions than sessions with rows: none", {row("A", 1, 1, 5), row("gone", 1, 1, 2)}, {"A", "now"}, Ids{}},
};

TEST(FlushPlan, TwoCountsDecideWhichSessionsAreCut) {
  for (const Case& each : kCases) {
    const auto earlier = earlierSessions({each.rows, each.withTable, {}, {}}, {"now", "restarted"});
    EXPECT_EQ(sessionsToCutByCounts(earlier), each.cut) << each.name;
  }
}

TEST(FlushPlan, EarlierSessionsAreAllButTheRunningOnes) {
  const auto earlier = earlierSessions({{row("2_7", 1, 1, 5, false)}, {"now", "2_7", "1"}, {"1", "3"}, {"4", "later"}},
                                       {"now", "later"});
  ASSERT_EQ(earlier.size(), 4u);
  EXPECT_EQ(earlier[0].sid, "1");
  EXPECT_TRUE(earlier[0].hasTable && earlier[0].rows.empty());
  EXPECT_EQ(earlier[1].sid, "2_7");
  EXPECT_TRUE(earlier[1].hasTable && earlier[1].rows.size() == 1);
  EXPECT_EQ(earlier[2].sid, "3");
  EXPECT_FALSE(earlier[2].hasTable);
  EXPECT_EQ(earlier[3].sid, "4");
}

TEST(FlushPlan, ACutFollowsTheGreatestNumberAndTheGreatestEnd) {
  const struct {
    std::vector<KLVChunkRow> rows;
    std::uint64_t chunk, event;
    bool accepted;
  } cases[] = {
      {{}, 1, 1, false},
      {{row("A", 2, 6, 9), row("A", 1, 1, 5)}, 3, 10, true},
      {{row("A", 1, 1, 5), row("A", 2, 6, 5)}, 3, 6, true},  // the second chunk has no events
      {{row("A", 1, 1, 0, false)}, 2, 1, false},
      {{row("A", 1, 1, 5), row("A", 2, 6, 9, false), row("A", 3, 10, 11)}, 4, 12, false},
  };
  for (const auto& each : cases) {
    const KLVEarlierSession session{"A", true, each.rows};
    EXPECT_EQ(session.nextChunk(), each.chunk);
    EXPECT_EQ(session.nextEvent(), each.event);
    EXPECT_EQ(session.isAccepted(), each.accepted);
  }
}

}  // namespace
}  // namespace kelvo::test
