#include "kelvo-collector/debug/Debug.h"

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "kelvo-collector/debug/Aggregates.h"
#include "kelvo-collector/debug/Events.h"
#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/debug/Problems.h"
#include "kelvo-collector/debug/Timeline.h"
#include "kelvo-collector/debug/Users.h"
#include "kelvo-collector/service/Script.h"
#include "kelvo-service/Documents.h"
#include "kelvo-service/Parameters.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using service::applyDocument;
using service::documentsOf;
using service::Parameters;
using service::refusal;
using service::servicePaths;
using service::success;

using Effect = DebugReply::Effect;
using Delivery = DebugReply::Delivery;

constexpr std::int64_t kUsualSessions = 50;              // on a page
constexpr std::int64_t kLongestPeriod = 10'000'000'000;  // seconds, beyond all times of a session
constexpr std::int64_t kLongestDelay = 600'000;          // milliseconds

struct DebugRequest {
  const Request& http;
  const DebugTargets& targets;
  Parameters parameters{http.parameters};

  /// Returns the number of rows that the query asks for, else `usual`.
  [[nodiscard]] std::size_t limit(std::int64_t usual) const {
    return static_cast<std::size_t>(parameters.number("limit", 1, kMostRows).value_or(usual));
  }
  /// Returns the parameter `name`, an id or a cursor, 0 if it is absent or out of range.
  [[nodiscard]] std::int64_t number(const char* name) const {
    return parameters.number(name, 0, INT64_MAX).value_or(0);
  }
  template <class Reader>
  auto read(Reader reader) const {
    return targets.store.read(reader);
  }
};

DebugReply ok(Dictionary body) {
  return {success(std::move(body))};
}

DebugReply okOr404(std::optional<Dictionary> body) {
  return body ? ok(std::move(*body)) : DebugReply{refusal(404, "there is none with this id")};
}

/// Returns `text` with "?" for each byte beyond ASCII: the text may not be UTF-8, but the listing is JSON.
std::string printable(std::string text) {
  constexpr unsigned char firstBeyondASCII = 0x80;
  for (char& byte : text) {
    if (static_cast<unsigned char>(byte) >= firstBeyondASCII) byte = '?';
  }
  return text;
}

/// Returns the cursor of the page after `rows`, null if `rows` is the last page.
template <class Row>
Value nextAfter(const std::vector<Row>& rows, std::int64_t Row::*position, std::int64_t limit) {
  return static_cast<std::int64_t>(rows.size()) < limit ? Value() : Value(rows.back().*position);
}

DebugReply listRequests(const DebugRequest& request) {
  Array list;
  const auto limit = static_cast<std::int64_t>(request.limit(kUsualRows));
  const auto requests = request.targets.store.requests({}, request.number("after"), limit);
  for (const ReceivedRequest& received : requests) {
    const auto json = parseJSON(received.body);
    list.append(Dictionary{{"sequence", received.sequence},
                           {"time", received.time},
                           {"method", received.method},
                           {"path", printable(received.path)},
                           {"query", printable(received.query)},
                           {"body", json ? *json : Value(printable(received.body))},
                           {"status", received.status}});
  }
  return ok({{"requests", std::move(list)}, {"next", nextAfter(requests, &ReceivedRequest::sequence, limit)}});
}

