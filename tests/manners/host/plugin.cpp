// A host's plug-in that links the shared library, and so loads it into the process.

#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"

extern "C" {

KELVO_EXPORT void start() {
  kelvo::KelvoSDK::initializeKelvoWithID("manners");
}

KELVO_EXPORT void logAndResign() {
  for (int i = 0; i < 20; ++i) kelvo::KelvoSDK::logAppEventWithName("Event", {{"price", 12.5}});
  kelvo::Application::willResignActive();
}
}
