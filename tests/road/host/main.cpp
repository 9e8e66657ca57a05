// A host of the shared library that knows the public headers only: it logs 1,000 events once the start-up has ended and
// returns from main at once.

#include <future>
#include <memory>

#include "kelvo/KelvoSDK.h"

int main() {
  const auto started = std::make_shared<std::promise<void>>();
  kelvo::Application::setLogSink([started](kelvo::LogLevel, std::string_view line) {
    if (line.find("initialized!") != std::string_view::npos) started->set_value();
  });
  kelvo::KelvoSDK::initializeKelvoWithID("host");
  started->get_future().wait();
  for (int i = 0; i < 1000; ++i) kelvo::KelvoSDK::logAppEventWithName("Last words", {{"number", i}, {"of", 1000}});
  return 0;
}
