#include "kelvo-collector/Store.h"

#include <sqlite3.h>

#include <stdexcept>

#include "kelvo-collector/Fingerprint.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS requests (sequence INTEGER PRIMARY KEY, time INTEGER NOT NULL, method TEXT NOT NULL,"
    " target TEXT NOT NULL, headers TEXT NOT NULL, body BLOB NOT NULL, status INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS chunks (request INTEGER PRIMARY KEY REFERENCES requests (sequence),"
    " application TEXT NOT NULL, id TEXT NOT NULL, session TEXT NOT NULL, number INTEGER NOT NULL,"
    " event_counts TEXT NOT NULL, fingerprint TEXT NOT NULL, duplicate INTEGER NOT NULL, conflict INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS chunks_by_id ON chunks (application, id);";

constexpr const char* kEventLists[] = {"system_events", "navigation_events", "app_events", "user_events", "incidents"};

/// The lists of events that a chunk covers. Aggregate counts and attributes are left out: a chunk that is sent again
/// carries those of the later moment.
Dictionary eventsOf(const Dictionary& details) {
  Dictionary events;
  for (const char* list : kEventLists) {
    if (const Value* found = details.find(list)) events.set(list, *found);
  }
  return events;
}

std::string countsOf(const Dictionary& details) {
  Dictionary counts;
  for (const auto& [list, events] : eventsOf(details)) {
    counts.set(list, events.get<Array>() == nullptr ? 0 : events.get<Array>()->size());
  }
  if (const auto* aggregates = details["agg_events"].get<Array>()) counts.set("agg_events", aggregates->size());
  return description(counts);
}

const Dictionary& member(const Dictionary& object, const char* name) {
  static const Dictionary none;
  const auto* found = object[name].get<Dictionary>();
  return found == nullptr ? none : *found;
}

Dictionary dictionaryOf(const std::string& json) {
  const auto value = parseJSON(json);
  const auto* dictionary = value ? value->get<Dictionary>() : nullptr;
  return dictionary == nullptr ? Dictionary{} : *dictionary;
}

}  // namespace

Value ReceivedRequest::json() const {
  return parseJSON(body).value_or(Value());
}

std::string ReceivedRequest::header(std::string_view name) const {
  const auto* text = headers[name].get<std::string>();
  return text == nullptr ? std::string() : *text;
}

/// A prepared statement; parameters are bound and columns are read from left to right.
class Store::Statement {
 public:
  Statement(sqlite3* connection, const char* sql) { sqlite3_prepare_v2(connection, sql, -1, &statement_, nullptr); }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(std::int64_t number) {
    sqlite3_bind_int64(statement_, ++parameter_, number);
    return *this;
  }
  Statement& bind(const std::string& text) {
    sqlite3_bind_text64(statement_, ++parameter_, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    return *this;
  }
  Statement& bindBytes(const std::string& bytes) {
    sqlite3_bind_blob64(statement_, ++parameter_, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
    return *this;
  }

  bool next() {
    column_ = 0;
    return sqlite3_step(statement_) == SQLITE_ROW;
  }
  bool finish() { return sqlite3_step(statement_) == SQLITE_DONE; }

  std::int64_t number() { return sqlite3_column_int64(statement_, column_++); }
  std::string text() {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column_));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column_++));
    return bytes == nullptr ? std::string() : std::string(bytes, size);
  }

 private:
  sqlite3_stmt* statement_ = nullptr;
  int parameter_ = 0;
  int column_ = 0;
};

void Store::Closer::operator()(sqlite3* connection) const noexcept {
  sqlite3_close(connection);
}

Store::Store(const std::string& path) {
  sqlite3* connection = nullptr;
  const int code = sqlite3_open(path.c_str(), &connection);
  connection_.reset(connection);
  if (code != SQLITE_OK || !run(kSchema)) {
    throw std::runtime_error("cannot use the store " + path + ": " + sqlite3_errmsg(connection));
  }
}

Store::~Store() = default;

