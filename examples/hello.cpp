// The whole of it: start, log, go on. Run it against `kelvo-collector`:
//   KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 hello

#include <chrono>
#include <thread>

#include "kelvo/KelvoSDK.h"

int main() {
  kelvo::KelvoSDK::initializeKelvoWithID("hello");
  kelvo::Application::didBecomeActive();
  kelvo::KelvoSDK::setUserCustomInfo({{"plan", "gold"}});
  kelvo::KelvoSDK::logAppEventWithName("Greeting", {{"language", "en"}, {"words", 2}});

  std::this_thread::sleep_for(std::chrono::seconds(1));  // here your application does its work

  kelvo::Application::willResignActive();  // cuts and sends what was logged
  std::this_thread::sleep_for(std::chrono::seconds(1));
}
