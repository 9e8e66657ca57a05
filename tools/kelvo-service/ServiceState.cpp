#include "kelvo-service/ServiceState.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kelvo-service/Fingerprint.h"

namespace kelvo::service {
namespace {

constexpr std::string_view kApplicationPlaceholder = "<app-id>";
constexpr const char* kRealTimeActions = "rta";
constexpr const char* kSurveyActions = "survey";

Dictionary standardConfiguration() {
  return {{"enable", true},
          {"platform", "ios"},
          {"max_fg_chunk_send_time", 30},
          {"max_bg_chunk_send_time", 5},
          {"max_chunk_event_count", 30},
          {"max_inactive_session_time", 1800},
          {"chunk_retry_window", 1800},
          {"send_sessions_on_sdk_start", true},
          {"real_time_actions_enabled", true},
          {"tickinterval", 0.1},
          {"heartbeat", Dictionary{{"enable", true}, {"hour", 23}, {"minute", 0}}},
          {"Monitoring", Dictionary{}},
          {"Modules", Dictionary{}},
          {"service_paths", Dictionary{{"chunk_paths", "/v2/api/<app-id>/chunks"},
                                       {"gzip_chunk_path", "/v2/api/gzip-chunks?appId=<app-id>"},
                                       {"logs_paths", "/v1/api/apps<app-id>"}}}};
}

/// Returns `value` with `applicationId` in place of each "<app-id>". A value that is not a text is returned unchanged.
Value withApplication(const Value& value, const std::string& applicationId) {
  const auto* path = value.get<std::string>();
  if (path == nullptr) return value;
  std::string filled = *path;
  for (auto at = filled.find(kApplicationPlaceholder); at != std::string::npos;
       at = filled.find(kApplicationPlaceholder, at + applicationId.size())) {
    filled.replace(at, kApplicationPlaceholder.size(), applicationId);
  }
  return filled;
}

}  // namespace

ServiceState::ServiceState()
    : configuration_(standardConfiguration()), actions_{{kRealTimeActions, {}}, {kSurveyActions, {}}} {
  setClientEvents({}, {}, {});
}

void ServiceState::setEnabled(bool enabled) {
  const Lock lock(mutex_);
  enabled_ = enabled;
}

void ServiceState::setConfiguration(Dictionary configuration) {
  const Lock lock(mutex_);
  configuration_ = std::move(configuration);
}

void ServiceState::setConfigurationValue(const std::string& key, Value value) {
  const Lock lock(mutex_);
  configuration_.set(key, std::move(value));
}

void ServiceState::setClientEvents(Array client, Array aggregate, Array ignored) {
  const Lock lock(mutex_);
  clientEvents_ = {{"action", std::move(client)}, {"agg", std::move(aggregate)}, {"stop", std::move(ignored)}};
}

void ServiceState::setActions(const std::string& type, std::vector<Action> actions) {
  for (Action& action : actions) {
    if (!action.config.contains("_id")) action.config.set("_id", action.pid + "-" + action.mid);
    if (!action.config.contains("pid")) action.config.set("pid", action.pid);
  }
  const Lock lock(mutex_);
  actions_[type] = std::move(actions);
}

Dictionary ServiceState::configuration() const {
  const Lock lock(mutex_);
  return configuration_;
}

Array ServiceState::actions(const std::string& type) const {
  const Lock lock(mutex_);
  Array list;
  for (const Action& action : actionsOf(type)) {
    list.append(Dictionary{{"pid", action.pid}, {"mid", action.mid}, {"config", action.config}});
  }
  return list;
}

Dictionary ServiceState::enabledStatus() const {
  const Lock lock(mutex_);
  return {{"enabled", enabled_}, {"hash", fingerprint(configuration_)}};
}

Dictionary ServiceState::configurationReply(const std::string& applicationId) const {
  const Lock lock(mutex_);
  Dictionary details = configuration_;
  if (const auto* paths = configuration_["service_paths"].get<Dictionary>()) {
    Dictionary filled;
    for (const auto& [name, path] : *paths) filled.set(name, withApplication(path, applicationId));
    details.set("service_paths", std::move(filled));
  }
  return {{"details", std::move(details)}};
}

Dictionary ServiceState::clientEventsValidation() const {
  const Lock lock(mutex_);
  return {{"hash", fingerprint(clientEvents_)}};
}

Dictionary ServiceState::clientEventsReply() const {
  const Lock lock(mutex_);
  return {{"events", clientEvents_}};
}

Dictionary ServiceState::actionsValidation(const std::string& type) const {
  const Lock lock(mutex_);
  std::string pairs;
  Array content;
  for (const Action& action : actionsOf(type)) {
    pairs += (pairs.empty() ? "" : ",") + action.pid + "_" + action.mid;
    content.append(Array{action.pid, action.mid, action.config});
  }
  return {{"hash", fingerprint(content)}, {"pid_mid", pairs}};
}

Dictionary ServiceState::actionsReply(const std::string& type, const std::vector<std::string>& pids) const {
  const Lock lock(mutex_);
  Array configs;
  for (const Action& action : actionsOf(type)) {
    if (pids.empty() || std::find(pids.begin(), pids.end(), action.pid) != pids.end()) configs.append(action.config);
  }
  return {{"configs", std::move(configs)}};
}

const std::vector<ServiceState::Action>& ServiceState::actionsOf(const std::string& type) const {
  return actions_.at(type == kRealTimeActions ? kRealTimeActions : kSurveyActions);
}

}  // namespace kelvo::service
