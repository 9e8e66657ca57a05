// The host of InAppPlugin. It logs each line of its input as an application event, and prints the plug-in's messages.
//
// It never starts the library itself: the Info.plist in its bundle, in-app.bundle beside the program, names the
// application's id, so the library starts when it is loaded. The same file switches the plug-in on.

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
