#include "faults/Faults.h"

namespace kelvo::test {
namespace {

TEST_F(Faults, EventsOfLaunchesThatEndBeforeTheServiceAnswersAreStoredAtTheNextOne) {
  service.answer("/enabled-status", Script::never());
  for (const char* event : {"First", "Second"}) {
    Program brief = host();
    brief.writeLine("start");
    ASSERT_TRUE(service.waitFor(event == std::string("First") ? 1 : 2, "/enabled-status")) << brief.errors();
    brief.writeLine(event);
    brief.closeInput();
    EXPECT_EQ(brief.wait(), 0) << brief.errors();
    EXPECT_EQ(service.chunks().size(), 0U);
  }
  service.answerNormally("/enabled-status");
  expectTheNextLaunchGoesOn();
  EXPECT_EQ(arrived("First"), 1) << "the second launch has kept what the first one left";
  EXPECT_EQ(arrived("Second"), 1);
  expectTheNextLaunchGoesOn();
  EXPECT_EQ(arrived("First"), 1) << "stored once";
}

}  // namespace
}  // namespace kelvo::test
