#include <algorithm>
#include <fstream>
#include <set>

#include "manners/Manners.h"
#include "road/Road.h"

namespace kelvo::test {
namespace {

constexpr std::int64_t kLongAbsence = 2000;  // seconds; ends a session

/// Tests of processes that live long, or too briefly to reach the service.
class LongLife : public Road {
 protected:
  LongLife() : port_(service.start()) { writeFileForTest(clock(), std::string(sizeof shift_, '\0')); }

  Launch launch(const std::string& wait = "10") const {
    return Road::launch({"--app-id", "shop", "--delivery", "complete", "--wait", wait},
                        movableClock(KELVO_TEST_CLOCK_LIBRARY, clock()));
  }
  /// Moves the wall clock of all launches.
  void beAway() {
    shift_ += kLongAbsence;
    std::fstream(clock(), std::ios::in | std::ios::out | std::ios::binary)
        .write(reinterpret_cast<const char*>(&shift_), sizeof shift_);
  }
  void comeBack() { ASSERT_EQ(service.start(port_), port_); }

  /// Returns the names of the events that arrived, sorted. A chunk that arrived again counts once.
  [[nodiscard]] Texts arrivedOnce() const {
    std::multiset<std::string> names;
    std::set<std::string> chunks;
    for (const Value& body : service.chunks()) {
      if (!chunks.insert(description(at(body, {"chunk_meta", "id"}))).second) continue;
      const Value events = at(body, {"chunk_details", "app_events"});
      for (const Value& event : *events.get<Array>()) names.insert(description(at(event, {"name"})));
    }
    names.erase("klv_app_opened");
    return {names.begin(), names.end()};
  }

 private:
  static std::string clock() { return home() + "/clock"; }

  int port_;
  std::int64_t shift_ = 0;  // seconds
};

// --- A suspend

TEST_F(LongLife, ASuspendDuringEightUploadsLosesNothing) {
  Texts names;
  service.answer("/chunks", 500);
  auto refused = launch();
  refused.untilReady();
  for (std::size_t i = 1; i <= 8; ++i) {
    refused.log(names.emplace_back("Event" + std::to_string(i))).call("willResignActive");
    ASSERT_TRUE(service.waitFor(i, "/chunks"));
  }
  EXPECT_EQ(refused.quit(), 3);

  const auto earlier = service.requests("/chunks").size();
  service.answer("/chunks", Script::never());
  auto host = launch();
  host.untilReady();
  constexpr std::size_t kConnections = 6;  // two more uploads wait for a connection
  ASSERT_TRUE(service.waitFor(earlier + kConnections, "/chunks")) << host.errors();
  host.log(names.emplace_back("Evening"));
  beAway();
  service.stop();  // a suspend ends all connections
  service.answerNormally("/chunks");
  comeBack();
  host.call("didBecomeActive").log(names.emplace_back("Morning")).call("willResignActive");
  EXPECT_TRUE(eventually([&] { return arrivedOnce().size() >= names.size(); })) << host.errors();
  EXPECT_EQ(host.quit(), 0) << host.errors();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(arrivedOnce(), names);
}

// --- Several processes, and short ones

TEST_F(LongLife, EventsOfASecondProcessThatEndsAfterTheFirstArriveAfterTheNextLaunch) {
  auto first = launch();
  first.untilReady().log("Of the first");
  ASSERT_TRUE(first.waitForError("initialized!"));
  auto second = launch("0.2");
  second.untilReady().log("Of the second").log("Of the second, too").call("willResignActive");
  ASSERT_TRUE(second.waitForError("<KLV ERROR> Process ")) << second.errors();
  EXPECT_EQ(first.quit(), 0) << first.errors();
  second.quit();
  for (int launches = 0; launches < 2; ++launches) {
    EXPECT_EQ(launch().quit(), 0);
    EXPECT_EQ(arrivedOnce(), (Texts{"Of the first", "Of the second", "Of the second, too"})) << second.errors();
  }
}

TEST_F(LongLife, EventsOfTwentyShortProgramsThatNeverReachTheServiceArriveOnceAtTheNextLaunch) {
  Program::Environment rules = kWithoutLeakCheck;
  rules["KELVO_BUNDLE"] = bundle("", "<key>KelvoDelivery</key><string>complete</string>");
  Texts expected;
  for (const std::string state : {"hangs", "is away"}) {
    SCOPED_TRACE(state);
    moveToFreshHome(state);
    service.answer("/v2", Script::never());
    if (state == "is away") service.stop();
    for (int i = 0; i < 20; ++i) {
      Program brief = run({KELVO_MANNERS_HOST}, rules);
      brief.writeLine("start");
      brief.writeLine(expected.emplace_back(state + std::to_string(i)));
      brief.writeLine("background");
      brief.closeInput();
      EXPECT_EQ(brief.wait(), 0);
    }
    service.answerNormally("/v2");
    comeBack();
    auto next = launch();
    EXPECT_EQ(next.untilReady().quit(), 0) << next.errors();
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(arrivedOnce(), expected) << next.errors();
  }
}

}  // namespace
}  // namespace kelvo::test