DebugReply listChunks(const DebugRequest& request) {
  Array list;
  const auto limit = static_cast<std::int64_t>(request.limit(kUsualRows));
  const auto chunks = request.targets.store.chunks(request.number("after"), limit);
  for (const ReceivedChunk& chunk : chunks) {
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
  return ok({{"chunks", std::move(list)}, {"next", nextAfter(chunks, &ReceivedChunk::request, limit)}});
}

const char* nameOfMode(const Script& script) {
  switch (script.kind()) {
    case Script::Kind::Never: return "hang";
    case Script::Kind::Cut:
    case Script::Kind::CutShort:
    case Script::Kind::LoseAnswer: return "drop";
    default: return "answer";
  }
}

DebugReply showService(const DebugRequest& request) {
  Dictionary all = documentsOf(request.targets.state);
  Array answers;
  for (const auto& [fragment, scripts] : request.targets.scripts.entries()) {
    for (const Script& script : scripts) {
      const bool hasStatus = script.kind() == Script::Kind::Answer;
      answers.append(Dictionary{{"path", fragment},
                                {"status", hasStatus ? Value(script.status()) : Value()},
                                {"delay_ms", script.delay().count()},
                                {"mode", nameOfMode(script)},
                                {"times", script.left() == 0 ? Value() : Value(script.left())}});
    }
  }
  all.set("answers", std::move(answers));
  return ok(std::move(all));
}

DebugReply refused(std::vector<std::string> errors) {
  Array list;
  for (std::string& error : errors) list.append(std::move(error));
  Reply reply = refusal(400, "the document cannot be used");
  reply.body.set("errors", std::move(list));
  return {std::move(reply)};
}

/// Calls `use` with the body, or refuses a body that is not JSON.
template <DebugReply (*use)(const DebugRequest&, const Value&)>
DebugReply putJSON(const DebugRequest& request) {
  std::string error;
  const auto body = parseJSON(request.http.body, &error);
  return body ? use(request, *body) : refused({"it is not JSON: " + error});
}

DebugReply putDocument(const DebugRequest& request, const Value& body) {
  const std::string name = request.http.path.substr(std::string_view("/debug/").size());
  auto errors = applyDocument(request.targets.state, name, body);
  if (!errors.empty()) return refused(std::move(errors));
  if (!request.targets.store.keepDocument(name, jsonText(body).value_or("null"))) {
    return {refusal(500, "it is in force, but could not be kept for the next run"), Effect::ServiceChanged};
  }
  return {success({{"accepted", true}}), Effect::ServiceChanged};
}

DebugReply putExpectations(const DebugRequest& request, const Value& body) {
  std::vector<std::string> errors;
  const auto expectations = Expectations::parse(body, errors);
  if (!expectations) return refused(std::move(errors));
  if (!request.targets.store.expect(*expectations, jsonText(body).value_or("{}"))) {
    return {refusal(500, "the store failed")};
  }
  return {success({{"accepted", true}}), Effect::ServiceChanged};
}

/// Returns the expectations with the number of good and bad events of each name.
DebugReply showExpectations(const DebugRequest& request) {
  Dictionary body{{"expectations", stored(request.targets.store.document("expectations").value_or("{}"))}};
  request.read([&](Database& d) {
    for (const char* verdict : {"good", "bad"}) body.set(verdict, countersOf(d, 0, verdict));
    return 0;
  });
  return ok(std::move(body));
}

DebugReply putChecks(const DebugRequest& request, const Value& body) {
  auto errors = faultsOfChecks(body);
  if (!errors.empty()) return refused(std::move(errors));
  const bool kept = request.targets.store.change([&](Database& d) { switchChecks(d, *body.get<Dictionary>()); });
  return kept ? DebugReply{success({{"accepted", true}}), Effect::ServiceChanged}
              : DebugReply{refusal(500, "the store failed")};
}

DebugReply listJudgedAs(bool good, const DebugRequest& request) {
  return ok(request.read([&](Database& d) { return listJudged(d, good, filterOf(request.http)); }));
}

/// Returns the script that the query describes, an empty list for the usual answer. Returns nullopt and sets `fault` if
/// the query is unusable.
std::optional<std::vector<Script>> scriptsFrom(const Parameters& parameters, std::string& fault) {
  const bool hasStatus = parameters.has("status"), hasDelay = parameters.has("delay_ms");
  const std::string mode = parameters.has("mode") ? parameters.text("mode") : "answer";
  const auto status = parameters.number("status", 200, 599);
  const auto delay = parameters.number("delay_ms", 0, kLongestDelay);
  const auto times = parameters.number("times", 1, INT32_MAX);
  if (hasStatus && !status) fault = "status is no number from 200 to 599";
  if (hasDelay && !delay) fault = "delay_ms is no number from 0 to 600000";
  if (mode != "answer" && mode != "hang" && mode != "drop") fault = "mode is none of answer, hang and drop";
  if (parameters.has("times") && !times) fault = "times is no number from 1";
  if (!fault.empty()) return std::nullopt;

  if (mode == "answer" && !hasStatus && delay.value_or(0) == 0) return std::vector<Script>{};
  const std::chrono::milliseconds late(delay.value_or(0));
  const Script script = mode == "hang"   ? Script::never()
                        : mode == "drop" ? Script::cut()
                        : hasStatus      ? Script(static_cast<int>(*status)).after(late)
                                         : Script::late(late);
  return std::vector<Script>{script.times(static_cast<std::size_t>(times.value_or(0)))};
}

DebugReply putAnswer(const DebugRequest& request) {
  const std::string fragment = request.parameters.text("path");
  std::string fault = fragment.empty() ? "the query names no path" : "";
  auto scripts = scriptsFrom(request.parameters, fault);
  if (!scripts) return {refusal(400, fault)};
  request.targets.scripts.set(fragment, std::move(*scripts));
  return {success({{"path", fragment}}), Effect::ServiceChanged};
}

DebugReply deleteAnswers(const DebugRequest& request) {
  request.targets.scripts.clear();
  return {success({}), Effect::ServiceChanged};
}

DebugReply reset(const DebugRequest& request) {
  if (!request.targets.store.reset()) return {refusal(500, "the store failed")};
  return {success({}), Effect::StoreReset};
}

/// Returns the part of a timeline that the query asks for.
Period periodOf(const Parameters& parameters) {
  const auto from = parameters.number("from", -kLongestPeriod, kLongestPeriod);
  const auto to = parameters.number("to", -kLongestPeriod, kLongestPeriod);
  return {from.value_or(-kLongestPeriod), to.value_or(kLongestPeriod)};
}

struct Route {
  const char* method;
  std::string_view path;
  DebugReply (*answer)(const DebugRequest&);
};

constexpr Route kRoutes[] = {
    {"GET", "/debug/stream",
     [](const DebugRequest&) {
       return DebugReply{{}, Effect::None, Delivery::Stream};
     }},
    {"GET", "/debug/wait",
     [](const DebugRequest&) {
       return DebugReply{{}, Effect::None, Delivery::Wait};
     }},
    {"GET", "/debug/sessions",
     [](const DebugRequest& r) {
       return ok(r.read([&](Database& d) {
         return listSessions(d, r.number("before"), r.limit(kUsualSessions), r.parameters.text("find"));
       }));
     }},
    {"GET", "/debug/session",
     [](const DebugRequest& r) {
       return okOr404(r.read([&](Database& d) { return sessionDetails(d, r.parameters.text("id")); }));
     }},
    {"GET", "/debug/timeline",
     [](const DebugRequest& r) {
       return okOr404(
           r.read([&](Database& d) { return timeline(d, r.parameters.text("session"), periodOf(r.parameters)); }));
     }},
    {"GET", "/debug/events",
     [](const DebugRequest& r) { return ok(r.read([&](Database& d) { return listEvents(d, filterOf(r.http)); })); }},
    {"GET", "/debug/event",
     [](const DebugRequest& r) {
       return okOr404(r.read([&](Database& d) { return eventDetails(d, r.number("id")); }));
     }},
    {"GET", "/debug/problems",
     [](const DebugRequest& r) { return ok(r.read([&](Database& d) { return listProblems(d, filterOf(r.http)); })); }},
    {"GET", "/debug/problem",
     [](const DebugRequest& r) {
       return okOr404(r.read(
           [&](Database& d) { return problemDetails(d, r.number("id"), r.number("after"), r.limit(kUsualRows)); }));
     }},
    {"GET", "/debug/counts", [](const DebugRequest& r) { return ok(r.read([](Database& d) { return counts(d); })); }},
    {"GET", "/debug/aggregates",
     [](const DebugRequest& r) { return ok(r.read([&](Database& d) { return aggregates(d, filterOf(r.http)); })); }},
    {"GET", "/debug/users",
     [](const DebugRequest& r) { return ok(r.read([&](Database& d) { return listUsers(d, r.limit(kUsualRows)); })); }},
    {"GET", "/debug/user",
     [](const DebugRequest& r) {
       return okOr404(
           r.read([&](Database& d) { return userHistory(d, r.parameters.text("id"), r.limit(kUsualRows)); }));
     }},
    {"GET", "/debug/erasures",
     [](const DebugRequest& r) {
       return ok(r.read([&](Database& d) { return listErasures(d, r.limit(kUsualRows)); }));
     }},
    {"GET", "/debug/service", showService},
    {"PUT", "/debug/enabled", putJSON<putDocument>},
    {"PUT", "/debug/config", putJSON<putDocument>},
    {"PUT", "/debug/client-events", putJSON<putDocument>},
    {"PUT", "/debug/actions/rta", putJSON<putDocument>},
    {"PUT", "/debug/actions/survey", putJSON<putDocument>},
    {"GET", "/debug/expectations", showExpectations},
    {"PUT", "/debug/expectations", putJSON<putExpectations>},
    {"GET", "/debug/good", [](const DebugRequest& r) { return listJudgedAs(true, r); }},
    {"GET", "/debug/bad", [](const DebugRequest& r) { return listJudgedAs(false, r); }},
    {"GET", "/debug/checks", [](const DebugRequest& r) { return ok(r.read([](Database& d) { return checks(d); })); }},
    {"PUT", "/debug/checks", putJSON<putChecks>},
    {"PUT", "/debug/answer", putAnswer},
    {"DELETE", "/debug/answer", deleteAnswers},
    {"POST", "/debug/reset", reset},
    {"GET", "/debug/requests", listRequests},
    {"GET", "/debug/chunks", listChunks},
};

}  // namespace

bool isDebugPath(const std::string& path) {
  return path == "/debug" || path.rfind("/debug/", 0) == 0;
}

DebugReply debugReply(const Request& request, const DebugTargets& targets) {
  std::string allowed;
  const std::string method = request.method == "HEAD" ? "GET" : request.method;
  for (const Route& route : kRoutes) {
    if (route.path != request.path) continue;
    if (route.method == method) return route.answer({request, targets});
    allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
  }
  if (allowed.empty()) return {unknownPath()};
  DebugReply refused{refusal(405, "this path takes " + allowed)};
  refused.reply.allow = allowed;
  return refused;
}

Reply unknownPath() {
  Array paths;
  for (const std::string& path : servicePaths()) paths.append(path);
  for (const Route& route : kRoutes) paths.append(std::string(route.method) + " " + std::string(route.path));
  Reply reply = refusal(404, "there is no such path");
  reply.body.set("paths", std::move(paths));
  return reply;
}

}  // namespace kelvo::collector
