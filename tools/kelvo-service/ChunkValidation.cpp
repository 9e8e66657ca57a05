#include "kelvo-service/ChunkValidation.h"

#include <cstdint>
#include <initializer_list>

namespace kelvo::service {
namespace {

using Fault = std::optional<std::string>;

// A function called `faultOf...` returns nullopt if its argument is valid, else a sentence that names the first invalid
// member and says what is wrong with it.
enum class Type : std::uint8_t { Text, Integer, Number, Bool, Object, List, Any };
enum class Presence : std::uint8_t { Required, Optional };

struct Member {
  const char* name;
  Type type;
  Presence presence = Presence::Required;
};
using Members = std::initializer_list<Member>;

bool isInteger(const Value& value) {
  return value.get<std::int64_t>() != nullptr || value.get<std::uint64_t>() != nullptr;
}

Fault faultOfType(const Value& value, Type type, const std::string& place) {
  switch (type) {
    case Type::Text:
      if (value.get<std::string>() == nullptr) return place + " is not a text";
      break;
    case Type::Integer:
      if (!isInteger(value)) return place + " is not an integer";
      break;
    case Type::Number:
      if (!isInteger(value) && value.get<double>() == nullptr) return place + " is not a number";
      break;
    case Type::Bool:
      if (value.get<bool>() == nullptr) return place + " is not a boolean";
      break;
    case Type::Object:
      if (value.get<Dictionary>() == nullptr) return place + " is not an object";
      break;
    case Type::List:
      if (value.get<Array>() == nullptr) return place + " is not an array";
      break;
    case Type::Any: break;
  }
  return std::nullopt;
}

/// Checks that `object` has all required members, and that each listed member has its type. `place` is the dotted name
/// of `object`; it is empty for the body itself.
Fault faultOfMembers(const Dictionary& object, const std::string& place, const Members& members) {
  for (const Member& member : members) {
    const std::string name = place.empty() ? member.name : place + "." + member.name;
    const Value* value = object.find(member.name);
    if (value == nullptr) {
      if (member.presence == Presence::Required) return name + " is missing";
      continue;
    }
    if (auto fault = faultOfType(*value, member.type, name)) return fault;
  }
  return std::nullopt;
}

Fault faultOfObject(const Dictionary& parent, const char* name, const Members& members) {
  const Value& value = parent[name];
  if (auto fault = faultOfType(value, Type::Object, name)) return fault;
  return faultOfMembers(*value.get<Dictionary>(), name, members);
}

/// Checks the members of each element of `list`, then calls `more` for the element unless it is null. A null `list`
/// is valid: it is an optional list that is missing.
Fault faultOfElements(const Value& list, const std::string& place, const Members& members,
                      Fault (*more)(const Dictionary&, const std::string&) = nullptr) {
  if (list.isNull()) return std::nullopt;
  const Array& elements = *list.get<Array>();
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const std::string name = place + "[" + std::to_string(i) + "]";
    if (auto fault = faultOfType(elements[i], Type::Object, name)) return fault;
    const auto& element = *elements[i].get<Dictionary>();
    if (auto fault = faultOfMembers(element, name, members)) return fault;
    if (more == nullptr) continue;
    if (auto fault = more(element, name)) return fault;
  }
  return std::nullopt;
}

/// Checks that each member of `counts` is an integer from 0.
Fault faultOfCounts(const Dictionary& counts, const std::string& place) {
  for (const auto& [name, count] : counts) {
    const auto* number = count.get<std::int64_t>();
    if (number == nullptr || *number < 0) return place + "." + name + " is not a count";
  }
  return std::nullopt;
}

/// Checks what the device says about evicted chunks, and its ledger. A device that evicts nothing says nothing.
Fault faultOfChunkAttributes(const Dictionary& attributes) {
  const std::string evicted = "chunk_details.chunk_attributes.evicted";
  const std::string ledger = "chunk_details.chunk_attributes.ledger";
  if (const Value* value = attributes.find("evicted")) {
    if (auto fault = faultOfType(*value, Type::Object, evicted)) return fault;
    const auto& counts = *value->get<Dictionary>();
    if (auto fault = faultOfMembers(counts, evicted, {{"events", Type::Integer}, {"chunks", Type::Integer}}))
      return fault;
    if (auto fault = faultOfCounts({{"events", counts["events"]}, {"chunks", counts["chunks"]}}, evicted)) return fault;
  }
  const Value* value = attributes.find("ledger");
  if (value == nullptr) return std::nullopt;
  if (auto fault = faultOfType(*value, Type::Object, ledger)) return fault;
  return faultOfCounts(*value->get<Dictionary>(), ledger);
}

/// Checks the attributes of an aggregate event: each is a list of [value, count] pairs.
Fault faultOfAggregate(const Dictionary& event, const std::string& place) {
  for (const auto& [key, values] : *event["attributes"].get<Dictionary>()) {
    const std::string name = place + ".attributes." + key;
    if (auto fault = faultOfType(values, Type::List, name)) return fault;
    const Array& pairs = *values.get<Array>();
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      const auto* pair = pairs[i].get<Array>();
      if (pair == nullptr || pair->size() != 2 || !isInteger((*pair)[1])) {
        return name + "[" + std::to_string(i) + "] is not a value and its count";
      }
    }
  }
  return std::nullopt;
}

