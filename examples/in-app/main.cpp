// A host of InAppPlugin: logs each line of its input as an application event, and shows what the plug-in has to say.
// Its bundle, in-app.bundle beside it, starts the library and switches the plug-in on.

#include <cstdio>
#include <iostream>
#include <string>

#include "InAppPlugin.h"
#include "kelvo/KelvoSDK.h"

int main() {
  InAppPlugin::onMessage([](const std::string& message) {
    std::printf("Message: %s\n", message.c_str());
    std::fflush(stdout);
  });
  kelvo::Application::didBecomeActive();
  for (std::string name; std::getline(std::cin, name);) kelvo::KelvoSDK::logAppEventWithName(name);
}
