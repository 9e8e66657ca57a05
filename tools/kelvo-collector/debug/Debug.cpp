#include "kelvo-collector/debug/Debug.h"

#include <string_view>
#include <utility>
#include <vector>

#include "kelvo-collector/service/Documents.h"
#include "kelvo-collector/service/Parameters.h"
#include "kelvo-collector/service/Script.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using News = DebugReply::News;
using Live = DebugReply::Live;

constexpr std::int64_t kMostRows = 1000;
constexpr std::int64_t kUsualRows = 100;
constexpr std::int64_t kLongestDelay = 600'000;  // milliseconds

struct Asked {
  const Question& question;
  const Bench& bench;
  Parameters parameters{question.parameters};

  [[nodiscard]] std::size_t limit(std::int64_t usual) const {
    return static_cast<std::size_t>(parameters.number("limit", 1, kMostRows).value_or(usual));
  }
  /// The listings leave out what came up to this number.
  [[nodiscard]] std::int64_t number(const char* name) const {
    return parameters.number(name, 0, INT64_MAX).value_or(0);
  }
  template <class Reader>
  auto read(Reader reader) const {
    return bench.store.read(reader);
  }
};

DebugReply shown(Dictionary body) {
  return {success(std::move(body))};
}

DebugReply shownOr404(std::optional<Dictionary> body) {
  return body ? shown(std::move(*body)) : DebugReply{refusal(404, "there is none with this id")};
}

/// Text for a listing, which is JSON and therefore UTF-8: bytes beyond ASCII may be anything, so they show as "?".
std::string printable(std::string text) {
  for (char& byte : text) {
    if (static_cast<unsigned char>(byte) >= 0x80) byte = '?';
  }
  return text;
}

/// Where the next page of rows like `rows` begins; null behind the last one.
template <class Row>
Value nextAfter(const std::vector<Row>& rows, std::int64_t Row::*position, std::int64_t limit) {
  return static_cast<std::int64_t>(rows.size()) < limit ? Value() : Value(rows.back().*position);
}

DebugReply listRequests(const Asked& asked) {
  Array list;
  const auto limit = static_cast<std::int64_t>(asked.limit(kUsualRows));
  const auto requests = asked.bench.store.requests({}, asked.number("after"), limit);
  for (const ReceivedRequest& request : requests) {
    const auto json = parseJSON(request.body);
    list.append(Dictionary{{"sequence", request.sequence},
                           {"time", request.time},
                           {"method", request.method},
                           {"path", printable(request.path)},
                           {"query", printable(request.query)},
                           {"body", json ? *json : Value(printable(request.body))},
                           {"status", request.status}});
  }
  return shown({{"requests", std::move(list)}, {"next", nextAfter(requests, &ReceivedRequest::sequence, limit)}});
}

