#include "kelvo-collector/store/Store.h"

#include <stdexcept>

#include "kelvo-collector/store/Arrival.h"
#include "kelvo-collector/store/Schema.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

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

Store::Store(const std::string& path) : database_(std::make_unique<Database>(path)) {
  const bool made = database_->transaction([&] { database_->run(kSchema); });
  if (!made) throw std::runtime_error("cannot use the store " + path + ": it holds something else");
}

Store::~Store() = default;

bool Store::add(const ReceivedRequest& request, const Accepted& accepted) {
  const std::lock_guard lock(mutex_);
  const bool kept = database_->transaction([&] {
    {
      Database::Query insert(
          *database_, "INSERT INTO requests (time, method, target, headers, status, body) VALUES (?, ?, ?, ?, ?, ?)",
          request.time, request.method, request.query.empty() ? request.path : request.path + "?" + request.query,
          description(request.headers), request.status);
      insert.bindBytes(request.body);
      insert.execute();
    }
    const ArrivedBody arrived{request.body, database_->lastRow(), request.time};
    if (accepted.chunkOf) keepChunk(*database_, arrived, *accepted.chunkOf);
    if (accepted.userOf) keepUser(*database_, arrived, *accepted.userOf);
  });
  if (kept) arrived_.notify_all();
  return kept;
}

bool Store::reset() {
  const std::lock_guard lock(mutex_);
  return database_->transaction([&] { database_->run(kForgetArrivals); });
}

std::vector<ReceivedRequest> Store::requests(const std::string& fragment, std::int64_t after, std::int64_t most) const {
  const std::lock_guard lock(mutex_);
  Database::Query rows(*database_,
                       "SELECT sequence, time, method, target, headers, body, status FROM requests"
                       " WHERE instr(target, ?) > 0 AND sequence > ? ORDER BY sequence LIMIT ?",
                       fragment, after, most);
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

std::vector<ReceivedChunk> Store::chunks(std::int64_t after, std::int64_t most) const {
  const std::lock_guard lock(mutex_);
  Database::Query rows(*database_,
                       "SELECT request, time, application, id, session_id, number, event_counts, duplicate, conflict"
                       " FROM chunks WHERE request > ? ORDER BY request LIMIT ?",
                       after, most);
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
  Database::Query rows(*database_, "SELECT body FROM chunks JOIN requests ON sequence = request ORDER BY request");
  std::vector<Value> bodies;
  while (rows.next()) bodies.push_back(parseJSON(rows.text()).value_or(Value()));
  return bodies;
}

std::size_t Store::count(const char* sql, const std::string& fragment) const {
  Database::Query rows(*database_, sql, fragment);
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

std::optional<std::string> Store::document(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  Database::Query row(*database_, "SELECT body FROM documents WHERE name = ?", name);
  if (!row.next()) return std::nullopt;
  return row.text();
}

bool Store::keepDocument(const std::string& name, const std::string& body) {
  const std::lock_guard lock(mutex_);
  return database_->transaction(
      [&] { Database::Query(*database_, "INSERT OR REPLACE INTO documents VALUES (?, ?)", name, body).execute(); });
}

}  // namespace kelvo::collector
