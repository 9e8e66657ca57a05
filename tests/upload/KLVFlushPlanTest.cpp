#include "upload/KLVFlushPlan.h"

#include <gtest/gtest.h>

namespace kelvo::test {
namespace {

KLVChunkRow row(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end, bool sent = true) {
  return {sid, cid, start, end, sent};
}

struct Case {
  const char* name;
  std::vector<KLVChunkRow> rows;
  std::vector<std::string> sessions;
  std::optional<std::vector<KLVChunkCut>> cuts;
};

const Case kCases[] = {
    {"only the current session is stored: nothing to flush", {row("A", 1, 1, 5)}, {"now"}, std::nullopt},
    {"more sessions than sessions with rows: those without a row are cut from the first event",
     {row("A", 1, 1, 5)},
     {"A", "B", "now"},
     {{{"B", 1, 1, false}, {"now", 1, 1, false}}}},
    {"as many sessions: each is cut after its last chunk",
     {row("A", 2, 6, 9), row("A", 1, 1, 5), row("B", 1, 1, 3)},
     {"now", "A", "B"},
     {{{"A", 3, 10, true}, {"B", 2, 4, true}}}},
    {"as many sessions: the first row of equal ends counts",
     {row("A", 3, 1, 5), row("A", 4, 1, 5)},
     {"A", "now"},
     {{{"A", 4, 6, true}}}},
    {"a session id with an underscore stays whole", {row("A_7", 2, 6, 9)}, {"A_7", "now"}, {{{"A_7", 3, 10, true}}}},
    {"fewer sessions than sessions with rows: none is cut",
     {row("A", 1, 1, 5), row("gone", 1, 1, 2)},
     {"A", "now"},
     {std::vector<KLVChunkCut>{}}},
};

TEST(FlushPlan, TwoCountsDecideWhichSessionsAreCut) {
  for (const Case& each : kCases) {
    EXPECT_EQ(cutsOfEarlierSessions(each.rows, each.sessions, "now"), each.cuts) << each.name;
  }
}

TEST(FlushPlan, OnlySessionsWithAllChunksAcceptedArePurged) {
  EXPECT_EQ(deliveredSessions({row("A", 1, 1, 5), row("B", 1, 1, 2), row("A", 2, 6, 7, false), row("C", 1, 1, 1, false),
                               row("C", 2, 2, 2), row("D", 1, 1, 1)}),
            (std::vector<std::string>{"B", "D"}));
}

}  // namespace
}  // namespace kelvo::test
