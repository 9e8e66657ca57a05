#include "journal/KLVSequenceSet.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace kelvo::test {
namespace {

TEST(KLVSequenceSet, HoldsWhatASetOfNumbersHolds) {
  std::mt19937 random(1);
  std::set<std::uint64_t> numbers;
  KLVSequenceSet set;
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t first = random() % 300, end = first + random() % 8;
    const bool adds = random() % 3 > 0;
    adds ? set.add(first, end) : set.remove(first, end);
    for (auto number = first; number < end; ++number) adds ? void(numbers.insert(number)) : void(numbers.erase(number));
    std::size_t ranges = 0;
    for (std::uint64_t number = 0; number < 310; ++number) {
      ASSERT_EQ(set.contains(number), numbers.contains(number)) << number;
      if (numbers.contains(number) && !numbers.contains(number - 1)) ++ranges;
    }
    ASSERT_EQ(set.size(), ranges) << "ranges never touch";
    ASSERT_EQ(set.largest(), numbers.empty() ? 0 : *numbers.rbegin());
    ASSERT_EQ(KLVSequenceSet::fromText(set.text()), set) << set.text();
  }
}

TEST(KLVSequenceSet, ItsTextIsShortAndABadOneIsNone) {
  KLVSequenceSet set;
  set.add(1, 4711);
  set.add(4720);
  set.add(4731, 4735);
  EXPECT_EQ(set.text(), "1+4710 9 10+4");
  EXPECT_TRUE(KLVSequenceSet::fromText("").value().empty());
  for (const char* bad : {" ", "1 ", "1  2", "x", "-1", "1+", "1+0", "1+2 0", "1,2", "18446744073709551615+2",
                          "18446744073709551616", "1+18446744073709551615 9"}) {
    EXPECT_FALSE(KLVSequenceSet::fromText(bad)) << bad;
  }
}

}  // namespace
}  // namespace kelvo::test
