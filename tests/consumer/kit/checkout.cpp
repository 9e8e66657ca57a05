#include "checkout.h"

#include <kelvo/KelvoSDK.h>

void runCheckout() {
  kelvo::Application::show("Basket");
  kelvo::KelvoSDK::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
  kelvo::Application::show("Thank you");
}
