#include "kelvo-collector/store/Arrival.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "kelvo-collector/store/ChunkCounts.h"
#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "kelvo-collector/store/Quality.h"
#include "kelvo-collector/store/Schema.h"
#include "kelvo-service/EventKinds.h"
#include "kelvo-service/EventText.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using service::EventKind;
using service::kEventKinds;
using service::Span;

constexpr const char* kAggregates = "agg_events";
constexpr const char* kUserId = "custom_user_id";  // among the user attributes
constexpr double kLatestSecond = 1e9;              // a session is at most this long
constexpr std::string_view kNavigation = "navigation";
constexpr std::string_view kApp = "app";

/// Returns the names of the members that only one of the two has, or that have different values.
Array changesBetween(const Dictionary& before, const Dictionary& now) {
  Array changed;
  for (const auto& [name, value] : now) {
    const Value* old = before.find(name);
    if (old == nullptr || !(*old == value)) changed.append(name);
  }
  for (const auto& [name, value] : before) {
    if (!now.contains(name)) changed.append(name);
  }
  return changed;
}

void keepUserAttributes(Database& database, const std::string& application, const std::string& id,
                        const Dictionary& attributes, std::int64_t time) {
  std::int64_t user = 0;
  Dictionary before;
  {
    Database::Query known(database, "SELECT key, attributes FROM users WHERE id = ? AND application = ?", id,
                          application);
    if (known.next()) {
      user = known.number();
      before = dictionaryFromJSON(known.text());
    }
  }
  const bool isNew = user == 0;
  const Array changed = changesBetween(before, attributes);
  if (isNew) {
    Database::Query(database, "INSERT INTO users VALUES (NULL, ?, ?, ?, ?, '')", application, id,
                    jsonFromDictionary(attributes), time)
        .execute();
    user = database.lastRow();
  } else {
    Database::Query(database, "UPDATE users SET attributes = ?, received = ? WHERE key = ?",
                    jsonFromDictionary(attributes), time, user)
        .execute();
  }
  if (!isNew && changed.empty()) return;
  Database::Query(database, "INSERT INTO user_history VALUES (NULL, ?, ?, ?, ?)", user, time,
                  jsonFromDictionary(attributes), jsonText(changed).value_or("[]"))
      .execute();
}

/// Stores one chunk. Used once.
class ChunkKeeper {
 public:
  ChunkKeeper(Database& database, const ArrivedBody& arrived, const std::string& application,
              const Expectations& expectations)
      : database_(database),
        expectations_(expectations),
        arrived_(arrived),
        application_(application),
        body_(dictionaryFromJSON(arrived.body)),
        record_(part("session_info")),
        details_(part("chunk_details")),
        device_(part("device_info")),
        userAttributes_(details_["user_attributes"].asDictionary().value_or(Dictionary())),
        chunkAttributes_(details_["chunk_attributes"].asDictionary().value_or(Dictionary())),
        deviceId_(description(device_["id"])),
        sessionId_(description(record_["id"])),
        userId_(userAttributes_[kUserId].asText().value_or("")),
        id_(description(part("chunk_meta")["id"])),
        number_(part("chunk_meta")["number"].asInt64()) {}

  void keep() {
    keepSession();
    keepRow();
    Quality quality(database_, {session_, number_, arrived_.time}, sessionId_, expectations_);
    ChunkCounts chunkCounts(database_, session_);
    if (conflict_) quality.reportConflict(id_, firstRequest_, arrived_.sequence);
    if (!conflict_ && !duplicate_) {
      quality.checkOrder(highestNumber_, evictedOf(chunkAttributes_));
      quality.checkSession(record_);
      for (const EventKind& kind : kEventKinds) keepEvents(kind, quality, chunkCounts);
    }
    if (!conflict_) {
      keepAggregates(quality, chunkCounts);
      keepLedger();
    }
    chunkCounts.write(quality);
    finishSession();
    keepUserAttributes(database_, application_, deviceId_, userAttributes_, arrived_.time);
  }

 private:
  /// Returns a member of the body, empty if it is no object.
  [[nodiscard]] Dictionary part(const char* name) const { return body_[name].asDictionary().value_or(Dictionary()); }
  /// Returns a list of "chunk_details", empty if it is missing.
  [[nodiscard]] Array listOf(const char* name) const { return details_[name].asArray().value_or(Array()); }

  void keepSession() {
    {
      Database::Query known(database_,
                            "SELECT key, highest_chunk FROM sessions WHERE id = ? AND application = ?"
                            " AND device_id = ?",
                            sessionId_, application_, deviceId_);
      if (known.next()) {
        session_ = known.number();
        highestNumber_ = known.number();
      }
    }
    if (session_ == 0) {
      Database::Query(
          database_, "INSERT INTO sessions VALUES (NULL, ?, ?, '', '', '', '', '', ?, 0, 0, ?, ?, 0, 0, '', ?)",
          application_, sessionId_, record_["launch_time"].asInt64(), arrived_.time, arrived_.sequence, deviceId_)
          .execute();
      session_ = database_.lastRow();
      addToCounter(database_, kAllSessions, "total", "sessions", 1);
    }
  }

