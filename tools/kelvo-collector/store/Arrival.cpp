#include "kelvo-collector/store/Arrival.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/EventText.h"
#include "kelvo-collector/store/Fingerprint.h"
#include "kelvo-collector/store/Quality.h"
#include "kelvo-collector/store/Tally.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

/// One list of "chunk_details": what its events are called, and where they say what.
struct Kind {
  const char* list;
  const char* kind;
  const char* name;
  const char* time;
  const char* attributes;  ///< the member that holds them; null when they are the event's other members
};

constexpr Kind kKinds[] = {
    {"system_events", "system", "name", "time", nullptr},
    {"navigation_events", "navigation", "name", "transition_time", nullptr},
    {"app_events", "app", "name", "time", "additional_info"},
    {"user_events", "user", "id", "time", nullptr},
    {"incidents", "observation", "incident_id", "time_of_occurrence", "incident_specific_details"}};
constexpr const char* kAggregates = "agg_events";
constexpr double kLatestSecond = 1e9;  // a point beyond it is drawn there

Dictionary dictionaryOf(const std::string& json) {
  const auto value = parseJSON(json);
  const auto* dictionary = value ? value->get<Dictionary>() : nullptr;
  return dictionary == nullptr ? Dictionary{} : *dictionary;
}

const Dictionary& member(const Dictionary& object, const char* name) {
  static const Dictionary none;
  const auto* found = object[name].get<Dictionary>();
  return found == nullptr ? none : *found;
}

const Array& listOf(const Dictionary& object, const char* name) {
  static const Array none;
  const auto* found = object[name].get<Array>();
  return found == nullptr ? none : *found;
}

std::string json(const Dictionary& dictionary) {
  return jsonText(dictionary).value_or("{}");
}

Dictionary attributesOf(const Dictionary& event, const Kind& kind) {
  if (kind.attributes != nullptr) return member(event, kind.attributes);
  Dictionary others = event;
  others.remove(kind.name);
  others.remove(kind.time);
  return others;
}

/// Names of the members that one has and the other has not, or has otherwise.
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
      before = dictionaryOf(known.text());
    }
  }
  const bool isNew = user == 0;
  const Array changed = changesBetween(before, attributes);
  if (isNew) {
    Database::Query(database, "INSERT INTO users VALUES (NULL, ?, ?, ?, ?)", application, id, json(attributes), time)
        .execute();
    user = database.lastRow();
  } else {
    Database::Query(database, "UPDATE users SET attributes = ?, received = ? WHERE key = ?", json(attributes), time,
                    user)
        .execute();
  }
  if (!isNew && changed.empty()) return;
  Database::Query(database, "INSERT INTO user_history VALUES (NULL, ?, ?, ?, ?)", user, time, json(attributes),
                  jsonText(changed).value_or("[]"))
      .execute();
}

/// Keeps one chunk.
class ChunkKeeper {
 public:
  ChunkKeeper(Database& database, const ArrivedBody& arrived, const std::string& application)
      : database_(database),
        arrived_(arrived),
        application_(application),
        body_(dictionaryOf(arrived.body)),
        record_(member(body_, "session_info")),
        details_(member(body_, "chunk_details")),
        number_(member(body_, "chunk_meta")["number"].asInt64()) {}

  void keep() {
    keepSession();
    keepRow();
    Quality quality(database_, session_, number_, arrived_.time);
    Tally tally(database_, session_);
    if (conflict_) quality.reportConflict(id(), firstRequest_, arrived_.sequence);
    if (!conflict_ && !duplicate_) {
      quality.checkOrder(highest_);
      quality.checkSession(record_);
      for (const Kind& kind : kKinds) keepEvents(kind, quality, tally);
    }
    if (!conflict_) keepAggregates(quality, tally);
    tally.write(quality);
    finishSession();
    keepUserAttributes(database_, application_, description(member(body_, "device_info")["id"]),
                       member(details_, "user_attributes"), arrived_.time);
  }

 private:
  [[nodiscard]] std::string id() const { return description(member(body_, "chunk_meta")["id"]); }

