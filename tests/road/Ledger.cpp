#include "road/Ledger.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <utility>

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

constexpr int kNames = 4;  // few, so that their lifetime counts grow
const char* const kWords[] = {"app", "aggregate", "incident"};

Texts split(const std::string& row) {
  Texts columns;
  std::istringstream text(row);
  for (std::string column; std::getline(text, column, '|');) columns.push_back(column);
  columns.resize(std::max<std::size_t>(columns.size(), 6));
  return columns;
}

int toNumber(const std::string& text) {
  return text.empty() ? 0 : std::stoi(text);
}

/// Returns the numbers of the calls in a rescue file, where attributes are JSON in JSON: \"n\":17.
std::set<int> callsIn(const std::string& text) {
  std::set<int> calls;
  for (const std::string attribute : {R"("n\":)", R"("n":)"}) {
    for (auto place = text.find(attribute); place != std::string::npos; place = text.find(attribute, place + 1)) {
      calls.insert(std::atoi(text.c_str() + place + attribute.size()));
    }
  }
  return calls;
}

std::string brief(const std::string& session) {
  return session.substr(0, session.find('-'));
}

/// Returns the event's key as `Ledger::Row` has it, for an upload form in the list `list` of a chunk.
std::string keyOf(std::string_view list, const Value& event) {
  if (list == "app_events") return "App " + description(at(event, {"name"}));
  if (list == "system_events") return "System " + description(at(event, {"name"}));
  if (list == "navigation_events") return "Navigation " + description(at(event, {"navigation_id"}));
  return "KLVCustomError " + description(at(event, {"incident_type"}));
}

int callOf(std::string_view list, const Value& event) {
  const Value number =
      list == "incidents" ? at(event, {"incident_specific_details", "n"}) : at(event, {"additional_info", "n"});
  return number.isNull() ? 0 : static_cast<int>(number.asInt64());
}

}  // namespace

struct Ledger::Arrivals {
  struct Chunk {
    std::string session;
    long number = 0;
    std::vector<std::pair<std::string, int>> events;  // key and call
  };
  std::map<std::string, Chunk> chunks;                            // by id
  std::map<int, std::vector<std::string>> calls;                  // call to chunk ids, once for each time it is in one
  std::map<int, std::map<std::string, long>> aggregates;          // call to session to the greatest count
  std::map<std::pair<std::string, std::string>, long> ownEvents;  // session and key to number
};

Findings& Findings::operator+=(const Findings& other) {
  stored += other.stored;
  delivered += other.delivered;
  lost += other.lost;
  doubled += other.doubled;
  wrong += other.wrong;
  miscounted += other.miscounted;
  ledger += other.ledger;
  waiting += other.waiting;
  uncut += other.uncut;
  for (const auto& [what, which] : other.faults) {
    auto& all = faults[what];
    all.insert(all.end(), which.begin(), which.end());
  }
  return *this;
}

std::string Findings::story() const {
  std::string text;
  for (const auto& [what, which] : faults) {
    text += "  " + what + ": " + std::to_string(which.size()) + "x";
    for (std::size_t i = 0; i < std::min<std::size_t>(which.size(), 12); ++i) text += " " + which[i];
    text += which.size() > 12 ? " ...\n" : "\n";
  }
  return text;
}

std::string Ledger::newCall(Kind kind, int launch, std::size_t padding) {
  const int number = static_cast<int>(calls_.size());
  const std::string name = kWords[static_cast<int>(kind)] + std::to_string(number % kNames);
  calls_.push_back({kind, name, launch});
  const std::string pad = padding > 0 ? R"(, "pad": ")" + std::string(padding, 'x') + '"' : "";
  const std::string info = R"("info": {"n": )" + std::to_string(number) + pad + "}";
  if (kind == Kind::incident) return R"({"call": "reportCustomError", "error": ")" + name + "\", " + info + "}";
  return R"({"name": ")" + name + "\", " + info + (kind == Kind::aggregate ? R"(, "isAggregate": true})" : "}");
}

void Ledger::noteReturned(const std::vector<int>& calls) {
  for (const int number : calls) calls_[static_cast<std::size_t>(number)].isSafe = true;
}