  /// Stores the chunk's row, and finds out if the chunk is a duplicate by the fingerprint of its events. The
  /// fingerprint leaves out aggregate counts and attributes, because a resent chunk carries newer ones.
  void keepRow() {
    Dictionary counts;
    for (const EventKind& kind : kEventKinds) {
      if (!details_.contains(kind.list)) continue;
      const Array all = listOf(kind.list);
      counts.set(kind.list, all.size());
      for (const Value& event : all) {
        if (const auto* members = event.get<Dictionary>()) lastEvent_ = std::max(lastEvent_, timeOf(*members, kind));
      }
      eventsInChunk_ += static_cast<std::int64_t>(all.size());
    }
    if (details_.contains(kAggregates)) counts.set(kAggregates, listOf(kAggregates).size());
    const std::string events = service::fingerprintOfEvents(details_);
    {
      Database::Query earlier(database_,
                              "SELECT min(request), max(fingerprint = ?), max(fingerprint <> ?) FROM chunks"
                              " WHERE application = ? AND id = ? AND session = ?",
                              events, events, application_, id_, session_);
      if (earlier.next()) {
        firstRequest_ = earlier.number();
        duplicate_ = earlier.number() != 0;
        conflict_ = earlier.number() != 0;
      }
    }
    Database::Query(database_, "INSERT INTO chunks VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", arrived_.sequence,
                    arrived_.time, application_, id_, session_, sessionId_, number_, jsonFromDictionary(counts),
                    eventsInChunk_, lastEvent_, events, int(duplicate_), int(conflict_))
        .execute();
  }

  std::int64_t insertEvent(const char* kind, const std::string& name, double time, const Dictionary& attributes,
                           const Span& text) {
    Database::Query(database_, "INSERT INTO events VALUES (NULL, ?, ?, ?, ?, ?, ?, ?, ?, ?)", session_, number_,
                    arrived_.sequence, kind, name, time, jsonFromDictionary(attributes), text.position, text.size)
        .execute();
    ++keptEvents_;
    return database_.lastRow();
  }

  [[nodiscard]] Span textOf(const char* list, std::size_t index) const {
    const auto found = texts_.find(list);
    return found != texts_.end() && index < found->second.size() ? found->second[index] : Span{};
  }

  void keepEvents(const EventKind& kind, Quality& quality, ChunkCounts& chunkCounts) {
    const Array events = listOf(kind.list);
    for (std::size_t i = 0; i < events.size(); ++i) {
      const auto* event = events[i].get<Dictionary>();
      if (event == nullptr) continue;
      const std::string name = description((*event)[kind.name]);
      const double time = timeOf(*event, kind);
      const Dictionary attributes = attributesOf(*event, kind);
      const std::int64_t id = insertEvent(kind.kind, name, time, attributes, textOf(kind.list, i));
      const double duration = kind.kind == kNavigation ? (*event)["duration"].asDouble() : 0;
      length_ = std::max({length_, time, std::min(time + duration, kLatestSecond)});
      chunkCounts.addName(kind.kind, name, 1, id);
      if (kind.kind != kNavigation) {
        chunkCounts.addPoint(static_cast<std::int64_t>(std::floor(time)), kind.kind, name);
      }
      quality.checkEvent({kind.kind, name, *event, attributes, time, id});
      if (kind.kind != kApp) continue;
      for (const auto& [attribute, value] : attributes) chunkCounts.addValue(kind.kind, name, attribute, value, 1, id);
    }
  }

  /// Each chunk carries the session's total counts so far. Stores the newest attributes, and adds the difference to the
  /// counts.
  void keepAggregates(Quality& quality, ChunkCounts& chunkCounts) {
    const Array events = listOf(kAggregates);
    for (std::size_t i = 0; i < events.size(); ++i) {
      const auto* event = events[i].get<Dictionary>();
      if (event == nullptr) continue;
      const std::string name = description((*event)["name"]);
      const Dictionary attributes = (*event)["attributes"].asDictionary().value_or(Dictionary());
      std::int64_t row = 0;
      {
        Database::Query known(database_, "SELECT id FROM events WHERE session = ? AND name = ? AND kind = 'aggregate'",
                              session_, name);
        if (known.next()) row = known.number();
      }
      const Span text = textOf(kAggregates, i);
      if (row == 0) {
        row = insertEvent("aggregate", name, lastEvent_, attributes, text);
        quality.checkEvent({"aggregate", name, *event, attributes, lastEvent_, row});
      } else {
        Database::Query(database_,
                        "UPDATE events SET chunk = ?, request = ?, time = ?, attributes = ?, position = ?, size = ?"
                        " WHERE id = ?",
                        number_, arrived_.sequence, lastEvent_, jsonFromDictionary(attributes), text.position,
                        text.size, row)
            .execute();
      }
      quality.judge({"aggregate", name, *event, attributes, lastEvent_, row});
      addDifference(name, (*event)["count"].asInt64(), attributes, row, chunkCounts);
    }
  }

