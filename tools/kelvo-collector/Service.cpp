#include "kelvo-collector/Service.h"

#include <charconv>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "kelvo-collector/ChunkValidation.h"
#include "kelvo-collector/ServiceState.h"
#include "kelvo-collector/Store.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

struct Context {
  const Question& question;
  const ServiceState& state;
  const Store& store;
  std::string application;  // what stands for <app-id> in the path

  [[nodiscard]] std::string parameter(const char* name) const {
    const auto found = question.parameters.find(name);
    return found == question.parameters.end() ? std::string() : found->second;
  }
  /// The debug listings leave out what came up to this sequence number.
  [[nodiscard]] std::int64_t after() const { return std::strtoll(parameter("after").c_str(), nullptr, 10); }
};

Reply refusal(int status, std::string reason) {
  return {status, {{"error", std::move(reason)}}, {}, {}, {}};
}
Reply success(Dictionary body) {
  return {200, std::move(body), {}, {}, {}};
}

/// Checks the body with `faultOf`; a reply only when it is refused.
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
  accepted.chunkOf = context.application;
  return accepted;
}

Reply takeUserInfo(const Context& context) {
  if (context.parameter("appId").empty()) return refusal(400, "the query names no appId");
  if (auto refused = refusalOf(context.question.body, faultOfUserInfo)) return *refused;
  return success({{"accepted", true}});
}

Reply actions(const Context& context, const std::string& type) {
  std::vector<std::string> pids;
  const auto [first, last] = context.question.parameters.equal_range("pids");
  for (auto asked = first; asked != last; ++asked) pids.push_back(asked->second);
  return success(context.state.actionsReply(type, pids));
}

/// Text for a listing, which is JSON and therefore UTF-8: bytes beyond ASCII may be anything, so they show as "?".
std::string printable(std::string text) {
  for (char& byte : text) {
    if (static_cast<unsigned char>(byte) >= 0x80) byte = '?';
  }
  return text;
}

Reply listRequests(const Context& context) {
  Array list;
  for (const ReceivedRequest& request : context.store.requests({}, context.after())) {
    const auto json = parseJSON(request.body);
    list.append(Dictionary{{"sequence", request.sequence},
                           {"time", request.time},
                           {"method", request.method},
                           {"path", printable(request.path)},
                           {"query", printable(request.query)},
                           {"body", json ? *json : Value(printable(request.body))},
                           {"status", request.status}});
  }
  return success({{"requests", std::move(list)}});
}

Reply listChunks(const Context& context) {
  Array list;
  for (const ReceivedChunk& chunk : context.store.chunks(context.after())) {
    list.append(Dictionary{{"request", chunk.request},
                           {"time", chunk.time},
                           {"application", chunk.application},
                           {"id", chunk.id},
                           {"session", chunk.session},
                           {"number", chunk.number},
                           {"events", chunk.eventCounts},
                           {"duplicate", chunk.duplicate},
                           {"conflict", chunk.conflict}});
  }
  return success({{"chunks", std::move(list)}});
}

/// A whole number from `least`, or nullopt.
std::optional<int> numberOf(const std::string& text, int least) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < least) return std::nullopt;
  return number;
}

Reply changeAnswer(const Context& context) {
  const std::string fragment = context.parameter("path");
  if (fragment.empty()) return refusal(400, "the query names no path");
  Reply changed = success({{"path", fragment}});
  changed.change = ScriptChange{fragment, {}};
  if (context.question.parameters.count("status") == 0) return changed;

  const auto status = numberOf(context.parameter("status"), 200);
  if (!status || *status > 599) return refusal(400, "status is no number from 200 to 599");
  Script script(*status);
  if (context.question.parameters.count("times") > 0) {
    const auto times = numberOf(context.parameter("times"), 1);
    if (!times) return refusal(400, "times is no number from 1");
    script = script.times(static_cast<std::size_t>(*times));
  }
  changed.change->scripts.push_back(std::move(script));
  return changed;
}

bool isUTF8(const std::string& text) {
  return parseJSON(jsonText(text).value_or("")).has_value();
}

struct Route {
  const char* method;
  std::string_view path;  // "<app-id>" stands for one piece
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
    {"GET", "/debug/requests", listRequests},
    {"GET", "/debug/chunks", listChunks},
    {"PUT", "/debug/answer", changeAnswer},
};

/// Whether `path` has the form of `pattern`; then `application` is what stands for the placeholder.
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

Reply unknownPath() {
  Array paths;
  for (const Route& route : kRoutes) paths.append(std::string(route.method) + " " + std::string(route.path));
  Reply reply = refusal(404, "there is no such path");
  reply.body.set("paths", std::move(paths));
  return reply;
}

}  // namespace

bool isDebugPath(const std::string& path) {
  return path.rfind("/debug/", 0) == 0;
}

Reply reply(const Question& question, const ServiceState& state, const Store& store) {
  Context context{question, state, store, {}};
  for (const Route& route : kRoutes) {
    if (!matches(route.path, question.path, context.application)) continue;
    if (!isUTF8(context.application)) return refusal(400, "the application's id is not UTF-8");
    if (question.method == route.method) return route.answer(context);
    Reply refused = refusal(405, std::string("this path takes ") + route.method);
    refused.allow = route.method;
    return refused;
  }
  return unknownPath();
}

}  // namespace kelvo::collector