void Ledger::readHome(const std::string& home, int launch) {
  const std::string file = home + "/copy.sqlite",
                    original = home + "/Documents/kelvo-db/v1.0.0/com.kelvo.sessions.sqlite";
  for (const char* part : {"", "-wal"}) {
    fs::remove(file + part);
    if (fs::exists(original + part)) fs::copy_file(original + part, file + part);
  }
  for (auto& [id, session] : sessions_) session.isKept = false;
  const Texts check = queried(file, "pragma integrity_check");
  for (const auto& id :
       queried(file, "select substr(name, 8) from sqlite_master where name like 'events\\_%' escape '\\'")) {
    readSession(file, id, launch);
  }
  keptChunks_.clear();
  for (const auto& row : queried(file, "select id, sid, cid, start, end, status from chunkmeta")) {
    const Texts columns = split(row);
    if (columns[1].empty()) continue;  // an error: the table does not exist yet
    chunkRows_[columns[0]] = {columns[1], std::stol(columns[2]), std::stol(columns[3]), std::stol(columns[4]),
                              columns[5]};
    keptChunks_.insert(columns[0]);
  }
  for (const auto& row : queried(file, "select attr_value, sid, e_count from aggregate_events where attr_key = 'n'")) {
    const Texts columns = split(row);
    if (!columns[1].empty()) aggregates_[toNumber(columns[0])][columns[1]] = std::stol(columns[2]);
  }
  lifetimes_.clear();
  for (const auto& row : queried(file, "select name, count from lifetime_events")) {
    const Texts columns = split(row);
    lifetimes_[columns[0]] = toNumber(columns[1]);
  }
  keptInFiles_.clear();
  if (!fs::exists(home + "/Library")) return;
  for (const auto& entry : fs::directory_iterator(home + "/Library")) {
    if (entry.path().filename().string().rfind("com.kelvo.db.eventsbuffer", 0) != 0) continue;
    for (const int call : callsIn(contentOf(entry.path()))) {
      keptInFiles_.insert(call);
      rescued_.emplace(call, launch);
    }
  }
}

void Ledger::readSession(const std::string& file, const std::string& id, int launch) {
  Session& session = sessions_[id];
  session.isKept = true;
  const std::string info = "iif(json_valid(__additional_info__), __additional_info__, '{}')";
  const std::string number =
      "coalesce(json_extract(" + info + ", '$.__custom_info__.n'), json_extract(" + info + ", '$.n'))";
  for (const auto& row : queried(file, "select identifier, type, id, " + number + " from 'events_" + id + "'")) {
    const Texts columns = split(row);
    const int call = toNumber(columns[3]);
    const long index = std::stol(columns[0]);
    const bool isSent = columns[1] != "Client" && columns[1] != "Agg";
    const Row read{call > 0 ? "" : columns[1] + " " + columns[2], call, launch, isSent};
    if (session.rows.emplace(index, read).second && call > 0) rowsOfCalls_[call].emplace_back(id, index);
  }
}