bool Store::run(const char* sql) const {
  return sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool Store::add(const ReceivedRequest& request, const std::optional<std::string>& chunkOf) {
  const std::lock_guard lock(mutex_);
  if (!run("BEGIN")) return false;
  Statement insert(connection_.get(),
                   "INSERT INTO requests (time, method, target, headers, body, status) VALUES (?, ?, ?, ?, ?, ?)");
  insert.bind(request.time).bind(request.method);
  insert.bind(request.query.empty() ? request.path : request.path + "?" + request.query);
  insert.bind(description(request.headers)).bindBytes(request.body).bind(request.status);
  if (!insert.finish() || (chunkOf && !insertChunk(request, *chunkOf)) || !run("COMMIT")) {
    run("ROLLBACK");
    return false;
  }
  arrived_.notify_all();
  return true;
}

bool Store::insertChunk(const ReceivedRequest& request, const std::string& application) const {
  const Dictionary body = dictionaryOf(request.body);
  const Dictionary& meta = member(body, "chunk_meta");
  const Dictionary& details = member(body, "chunk_details");
  const std::string id = description(meta["id"]);
  const std::string events = fingerprint(eventsOf(details));

  Statement insert(connection_.get(),
                   "INSERT INTO chunks SELECT last_insert_rowid(), ?1, ?2, ?3, ?4, ?5, ?6,"
                   " EXISTS (SELECT 1 FROM chunks WHERE application = ?1 AND id = ?2 AND fingerprint = ?6),"
                   " EXISTS (SELECT 1 FROM chunks WHERE application = ?1 AND id = ?2 AND fingerprint <> ?6)");
  insert.bind(application).bind(id).bind(description(member(body, "session_info")["id"]));
  insert.bind(meta["number"].asInt64()).bind(countsOf(details)).bind(events);
  return insert.finish();
}

std::vector<ReceivedRequest> Store::requests(const std::string& fragment, std::int64_t after) const {
  const std::lock_guard lock(mutex_);
  Statement rows(connection_.get(),
                 "SELECT sequence, time, method, target, headers, body, status FROM requests"
                 " WHERE instr(target, ?) > 0 AND sequence > ? ORDER BY sequence");
  rows.bind(fragment).bind(after);
  std::vector<ReceivedRequest> requests;
  while (rows.next()) {
    ReceivedRequest& request = requests.emplace_back();
    request.sequence = rows.number();
    request.time = rows.number();
    request.method = rows.text();
    request.path = rows.text();
    if (const auto mark = request.path.find('?'); mark != std::string::npos) {
      request.query = request.path.substr(mark + 1);
      request.path.resize(mark);
    }
    request.headers = dictionaryOf(rows.text());
    request.body = rows.text();
    request.status = static_cast<int>(rows.number());
  }
  return requests;
}

std::vector<ReceivedChunk> Store::chunks(std::int64_t after) const {
  const std::lock_guard lock(mutex_);
  Statement rows(connection_.get(),
                 "SELECT request, time, application, id, session, number, event_counts, duplicate, conflict"
                 " FROM chunks JOIN requests ON sequence = request WHERE request > ? ORDER BY request");
  rows.bind(after);
  std::vector<ReceivedChunk> chunks;
  while (rows.next()) {
    ReceivedChunk& chunk = chunks.emplace_back();
    chunk.request = rows.number();
    chunk.time = rows.number();
    chunk.application = rows.text();
    chunk.id = rows.text();
    chunk.session = rows.text();
    chunk.number = rows.number();
    chunk.eventCounts = dictionaryOf(rows.text());
    chunk.duplicate = rows.number() != 0;
    chunk.conflict = rows.number() != 0;
  }
  return chunks;
}

std::vector<Value> Store::chunkBodies() const {
  const std::lock_guard lock(mutex_);
  Statement rows(connection_.get(), "SELECT body FROM chunks JOIN requests ON sequence = request ORDER BY request");
  std::vector<Value> bodies;
  while (rows.next()) bodies.push_back(parseJSON(rows.text()).value_or(Value()));
  return bodies;
}

std::size_t Store::count(const char* sql, const std::string& fragment) const {
  Statement rows(connection_.get(), sql);
  rows.bind(fragment);
  return rows.next() ? static_cast<std::size_t>(rows.number()) : 0;
}

bool Store::waitForRequests(std::size_t wanted, const std::string& fragment, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] {
    return count("SELECT count(*) FROM requests WHERE instr(target, ?) > 0", fragment) >= wanted;
  });
}

bool Store::waitForChunks(std::size_t wanted, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return count("SELECT count(*) FROM chunks", {}) >= wanted; });
}

}  // namespace kelvo::collector
