#include <kelvo/KelvoSDK.h>
#include <kelvo/Plugin.h>
#include <kelvo/ViewTree.h>

#include <chrono>
#include <thread>

int main() {
  // The bundle has started the library before main. The device id exists once the start has ended.
  for (int i = 0; i < 200 && !kelvo::KelvoSDK::getDeviceID(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kelvo::KelvoSDK::logAppEventWithName("Consumed", {{"linked", true}});
}