void Ledger::compareLibrarys(const std::string& home, const std::vector<Value>& chunks, int launch) {
  const std::string file = home + "/copy.sqlite";
  if (queried(file, "select name from sqlite_master where name = 'kelvo_ledger'") != Texts{"kelvo_ledger"}) return;
  std::map<std::string, long> sums;
  for (const auto& row : queried(file, "select entry, total from kelvo_ledger")) {
    sums[split(row)[0]] = std::stol(split(row)[1]);
  }
  notStored_ = sums["notStored"];
  const Arrivals arrivals = read(chunks, librarys_);
  std::map<std::string, long> expected;
  for (const auto& [id, chunk] : arrivals.chunks) {
    // A session is purged once all its chunks are accepted. Under `complete`, a chunk's row may leave before.
    const auto session = sessions_.find(chunk.session);
    const bool isKept = session != sessions_.end() && session->second.isKept && keptChunks_.count(id) > 0;
    if (!isKept || chunkRows_.at(id).status == "1") expected["accepted"] += static_cast<long>(chunk.events.size());
  }
  for (const auto& [id, session] : sessions_) {
    if (!session.isKept) continue;
    expected["waiting"] +=
        toNumber(queried(file, "select count(*) from 'events_" + id +
                                   "' e where type not in ('Client', 'Agg') and not exists (select 1 from "
                                   "chunkmeta c where sid = '" +
                                   id + "' and status = 1 and e.identifier between c.start and c.end)")[0]);
  }
  // A row of an aggregate event may also leave before a copy was made. Each such event has one of two outcomes.
  std::set<int> ofAggregates;
  for (const auto* all : {&std::as_const(aggregates_), &arrivals.aggregates}) {
    for (const auto& [call, counts] : *all) ofAggregates.insert(call);
  }
  for (const auto& [call, rows] : rowsOfCalls_) {
    if (calls_[static_cast<std::size_t>(call)].kind == Kind::aggregate) ofAggregates.insert(call);
  }
  expected["aggregates"] = static_cast<long>(ofAggregates.size());
  expected["logged"] =
      expected["accepted"] + expected["waiting"] + expected["aggregates"] + sums["forPlugins"] + sums["notStored"];
  sums["aggregates"] = sums["counted"] + sums["notForUpload"];
  sums["waiting"] = sums["stored"] - sums["notForUpload"] - sums["accepted"];
  for (const char* entry : {"aggregates", "accepted", "waiting", "logged", "lost", "evictedForSpace", "evictedForAge",
                            "refusedDisabled", "refusedNameless", "ignored"}) {
    const long difference = std::abs(sums[entry] - expected[entry]);
    if (difference == 0) continue;
    librarys_.ledger += difference;
    librarys_.faults["the library's ledger, " + std::string(entry)].push_back(
        std::to_string(sums[entry]) + " instead of " + std::to_string(expected[entry]) + " after launch " +
        std::to_string(launch));
  }
}

Ledger::Arrivals Ledger::read(const std::vector<Value>& chunks, Findings& found) {
  Arrivals arrivals;
  for (const Value& body : chunks) {
    const std::string id = description(at(body, {"chunk_meta", "id"}));
    Arrivals::Chunk chunk{id.substr(0, id.rfind('_')), at(body, {"chunk_meta", "number"}).asInt64(), {}};
    for (const char* list : {"app_events", "system_events", "navigation_events", "incidents"}) {
      const Value events = at(body, {"chunk_details", list});
      if (events.isNull()) continue;
      for (const Value& event : *events.get<Array>()) {
        const int call = callOf(list, event);
        chunk.events.emplace_back(call > 0 ? "" : keyOf(list, event), call);
      }
    }
    const Value counts = at(body, {"chunk_details", "agg_events"});
    for (const Value& aggregate : *counts.get<Array>()) {
      const Value values = at(aggregate, {"attributes", "n"});
      if (values.isNull()) continue;
      for (const Value& pair : *values.get<Array>()) {
        long& greatest = arrivals.aggregates[toNumber(description((*pair.get<Array>())[0]))][chunk.session];
        greatest = std::max<long>(greatest, (*pair.get<Array>())[1].asInt64());
      }
    }
    const auto [earlier, isNew] = arrivals.chunks.emplace(id, chunk);
    if (!isNew) {
      if (earlier->second.events == chunk.events) continue;
      ++found.wrong;
      found.faults["a chunk arrived with two contents"].push_back(id);
      continue;
    }
    for (const auto& [key, call] : chunk.events) {
      if (call > 0) {
        arrivals.calls[call].push_back(id);
      } else {
        ++arrivals.ownEvents[{chunk.session, key}];
      }
    }
  }
  return arrivals;
}

Findings Ledger::compare(const std::vector<Value>& chunks, bool complete) const {
  Findings found = librarys_;
  found.wrong += static_cast<long>(damage_.size());
  if (!damage_.empty()) found.faults["damaged database"] = damage_;
  const Arrivals arrivals = read(chunks, found);
  compareCalls(arrivals, complete, found);
  compareOwnEvents(arrivals, complete, found);
  compareChunks(arrivals, found);
  compareOrder(arrivals, found);
  compareCounts(arrivals, found);
  if (complete && notStored_ > 0) {
    found.ledger += notStored_;
    found.faults["the library's ledger, notStored"].push_back(std::to_string(notStored_));
  }
  return found;
}