DebugReply listChunks(const Asked& asked) {
  Array list;
  const auto limit = static_cast<std::int64_t>(asked.limit(kUsualRows));
  const auto chunks = asked.bench.store.chunks(asked.number("after"), limit);
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
  return shown({{"chunks", std::move(list)}, {"next", nextAfter(chunks, &ReceivedChunk::request, limit)}});
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

DebugReply showService(const Asked& asked) {
  Dictionary all = documentsOf(asked.bench.state);
  Array answers;
  for (const auto& [fragment, scripts] : asked.bench.scripts.entries()) {
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
  return shown(std::move(all));
}

DebugReply takeDocument(const Asked& asked) {
  const auto refused = [](std::vector<std::string> errors) {
    Array list;
    for (std::string& error : errors) list.append(std::move(error));
    Reply reply = refusal(400, "the document cannot be used");
    reply.body.set("errors", std::move(list));
    return DebugReply{std::move(reply)};
  };
  std::string error;
  const auto body = parseJSON(asked.question.body, &error);
  if (!body) return refused({"it is not JSON: " + error});
  const std::string name = asked.question.path.substr(std::string_view("/debug/").size());
  if (auto errors = applyDocument(asked.bench.state, name, *body); !errors.empty()) return refused(std::move(errors));
  if (!asked.bench.store.keepDocument(name, jsonText(*body).value_or("null"))) {
    return {refusal(500, "it is in force, but could not be kept for the next run"), News::Service};
  }
  return {success({{"accepted", true}}), News::Service};
}

/// Nothing for an answer as usual; nullopt when what is asked for cannot be.
std::optional<std::vector<Script>> scriptsAsked(const Parameters& parameters, std::string& fault) {
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

DebugReply changeAnswer(const Asked& asked) {
  const std::string fragment = asked.parameters.text("path");
  std::string fault = fragment.empty() ? "the query names no path" : "";
  auto scripts = scriptsAsked(asked.parameters, fault);
  if (!scripts) return {refusal(400, fault)};
  asked.bench.scripts.set(fragment, std::move(*scripts));
  return {success({{"path", fragment}}), News::Service};
}

DebugReply answerNormally(const Asked& asked) {
  asked.bench.scripts.clear();
  return {success({}), News::Service};
}

DebugReply forget(const Asked& asked) {
  if (!asked.bench.store.reset()) return {refusal(500, "the store failed")};
  return {success({}), News::Reset};
}

struct Route {
  const char* method;
  std::string_view path;
  DebugReply (*answer)(const Asked&);
};

constexpr Route kRoutes[] = {
    {"GET", "/debug/stream",
     [](const Asked&) {
       return DebugReply{{}, News::None, Live::Stream};
     }},
    {"GET", "/debug/wait",
     [](const Asked&) {
       return DebugReply{{}, News::None, Live::Wait};
     }},
    {"GET", "/debug/sessions",
     [](const Asked& a) {
       return shown(a.read([&](Database& d) { return listSessions(d, a.number("before"), a.limit(50)); }));
     }},
    {"GET", "/debug/session",
     [](const Asked& a) {
       return shownOr404(a.read([&](Database& d) { return sessionDetails(d, a.parameters.text("id")); }));
     }},
    {"GET", "/debug/timeline",
     [](const Asked& a) {
       return shownOr404(a.read([&](Database& d) { return timeline(d, a.parameters.text("session")); }));
     }},
    {"GET", "/debug/events",
     [](const Asked& a) { return shown(a.read([&](Database& d) { return listEvents(d, filterOf(a.question)); })); }},
    {"GET", "/debug/event",
     [](const Asked& a) { return shownOr404(a.read([&](Database& d) { return eventDetails(d, a.number("id")); })); }},
    {"GET", "/debug/problems",
     [](const Asked& a) { return shown(a.read([&](Database& d) { return listProblems(d, filterOf(a.question)); })); }},
    {"GET", "/debug/counts", [](const Asked& a) { return shown(a.read([](Database& d) { return counts(d); })); }},
    {"GET", "/debug/aggregates",
     [](const Asked& a) { return shown(a.read([&](Database& d) { return aggregates(d, filterOf(a.question)); })); }},
    {"GET", "/debug/users",
     [](const Asked& a) { return shown(a.read([&](Database& d) { return listUsers(d, a.limit(100)); })); }},
    {"GET", "/debug/user",
     [](const Asked& a) {
       return shownOr404(a.read([&](Database& d) { return userHistory(d, a.parameters.text("id"), a.limit(100)); }));
     }},
    {"GET", "/debug/service", showService},
    {"PUT", "/debug/enabled", takeDocument},
    {"PUT", "/debug/config", takeDocument},
    {"PUT", "/debug/client-events", takeDocument},
    {"PUT", "/debug/actions/rta", takeDocument},
    {"PUT", "/debug/actions/survey", takeDocument},
    {"PUT", "/debug/answer", changeAnswer},
    {"DELETE", "/debug/answer", answerNormally},
    {"POST", "/debug/reset", forget},
    {"GET", "/debug/requests", listRequests},
    {"GET", "/debug/chunks", listChunks},
};

}  // namespace

bool isDebugPath(const std::string& path) {
  return path == "/debug" || path.rfind("/debug/", 0) == 0;
}

Filter filterOf(const Question& question) {
  const Parameters parameters(question.parameters);
  Filter filter;
  filter.session = parameters.text("session");
  filter.kind = parameters.text("kind");
  filter.name = parameters.text("name");
  filter.text = parameters.text("text");
  filter.after = parameters.number("after", 0, INT64_MAX).value_or(0);
  filter.limit = static_cast<std::size_t>(parameters.number("limit", 1, kMostRows).value_or(kUsualRows));
  filter.newestFirst = parameters.text("order") == "desc";
  return filter;
}

DebugReply debugReply(const Question& question, const Bench& bench) {
  std::string allowed;
  const std::string method = question.method == "HEAD" ? "GET" : question.method;
  for (const Route& route : kRoutes) {
    if (route.path != question.path) continue;
    if (route.method == method) return route.answer({question, bench});
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
