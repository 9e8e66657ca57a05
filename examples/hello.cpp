// The smallest useful host: it starts the library, logs one event, and sends it.
//
// Start `kelvo-collector` in one terminal, and this program in another:
//   KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 hello

#include <chrono>
#include <cstdio>

#include "kelvo/KelvoSDK.h"

int main() {
  // Call this once, at the start. It returns at once; the library starts in the background.
  kelvo::KelvoSDK::start(kelvo::Options("hello"));
  // Tell the library that the user is using the application now, and below, that the user leaves.
  kelvo::Application::didBecomeActive();

  // Attributes of the user are sent with every chunk of events; attributes of an event belong to that event only.
  kelvo::KelvoSDK::setUserCustomInfo({{"plan", "gold"}});
  kelvo::KelvoSDK::logAppEventWithName("Greeting", {{"language", "en"}, {"words", 2}});

  kelvo::Application::willResignActive();
  // Wait until the service has everything. Without this call, the next launch sends what is still stored.
  const auto result = kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(5));
  if (result.outcome != kelvo::FlushOutcome::delivered) std::printf("not delivered: %s\n", result.reason.c_str());
}
