#include <filesystem>

#include "road/Road.h"

namespace kelvo::test {
namespace {

class Shop : public Road {
 protected:
  [[nodiscard]] Program run(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {KELVO_QT_SHOP_DRIVER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return Program(command, {{"KELVO_HOME", homeOfLaunches()},
                             {"KELVO_SERVER_BASE_URL", service.baseURL()},
                             {"QT_QPA_PLATFORM", "offscreen"}});
  }
  /// Blocks until the start is complete (its last event is klv_app_opened) and the application is in the foreground.
  [[nodiscard]] bool waitUntilInForeground() const {
    const std::string database = homeOfLaunches() + "/Documents/kelvo-db/v1.0.0/com.kelvo.sessions.sqlite";
    return eventually([&] {
      const auto events = std::filesystem::exists(database) ? storedEvents() : std::vector<std::string>();
      const auto has = [&](const char* id) { return std::count(events.begin(), events.end(), id) > 0; };
      return has("klv_app_opened") && has("FOREGROUND");
    });
  }
  /// Returns the value at `key` of every event of `kind` that arrived, in order.
  [[nodiscard]] std::vector<std::string> arrived(const char* kind, std::string_view key = "name") const {
    std::vector<std::string> all;
    for (const Value& chunk : service.chunks()) {
      const Array events = at(chunk, {"chunk_details", kind}).asArray().value_or(Array());
      for (const Value& event : events) all.push_back(description(at(event, {key})));
    }
    return all;
  }
};

TEST_F(Shop, AVisitIsDeliveredAsScreensEventsAndActivity) {
  Program visit = run({});
  ASSERT_TRUE(service.waitForChunks(1)) << visit.errors();
  const std::vector<std::string> screens = {"ProductList", "ProductDetail", "Basket",
                                            "ProductList", "Settings",      "ProductList"};
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), screens) << visit.errors();
  const std::vector<std::string> titles = {"Products", "Product", "Basket", "Products", "Settings", "Products"};
  EXPECT_EQ(arrived("navigation_events"), titles);
  const auto durations = arrived("navigation_events", "duration");
  ASSERT_EQ(durations.size(), screens.size());
  EXPECT_GE(Value(durations[0]).asInt64(), 1) << "the customer looked at the list for more than a second";
  EXPECT_LE(Value(durations[1]).asInt64(), 1);
  auto events = arrived("app_events");
  std::erase(events, "klv_app_opened");
  EXPECT_EQ(events, (std::vector<std::string>{"Add to basket", "Check out", "Settings opened"}));
  EXPECT_EQ(arrived("system_events"), (std::vector<std::string>{"FOREGROUND", "BACKGROUND"}));

  visit.writeLine("");
  ASSERT_TRUE(service.waitForChunks(2)) << visit.errors();
  EXPECT_EQ(arrived("system_events"),
            (std::vector<std::string>{"FOREGROUND", "BACKGROUND", "FOREGROUND", "BACKGROUND"}));
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
    opened.closeInput();  // it exits in the foreground, which also ends the screen; the events stay in the database
    EXPECT_EQ(opened.wait(), 0) << steps << opened.errors();
    EXPECT_EQ(count(opened.errors(), "Ignoring screen notification"), 0U) << steps << opened.errors();
    auto events = storedEvents();
    std::erase(events, "klv_app_opened");
    EXPECT_EQ(events, (std::vector<std::string>{"FOREGROUND", "BACKGROUND", "ProductList"})) << steps;
  }
}

}  // namespace
}  // namespace kelvo::test