Ledger::Fate Ledger::fateOf(int number, const Arrivals& arrivals) const {
  Fate fate;
  const Call& call = calls_[static_cast<std::size_t>(number)];
  fate.story = std::string(kWords[static_cast<int>(call.kind)]) + " of launch " + std::to_string(call.launch);
  fate.isStored = call.isSafe;
  if (call.isSafe) fate.story += ", returned";
  if (const auto file = rescued_.find(number); file != rescued_.end()) {
    fate.isStored = true;
    fate.isKept = keptInFiles_.count(number) > 0;
    fate.story += ", in a rescue file after launch " + std::to_string(file->second);
  }
  const auto rows = rowsOfCalls_.find(number);
  if (call.kind == Kind::aggregate) {
    fate.isStored = fate.isStored || rows != rowsOfCalls_.end();
    if (const auto counted = aggregates_.find(number); counted != aggregates_.end()) {
      fate.isStored = true;
      for (const auto& [session, count] : counted->second) {
        fate.times += count;
        fate.story += ", counted " + std::to_string(count) + "x in session " + brief(session);
      }
    }
    fate.hasArrived = arrivals.aggregates.count(number) > 0;
    return fate;
  }
  if (rows != rowsOfCalls_.end()) {
    fate.isStored = true;
    fate.times = static_cast<long>(rows->second.size());
    for (const auto& [session, index] : rows->second) {
      fate.isKept = fate.isKept || sessions_.at(session).isKept;
      fate.story += ", " + whereabouts(session, index);
    }
  }
  if (const auto arrived = arrivals.calls.find(number); arrived != arrivals.calls.end()) {
    fate.hasArrived = true;
    fate.times = std::max(fate.times, static_cast<long>(arrived->second.size()));
  }
  return fate;
}

void Ledger::compareCalls(const Arrivals& arrivals, bool complete, Findings& found) const {
  for (int number = 1; number < static_cast<int>(calls_.size()); ++number) {
    const Fate fate = fateOf(number, arrivals);
    found.stored += fate.isStored || fate.hasArrived ? 1 : 0;
    found.delivered += fate.hasArrived ? 1 : 0;
    if (fate.times > 1) {
      ++found.doubled;
      found.faults["doubled: " + fate.story].push_back(std::to_string(number));
    }
    if (!fate.isStored || fate.hasArrived) continue;
    const bool isAggregate = calls_[static_cast<std::size_t>(number)].kind == Kind::aggregate;
    if (!complete && (fate.isKept || isAggregate)) {
      ++(fate.isKept ? found.waiting : found.uncut);
    } else {
      ++found.lost;
      found.faults[(fate.isKept ? "waits: " : "lost: ") + fate.story].push_back(std::to_string(number));
    }
  }
}

void Ledger::compareOwnEvents(const Arrivals& arrivals, bool complete, Findings& found) const {
  for (const auto& [id, session] : sessions_) {
    std::map<std::string, std::vector<long>> stored;  // key to indices
    for (const auto& [index, row] : session.rows) {
      if (row.call == 0 && row.isSent) stored[row.key].push_back(index);
    }
    for (const auto& [key, indices] : stored) {
      const long expected = static_cast<long>(indices.size());
      const auto arrived = arrivals.ownEvents.find({id, key});
      const long times = arrived == arrivals.ownEvents.end() ? 0 : arrived->second;
      found.stored += expected;
      found.delivered += std::min(expected, times);
      if (times == expected || (times > expected && !sawAllRowsOf(id, arrivals))) continue;
      const bool waits = times < expected && session.isKept;
      (times > expected     ? found.doubled
       : waits && !complete ? found.waiting
                            : found.lost) += std::abs(expected - times);
      if (waits && !complete) continue;
      const std::string what = times > expected ? "doubled: " : waits ? "waits: " : "lost: ";
      found.faults[what + whereabouts(id, indices.back())].push_back(key + " (stored " + std::to_string(expected) +
                                                                     ", arrived " + std::to_string(times) + ")");
    }
  }
}