Fault faultOfMeta(const Dictionary& body) {
  if (auto fault = faultOfObject(body, "chunk_meta",
                                 {{"id", Type::Text}, {"number", Type::Integer}, {"reporting_times", Type::List}})) {
    return fault;
  }
  const auto& meta = *body["chunk_meta"].get<Dictionary>();
  if (meta["number"].asInt64() < 1) return "chunk_meta.number is not positive";
  const auto& times = *meta["reporting_times"].get<Array>();
  if (times.size() != 1) return "chunk_meta.reporting_times does not hold exactly one time";
  if (auto fault = faultOfType(times[0], Type::Integer, "chunk_meta.reporting_times[0]")) return fault;
  const auto& session = *body["session_info"].get<Dictionary>();
  if (description(meta["id"]) != description(session["id"]) + "_" + description(meta["number"])) {
    return "chunk_meta.id is not session_info.id, \"_\" and chunk_meta.number";
  }
  return std::nullopt;
}

Fault faultOfDetails(const Dictionary& body) {
  if (auto fault = faultOfObject(body, "chunk_details",
                                 {{"user_attributes", Type::Object},
                                  {"session_attributes", Type::Object},
                                  {"chunk_attributes", Type::Object},
                                  {"agg_events", Type::List},
                                  {"system_events", Type::List},
                                  {"navigation_events", Type::List},
                                  {"app_events", Type::List},
                                  {"user_events", Type::List, Presence::Optional},
                                  {"incidents", Type::List, Presence::Optional}})) {
    return fault;
  }
  const auto& details = *body["chunk_details"].get<Dictionary>();
  if (auto fault = faultOfChunkAttributes(*details["chunk_attributes"].get<Dictionary>())) return fault;
  auto fault =
      faultOfElements(details["agg_events"], "chunk_details.agg_events",
                      {{"name", Type::Text}, {"count", Type::Integer}, {"attributes", Type::Object}}, faultOfAggregate);
  const auto check = [&](const char* list, const Members& members) {
    if (!fault) fault = faultOfElements(details[list], std::string("chunk_details.") + list, members);
  };
  check("system_events", {{"name", Type::Text}, {"time", Type::Integer}});
  check("navigation_events", {{"navigation_id", Type::Text},
                              {"name", Type::Text},
                              {"duration", Type::Number},
                              {"transition_time", Type::Integer}});
  check("app_events",
        {{"name", Type::Text}, {"time", Type::Integer}, {"additional_info", Type::Object, Presence::Optional}});
  check("user_events", {{"id", Type::Text}, {"time", Type::Integer}, {"type", Type::Text}});
  check("incidents", {{"incident_id", Type::Text},
                      {"incident_type", Type::Text},
                      {"time_of_occurrence", Type::Integer},
                      {"incident_specific_details", Type::Object, Presence::Optional}});
  return fault;
}

Fault faultOfAppAndDevice(const Dictionary& body) {
  if (auto fault = faultOfObject(body, "app_info",
                                 {{"app_name", Type::Text},
                                  {"app_version", Type::Text},
                                  {"bundle_id", Type::Text},
                                  {"installation_time", Type::Integer},
                                  {"app_mode", Type::Text}})) {
    return fault;
  }
  if (auto fault = faultOfObject(body, "device_info",
                                 {{"id", Type::Text},
                                  {"hardware_model", Type::Text},
                                  {"os_version", Type::Text},
                                  {"platform", Type::Text},
                                  {"dimensions", Type::Object},
                                  {"device_registration_token", Type::Text, Presence::Optional}})) {
    return fault;
  }
  const auto& device = *body["device_info"].get<Dictionary>();
  return faultOfMembers(*device["dimensions"].get<Dictionary>(), "device_info.dimensions",
                        {{"width", Type::Number}, {"height", Type::Number}});
}

Fault faultOfSDKAndSession(const Dictionary& body) {
  if (auto fault = faultOfObject(body, "sdk_info",
                                 {{"sdk_version", Type::Number},
                                  {"config_id", Type::Any},
                                  {"tick_interval", Type::Number},
                                  {"chunk_retry_window", Type::Number},
                                  {"sdk_start_time", Type::Integer}})) {
    return fault;
  }
  return faultOfObject(body, "session_info",
                       {{"id", Type::Text},
                        {"launch_time", Type::Integer},
                        {"launch_time_string", Type::Text},
                        {"launch_type", Type::Text},
                        {"duration", Type::Number},
                        {"startup_time", Type::Number},
                        {"process_name", Type::Text},
                        {"is_first_session", Type::Bool},
                        {"is_background", Type::Bool},
                        {"is_fatal", Type::Bool},
                        {"total_duration", Type::Number, Presence::Optional},
                        {"additional_info", Type::Object, Presence::Optional}});
}

}  // namespace

std::optional<std::string> faultOfChunk(const Value& body) {
  const auto* chunk = body.get<Dictionary>();
  if (chunk == nullptr) return "the body is not an object";
  if (auto fault = faultOfMembers(*chunk, "",
                                  {{"sdk_info", Type::Object},
                                   {"session_info", Type::Object},
                                   {"app_info", Type::Object},
                                   {"device_info", Type::Object},
                                   {"chunk_meta", Type::Object},
                                   {"chunk_details", Type::Object}})) {
    return fault;
  }
  if (auto fault = faultOfSDKAndSession(*chunk)) return fault;
  if (auto fault = faultOfAppAndDevice(*chunk)) return fault;
  if (auto fault = faultOfMeta(*chunk)) return fault;
  return faultOfDetails(*chunk);
}

std::optional<std::string> faultOfUserInfo(const Value& body) {
  const auto* info = body.get<Dictionary>();
  if (info == nullptr) return "the body is not an object";
  if (auto fault = faultOfMembers(*info, "",
                                  {{"sdk_version", Type::Text},
                                   {"app_info", Type::Object},
                                   {"device_info", Type::Object},
                                   {"user_attributes", Type::Object}})) {
    return fault;
  }
  return faultOfAppAndDevice(*info);
}

}  // namespace kelvo::service
