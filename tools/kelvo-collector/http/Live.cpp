#include "kelvo-collector/http/Live.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <utility>

#include "kelvo-collector/debug/Events.h"
#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/http/Bell.h"
#include "kelvo-collector/http/Connection.h"
#include "kelvo-service/Parameters.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using service::Parameters;
using service::refusal;
using service::success;

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// After so long without news, a stream sends a comment, so that proxies and dead clients are noticed.
constexpr milliseconds kHeartbeat{15'000};
/// Between two lookups, so that chunks that arrive in quick succession are read together.
constexpr milliseconds kPause{20};
constexpr std::size_t kChunksPerRead = 100;
/// A client that has missed more chunks than this loads everything again.
constexpr std::int64_t kMostMissedChunks = 1000;
/// Limits of /debug/wait, in seconds.
constexpr std::int64_t kUsualTimeout = 10;
constexpr std::int64_t kLongestTimeout = 600;

std::string message(const char* event, const Dictionary& data, std::int64_t id = 0) {
  const std::string idField = id == 0 ? "" : "id: " + std::to_string(id) + "\n";
  return idField + "event: " + event + "\ndata: " + jsonText(data).value_or("{}") + "\n\n";
}

std::int64_t newestChunk(Database& database) {
  Database::Query row(database, "SELECT coalesce(max(request), 0) FROM chunks");
  return row.next() ? row.number() : 0;
}

/// Appends a message for each chunk after `sequence` and each session that these chunks changed. Advances `sequence`.
/// Returns true if there may be more chunks.
bool readNews(Database& database, std::int64_t& sequence, std::string& messages) {
  std::size_t count = 0;
  std::set<std::int64_t> sessions;
  {
    Database::Query rows(database,
                         "SELECT request, session, session_id, number, events FROM chunks WHERE request > ?"
                         " ORDER BY request LIMIT ?",
                         sequence, kChunksPerRead);
    for (; rows.next(); ++count) {
      sequence = rows.number();
      sessions.insert(rows.number());
      Dictionary chunk{{"session", rows.text()}, {"chunk", rows.number()}, {"events", rows.number()}};
      chunk.set("sequence", sequence);
      messages += message("chunk", chunk, sequence);
    }
  }
  for (const std::int64_t session : sessions) messages += message("session", sessionRow(database, session), sequence);
  return count == kChunksPerRead;
}

/// Sets `sequence` to the chunk after which a client's stream begins. Returns true if the client must load everything
/// again.
bool findBeginning(Database& database, const std::string& lastEventId, std::int64_t& sequence) {
  sequence = newestChunk(database);
  const Parameters::Pairs pairs{{"id", lastEventId}};
  const auto seen = Parameters(pairs).number("id", 0, INT64_MAX);
  if (!seen) return !lastEventId.empty();
  if (*seen == sequence) return false;
  Database::Query missed(database, "SELECT count(*) FROM (SELECT 1 FROM chunks WHERE request > ? LIMIT ?)", *seen,
                         kMostMissedChunks + 1);
  const bool canResume = *seen < sequence && missed.next() && missed.number() <= kMostMissedChunks;
  if (canResume) sequence = *seen;
  return !canResume;
}

}  // namespace

EventStream::EventStream(const Store& store, Bell& bell, const std::string& lastEventId)
    : store_(store),
      bell_(bell),
      serviceChanges_(bell.serviceChanges()),
      erasures_(bell.erasures()),
      resets_(bell.resets()) {
  mustReload_ = store.read([&](Database& d) { return findBeginning(d, lastEventId, sequence_); });
}

void EventStream::serve(Connection& connection, const std::function<bool(const std::string&)>& write) {
  const Bell::Subscription news(bell_);
  if (!news.isActive()) return;
  if (!write(mustReload_ ? message("reset", {}) : ": here\n\n")) return;

  for (;;) {
    news.clear();
    std::string messages;
    if (const auto now = bell_.resets(); now != std::exchange(resets_, now)) messages += message("reset", {});
    if (const auto now = bell_.serviceChanges(); now != std::exchange(serviceChanges_, now)) {
      messages += message("service", {});
    }
    if (const auto now = bell_.erasures(); now != std::exchange(erasures_, now)) messages += message("erased", {});
    const bool more = store_.read([&](Database& d) { return readNews(d, sequence_, messages); });
    if (!messages.empty() && !write(messages)) return;
    if (more) continue;
    if (!messages.empty() && !connection.staysOpen(kPause)) return;
    const auto waited = connection.waitFor(news.descriptor(), kHeartbeat);
    if (waited == Connection::WaitResult::Closed) return;
    if (waited == Connection::WaitResult::TimeOver && !write(": still here\n\n")) return;
  }
}

std::optional<Reply> waitForEvents(const Request& request, const Store& store, Bell& bell, Connection& connection) {
  const Parameters parameters(request.parameters);
  const auto wanted = parameters.has("count") ? parameters.number("count", 0, INT64_MAX) : 1;
  const auto seconds = parameters.has("timeout") ? parameters.number("timeout", 0, kLongestTimeout) : kUsualTimeout;
  if (!wanted) return refusal(400, "count is no number from 0");
  if (!seconds) return refusal(400, "timeout is no number of seconds from 0 to 600");

  const Bell::Subscription news(bell);
  if (!news.isActive()) return refusal(503, "too many wait already");
  const Filter filter = filterOf(request);
  const auto end = steady_clock::now() + std::chrono::seconds(*seconds);
  for (;;) {
    news.clear();
    const std::int64_t found = store.read([&](Database& d) { return countEvents(d, filter); });
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    const bool reached = found >= *wanted;
    if (reached || left.count() <= 0) {
      Reply reply = success({{"found", found}, {"reached", reached}});
      reply.status = reached ? 200 : 408;
      return reply;
    }
    if (connection.waitFor(news.descriptor(), left) == Connection::WaitResult::Closed) return std::nullopt;
  }
}

}  // namespace kelvo::collector
