#define CATCH_CONFIG_MAIN
#include <catch2/catch.hpp>

#include <kelvo/Testing.h>

#include "checkout.h"

TEST_CASE("The checkout reports the purchase") {
  kelvo::testing::Recorder kelvo;
  runCheckout();
  CHECK(kelvo.logged("Purchase", {{"price", 12.5}}));
  CHECK(kelvo.screens() == std::vector<std::string>{"Basket", "Thank you"});
}

TEST_CASE("A failed expectation", "[.]") {
  kelvo::testing::Recorder kelvo;
  runCheckout();
  CHECK(kelvo.logged("Refund"));
}
