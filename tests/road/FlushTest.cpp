#include <chrono>

#include "road/Road.h"

namespace kelvo::test {
namespace {

/// Hosts that wait for their flush, by lines for manners/host/main.cpp.
struct Host {
  const char* name;
  Texts lines;
  const char* hanging;   ///< a path that the service never answers, empty for none
  const char* output;    ///< what the host prints first: the outcome's number, and the reason
  std::size_t arrivals;  ///< of the event, before the host ends
};

class FlushingHost : public Road, public testing::WithParamInterface<Host> {};

TEST_P(FlushingHost, NeverHangs) {
  const Host& given = GetParam();
  if (*given.hanging != '\0') service.answer(given.hanging, Script::never());
  const auto begin = std::chrono::steady_clock::now();
  auto host = run({KELVO_MANNERS_HOST}, kWithoutLeakCheck);
  for (const auto& line : given.lines) {
    if (line == "...") {
      ASSERT_TRUE(host.waitForError("initialized!")) << host.errors();
    } else {
      host.writeLine(line);
    }
  }
  if (given.arrivals > 0) {
    ASSERT_TRUE(host.waitForOutput("flushed"));
  }
  EXPECT_EQ(arrivedEvents().size(), given.arrivals);
  host.closeInput();
  EXPECT_EQ(host.wait(), 0) << host.errors();
  EXPECT_EQ(host.output().rfind(given.output, 0), 0u) << host.output();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

const Host kHosts[] = {
    {"beforeTheStartEnds", {"start", "Event", "flush 30000"}, "", "flushed 0", 1},
    {"duringExit",
     {"flushAtExit", "start", "...", "Event", "background"},
     "/chunks",
     "flushed 4 the process is exiting",
     0},
    {"inTheLogSink", {"start", "...", "sink flush 3600000", "Event", "pause 300000"}, "", "flushed 5", 0},
    {"withoutAStart", {"Event", "flush 100"}, "", "flushed 4 the library has not been started", 0},
    {"whileTheStartHangs",
     {"start", "Event", "flush 100"},
     "/enabled-status",
     "flushed 1 the deadline passed before the start",
     0},
};
INSTANTIATE_TEST_SUITE_P(, FlushingHost, testing::ValuesIn(kHosts), [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace kelvo::test
