#include <csignal>
#include <filesystem>

#include "road/Road.h"
#include "support/DisplayServer.h"

namespace kelvo::test {
namespace {

class Shop : public Road {
 protected:
  [[nodiscard]] Program run(const Texts& arguments,
                            Program::Environment platform = {{"QT_QPA_PLATFORM", "offscreen"}}) const {
    Texts command = {KELVO_QT_SHOP_DRIVER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return Road::run(command, std::move(platform));
  }
  /// Blocks until the start is complete (its last event is klv_app_opened) and the application is in the foreground.
  [[nodiscard]] bool waitUntilInForeground() const {
    const std::string database = homeOfLaunches() + "/Documents/kelvo-db/v1.0.0/com.kelvo.sessions.sqlite";
    return eventually([&] {
      const auto events = std::filesystem::exists(database) ? storedEvents() : Texts();
      const auto has = [&](const char* id) { return std::count(events.begin(), events.end(), id) > 0; };
      return has("klv_app_opened") && has("FOREGROUND");
    });
  }
  /// Returns the names of the stored events, without that of the launch.
  [[nodiscard]] Texts storedByHost() const {
    auto events = storedEvents();
    std::erase(events, "klv_app_opened");
    return events;
  }
};

TEST_F(Shop, AVisitIsDeliveredAsScreensEventsAndActivity) {
  Program visit = run({});
  // A gap, if reported at once, would be a BACKGROUND and a FOREGROUND. The second window shows the same screen.
  for (const char* word : {"second", "close", "gap", "away"}) visit.writeLine(word);
  ASSERT_TRUE(service.waitForChunks(1)) << visit.errors();
  const Texts screens = {"ProductList", "ProductDetail", "Basket", "ProductList", "Settings", "ProductList"};
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), screens) << visit.errors();
  const Texts titles = {"Products", "Product", "Basket", "Products", "Settings", "Products"};
  EXPECT_EQ(arrived("navigation_events"), titles);
  const auto durations = arrived("navigation_events", "duration");
  ASSERT_EQ(durations.size(), screens.size());
  EXPECT_GE(Value(durations[0]).asInt64(), 1) << "the customer looked at the list for more than a second";
  EXPECT_LE(Value(durations[1]).asInt64(), 1);
  auto events = arrived("app_events");
  std::erase(events, "klv_app_opened");
  EXPECT_EQ(events, (Texts{"Add to basket", "Check out", "Settings opened"}));
  EXPECT_EQ(arrived("system_events"), (Texts{"FOREGROUND", "BACKGROUND"}));

  visit.writeLine("back");
  visit.writeLine("away");
  ASSERT_TRUE(service.waitForChunks(2)) << visit.errors();
  EXPECT_EQ(arrived("system_events"), (Texts{"FOREGROUND", "BACKGROUND", "FOREGROUND", "BACKGROUND"}));
  EXPECT_EQ(arrived("navigation_events").size(), screens.size() + 1) << "the screen is reported again after the return";
  visit.closeInput();
  EXPECT_EQ(visit.wait(), 0) << visit.errors();
  EXPECT_EQ(count(visit.errors(), "Ignoring screen notification"), 0U) << visit.errors();
}

TEST_F(Shop, TheFirstScreenAndTheForegroundAreReportedOnceInAnyOrderOfOpening) {
  const std::string allSteps[] = {"ais", "asi", "ias", "isa", "sai", "sia", "waswi", "iwswa", "siwa", "aiwsw"};
  for (const std::string& steps : allSteps) {
    moveToFreshHome(steps);
    Program opened = run({"", steps});
    ASSERT_TRUE(waitUntilInForeground()) << steps << opened.errors();
    opened.closeInput();  // it quits in the foreground, which also ends the screen; the events stay in the database
    EXPECT_EQ(opened.wait(), 0) << steps << opened.errors();
    EXPECT_EQ(count(opened.errors(), "Ignoring screen notification"), 0U) << steps << opened.errors();
    EXPECT_EQ(storedByHost(), (Texts{"FOREGROUND", "BACKGROUND", "ProductList"})) << steps;
  }
}

TEST_F(Shop, APageThatChangesInTheBackgroundWaitsForTheReturn) {
  Program visit = run({"", "ais"});
  ASSERT_TRUE(waitUntilInForeground()) << visit.errors();
  visit.writeLine("away");
  ASSERT_TRUE(service.waitForChunks(1)) << visit.errors();
  for (const char* word : {"basket", "list", "basket", "back", "away"}) visit.writeLine(word);
  ASSERT_TRUE(service.waitForChunks(2)) << visit.errors();
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), (Texts{"ProductList", "Basket"}))
      << "each screen that the user saw counts once";
}

TEST_F(Shop, EveryOrderlyEndEndsTheStretch) {
  const std::pair<const char*, int> allEnds[] = {{"exit", 0}, {"", SIGTERM}, {"", SIGINT}};
  for (const auto& [word, signal] : allEnds) {
    moveToFreshHome(word + std::to_string(signal));
    // std::exit destroys no application object.
    Program opened = run({"", "ais"}, {{"QT_QPA_PLATFORM", "offscreen"}, {"ASAN_OPTIONS", "detect_leaks=0"}});
    ASSERT_TRUE(waitUntilInForeground()) << opened.errors();
    signal != 0 ? opened.kill(signal) : opened.writeLine(word);
    EXPECT_EQ(opened.wait(), 0) << opened.errors();
    EXPECT_EQ(storedByHost(), (Texts{"FOREGROUND", "BACKGROUND", "ProductList"})) << word << signal;
  }
  moveToFreshHome("early");
  EXPECT_EQ(run({"", "aisk"}).wait(), 0) << "a signal before the event loop runs is not lost";
}

TEST_F(Shop, WithoutAWindowManagerAVisibleWindowIsInTheForeground) {
  const auto bare = DisplayServer::start(DisplayServer::Manager::none);
  if (bare == nullptr) GTEST_SKIP() << "there is no Xvfb";
  Program opened = run({"", "ais"}, bare->environment());
  ASSERT_TRUE(waitUntilInForeground()) << opened.errors();
  opened.closeInput();
  EXPECT_EQ(opened.wait(), 0) << opened.errors();
  EXPECT_EQ(storedByHost(), (Texts{"FOREGROUND", "BACKGROUND", "ProductList"}));
}

TEST_F(Shop, UnderAWindowManagerTheFocusCountsAndTwoWindowsOfOneClassAreOneScreen) {
  const auto desktop = DisplayServer::start(DisplayServer::Manager::openbox);
  if (desktop == nullptr) GTEST_SKIP() << "there is no Xvfb or openbox";
  Program first = run({"", "ais"}, desktop->environment());
  ASSERT_TRUE(waitUntilInForeground()) << first.errors();
  for (const char* word : {"second", "close"}) first.writeLine(word);
  moveToFreshHome("other");
  Program other = run({"", "ais"}, desktop->environment());
  ASSERT_TRUE(service.waitForChunks(1)) << "the first one has lost the focus" << first.errors();
  EXPECT_EQ(arrived("system_events"), (Texts{"FOREGROUND", "BACKGROUND"}));
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), Texts{"ProductList"});
  EXPECT_EQ(count(first.errors(), "Ignoring screen notification"), 0U) << first.errors();
}

}  // namespace
}  // namespace kelvo::test
