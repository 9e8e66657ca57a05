#include "kelvo-collector/service/Service.h"

#include <string_view>
#include <utility>
#include <vector>

#include "kelvo-collector/service/ChunkValidation.h"
#include "kelvo-collector/service/Parameters.h"
#include "kelvo-collector/service/ServiceState.h"
#include "kelvo-collector/store/Store.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

/// Checks `body` with `faultOf`. Returns the reply to a faulty body, nullopt if the body is valid.
std::optional<Reply> refusalOf(const std::string& body, std::optional<std::string> (*faultOf)(const Value&)) {
  std::string error;
  const auto value = parseJSON(body, &error);
  if (!value) return refusal(400, "the body is not JSON: " + error);
  if (auto fault = faultOf(*value)) return refusal(400, *fault);
  return std::nullopt;
}

Reply takeChunk(const Context& context) {
  if (auto refused = refusalOf(context.question.body, faultOfChunk)) return *refused;
  Reply accepted = success({{"accepted", true}});
  accepted.accepted.chunkOf = context.application;
  return accepted;
}

Reply takeUserInfo(const Context& context) {
  if (context.parameter("appId").empty()) return refusal(400, "the query names no appId");
  if (auto refused = refusalOf(context.question.body, faultOfUserInfo)) return *refused;
  Reply accepted = success({{"accepted", true}});
  accepted.accepted.userOf = context.parameter("appId");
  return accepted;
}

Reply actions(const Context& context, const std::string& type) {
  std::vector<std::string> pids;
  const auto [first, last] = context.question.parameters.equal_range("pids");
  for (auto pair = first; pair != last; ++pair) pids.push_back(pair->second);
  return success(context.state.actionsReply(type, pids));
}

bool isUTF8(const std::string& text) {
  return parseJSON(jsonText(text).value_or("")).has_value();
}

struct Route {
  const char* method;
  std::string_view path;  // "<app-id>" matches one path segment
  Reply (*answer)(const Context&);
};

constexpr Route kRoutes[] = {
    {"GET", "/v2/api/<app-id>/sdk/enabled-status", [](const Context& c) { return success(c.state.enabledStatus()); }},
    {"GET", "/v2/api/config/<app-id>/ios",
     [](const Context& c) { return success(c.state.configurationReply(c.application)); }},
    {"POST", "/v2/api/user", takeUserInfo},
    {"POST", "/v2/api/<app-id>/chunks", takeChunk},
    {"GET", "/v2/sync/<app-id>/validate",
     [](const Context& c) { return success(c.state.actionsValidation(c.parameter("actionType"))); }},
    {"GET", "/v2/sync/<app-id>/rta", [](const Context& c) { return actions(c, "rta"); }},
    {"GET", "/v2/sync/<app-id>/surveys", [](const Context& c) { return actions(c, "survey"); }},
    {"GET", "/v2/sync/<app-id>/client-events/validate",
     [](const Context& c) { return success(c.state.clientEventsValidation()); }},
    {"GET", "/v2/sync/<app-id>/client-events", [](const Context& c) { return success(c.state.clientEventsReply()); }},
};

/// Returns true if `path` matches `pattern`, and sets `application` to the segment in place of the placeholder.
bool matches(std::string_view pattern, std::string_view path, std::string& application) {
  constexpr std::string_view placeholder = "<app-id>";
  const auto at = pattern.find(placeholder);
  if (at == std::string_view::npos) return pattern == path;
  const auto before = pattern.substr(0, at);
  const auto behind = pattern.substr(at + placeholder.size());
  if (path.size() <= before.size() + behind.size()) return false;
  if (path.substr(0, before.size()) != before || path.substr(path.size() - behind.size()) != behind) return false;
  application = path.substr(before.size(), path.size() - before.size() - behind.size());
  return application.find('/') == std::string::npos;
}

}  // namespace

std::string Context::parameter(const char* name) const {
  return Parameters(question.parameters).text(name);
}

Reply refusal(int status, std::string reason) {
  return {status, {{"error", std::move(reason)}}, {}, {}};
}

Reply success(Dictionary body) {
  return {200, std::move(body), {}, {}};
}

std::vector<std::string> servicePaths() {
  std::vector<std::string> paths;
  for (const Route& route : kRoutes) paths.push_back(std::string(route.method) + " " + std::string(route.path));
  return paths;
}

std::optional<Reply> reply(const Question& question, const ServiceState& state, const Store& store) {
  Context context{question, state, store, {}};
  for (const Route& route : kRoutes) {
    if (!matches(route.path, question.path, context.application)) continue;
    if (!isUTF8(context.application)) return refusal(400, "the application's id is not UTF-8");
    if (question.method == route.method) return route.answer(context);
    Reply refused = refusal(405, std::string("this path takes ") + route.method);
    refused.allow = route.method;
    return refused;
  }
  return std::nullopt;
}

}  // namespace kelvo::collector
