#include "InAppPlugin.h"

#include <atomic>
#include <cstdint>

using kelvo::KLVEventType;
using kelvo::PluginServices;

KELVO_PLUGIN(InAppPlugin);

namespace {
// A plain pointer: events may still come at exit, when objects of this program are gone.
std::atomic<InAppPlugin::Show> hostShows{nullptr};
}  // namespace

void InAppPlugin::onMessage(Show show) {
  hostShows = show;
}

void InAppPlugin::initialize(const kelvo::Dictionary& configuration) {
  if (configuration["real_time_actions_enabled"] == kelvo::Value(false)) return;
  PluginServices::getSyncDataForActionType("rta", "1", [this] { boot(); });  // the library keeps the plug-in for good
}

void InAppPlugin::boot() {
  for (const auto& [id, action] : PluginServices::getConfigForActionType("rta")) {
    const auto* members = action.get<kelvo::Dictionary>();
    if (members == nullptr) continue;
    const auto* event = (*members)["event"].get<std::string>();
    const auto* message = (*members)["message"].get<std::string>();
    if (event == nullptr || message == nullptr) continue;
    rules_.push_back({id, *event, *message, members->contains("most") ? (*members)["most"].asInt64() : INT64_MAX});
  }
  // As an application event, or as a client event when the service wants it so.
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

/// Counts the showing, too.
bool InAppPlugin::mayShow(const Rule& rule) {
  const auto kept = PluginServices::retrieveFrequencyConfigWithIdentifier(rule.id);
  const std::int64_t shown = kept ? (*kept)["shown"].asInt64() : 0;
  if (shown >= rule.most) return false;
  PluginServices::saveFrequencyInfo({{"shown", shown + 1}}, rule.id);
  return true;
}
