#include <unistd.h>

#include <csignal>

#include "road/Road.h"
#include "support/DisplayServer.h"

namespace kelvo::test {
namespace {

struct Recipe {
  const char* name;
  const char* event;
  bool needsDisplay;
};

class Recipes : public Road, public testing::WithParamInterface<Recipe> {
 protected:
  /// Returns the names of the events of `kind` that arrived, in order.
  [[nodiscard]] Texts arrived(const char* kind) const {
    Texts all;
    for (const Value& chunk : service.chunks()) {
      const Array events = at(chunk, {"chunk_details", kind}).asArray().value_or(Array());
      for (const Value& event : events) all.push_back(description(at(event, {"name"})));
    }
    return all;
  }
};

TEST_P(Recipes, DeliverTheirEventAndTheirStretch) {
  const auto& [name, event, needsDisplay] = GetParam();
  const std::string program = std::string(KELVO_RECIPES) + "/recipe-" + name;
  if (::access(program.c_str(), X_OK) != 0) GTEST_SKIP() << name << " is not installed";
  const auto display = needsDisplay ? DisplayServer::start(DisplayServer::Manager::openbox) : nullptr;
  if (needsDisplay && display == nullptr) GTEST_SKIP() << "there is no Xvfb or openbox";

  Program::Environment environment = {{"TERM", "xterm"}, {"GSK_RENDERER", "cairo"}, {"KELVO_LOG", "debug"}};
  if (display != nullptr) environment.merge(display->environment());
  Program running = run({program}, environment);
  ASSERT_TRUE(eventually([&] {
    const auto events = storedEvents();
    return std::count(events.begin(), events.end(), "FOREGROUND") > 0;
  })) << running.errors();
  if (name == std::string("ncurses")) {
    running.writeLine("xq");
  } else {
    running.kill(SIGTERM);
  }
  EXPECT_EQ(running.wait(), 0) << running.errors();
  const auto events = arrived("app_events");
  EXPECT_EQ(std::count(events.begin(), events.end(), event), 1) << running.errors();
  EXPECT_EQ(arrived("system_events"), (Texts{"FOREGROUND", "BACKGROUND"}));
}

INSTANTIATE_TEST_SUITE_P(Toolkits, Recipes,
                         testing::Values(Recipe{"sdl2", "Level started", true}, Recipe{"gtk4", "Document opened", true},
                                         Recipe{"wxwidgets", "Document opened", true},
                                         Recipe{"ncurses", "Key pressed", false}, Recipe{"service", "Stopped", false}),
                         [](const auto& recipe) { return recipe.param.name; });

}  // namespace
}  // namespace kelvo::test
