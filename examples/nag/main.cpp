#include <kelvo/KelvoSDK.h>

#include <iostream>
#include <string>

int main() {  // each line of the input is a purchase; the bundle has started the library already
  for (std::string item; std::getline(std::cin, item);) {
    kelvo::KelvoSDK::logAppEventWithName("Purchase", {{"item", item}});
  }
}
