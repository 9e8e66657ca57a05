#include <kelvo/KelvoSDK.h>
#include <kelvo/Plugin.h>
#include <kelvo/ViewTree.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {
std::atomic<bool> isReady{false};
}

int main() {
  // The bundle has started the library before main. It collects once the start has ended.
  kelvo::KelvoSDK::onReady([](const auto& status) { isReady = status.state == kelvo::KelvoSDK::State::running; });
  for (int i = 0; i < 200 && !isReady; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  kelvo::KelvoSDK::logAppEventWithName("Consumed", {{"linked", true}});
}
