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
    {"nothingButTheCurrentSession", {row("A", 1, 1, 5)}, {"now"}, std::nullopt},
    {"moreSessionsThanWithRows_thoseWithoutAreCutFromTheStart",
     {row("A", 1, 1, 5)},
     {"A", "B", "C", "now"},
     {{{"B", 1, 1}, {"C", 1, 1}, {"now", 1, 1}}}},
    {"moreSessions_theCurrentOneOnlyWithoutARow",
     {row("now", 1, 1, 5)},
     {"A", "B", "now"},
     {{{"A", 1, 1}, {"B", 1, 1}}}},
    {"asMany_eachIsCutBehindItsLastChunk",
     {row("A", 2, 6, 9), row("A", 1, 1, 5), row("B", 1, 1, 3)},
     {"now", "A", "B"},
     {{{"A", 3, 10}, {"B", 2, 4}}}},
    {"asMany_onEqualEndsTheFirstRowCounts", {row("A", 3, 1, 5), row("A", 4, 1, 5)}, {"A", "now"}, {{{"A", 4, 6}}}},
    {"fewerSessionsThanWithRows_noneIsCut",
     {row("A", 1, 1, 5), row("gone", 1, 1, 2)},
     {"A", "now"},
     {std::vector<KLVChunkCut>{}}},
};

class FlushPlan : public testing::TestWithParam<Case> {};

TEST_P(FlushPlan, CutsEarlierSessionsByTheirCounts) {
  EXPECT_EQ(cutsOfEarlierSessions(GetParam().rows, GetParam().sessions, "now"), GetParam().cuts);
}

INSTANTIATE_TEST_SUITE_P(Table, FlushPlan, testing::ValuesIn(kCases), [](const auto& test) { return test.param.name; });

TEST(FlushPlan, OnlySessionsWhoseEveryChunkWasAcceptedAreDelivered) {
  EXPECT_EQ(deliveredSessions({row("A", 1, 1, 5), row("B", 1, 1, 2), row("A", 2, 6, 7, false), row("C", 1, 1, 1, false),
                               row("C", 2, 2, 2), row("D", 1, 1, 1)}),
            (std::vector<std::string>{"B", "D"}));
}

}  // namespace
}  // namespace kelvo::test
