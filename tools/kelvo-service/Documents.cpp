#include "kelvo-service/Documents.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>
#include <string_view>
#include <utility>

#include "kelvo-service/ServiceState.h"
#include "platform/JSON.h"

namespace kelvo::service {
namespace {

using Errors = std::vector<std::string>;

constexpr const char* kDocuments[] = {"enabled", "config", "client-events", "actions/rta", "actions/survey"};

enum class Type : std::uint8_t { Bool, LogLevel, Text, Number, Hour, Minute, Object };

struct Member {
  const char* name;
  Type type;
};

// A configuration may have more keys than those listed here; their values are not checked.

/// The library drops a configuration without these keys.
constexpr const char* kRequiredKeys[] = {"enable", "service_paths"};
/// The keys that the library reads.
constexpr Member kLibraryKeys[] = {
    {"enable", Type::Bool}, {"log_level", Type::LogLevel}, {"max_fg_chunk_send_time", Type::Number}};
/// The keys that the library only saves and hands to plug-ins.
constexpr Member kPlugInKeys[] = {{"platform", Type::Text},
                                  {"max_bg_chunk_send_time", Type::Number},
                                  {"max_chunk_event_count", Type::Number},
                                  {"max_inactive_session_time", Type::Number},
                                  {"chunk_retry_window", Type::Number},
                                  {"tickinterval", Type::Number},
                                  {"send_sessions_on_sdk_start", Type::Bool},
                                  {"real_time_actions_enabled", Type::Bool},
                                  {"heartbeat", Type::Object},
                                  {"Monitoring", Type::Object},
                                  {"Modules", Type::Object},
                                  {"service_paths", Type::Object}};
/// The events of the library's own that no list may name.
constexpr std::string_view kTriggers[] = {"klv_app_opened", "BACKGROUND", "FOREGROUND"};
constexpr Member kHeartbeatKeys[] = {{"enable", Type::Bool}, {"hour", Type::Hour}, {"minute", Type::Minute}};

constexpr std::int64_t kLastHour = 23;
constexpr std::int64_t kLastMinute = 59;

bool isWithin(const Value& value, std::int64_t most) {
  return value.isInteger() && value.asInt64() >= 0 && value.asInt64() <= most;
}

/// The library logs errors only for every value other than "debug" and "warn". Of those values, only "error" is
/// accepted, so a misspelt level is refused.
bool isLogLevel(const Value& value) {
  return value == Value("debug") || value == Value("warn") || value == Value("error");
}

/// Returns null if `value` is of `type`, else a description of the expected value.
const char* mismatch(const Value& value, Type type) {
  switch (type) {
    case Type::Bool: return value.get<bool>() != nullptr ? nullptr : "true or false";
    case Type::LogLevel: return isLogLevel(value) ? nullptr : "\"debug\", \"warn\" or \"error\"";
    case Type::Text: return value.get<std::string>() != nullptr ? nullptr : "a text";
    case Type::Number: {
      const bool fits = value.isNumber() && value.get<bool>() == nullptr && value.asDouble() >= 0;
      return fits ? nullptr : "a number from 0";
    }
    case Type::Hour: return isWithin(value, kLastHour) ? nullptr : "an hour from 0 to 23";
    case Type::Minute: return isWithin(value, kLastMinute) ? nullptr : "a minute from 0 to 59";
    case Type::Object: return value.get<Dictionary>() != nullptr ? nullptr : "an object";
  }
  return nullptr;
}

template <std::size_t kCount>
void checkMembers(const Dictionary& object, const Member (&members)[kCount], const std::string& place, Errors& errors) {
  for (const Member& member : members) {
    const Value* value = object.find(member.name);
    const char* expected = value == nullptr ? nullptr : mismatch(*value, member.type);
    if (expected != nullptr) errors.push_back(place + member.name + " is not " + expected);
  }
}

Errors applyEnabled(ServiceState& state, const Value& body) {
  const auto* object = body.get<Dictionary>();
  const bool* enabled = object == nullptr ? nullptr : (*object)["enabled"].get<bool>();
  if (enabled == nullptr) return {"the body is not {\"enabled\": true} or {\"enabled\": false}"};
  state.setEnabled(*enabled);
  return {};
}

Errors applyConfiguration(ServiceState& state, const Value& body) {
  const auto* configuration = body.get<Dictionary>();
  if (configuration == nullptr) return {"the configuration is not an object"};
  Errors errors;
  for (const char* name : kRequiredKeys) {
    if ((*configuration)[name].isNull()) errors.push_back(std::string(name) + " is missing");
  }
  checkMembers(*configuration, kLibraryKeys, "", errors);
  checkMembers(*configuration, kPlugInKeys, "", errors);
  if (const auto* heartbeat = (*configuration)["heartbeat"].get<Dictionary>()) {
    checkMembers(*heartbeat, kHeartbeatKeys, "heartbeat.", errors);
  }
  if (const auto* paths = (*configuration)["service_paths"].get<Dictionary>()) {
    for (const auto& [name, path] : *paths) {
      const auto* text = path.get<std::string>();
      if (text == nullptr || text->rfind('/', 0) != 0) {
        errors.push_back("service_paths." + name + " is not a path that begins with a slash");
      }
    }
  }
  if (errors.empty()) state.setConfiguration(*configuration);
  return errors;
}

Errors applyClientEvents(ServiceState& state, const Value& body) {
  const auto* object = body.get<Dictionary>();
  if (object == nullptr) return {"the body is not an object with the lists action, agg and stop"};
  Errors errors;
  for (const auto& [name, value] : *object) {
    if (name != "action" && name != "agg" && name != "stop") errors.push_back("there is no list " + name);
  }
  Array lists[3];
  const char* names[] = {"action", "agg", "stop"};
  for (std::size_t i = 0; i < std::size(names); ++i) {
    const Value& list = (*object)[names[i]];
    const auto* events = list.get<Array>();
    if (events != nullptr) lists[i] = *events;
    if (events == nullptr && !list.isNull()) errors.push_back(std::string(names[i]) + " is not a list");
    for (std::size_t k = 0; k < lists[i].size(); ++k) {
      const auto* name = lists[i][k].get<std::string>();
      const std::string place = std::string(names[i]) + "[" + std::to_string(k) + "]";
      if (name == nullptr || name->empty()) {
        errors.push_back(place + " is not the name of an event");
      } else if (isTrigger(*name)) {
        errors.push_back(place + " is " + *name + ", which makes the library send its chunks");
      }
    }
  }
  if (errors.empty()) state.setClientEvents(lists[0], lists[1], lists[2]);
  return errors;
}

/// Ids are sent in a query as "PID_MID,PID_MID", so neither may contain a separator, or a plus that reads as a blank.
bool isActionId(const std::string* text) {
  return text != nullptr && !text->empty() && text->find_first_of("_,+") == std::string::npos;
}

Errors applyActions(ServiceState& state, const std::string& type, const Value& body) {
  const auto* list = body.get<Array>();
  if (list == nullptr) return {"the body is not a list of actions"};
  Errors errors;
  std::vector<ServiceState::Action> actions;
  std::set<std::string> pids;
  for (std::size_t i = 0; i < list->size(); ++i) {
    const std::string place = "action " + std::to_string(i);
    const auto* action = (*list)[i].get<Dictionary>();
    if (action == nullptr) {
      errors.push_back(place + " is not an object");
      continue;
    }
    const auto* pid = (*action)["pid"].get<std::string>();
    const auto* mid = (*action)["mid"].get<std::string>();
    const auto* config = (*action)["config"].get<Dictionary>();
    const auto* id = config == nullptr ? nullptr : (*config)["_id"].get<std::string>();
    if (!isActionId(pid)) errors.push_back(place + ": pid is not a text without \"_\", \",\" and \"+\"");
    if (!isActionId(mid)) errors.push_back(place + ": mid is not a text without \"_\", \",\" and \"+\"");
    if (config == nullptr) errors.push_back(place + ": config is not an object");
    if (config != nullptr && (id == nullptr || id->empty())) errors.push_back(place + ": config has no text \"_id\"");
    if (pid != nullptr && !pids.insert(*pid).second) errors.push_back(place + ": an earlier action has the same pid");
    if (errors.empty()) actions.push_back({*pid, *mid, *config});
  }
  if (errors.empty()) state.setActions(type, std::move(actions));
  return errors;
}

}  // namespace

bool isTrigger(std::string_view name) {
  return std::find(std::begin(kTriggers), std::end(kTriggers), name) != std::end(kTriggers);
}

std::vector<std::string> applyDocument(ServiceState& state, const std::string& name, const Value& body) {
  if (name == "enabled") return applyEnabled(state, body);
  if (name == "config") return applyConfiguration(state, body);
  if (name == "client-events") return applyClientEvents(state, body);
  if (name == "actions/rta") return applyActions(state, "rta", body);
  if (name == "actions/survey") return applyActions(state, "survey", body);
  return {"there is no such document"};
}

void loadDocuments(ServiceState& state, const std::function<std::optional<std::string>(const std::string&)>& saved) {
  for (const char* name : kDocuments) {
    const auto kept = saved(name);
    const auto body = kept ? parseJSON(*kept) : std::nullopt;
    if (body) static_cast<void>(applyDocument(state, name, *body));
  }
}

Dictionary documentsOf(const ServiceState& state) {
  const Dictionary status = state.enabledStatus();
  return {{"enabled", status["enabled"]},
          {"config", state.configuration()},
          {"config_hash", status["hash"]},
          {"client_events", state.clientEventsReply()["events"]},
          {"client_events_hash", state.clientEventsValidation()["hash"]},
          {"actions", Dictionary{{"rta", state.actions("rta")}, {"survey", state.actions("survey")}}}};
}

}  // namespace kelvo::service
