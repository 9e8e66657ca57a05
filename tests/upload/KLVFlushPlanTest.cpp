#include "upload/KLVFlushPlan.h"

#include <gtest/gtest.h>

namespace kelvo::test {
namespace {

KLVChunkRow row(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end, bool sent = true) {
  return {sid + "_" + std::to_string(cid), sid, cid, start, end, sent};
}

struct Case {
  const char* name;
  std::vector<KLVChunkRow> rows;
  std::vector<std::string> sessions;
  std::optional<std::vector<KLVChunkCut>> cuts;
};

const Case kCases[] = {
    {"nothing but the current session", {row("A", 1, 1, 5)}, {"now"}, std::nullopt},
    {"more sessions than with rows: those without are cut from the start",
     {row("A", 1, 1, 5)},
     {"A", "B", "now"},
     {{{"B", 1, 1}, {"now", 1, 1}}}},
    {"as many: each is cut behind its last chunk",
     {row("A", 2, 6, 9), row("A", 1, 1, 5), row("B", 1, 1, 3)},
     {"now", "A", "B"},
     {{{"A", 3, 10}, {"B", 2, 4}}}},
    {"as many: on equal ends the first row counts",
     {row("A", 3, 1, 5), row("A", 4, 1, 5)},
     {"A", "now"},
     {{{"A", 4, 6}}}},
    {"fewer sessions than with rows: none is cut",
     {row("A", 1, 1, 5), row("gone", 1, 1, 2)},
     {"A", "now"},
     {std::vector<KLVChunkCut>{}}},
};

TEST(FlushPlan, CutsEarlierSessionsByTheirCounts) {
  for (const Case& each : kCases) {
    EXPECT_EQ(cutsOfEarlierSessions(each.rows, each.sessions, "now"), each.cuts) << each.name;
  }
}

TEST(FlushPlan, OnlySessionsWhoseEveryChunkWasAcceptedAreDelivered) {
  EXPECT_EQ(deliveredSessions({row("A", 1, 1, 5), row("B", 1, 1, 2), row("A", 2, 6, 7, false), row("C", 1, 1, 1, false),
                               row("C", 2, 2, 2), row("D", 1, 1, 1)}),
            (std::vector<std::string>{"B", "D"}));
}

}  // namespace
}  // namespace kelvo::test
