#include "kelvo-collector/http/Live.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <utility>

#include "kelvo-collector/debug/Debug.h"
#include "kelvo-collector/http/Bell.h"
#include "kelvo-collector/http/Connection.h"
#include "kelvo-collector/service/Parameters.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kHeartbeat{15'000};
/// Between two looks at the store, so that a flood of chunks is looked up in bunches.
constexpr milliseconds kPause{20};
constexpr std::size_t kChunksAtOnce = 100;
constexpr std::int64_t kFarBehind = 1000;  // chunks

std::string message(const char* event, const Dictionary& data, std::int64_t id = 0) {
  const std::string idLine = id == 0 ? "" : "id: " + std::to_string(id) + "\n";
  return idLine + "event: " + event + "\ndata: " + jsonText(data).value_or("{}") + "\n\n";
}

std::int64_t newestChunk(Database& database) {
  Database::Query row(database, "SELECT coalesce(max(request), 0) FROM chunks");
  return row.next() ? row.number() : 0;
}

/// The chunks after `sequence`, and the sessions that they changed, as messages. Moves `sequence` on; true when there
/// may be more.
bool readNews(Database& database, std::int64_t& sequence, std::string& messages) {
  std::size_t count = 0;
  std::set<std::int64_t> sessions;
  {
    Database::Query rows(database,
                         "SELECT request, session, session_id, number, events FROM chunks WHERE request > ?"
                         " ORDER BY request LIMIT ?",
                         sequence, kChunksAtOnce);
    for (; rows.next(); ++count) {
      sequence = rows.number();
      sessions.insert(rows.number());
      Dictionary chunk{{"session", rows.text()}, {"chunk", rows.number()}, {"events", rows.number()}};
      chunk.set("sequence", sequence);
      messages += message("chunk", chunk, sequence);
    }
  }
  for (const std::int64_t session : sessions) messages += message("session", sessionRow(database, session), sequence);
  return count == kChunksAtOnce;
}

/// Where a client begins: after what it has seen, or with what comes next. True when it must read everything anew.
bool begin(Database& database, const std::string& lastEventId, std::int64_t& sequence) {
  sequence = newestChunk(database);
  const Parameters::Pairs pairs{{"id", lastEventId}};
  const auto seen = Parameters(pairs).number("id", 0, INT64_MAX);
  if (!seen || *seen == sequence) return !seen && !lastEventId.empty();
  Database::Query missed(database, "SELECT count(*) FROM (SELECT 1 FROM chunks WHERE request > ? LIMIT ?)", *seen,
                         kFarBehind + 1);
  const bool canFollow = *seen < sequence && missed.next() && missed.number() <= kFarBehind;
  if (canFollow) sequence = *seen;
  return !canFollow;
}

}  // namespace

EventStream::EventStream(const Store& store, Bell& bell, const std::string& lastEventId)
    : store_(store), bell_(bell), serviceChanges_(bell.serviceChanges()), resets_(bell.resets()) {
  anew_ = store.read([&](Database& d) { return begin(d, lastEventId, sequence_); });
}

void EventStream::serve(Connection& connection, const std::function<bool(const std::string&)>& write) {
  const Bell::Ear ear(bell_);
  if (!ear.listens()) return;
  if (!write(anew_ ? message("reset", {}) : ": here\n\n")) return;

  for (;;) {
    ear.clear();
    std::string messages;
    if (const auto now = bell_.resets(); now != std::exchange(resets_, now)) messages += message("reset", {});
    if (const auto now = bell_.serviceChanges(); now != std::exchange(serviceChanges_, now)) {
      messages += message("service", {});
    }
    const bool more = store_.read([&](Database& d) { return readNews(d, sequence_, messages); });
    if (!messages.empty() && !write(messages)) return;
    if (more) continue;
    if (!messages.empty() && !connection.stay(kPause)) return;
    const auto waited = connection.await(ear.descriptor(), kHeartbeat);
    if (waited == Connection::Waited::Gone) return;
    if (waited == Connection::Waited::TimeOver && !write(": still here\n\n")) return;
  }
}

std::optional<Reply> waitForEvents(const Question& question, const Store& store, Bell& bell, Connection& connection) {
  const Parameters parameters(question.parameters);
  const auto wanted = parameters.has("count") ? parameters.number("count", 0, INT64_MAX) : 1;
  const auto seconds = parameters.has("timeout") ? parameters.number("timeout", 0, 600) : 10;
  if (!wanted) return refusal(400, "count is no number from 0");
  if (!seconds) return refusal(400, "timeout is no number of seconds from 0 to 600");

  const Bell::Ear ear(bell);
  if (!ear.listens()) return refusal(503, "too many wait already");
  const Filter filter = filterOf(question);
  const auto end = steady_clock::now() + std::chrono::seconds(*seconds);
  for (;;) {
    ear.clear();
    const std::int64_t found = store.read([&](Database& d) { return countEvents(d, filter); });
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    const bool reached = found >= *wanted;
    if (reached || left.count() <= 0) {
      Reply reply = success({{"found", found}, {"reached", reached}});
      reply.status = reached ? 200 : 408;
      return reply;
    }
    if (connection.await(ear.descriptor(), left) == Connection::Waited::Gone) return std::nullopt;
  }
}

}  // namespace kelvo::collector
