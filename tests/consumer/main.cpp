#include <kelvo/KelvoSDK.h>

#include <chrono>
#include <thread>

int main() {
  // Started from the bundle, before main.
  for (int i = 0; i < 200 && !kelvo::KelvoSDK::getDeviceID(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kelvo::KelvoSDK::logAppEventWithName("Consumed", {{"linked", true}});
}
