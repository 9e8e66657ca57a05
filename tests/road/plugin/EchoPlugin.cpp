// A plug-in in a shared object, which knows the public headers only: prints what the host logs, and misbehaves on
// demand.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kelvo/Plugin.h"

namespace {

class EchoPlugin final : public kelvo::Plugin {
 public:
  void initialize(const kelvo::Dictionary&) override {
    kelvo::PluginServices::registerForEventWithType(kelvo::KLVEventType::app, shared_from_this());
    if (std::getenv("ECHO_BLOCKS_START") == nullptr) return;
    std::printf("Blocks the start\n");
    std::fflush(stdout);
    pause();
  }
  void onEvent(const kelvo::Event& event) override {
    std::printf("Echo: %s\n", event.name.c_str());
    std::fflush(stdout);
    if (event.name == "Exit") std::exit(7);
  }
};
KELVO_PLUGIN(EchoPlugin);

}  // namespace