  void addDifference(const std::string& name, std::int64_t count, const Dictionary& attributes, std::int64_t row,
                     ChunkCounts& chunkCounts) {
    std::int64_t before = 0;
    {
      Database::Query known(database_, "SELECT count FROM names WHERE session = ? AND kind = 'aggregate' AND name = ?",
                            session_, name);
      if (known.next()) before = known.number();
    }
    if (count > before) chunkCounts.addName("aggregate", name, count - before, row);
    for (const auto& [attribute, values] : attributes) {
      for (const Value& value : values.asArray().value_or(Array())) {
        const auto* pair = value.get<Array>();
        if (pair == nullptr || pair->size() != 2) continue;
        const std::int64_t more =
            (*pair)[1].asInt64() - chunkCounts.storedCount("aggregate", name, attribute, (*pair)[0]);
        if (more > 0) chunkCounts.addValue("aggregate", name, attribute, (*pair)[0], more, row);
      }
    }
  }

  /// Keeps the device's ledger of the session's last chunk, and of its last sending.
  void keepLedger() {
    const auto* ledger = chunkAttributes_["ledger"].get<Dictionary>();
    if (ledger == nullptr) return;
    Database::Query(database_,
                    "INSERT INTO ledgers VALUES (?, ?, ?) ON CONFLICT (session) DO UPDATE"
                    " SET number = excluded.number, ledger = excluded.ledger WHERE excluded.number >= number",
                    session_, number_, jsonFromDictionary(*ledger))
        .execute();
  }

  void finishSession() {
    const bool isNew = !duplicate_ && !conflict_;
    const double reported = std::max(record_["duration"].asDouble(), record_["total_duration"].asDouble());
    length_ = std::max(length_, std::min(reported, kLatestSecond));
    Database::Query(database_,
                    "UPDATE sessions SET record = ?, user = ?, device = ?, app = ?, sdk = ?, launch = ?,"
                    " length = max(length, ?), highest_chunk = max(highest_chunk, ?), received = ?, sequence = ?,"
                    " chunks = chunks + ?, events = events + ?, user_id = iif(?13 = '', user_id, ?13)"
                    " WHERE key = ?",
                    jsonFromDictionary(record_), jsonFromDictionary(userAttributes_), jsonFromDictionary(device_),
                    jsonFromDictionary(part("app_info")), jsonFromDictionary(part("sdk_info")),
                    record_["launch_time"].asInt64(), length_, number_, arrived_.time, arrived_.sequence, int(isNew),
                    keptEvents_, userId_, session_)
        .execute();
    if (isNew) addToCounter(database_, kAllSessions, "total", "chunks", 1);
    if (keptEvents_ > 0) addToCounter(database_, kAllSessions, "total", "events", keptEvents_);
  }

  Database& database_;
  const Expectations& expectations_;
  const ArrivedBody& arrived_;
  const std::string& application_;
  const Dictionary body_;
  const Dictionary record_;  // of the session
  const Dictionary details_;
  const Dictionary device_;
  const Dictionary userAttributes_;
  const Dictionary chunkAttributes_;
  const std::string deviceId_;
  const std::string sessionId_;
  const std::string userId_;  // the host's id of its user, empty if there is none
  const std::string id_;
  const std::int64_t number_;
  const std::map<std::string, std::vector<Span>> texts_ = service::elementsOfChunk(arrived_.body);

  std::int64_t session_ = 0;        // key of the session's row
  std::int64_t highestNumber_ = 0;  // of the session's earlier chunks
  std::int64_t firstRequest_ = 0;   // the first one with this chunk id, if the chunk is repeated
  std::int64_t eventsInChunk_ = 0;
  std::int64_t keptEvents_ = 0;  // new rows in the table "events"
  double lastEvent_ = 0;         // time of the chunk's last event, in seconds since the launch
  double length_ = 0;            // of the session, in seconds
  bool duplicate_ = false;       // an earlier chunk has the same id and the same events
  bool conflict_ = false;        // an earlier chunk has the same id and other events
};

}  // namespace

void keepChunk(Database& database, const ArrivedBody& arrived, const std::string& application,
               const Expectations& expectations) {
  ChunkKeeper(database, arrived, application, expectations).keep();
}

void keepUser(Database& database, const ArrivedBody& arrived, const std::string& application) {
  const Dictionary body = dictionaryFromJSON(arrived.body);
  const Dictionary device = body["device_info"].asDictionary().value_or(Dictionary());
  keepUserAttributes(database, application, description(device["id"]),
                     body["user_attributes"].asDictionary().value_or(Dictionary()), arrived.time);
}

}  // namespace kelvo::collector
