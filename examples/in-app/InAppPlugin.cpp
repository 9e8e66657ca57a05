#include "InAppPlugin.h"

#include <atomic>
#include <cstdint>

using kelvo::KLVEventType;
using kelvo::PluginServices;

// Lets the library find the class by its name, if the bundle's Info.plist switches the plug-in on.
KELVO_PLUGIN(InAppPlugin);

namespace {
// A plain function pointer, because it needs no destructor: events may still be delivered while the program exits.
std::atomic<InAppPlugin::Show> hostShows{nullptr};
}  // namespace

void InAppPlugin::onMessage(Show show) {
  hostShows = show;
}

void InAppPlugin::initialize(const kelvo::Dictionary& configuration) {
  if (configuration["real_time_actions_enabled"] == kelvo::Value(false)) return;
  // Updates the saved rules from the service ("rta": real-time actions) and then calls `boot`. Capturing `this` is
  // safe, because the library never destroys a plug-in.
  PluginServices::getSyncDataForActionType("rta", "1", [this] { boot(); });
}

void InAppPlugin::boot() {
  for (const auto& [id, action] : PluginServices::getConfigForActionType("rta")) {
    const auto members = action.asDictionary().value_or(kelvo::Dictionary());
    const auto event = members["event"].asText();
    const auto message = members["message"].asText();
    if (!event || !message) continue;  // the service may send anything
    rules_.push_back({id, *event, *message, members.contains("most") ? members["most"].asInt64() : INT64_MAX});
  }
  // The service decides whether an event is an application event or a client event, so register for both.
  for (const Rule& rule : rules_) {
    for (const auto type : {KLVEventType::app, KLVEventType::client}) {
      PluginServices::registerIdentifer(kelvo::identifierKey(type, rule.event), shared_from_this());
    }
  }
}

void InAppPlugin::onEvent(const kelvo::Event& event) {
  const Show show = hostShows;
  if (show == nullptr) return;
  for (const Rule& rule : rules_) {
    if (rule.event == event.name && mayShow(rule)) show(rule.message);
  }
}

bool InAppPlugin::mayShow(const Rule& rule) {
  // The library keeps a dictionary for each rule id, over all launches.
  const auto kept = PluginServices::retrieveFrequencyConfigWithIdentifier(rule.id);
  const std::int64_t shown = kept ? (*kept)["shown"].asInt64() : 0;
  if (shown >= rule.most) return false;
  PluginServices::saveFrequencyInfo({{"shown", shown + 1}}, rule.id);
  return true;
}
