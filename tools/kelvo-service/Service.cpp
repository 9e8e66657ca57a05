#include "kelvo-service/Service.h"

#include <string_view>
#include <utility>
#include <vector>

#include "kelvo-service/ChunkValidation.h"
#include "kelvo-service/Parameters.h"
#include "kelvo-service/ServiceState.h"
#include "platform/JSON.h"

namespace kelvo::service {
namespace {

/// Checks `body` with `faultOf`. Returns the reply to a faulty body, nullopt if the body is valid.
std::optional<Reply> refusalOf(const std::string& body, std::optional<std::string> (*faultOf)(const Value&)) {
  std::string error;
  const auto value = parseJSON(body, &error);
  if (!value) return refusal(400, "the body is not JSON: " + error);
  if (auto fault = faultOf(*value)) return refusal(400, *fault);
  return std::nullopt;
}

Reply takeChunk(const RequestContext& context) {
  if (auto refused = refusalOf(context.request.body, faultOfChunk)) return *refused;
  Reply accepted = success({{"accepted", true}});
  accepted.accepted.chunkOf = context.application;
  return accepted;
}

/// Returns the reply to a query without the parameter `name`, nullopt if it has it.
std::optional<Reply> refusalWithout(const char* name, const RequestContext& context) {
  const std::string text = context.parameter(name);
  if (text.empty()) return refusal(400, std::string("the query names no ") + name);
  if (!isUTF8(text)) return refusal(400, std::string(name) + " is not UTF-8");
  return std::nullopt;
}

Reply takeUserInfo(const RequestContext& context) {
  if (auto refused = refusalWithout("appId", context)) return *refused;
  if (auto refused = refusalOf(context.request.body, faultOfUserInfo)) return *refused;
  Reply accepted = success({{"accepted", true}});
  accepted.accepted.userOf = context.parameter("appId");
  return accepted;
}

Reply takeErasure(const RequestContext& context) {
  for (const char* name : {"appId", "userId"}) {
    if (auto refused = refusalWithout(name, context)) return *refused;
  }
  Reply accepted = replyToErasure(Erasure::done);
  accepted.accepted.erasureOf = Device{context.parameter("appId"), context.parameter("userId")};
  return accepted;
}

Reply actions(const RequestContext& context, const std::string& type) {
  std::vector<std::string> pids;
  const auto [first, last] = context.request.parameters.equal_range("pids");
  for (auto pair = first; pair != last; ++pair) pids.push_back(pair->second);
  return success(context.state.actionsReply(type, pids));
}

struct Route {
  const char* method;
  std::string_view path;  // "<app-id>" matches one path segment
  Reply (*answer)(const RequestContext&);
};

constexpr std::string_view kChunksPath = "/v2/api/<app-id>/chunks";
constexpr Route kRoutes[] = {
    {"GET", "/v2/api/<app-id>/sdk/enabled-status",
     [](const RequestContext& c) { return success(c.state.enabledStatus()); }},
    {"GET", "/v2/api/config/<app-id>/ios",
     [](const RequestContext& c) { return success(c.state.configurationReply(c.application)); }},
    {"POST", "/v2/api/user", takeUserInfo},
    {"DELETE", "/v2/api/user", takeErasure},
    {"POST", kChunksPath, takeChunk},
    {"GET", "/v2/sync/<app-id>/validate",
     [](const RequestContext& c) { return success(c.state.actionsValidation(c.parameter("actionType"))); }},
    {"GET", "/v2/sync/<app-id>/rta", [](const RequestContext& c) { return actions(c, "rta"); }},
    {"GET", "/v2/sync/<app-id>/surveys", [](const RequestContext& c) { return actions(c, "survey"); }},
    {"GET", "/v2/sync/<app-id>/client-events/validate",
     [](const RequestContext& c) { return success(c.state.clientEventsValidation()); }},
    {"GET", "/v2/sync/<app-id>/client-events",
     [](const RequestContext& c) { return success(c.state.clientEventsReply()); }},
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

std::string RequestContext::parameter(const char* name) const {
  return Parameters(request.parameters).text(name);
}

bool isUTF8(const std::string& text) {
  return parseJSON(jsonText(text).value_or("")).has_value();
}

Reply refusal(int status, std::string reason) {
  return {status, {{"error", std::move(reason)}}, {}, {}};
}

Reply replyToErasure(Erasure outcome) {
  switch (outcome) {
    case Erasure::done: return success({{"erased", true}});
    case Erasure::unknownDevice: return refusal(404, "nothing is stored of this device");
    case Erasure::wrongSecret: return refusal(403, "X-Kelvo-Erase is not the secret that this device sent first");
    case Erasure::noSecret: break;
  }
  return refusal(403, "this device never sent a secret, so it cannot be erased by a request");
}

bool isChunkUpload(const Request& request) {
  std::string application;
  return request.method == "POST" && matches(kChunksPath, request.path, application);
}

std::string applicationOf(const Request& request) {
  std::string application;
  for (const Route& route : kRoutes) {
    if (matches(route.path, request.path, application) && !application.empty()) return application;
  }
  return Parameters(request.parameters).text("appId");
}

Reply success(Dictionary body) {
  return {200, std::move(body), {}, {}};
}

std::vector<std::string> servicePaths() {
  std::vector<std::string> paths;
  for (const Route& route : kRoutes) paths.push_back(std::string(route.method) + " " + std::string(route.path));
  return paths;
}

std::optional<Reply> reply(const Request& request, const ServiceState& state) {
  RequestContext context{request, state, {}};
  std::string allowed;
  for (const Route& route : kRoutes) {
    if (!matches(route.path, request.path, context.application)) continue;
    if (!isUTF8(context.application)) return refusal(400, "the application's id is not UTF-8");
    if (request.method == route.method) return route.answer(context);
    allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
  }
  if (allowed.empty()) return std::nullopt;
  Reply refused = refusal(405, "this path takes " + allowed);
  refused.allow = allowed;
  return refused;
}

}  // namespace kelvo::service
