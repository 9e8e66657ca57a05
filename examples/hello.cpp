// The smallest useful host: it starts the library, logs one event, and sends it.
//
// Start `kelvo-collector` in one terminal, and this program in another:
//   KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 hello

#include <chrono>
#include <thread>

#include "kelvo/KelvoSDK.h"

int main() {
  // Call this once, at the start. It returns at once; the library starts in the background.
  kelvo::KelvoSDK::initializeKelvoWithID("hello");
  // Tell the library that the user is using the application now.
  kelvo::Application::didBecomeActive();

  // Attributes of the user are sent with every chunk of events; attributes of an event belong to that event only.
  kelvo::KelvoSDK::setUserCustomInfo({{"plan", "gold"}});
  kelvo::KelvoSDK::logAppEventWithName("Greeting", {{"language", "en"}, {"words", 2}});

  std::this_thread::sleep_for(std::chrono::seconds(1));  // your application does its work here

  // Tell the library that the user leaves. It then sends all events logged so far.
  kelvo::Application::willResignActive();
  // Give the upload a moment. If the program ends earlier, the events are stored, and the next launch sends them.
  std::this_thread::sleep_for(std::chrono::seconds(1));
}
