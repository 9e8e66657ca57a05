#include <kelvo/KelvoSDK.h>
#include <kelvo/Plugin.h>

#include <cstdio>

namespace acme {

/// Asks for a rating at the third purchase since installation.
class Nag final : public kelvo::Plugin {
  void initialize(const kelvo::Dictionary&) override {
    // The service decides whether an event is an application event or a client event.
    for (const auto type : {kelvo::KLVEventType::app, kelvo::KLVEventType::client}) {
      kelvo::PluginServices::registerIdentifer(kelvo::identifierKey(type, "Purchase"), shared_from_this());
    }
  }
  void onEvent(const kelvo::Event& event) override {
    constexpr int kPatience = 3;
    const auto earlier = event.attributes["klv_lt_count"].asInt64();  // purchases before this one
    if (earlier + 1 != kPatience) return;
    std::puts("You seem to like it. Will you rate it?");
    std::fflush(stdout);
    kelvo::PluginServices::dispatchEvent(kelvo::KLVEventType::nudge, "Rating");  // for other plug-ins
    const auto session = kelvo::PluginServices::getLifetimeSessionCount();
    kelvo::KelvoSDK::logAppEventWithName("Asked for a rating", {{"session", session}});  // for the service
  }
};

}  // namespace acme

KELVO_PLUGIN(acme::Nag);
