// A plug-in in a shared object that uses the public headers only. It prints the configuration's "plan" and the host's
// events. The environment variable
// ECHO_BLOCKS_START makes it block the start; an event "Exit" makes it end the process.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kelvo/Plugin.h"

namespace {

constexpr int kExitStatus = 7;

class EchoPlugin final : public kelvo::Plugin {
 public:
  void initialize(const kelvo::Dictionary& configuration) override {
    std::printf("Plan: %s\n", kelvo::description(configuration["plan"]).c_str());
    kelvo::PluginServices::registerForEventWithType(kelvo::KLVEventType::app, shared_from_this());
    if (std::getenv("ECHO_BLOCKS_START") == nullptr) return;
    std::printf("Blocks the start\n");
    std::fflush(stdout);
    pause();
  }
  void onEvent(const kelvo::Event& event) override {
    std::printf("Echo: %s\n", event.name.c_str());
    std::fflush(stdout);
    if (event.name == "Exit") std::exit(kExitStatus);
  }
};

}  // namespace

KELVO_PLUGIN(::EchoPlugin);
