#include "kelvo-collector/store/Store.h"

#include <stdexcept>

#include "kelvo-collector/store/Arrival.h"
#include "kelvo-collector/store/JSONColumn.h"
#include "kelvo-collector/store/Retention.h"
#include "kelvo-collector/store/Schema.h"
#include "kelvo-collector/store/Verdicts.h"

namespace kelvo::collector {
namespace {

constexpr const char* kExpectations = "expectations";  // name of the document

constexpr const char* kEraseHeader = "x-kelvo-erase";

bool hasColumn(Database& database, const char* name) {
  Database::Query column(database, "SELECT 1 FROM pragma_table_info('sessions') WHERE name = ?", name);
  return column.next();
}

/// Brings the tables of earlier versions to the present form.
void upgrade(Database& database) {
  if (hasColumn(database, "problems")) database.run(kUpgrade);
  if (hasColumn(database, "user_id") && !hasColumn(database, "device_id")) database.run(kUpgradeDevices);
}

/// `erasedAs` is the name of an erased device, empty for other requests.
void insertRequest(Database& database, const ReceivedRequest& request, const std::string& erasedAs) {
  const bool isErased = !erasedAs.empty();
  std::string target = request.query.empty() ? request.path : request.path + "?" + request.query;
  Dictionary headers;
  if (isErased) {
    target = withoutId(std::move(target), request.device.id, erasedAs);
  } else {
    headers = request.headers;
    if (const auto secret = request.header(kEraseHeader); !secret.empty()) {
      headers.set(kEraseHeader, keyedHash(database, secret));
    }
  }
  Database::Query insert(database,
                         "INSERT INTO requests (time, method, target, headers, status, application, device, body)"
                         " VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                         request.time, request.method, target, description(headers), request.status,
                         request.device.application, isErased ? std::string() : request.device.id);
  insert.bindBytes(isErased ? std::string_view() : std::string_view(request.body));
  insert.execute();
}

void putDocument(Database& database, const std::string& name, const std::string& body) {
  Database::Query(database, "INSERT OR REPLACE INTO documents VALUES (?, ?)", name, body).execute();
}

}  // namespace

Value ReceivedRequest::json() const {
  return parseJSON(body).value_or(Value());
}

std::string ReceivedRequest::header(std::string_view name) const {
  return headers[name].asText().value_or("");
}

Store::Store(const std::string& path, std::int64_t mostBytes)
    : mostBytes_(mostBytes), database_(std::make_unique<Database>(path)) {
  Database& database = *database_;
  const bool made = database.transaction([&] {
    upgrade(database);
    database.run(kSchema);
  });
  if (!made) throw std::runtime_error("cannot use the store " + path + ": it holds something else");
  if (mustShrink(database)) database.shrink();
  std::vector<std::string> ignored;
  const auto kept = document(kExpectations);
  const Lock lock(mutex_);
  if (!kept) return;
  const auto expectations = Expectations::parse(parseJSON(*kept).value_or(Value()), ignored);
  if (expectations) expectations_ = std::make_shared<const Expectations>(*expectations);
}

Store::~Store() = default;

bool Store::add(const ReceivedRequest& request, const Accepted& accepted) {
  const Lock lock(mutex_);
  Database& database = *database_;
  const auto expectations = expectations_;
  const bool kept = database.transaction([&] {
    const std::string erasedAs = nameOfErased(database, request.device);
    insertRequest(database, request, erasedAs);
    if (erasedAs.empty()) {
      const ArrivedBody arrived{request.body, database.lastRow(), request.time};
      if (accepted.chunkOf) keepChunk(database, arrived, *accepted.chunkOf, *expectations);
      if (accepted.userOf) keepUser(database, arrived, *accepted.userOf);
      const std::string secret = request.header(kEraseHeader);
      if (!secret.empty() && (accepted.chunkOf || accepted.userOf)) keepSecret(database, request.device, secret);
    }
    forgetOldest(database, mostBytes_);
  });
  if (kept) arrived_.notify_all();
  return kept;
}

std::optional<Erasure> Store::erase(const Device& device, const std::string& secret, std::int64_t time) {
  const Lock lock(mutex_);
  Database& database = *database_;
  Erasure outcome = Erasure::unknownDevice;
  const bool erased = database.transaction([&] {
    outcome = rightToErase(database, device, secret);
    if (outcome == Erasure::done) eraseDevice(database, device, time);
  });
  if (!erased) return std::nullopt;
  if (outcome == Erasure::done) database.shrink();
  return outcome;
}

bool Store::reset() {
  const Lock lock(mutex_);
  Database& database = *database_;
  if (!database.transaction([&] { database.run(kForgetArrivals); })) return false;
  database.shrink();
  return true;
}

bool Store::expect(const Expectations& expectations, const std::string& document) {
  const Lock lock(mutex_);
  Database& database = *database_;
  const bool kept = database.transaction([&] {
    putDocument(database, kExpectations, document);
    judgeAgain(database, expectations);
  });
  if (kept) expectations_ = std::make_shared<const Expectations>(expectations);
  return kept;
}

std::vector<ReceivedRequest> Store::requests(const std::string& fragment, std::int64_t after, std::int64_t most) const {
  const Lock lock(mutex_);
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
    request.headers = dictionaryFromJSON(rows.text());
    request.body = rows.text();
    request.status = static_cast<int>(rows.number());
  }
  return requests;
}

std::vector<ReceivedChunk> Store::chunks(std::int64_t after, std::int64_t most) const {
  const Lock lock(mutex_);
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
    chunk.eventCounts = dictionaryFromJSON(rows.text());
    chunk.duplicate = rows.number() != 0;
    chunk.conflict = rows.number() != 0;
  }
  return chunks;
}

std::vector<Value> Store::chunkBodies() const {
  const Lock lock(mutex_);
  Database::Query rows(*database_, "SELECT body FROM chunks JOIN requests ON sequence = request ORDER BY request");
  std::vector<Value> bodies;
  while (rows.next()) bodies.push_back(parseJSON(rows.text()).value_or(Value()));
  return bodies;
}

std::size_t Store::count(const char* sql, const std::string& fragment) const {
  Database::Query rows(*database_, sql, fragment);
  return rows.next() ? static_cast<std::size_t>(rows.number()) : 0;
}

bool Store::waitForCount(std::size_t wanted, const char* sql, const std::string& fragment,
                         std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  Lock lock(mutex_);
  while (count(sql, fragment) < wanted) {
    if (!lock.waitUntil(arrived_, deadline)) return count(sql, fragment) >= wanted;
  }
  return true;
}

bool Store::waitForRequests(std::size_t wanted, const std::string& fragment, std::chrono::milliseconds timeout) const {
  return waitForCount(wanted, "SELECT count(*) FROM requests WHERE instr(target, ?) > 0", fragment, timeout);
}

bool Store::waitForChunks(std::size_t wanted, std::chrono::milliseconds timeout) const {
  return waitForCount(wanted, "SELECT count(*) FROM chunks", {}, timeout);
}

std::optional<std::string> Store::document(const std::string& name) const {
  const Lock lock(mutex_);
  Database::Query row(*database_, "SELECT body FROM documents WHERE name = ?", name);
  if (!row.next()) return std::nullopt;
  return row.text();
}

bool Store::keepDocument(const std::string& name, const std::string& body) {
  const Lock lock(mutex_);
  Database& database = *database_;
  return database.transaction([&] { putDocument(database, name, body); });
}

}  // namespace kelvo::collector
