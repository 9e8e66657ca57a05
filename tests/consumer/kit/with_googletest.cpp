#include <gtest/gtest.h>
#include <kelvo/Testing.h>

#include "checkout.h"

using namespace std::chrono_literals;

TEST(Checkout, ReportsThePurchase) {
  kelvo::testing::Recorder kelvo;  // fresh home, in-process service, clock that the test moves
  runCheckout();
  EXPECT_TRUE(kelvo.logged("Purchase", {{"price", 12.5}}));
  EXPECT_EQ(kelvo.screens(), (std::vector<std::string>{"Basket", "Thank you"}));
  kelvo.service().refuseChunks(503, 2);  // answer late, hang, cut, garbage, disable, send lists
  kelvo.advance(31min);                  // timers, sessions and time-outs follow
  kelvo.relaunch();                      // the next launch of the application, in the same test
  EXPECT_EQ(kelvo.delivered("Purchase"), 1);
}
