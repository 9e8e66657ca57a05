#include <kelvo/Testing.h>

#include <iostream>

#include "checkout.h"

int main() {
  kelvo::testing::Recorder kelvo;
  runCheckout();
  const auto purchase = kelvo.logged("Purchase", {{"price", 12.5}});
  if (!purchase) std::cerr << purchase.message() << '\n';
  const auto missing = kelvo.logged("Refund");
  return purchase && !missing && missing.message().find("application event Purchase") != std::string::npos ? 0 : 1;
}