/// Under `complete`, accepted events leave the database, perhaps before the ledger could read it.
bool Ledger::sawAllRowsOf(const std::string& id, const Arrivals& arrivals) const {
  const auto& rows = sessions_.at(id).rows;
  return std::all_of(arrivals.chunks.begin(), arrivals.chunks.end(), [&](const auto& arrived) {
    if (arrived.second.session != id) return true;
    const auto row = chunkRows_.find(arrived.first);
    if (row == chunkRows_.end()) return false;
    const auto [first, last] = std::pair(rows.lower_bound(row->second.start), rows.upper_bound(row->second.end));
    return std::distance(first, last) == row->second.end - row->second.start + 1;
  });
}

void Ledger::compareChunks(const Arrivals& arrivals, Findings& found) const {
  for (const auto& [id, chunk] : chunkRows_) {
    const auto arrived = arrivals.chunks.find(id);
    const auto session = sessions_.find(chunk.session);
    if (arrived == arrivals.chunks.end() || session == sessions_.end()) continue;
    std::multiset<std::pair<std::string, int>> expected;
    const auto& rows = session->second.rows;
    long known = 0;
    for (auto row = rows.lower_bound(chunk.start); row != rows.end() && row->first <= chunk.end; ++row, ++known) {
      if (row->second.isSent) expected.emplace(row->second.key, row->second.call);
    }
    if (known != chunk.end - chunk.start + 1) continue;  // purged before the ledger could read them all
    const auto& events = arrived->second.events;
    if (expected == std::multiset<std::pair<std::string, int>>(events.begin(), events.end())) continue;
    ++found.wrong;
    found
        .faults["a chunk arrived with other events than its " + std::to_string(expected.size()) + " rows, with " +
                std::to_string(events.size())]
        .push_back(id);
  }
}

/// Calls of one launch keep their order within a session.
void Ledger::compareOrder(const Arrivals& arrivals, Findings& found) const {
  std::map<std::pair<std::string, long>, const Arrivals::Chunk*> inOrder;
  for (const auto& [id, chunk] : arrivals.chunks) inOrder[{chunk.session, chunk.number}] = &chunk;
  std::map<std::pair<std::string, int>, int> last;  // session and launch to call
  for (const auto& [place, chunk] : inOrder) {
    for (const auto& [key, number] : chunk->events) {
      if (number == 0 || calls_[static_cast<std::size_t>(number)].kind != Kind::app) continue;
      int& before = last[{place.first, calls_[static_cast<std::size_t>(number)].launch}];
      if (number < before) {
        ++found.wrong;
        found.faults["after a later call, in session " + brief(place.first)].push_back(std::to_string(number));
      }
      before = std::max(before, number);
    }
  }
}

void Ledger::compareCounts(const Arrivals& arrivals, Findings& found) const {
  std::map<std::string, std::set<int>> stored;  // name to calls
  for (const auto& [number, rows] : rowsOfCalls_) stored[calls_[static_cast<std::size_t>(number)].name].insert(number);
  for (const auto& [number, chunks] : arrivals.calls)
    stored[calls_[static_cast<std::size_t>(number)].name].insert(number);
  for (int i = 0; i < kNames; ++i) {
    const std::string name = kWords[0] + std::to_string(i);
    const auto counted = lifetimes_.find(name);
    const long count = counted == lifetimes_.end() ? 0 : counted->second;
    const long expected = static_cast<long>(stored[name].size());
    if (count == expected) continue;
    found.miscounted += std::abs(count - expected);
    found.faults["lifetime count"].push_back(name + " is " + std::to_string(count) + ", stored are " +
                                             std::to_string(expected));
  }
}

std::string Ledger::whereabouts(const std::string& id, long index) const {
  const Session& session = sessions_.at(id);
  std::string text = "session " + brief(id) + " of " + std::to_string(session.rows.rbegin()->first) +
                     " rows, seen after launch " + std::to_string(session.rows.at(index).seen);
  for (const auto& [name, chunk] : chunkRows_) {
    if (chunk.session != id || index < chunk.start || index > chunk.end) continue;
    text += ", chunk " + std::to_string(chunk.number) + " (" + std::to_string(chunk.start) + "-" +
            std::to_string(chunk.end) + (chunk.status == "1" ? ", accepted)" : ", not accepted)");
  }
  return text + (session.isKept ? "" : ", purged");
}

}  // namespace kelvo::test
