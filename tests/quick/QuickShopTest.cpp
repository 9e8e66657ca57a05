#include "road/Road.h"
#include "support/DisplayServer.h"

namespace kelvo::test {
namespace {

const Program::Environment kOffscreen = {{"QT_QPA_PLATFORM", "offscreen"}};
const Texts kVisited = {"Products", "Offers", "Products", "Product", "Brewing",
                        "Product",  "Basket", "Products", "Help",    "Products"};

class QuickShop : public Road {
 protected:
  [[nodiscard]] Program shop(const Texts& arguments, const Program::Environment& platform = kOffscreen) const {
    Texts command = {KELVO_QUICK_SHOP_DRIVER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, platform);
  }
};

TEST_F(QuickShop, AVisitIsDeliveredAsScreensEventsAndActivity) {
  Program visit = shop({"visit"});
  visit.writeLine("away");
  ASSERT_TRUE(service.waitForChunks(1)) << visit.errors();
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), kVisited) << visit.errors();
  const Texts titles = {"Products", "Offers", "Products", "Tea cup", "Brewing",
                        "Tea cup",  "Basket", "Products", "Help",    "Products"};
  EXPECT_EQ(arrived("navigation_events"), titles) << "a screen without a title has its name";
  EXPECT_GE(Value(arrived("navigation_events", "duration").at(0)).asInt64(), 1) << "the visit begins with a second";
  EXPECT_EQ(arrivedEvents(), (Texts{"Add to basket", "Check out"}));
  EXPECT_EQ(arrived("system_events"), (Texts{"FOREGROUND", "BACKGROUND"}));

  for (const char* word : {"toOffers", "back", "away"}) visit.writeLine(word);
  ASSERT_TRUE(service.waitForChunks(2)) << visit.errors();
  Texts all = kVisited;
  all.emplace_back("Offers");
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), all) << "a change in the background waits for the return";
  visit.closeInput();
  EXPECT_EQ(visit.wait(), 0) << visit.errors();
  EXPECT_EQ(count(visit.errors(), "Ignoring screen notification"), 0U) << visit.errors();
}

class QuickShopOnADesktop : public QuickShop, public testing::WithParamInterface<const char*> {};

TEST_P(QuickShopOnADesktop, ReportsTheSameVisitAndFollowsTheFocus) {
  const auto desktop = DisplayServer::start(DisplayServer::Manager::openbox);
  if (desktop == nullptr) GTEST_SKIP() << "Xvfb or openbox is not installed";
  auto environment = desktop->environment();
  environment["QT_QUICK_BACKEND"] = GetParam();
  Program visit = shop({"visit"}, environment);
  ASSERT_TRUE(visit.waitForOutput("at rest")) << visit.errors();
  moveToFreshHome("other");
  Program other = shop({}, environment);  // takes the focus
  ASSERT_TRUE(service.waitForChunks(1)) << visit.errors();
  EXPECT_EQ(arrived("navigation_events", "navigation_id"), kVisited) << visit.errors();
  EXPECT_EQ(arrived("system_events"), (Texts{"FOREGROUND", "BACKGROUND"}));
  EXPECT_EQ(count(visit.errors(), "Ignoring screen notification"), 0U) << visit.errors();
}

INSTANTIATE_TEST_SUITE_P(Renderers, QuickShopOnADesktop, testing::Values("software", "rhi"));

}  // namespace
}  // namespace kelvo::test