  void keepSession() {
    const std::string sessionId = description(record_["id"]);
    {
      Database::Query known(database_, "SELECT key, highest_chunk FROM sessions WHERE id = ? AND application = ?",
                            sessionId, application_);
      if (known.next()) {
        session_ = known.number();
        highest_ = known.number();
      }
    }
    if (session_ == 0) {
      Database::Query(database_, "INSERT INTO sessions VALUES (NULL, ?, ?, '', '', '', '', '', ?, 0, 0, ?, ?, 0, 0, 0)",
                      application_, sessionId, record_["launch_time"].asInt64(), arrived_.time, arrived_.sequence)
          .execute();
      session_ = database_.lastRow();
      addToCounter(database_, 0, "total", "sessions", 1);
    }
  }

  /// The lists of events that the chunk covers. Aggregate counts and attributes are left out: a chunk that is sent
  /// again carries those of the later moment.
  void keepRow() {
    Dictionary covered, counts;
    for (const Kind& kind : kKinds) {
      const Value* list = details_.find(kind.list);
      if (list == nullptr) continue;
      covered.set(kind.list, *list);
      counts.set(kind.list, listOf(details_, kind.list).size());
      for (const Value& event : listOf(details_, kind.list)) {
        if (const auto* members = event.get<Dictionary>()) lastEvent_ = std::max(lastEvent_, timeOf(*members, kind));
        ++covers_;
      }
    }
    if (details_.contains(kAggregates)) counts.set(kAggregates, listOf(details_, kAggregates).size());
    const std::string events = fingerprint(covered);
    {
      Database::Query earlier(database_,
                              "SELECT min(request), max(fingerprint = ?), max(fingerprint <> ?) FROM chunks"
                              " WHERE application = ? AND id = ?",
                              events, events, application_, id());
      if (earlier.next()) {
        firstRequest_ = earlier.number();
        duplicate_ = earlier.number() != 0;
        conflict_ = earlier.number() != 0;
      }
    }
    Database::Query(database_, "INSERT INTO chunks VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", arrived_.sequence,
                    arrived_.time, application_, id(), session_, description(record_["id"]), number_, json(counts),
                    covers_, lastEvent_, events, int(duplicate_), int(conflict_))
        .execute();
  }

  static double timeOf(const Dictionary& event, const Kind& kind) {
    const double time = event[kind.time].asDouble();
    return std::isfinite(time) ? std::clamp(time, -kLatestSecond, kLatestSecond) : 0;
  }

  std::int64_t insertEvent(const char* kind, const std::string& name, double time, const Dictionary& attributes,
                           const Span& text) {
    Database::Query(database_, "INSERT INTO events VALUES (NULL, ?, ?, ?, ?, ?, ?, ?, ?, ?)", session_, number_,
                    arrived_.sequence, kind, name, time, json(attributes), text.position, text.size)
        .execute();
    ++kept_;
    return database_.lastRow();
  }

  [[nodiscard]] Span textOf(const char* list, std::size_t index) {
    const std::vector<Span>& all = texts_[list];
    return index < all.size() ? all[index] : Span{};
  }

  void keepEvents(const Kind& kind, Quality& quality, Tally& tally) {
    const Array& events = listOf(details_, kind.list);
    for (std::size_t i = 0; i < events.size(); ++i) {
      const auto* event = events[i].get<Dictionary>();
      if (event == nullptr) continue;
      const std::string name = description((*event)[kind.name]);
      const double time = timeOf(*event, kind);
      const Dictionary attributes = attributesOf(*event, kind);
      const std::int64_t id = insertEvent(kind.kind, name, time, attributes, textOf(kind.list, i));
      const double duration = std::string_view(kind.kind) == "navigation" ? (*event)["duration"].asDouble() : 0;
      length_ = std::max({length_, time, std::min(time + duration, kLatestSecond)});
      tally.addName(kind.kind, name, 1, id);
      if (std::string_view(kind.kind) != "navigation") {
        tally.addPoint(static_cast<std::int64_t>(std::floor(time)), kind.kind, name);
      }
      quality.checkEvent(kind.kind, name, *event, id);
      if (std::string_view(kind.kind) != "app") continue;
      for (const auto& [attribute, value] : attributes) tally.addValue(kind.kind, name, attribute, value, 1, id);
    }
  }

