#include "kelvo-events.h"

void buy();

void buy() {
  shop::purchase(shop::Item::book, shop::Price(12.5), shop::Amount(2), shop::Coupon("SPRING"));
  shop::visit();
}
