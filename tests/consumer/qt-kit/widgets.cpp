#include <gtest/gtest.h>
#include <kelvo/Qt.h>
#include <kelvo/Testing.h>

#include "shop.h"

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

TEST(ShopTest, ShowsItsPagesAndDeliversThem) {
  for (int i = 0; i < 3; ++i) {
    kelvo::testing::Recorder kelvo;
    EXPECT_EQ(kelvo.screens(), Texts());
    Shop shop;
    shop.show();
    EXPECT_EQ(kelvo.screens(), Texts{"Products"});
    shop.openBasket();
    shop.buy();
    EXPECT_EQ(kelvo.screens(), (Texts{"Products", "Basket"}));
    EXPECT_TRUE(kelvo.logged("Purchase", {{"item", "book"}}));
    kelvo.advance(31s);
    EXPECT_EQ(kelvo.delivered("FOREGROUND"), 1);

    kelvo.relaunch();  // the end of the launch ends the stretch, and the next one finds the window that is still open
    EXPECT_EQ(kelvo.screens(), (Texts{"Products", "Basket", "Basket"}));
    for (const char* name : {"Purchase", "Products", "Basket", "BACKGROUND"})
      EXPECT_EQ(kelvo.delivered(name), 1) << name;
  }
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  QApplication app(argc, argv);
  kelvo::qt::attach(app);  // for all recorders
  return RUN_ALL_TESTS();
}
