#include "upload/KLVChunkRanges.h"

#include <gtest/gtest.h>

#include <limits>
#include <utility>

#include "records/KLVStoredEvent.h"

namespace kelvo::test {
namespace {

using Ranges = std::vector<KLVChunkRanges::Range>;

TEST(ChunkRanges, EndAtBothLimitsAndAtGaps) {
  constexpr auto kNoLimit = std::numeric_limits<std::size_t>::max();
  const struct {
    const char* name;
    std::uint64_t mostEvents;
    std::size_t mostText;
    std::vector<std::pair<std::uint64_t, std::size_t>> events;  ///< index and length
    Ranges ranges;
  } cases[] = {
      {"no event", 3, 10, {}, {}},
      {"no limit", kNoLimit, kNoLimit, {{4, 9}, {5, 9}, {6, 9}}, {{4, 6}}},
      {"the most events", 2, kNoLimit, {{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}}, {{1, 2}, {3, 4}, {5, 5}}},
      {"the most text", 9, 10, {{1, 6}, {2, 4}, {3, 7}, {4, 4}}, {{1, 2}, {3, 3}, {4, 4}}},
      {"an event longer than all", 9, 10, {{1, 1}, {2, 11}, {3, 1}, {4, 0}}, {{1, 1}, {2, 2}, {3, 4}}},
      {"deleted events", kNoLimit, kNoLimit, {{4, 1}, {5, 1}, {8, 1}}, {{4, 5}, {8, 8}}},
  };
  for (const auto& each : cases) {
    KLVChunkRanges ranges(each.mostEvents, each.mostText);
    for (const auto& [index, text] : each.events) ranges.addEvent(index, text);
    EXPECT_EQ(ranges.ranges(), each.ranges) << each.name;
  }
}

TEST(ChunkRanges, CountTheStoredTextOfAnEvent) {
  KLVChunkRanges ranges(9, 10);
  for (const std::uint64_t index : {1U, 2U, 3U}) {
    ranges.addEvent(index, KLVStoredEvent{.id = "1234", .type = "App", .attributes = "{}"}.text());
  }
  EXPECT_EQ(ranges.ranges(), (Ranges{{1, 1}, {2, 2}, {3, 3}}));
}

}  // namespace
}  // namespace kelvo::test