  /// Every chunk carries the counts of the whole session so far: what is kept is the newest, what is added is the
  /// difference.
  void keepAggregates(Quality& quality, Tally& tally) {
    const Array& events = listOf(details_, kAggregates);
    for (std::size_t i = 0; i < events.size(); ++i) {
      const auto* event = events[i].get<Dictionary>();
      if (event == nullptr) continue;
      const std::string name = description((*event)["name"]);
      const Dictionary& attributes = member(*event, "attributes");
      std::int64_t row = 0;
      {
        Database::Query known(database_, "SELECT id FROM events WHERE session = ? AND name = ? AND kind = 'aggregate'",
                              session_, name);
        if (known.next()) row = known.number();
      }
      const Span text = textOf(kAggregates, i);
      if (row == 0) {
        row = insertEvent("aggregate", name, lastEvent_, attributes, text);
        quality.checkEvent("aggregate", name, *event, row);
      } else {
        Database::Query(database_,
                        "UPDATE events SET chunk = ?, request = ?, time = ?, attributes = ?, position = ?, size = ?"
                        " WHERE id = ?",
                        number_, arrived_.sequence, lastEvent_, json(attributes), text.position, text.size, row)
            .execute();
      }
      addDifference(name, (*event)["count"].asInt64(), attributes, row, tally);
    }
  }

  void addDifference(const std::string& name, std::int64_t count, const Dictionary& attributes, std::int64_t row,
                     Tally& tally) {
    std::int64_t before = 0;
    {
      Database::Query known(database_, "SELECT count FROM names WHERE session = ? AND kind = 'aggregate' AND name = ?",
                            session_, name);
      if (known.next()) before = known.number();
    }
    if (count > before) tally.addName("aggregate", name, count - before, row);
    for (const auto& [attribute, values] : attributes) {
      for (const Value& value : listOf(attributes, attribute.c_str())) {
        const auto* pair = value.get<Array>();
        if (pair == nullptr || pair->size() != 2) continue;
        const std::int64_t more = (*pair)[1].asInt64() - tally.countedSoFar("aggregate", name, attribute, (*pair)[0]);
        if (more > 0) tally.addValue("aggregate", name, attribute, (*pair)[0], more, row);
      }
    }
  }

  void finishSession() {
    const bool isNew = !duplicate_ && !conflict_;
    const double reported = std::max(record_["duration"].asDouble(), record_["total_duration"].asDouble());
    length_ = std::max(length_, std::min(reported, kLatestSecond));
    Database::Query(database_,
                    "UPDATE sessions SET record = ?, user = ?, device = ?, app = ?, sdk = ?, launch = ?,"
                    " length = max(length, ?), highest_chunk = max(highest_chunk, ?), received = ?, sequence = ?,"
                    " chunks = chunks + ?, events = events + ? WHERE key = ?",
                    json(record_), json(member(details_, "user_attributes")), json(member(body_, "device_info")),
                    json(member(body_, "app_info")), json(member(body_, "sdk_info")), record_["launch_time"].asInt64(),
                    length_, number_, arrived_.time, arrived_.sequence, int(isNew), kept_, session_)
        .execute();
    if (isNew) addToCounter(database_, 0, "total", "chunks", 1);
    if (kept_ > 0) addToCounter(database_, 0, "total", "events", kept_);
  }

  Database& database_;
  const ArrivedBody& arrived_;
  const std::string& application_;
  const Dictionary body_;
  const Dictionary& record_;
  const Dictionary& details_;
  const std::int64_t number_;
  std::map<std::string, std::vector<Span>> texts_ = elementsOfChunk(arrived_.body);

  std::int64_t session_ = 0;
  std::int64_t highest_ = 0;
  std::int64_t firstRequest_ = 0;
  std::int64_t covers_ = 0;  // events in the chunk
  std::int64_t kept_ = 0;    // rows made of it
  double lastEvent_ = 0;
  double length_ = 0;
  bool duplicate_ = false;
  bool conflict_ = false;
};

}  // namespace

void keepChunk(Database& database, const ArrivedBody& arrived, const std::string& application) {
  ChunkKeeper(database, arrived, application).keep();
}

void keepUser(Database& database, const ArrivedBody& arrived, const std::string& application) {
  const Dictionary body = dictionaryOf(arrived.body);
  keepUserAttributes(database, application, description(member(body, "device_info")["id"]),
                     member(body, "user_attributes"), arrived.time);
}

}  // namespace kelvo::collector
